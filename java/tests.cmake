# Tests in a real JVM, with real Netty buffers.

find_required_jars(junit_api
  apiguardian-api junit-jupiter-api junit-jupiter-params junit-platform-commons opentest4j)
find_required_jars(junit_launcher
  junit-jupiter-engine junit-platform-console junit-platform-engine junit-platform-launcher
  junit-platform-reporting opentest4j-reporting-events opentest4j-reporting-schema picocli
  univocity-parsers)

foreach(package IN ITEMS skiplist store replay)
  find_sources(tests_of_${package} src/test/java/stor/device/${package})
endforeach()
add_jar(skiplist-java-tests
  SOURCES ${tests_of_skiplist} ${tests_of_store} ${tests_of_replay}
  INCLUDE_JARS skiplist-native skiplist-store skiplist-replay skiplist-java-bench
    ${netty} ${histogram} ${gson} ${junit_api})

# The manifest of the replay brings the native methods and Netty.
set(libraries ${junit_api} ${junit_launcher})
list(JOIN libraries ":" libraries)
set(tests_jar $<TARGET_PROPERTY:skiplist-java-tests,JAR_FILE>)
set(class_path ${tests_jar}:$<TARGET_PROPERTY:skiplist-replay,JAR_FILE>:${libraries})
set(bench_path $<TARGET_PROPERTY:skiplist-java-bench,JAR_FILE>)

# The jar brings the library; what else the tests ask for:
set(properties
  -Dskiplist.test.library=$<TARGET_FILE:skiplistjni>
  -Dskiplist.test.project=${PROJECT_SOURCE_DIR}
  -Dskiplist.test.user.path=${jar}:${netty_path}
  -Dskiplist.test.version=${PROJECT_VERSION})
set(leak_checks -Dio.netty.leakDetection.level=paranoid -Dio.netty.leakDetection.targetRecords=20)
# Each warning of the native interface comes with its stack, of which the depth is most of its cost.
set(checks -Xcheck:jni -XX:MaxJavaStackTraceDepth=16 ${leak_checks})
set(SKIPLIST_JUNIT_DETAILS tree CACHE STRING "What JUnit prints; verbose: each test as it ends")
set(console org.junit.platform.console.ConsoleLauncher
  --fail-if-no-tests --disable-banner --disable-ansi-colors --details=${SKIPLIST_JUNIT_DETAILS})

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
  # The JVM itself prints the name of a library that it has just unloaded.
  set(environment LD_PRELOAD=${preload}
    ASAN_OPTIONS=detect_leaks=0:handle_segv=0:allow_user_segv_handler=1:use_sigaltstack=0:check_printf=0)
  # A file that stays, so that reports name functions and lines.
  list(APPEND properties -Dskiplist.native.library=$<TARGET_FILE:skiplistjni>)
endif()

set(SKIPLIST_TEST_JVM ${Java_JAVA_EXECUTABLE} CACHE FILEPATH "The JVM that runs the Java tests")
# Ends what hangs, and not what a busy machine or an emulator is slow with.
set(timeout 7200)

