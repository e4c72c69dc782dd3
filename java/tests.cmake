# Tests in a real JVM, with real Netty buffers.

find_required_jars(junit_api
  apiguardian-api junit-jupiter-api junit-jupiter-params junit-platform-commons opentest4j)
find_required_jars(junit_launcher
  junit-jupiter-engine junit-platform-console junit-platform-engine junit-platform-launcher
  junit-platform-reporting opentest4j-reporting-events opentest4j-reporting-schema picocli
  univocity-parsers)

set(tests src/test/java/stor/device)
add_jar(skiplist-java-tests
  SOURCES
    ${tests}/replay/CheckedMapTest.java
    ${tests}/replay/RangeModelTest.java
    ${tests}/replay/TraceReplayTest.java
    ${tests}/skiplist/BufferFailureTest.java
    ${tests}/skiplist/BufferOwnershipTest.java
    ${tests}/skiplist/InThread.java
    ${tests}/skiplist/JvmOutput.java
    ${tests}/skiplist/JvmOutputTest.java
    ${tests}/skiplist/LeakHunt.java
    ${tests}/skiplist/LibraryLoadingTest.java
    ${tests}/skiplist/LimitsTest.java
    ${tests}/skiplist/LongRangesTest.java
    ${tests}/skiplist/RandomComparisonTest.java
    ${tests}/skiplist/RandomOperations.java
    ${tests}/skiplist/StackDepthTest.java
    ${tests}/skiplist/StoredRanges.java
    ${tests}/skiplist/StrictJvm.java
    ${tests}/skiplist/ThreadsTest.java
  INCLUDE_JARS skiplist-native skiplist-replay ${netty} ${histogram} ${junit_api})

# The manifest of the replay brings the native methods and Netty.
list(JOIN junit_api ":" junit)
list(JOIN junit_launcher ":" launcher)
set(tests_jar $<TARGET_PROPERTY:skiplist-java-tests,JAR_FILE>)
set(class_path ${tests_jar}:$<TARGET_PROPERTY:skiplist-replay,JAR_FILE>:${junit}:${launcher})

set(native -Dskiplist.native.library=$<TARGET_FILE:skiplistjni>)
set(checks -Xcheck:jni
  -Dio.netty.leakDetection.level=paranoid -Dio.netty.leakDetection.targetRecords=20)
set(console org.junit.platform.console.ConsoleLauncher
  --fail-if-no-tests --disable-banner --disable-ansi-colors --details=tree)

# Runs a main class in a JVM whose output is judged by another.
function(add_java_test name)
  add_test(NAME ${name} COMMAND ${Java_JAVA_EXECUTABLE} -cp ${class_path}
    stor.device.skiplist.StrictJvm ${native} -cp ${class_path} ${ARGN})
  set_tests_properties(${name} PROPERTIES LABELS java TIMEOUT 900)
endfunction()

add_java_test(java-tests ${checks} ${console} --scan-classpath=${tests_jar})
# Too many for the checks above, which make a buffered insert some twenty times slower.
add_java_test(java-million -Dskiplist.test.operations=1000000
  ${console} --select-class stor.device.skiplist.RandomComparisonTest)
add_java_test(java-replay ${checks} stor.device.replay.TraceReplay
  ${PROJECT_SOURCE_DIR}/data/sqlite-oltp.trace.gz)
add_test(NAME javadoc COMMAND ${javadoc})
set_tests_properties(javadoc PROPERTIES LABELS java)
