# Tests in a real JVM, with real Netty buffers.

find_required_jars(junit_api
  apiguardian-api junit-jupiter-api junit-jupiter-params junit-platform-commons opentest4j)
find_required_jars(junit_launcher
  junit-jupiter-engine junit-platform-console junit-platform-engine junit-platform-launcher
  junit-platform-reporting opentest4j-reporting-events opentest4j-reporting-schema picocli
  univocity-parsers)
find_required_jars(guava guava error-prone-annotations)

set(tests src/test/java/stor/device)
set(benchmarks src/bench/java/stor/device/bench)
add_jar(skiplist-java-tests
  SOURCES
    ${benchmarks}/Agreement.java
    ${benchmarks}/Contender.java
    ${benchmarks}/GuavaRangeMap.java
    ${benchmarks}/LayerRangeMap.java
    ${benchmarks}/NativeRangeMap.java
    ${benchmarks}/NavigableRangeMap.java
    ${benchmarks}/Operation.java
    ${benchmarks}/Options.java
    ${benchmarks}/RangeMap.java
    ${benchmarks}/RangeMapBenchmark.java
    ${benchmarks}/Results.java
    ${benchmarks}/SegmentLog.java
    ${benchmarks}/Summary.java
    ${benchmarks}/Workloads.java
    ${tests}/replay/BlockStoreTest.java
    ${tests}/replay/BlockStoreThreadsTest.java
    ${tests}/replay/CheckedMap.java
    ${tests}/replay/CheckedMapTest.java
    ${tests}/replay/Location.java
    ${tests}/replay/MirrorTest.java
    ${tests}/replay/Range.java
    ${tests}/replay/RangeModel.java
    ${tests}/replay/RangeModelTest.java
    ${tests}/replay/RecordedTrace.java
    ${tests}/replay/RecordedTraceCases.java
    ${tests}/replay/Soak.java
    ${tests}/replay/Timings.java
    ${tests}/replay/TraceReplayTest.java
    ${tests}/skiplist/BufferFailureTest.java
    ${tests}/skiplist/BufferOwnershipTest.java
    ${tests}/skiplist/InThread.java
    ${tests}/skiplist/JvmOutput.java
    ${tests}/skiplist/JvmOutputTest.java
    ${tests}/skiplist/LayerCost.java
    ${tests}/skiplist/LeakHunt.java
    ${tests}/skiplist/LibraryLoadingTest.java
    ${tests}/skiplist/LimitsTest.java
    ${tests}/skiplist/LongRangesTest.java
    ${tests}/skiplist/MapLifetimeTest.java
    ${tests}/skiplist/MisuseTest.java
    ${tests}/skiplist/OffHeapRangeMapTest.java
    ${tests}/skiplist/ProcessExitTest.java
    ${tests}/skiplist/RandomComparisonTest.java
    ${tests}/skiplist/RandomLayerTest.java
    ${tests}/skiplist/RandomOperations.java
    ${tests}/skiplist/StackDepthTest.java
    ${tests}/skiplist/StoredRanges.java
    ${tests}/skiplist/StrictJvm.java
    ${tests}/skiplist/Sweep.java
    ${tests}/skiplist/ThreadsTest.java
    ${tests}/skiplist/Tutorial.java
    ${tests}/skiplist/TutorialTest.java
    ${tests}/skiplist/VerifierTest.java
  INCLUDE_JARS skiplist-native skiplist-replay ${netty} ${histogram} ${guava} ${junit_api})

# The manifest of the replay brings the native methods and Netty.
set(libraries ${junit_api} ${junit_launcher} ${guava})
list(JOIN libraries ":" libraries)
set(tests_jar $<TARGET_PROPERTY:skiplist-java-tests,JAR_FILE>)
set(class_path ${tests_jar}:$<TARGET_PROPERTY:skiplist-replay,JAR_FILE>:${libraries})

# The jar brings the library; what else the tests ask for:
set(properties
  -Dskiplist.test.library=$<TARGET_FILE:skiplistjni>
  -Dskiplist.test.project=${PROJECT_SOURCE_DIR}
  -Dskiplist.test.user.path=${jar}:${netty_path}
  -Dskiplist.test.version=${PROJECT_VERSION})
set(checks -Xcheck:jni
  -Dio.netty.leakDetection.level=paranoid -Dio.netty.leakDetection.targetRecords=20)
set(console org.junit.platform.console.ConsoleLauncher
  --fail-if-no-tests --disable-banner --disable-ansi-colors --details=tree)

# What a sanitized library needs: runtimes in the JVM from the start, and the JVM's own handling of
# signals and stacks. A JVM does not give back all its memory, so lost memory says nothing.
set(environment)
if(SKIPLIST_PRELOAD)
  foreach(name IN LISTS SKIPLIST_PRELOAD)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${name}
      OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE)
    list(APPEND preload ${file})
  endforeach()
  list(JOIN preload ":" preload)
  set(environment LD_PRELOAD=${preload}
    ASAN_OPTIONS=detect_leaks=0:handle_segv=0:allow_user_segv_handler=1:use_sigaltstack=0)
  # A file that stays, so that reports name functions and lines.
  list(APPEND properties -Dskiplist.native.library=$<TARGET_FILE:skiplistjni>)
endif()

# Runs a main class in a JVM whose output is judged by another.
function(add_java_test name)
  add_test(NAME ${name} COMMAND ${Java_JAVA_EXECUTABLE} -cp ${class_path}
    stor.device.skiplist.StrictJvm ${properties} -cp ${class_path} ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS java TIMEOUT 900 ENVIRONMENT "${environment}")
endfunction()

add_java_test(java-tests ${checks} ${console} --scan-classpath=${tests_jar})
# Too many for the checks above, which make a buffered insert some twenty times slower.
add_java_test(java-million -Dskiplist.test.operations=1000000
  ${console} --select-class stor.device.skiplist.RandomComparisonTest)
set(trace ${PROJECT_SOURCE_DIR}/data/sqlite-oltp.trace.gz)
add_java_test(java-replay ${checks} stor.device.replay.TraceReplay
  --report ${CMAKE_CURRENT_BINARY_DIR}/report.html ${trace})
add_java_test(java-replay-cases -Dskiplist.test.trace=${trace} ${checks}
  ${console} --select-class stor.device.replay.RecordedTraceCases)
# Fails if the maps that are compared disagree; the times say nothing.
add_java_test(java-benchmark stor.device.bench.RangeMapBenchmark
  --rounds 1 --ranges 2000 --gc-ranges 2000 ${trace})
add_test(NAME javadoc COMMAND ${javadoc})
set_tests_properties(javadoc PROPERTIES LABELS java)