# Runs a main class in a JVM whose output is judged by another: it has to say what matches all SAYS.
function(add_java_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SAYS;RUNS")
  list(TRANSFORM arg_SAYS PREPEND "--says;")
  add_test(NAME ${name} COMMAND ${SKIPLIST_TEST_JVM} -cp ${class_path}
    stor.device.skiplist.StrictJvm ${arg_SAYS} ${properties} -cp ${class_path}:${bench_path} ${arg_RUNS})
  set_tests_properties(${name} PROPERTIES LABELS java TIMEOUT ${timeout} ENVIRONMENT "${environment}")
endfunction()

# What is above the library has no native methods: the replays below call them with all checks.
foreach(package IN ITEMS skiplist store replay)
  set(checks_of_package ${leak_checks})
  if(package STREQUAL skiplist)
    set(checks_of_package ${checks})
  endif()
  add_java_test(java-tests-${package} RUNS ${checks_of_package} ${console}
    --scan-classpath=${tests_jar} --include-package=stor.device.${package})
endforeach()
# Too many for the checks above, which make a buffered insert some twenty times slower.
add_java_test(java-verifier SAYS "^PASS: 2[0-9]* operations"
  RUNS stor.device.skiplist.Verifier --operations 200000 42)

# The queries of a JVM that does not let us read its memory in place.
add_java_test(java-native-queries SAYS "^PASS: 3[0-9]* operations" RUNS
  -Dskiplist.readInPlace=false ${checks} stor.device.skiplist.Verifier --operations 30000 7)

# The recorded trace: as it is; with a hundred refused inserts and killed flushes among its first
# requests; and in the public format, at odd offsets, on two disks.
set(trace ${PROJECT_SOURCE_DIR}/data/sqlite-oltp.trace.gz)
set(replay ${checks} stor.device.replay.TraceReplay)
set(reports ${CMAKE_CURRENT_BINARY_DIR})
add_java_test(java-replay RUNS ${replay} --report ${reports}/report.html ${trace})
set_tests_properties(java-replay PROPERTIES FIXTURES_SETUP replay-report)
add_test(NAME run-help COMMAND ${PROJECT_SOURCE_DIR}/run --repeat 2 --help WORKING_DIRECTORY /)
set_tests_properties(run-help PROPERTIES PASS_REGULAR_EXPRESSION "^usage: ./run " TIMEOUT 10)
if(NOT SKIPLIST_PRELOAD)
  # What the report says follows from the trace, and fits the screens that people have.
  set(scripts ${CMAKE_CURRENT_SOURCE_DIR}/src/test/scripts)
  add_test(NAME java-report-figures COMMAND ${scripts}/recompute-report
    ${Java_JAVA_EXECUTABLE} -jar $<TARGET_PROPERTY:skiplist-replay,JAR_FILE>
    -- ${PROJECT_SOURCE_DIR}/data/formats/plain.trace ${trace})
  add_test(NAME java-report-page COMMAND ${scripts}/look-at-report
    ${reports}/report.html ${reports})
  set_tests_properties(java-report-page PROPERTIES
    FIXTURES_REQUIRED replay-report SKIP_RETURN_CODE 77)
  set_tests_properties(java-report-figures java-report-page PROPERTIES LABELS java TIMEOUT ${timeout})
endif()
add_java_test(java-replay-refused
  SAYS "inserts refused +[0-9,]*[0-9][0-9][0-9] " "[0-9,]*[0-9][0-9] more were killed"
  RUNS ${replay} --report ${reports}/refused.html --requests 25000
    --memory-limit 32K --fail-flush-every 4 ${trace})
set(public_trace ${CMAKE_CURRENT_BINARY_DIR}/public.csv)
add_test(NAME java-public-trace
  COMMAND ${CMAKE_CURRENT_SOURCE_DIR}/public-trace.sh ${trace} 25000 ${public_trace})
set_tests_properties(java-public-trace PROPERTIES LABELS java FIXTURES_SETUP public-trace)
add_java_test(java-replay-public SAYS " 25,000 requests:"
  RUNS ${replay} --report ${reports}/public.html --sector-size 4096 ${public_trace})
set_tests_properties(java-replay-public PROPERTIES FIXTURES_REQUIRED public-trace)
# Readers beside writers: so many seconds of them, each answer checked.
add_java_test(java-shared-map SAYS "^PASS: " RUNS ${checks} stor.device.bench.SharedMap 5)
# Fails if the maps that are compared disagree; the times say nothing.
add_java_test(java-benchmark RUNS stor.device.bench.RangeMapBenchmark
  --warm-up 0 --rounds 1 --ranges 2000 --gc-ranges 2000 ${trace})
add_test(NAME javadoc COMMAND ${javadoc})
set_tests_properties(javadoc PROPERTIES LABELS java)
