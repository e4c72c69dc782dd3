# The benchmarks of the Java side and the soak, a jar of its own that finds all it needs by its manifest.

find_required_jars(guava guava error-prone-annotations)

list(JOIN guava " " guava_jars)
file(CONFIGURE OUTPUT bench-manifest.txt CONTENT "Class-Path: skiplist-replay.jar ${guava_jars}\nEnable-Native-Access: ALL-UNNAMED\n")
find_sources(benchmarks src/bench/java/stor/device/bench)
add_jar(skiplist-java-bench
  SOURCES ${benchmarks}
  INCLUDE_JARS skiplist-native skiplist-store skiplist-replay ${netty} ${histogram} ${guava}
  MANIFEST ${CMAKE_CURRENT_BINARY_DIR}/bench-manifest.txt
  OUTPUT_DIR ${CMAKE_BINARY_DIR})
