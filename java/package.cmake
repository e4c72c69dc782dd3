# One jar with the classes and the native library inside; what goes beside it in a repository.

set(version ${PROJECT_VERSION})
file(CONFIGURE OUTPUT manifest.txt CONTENT
"Implementation-Title: ${PROJECT_NAME}
Implementation-Version: ${version}
Automatic-Module-Name: stor.device.skiplist
")

# What the jar says of its libraries, for the loader.
set(contents ${SKIPLIST_PLATFORM}=${CMAKE_BINARY_DIR}/stripped/libskiplistjni.so
  ${SKIPLIST_OTHER_LIBRARIES})
list(TRANSFORM contents REPLACE "=.*" "" OUTPUT_VARIABLE platforms)
list(SORT platforms)
list(JOIN platforms ", " platforms)
set(properties ${CMAKE_CURRENT_BINARY_DIR}/build.properties)
file(CONFIGURE OUTPUT ${properties} CONTENT
"version=${version}
platforms=${platforms}
glibc=${SKIPLIST_OLDEST_GLIBC}
")

# Each library in the folder of its platform.
set(stage ${CMAKE_CURRENT_BINARY_DIR}/packaged)
set(resources stor/device/skiplist/native)
foreach(library IN LISTS contents)
  string(REGEX MATCH "^([^=]+)=(.+)$" ignored ${library})
  list(APPEND libraries ${CMAKE_MATCH_2})
  list(APPEND copy_libraries COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_MATCH_2}
    ${stage}/${resources}/${CMAKE_MATCH_1}/libskiplistjni.so)
endforeach()

# Classes, then the header made from them, then the library compiled against it, then this. Nothing
# of the time or the folder of the build gets into a jar.
set(create_jar ${Java_JAR_EXECUTABLE} --create --date=2020-01-01T00:00:00Z)
set(jar ${CMAKE_BINARY_DIR}/skiplist-native.jar)
add_custom_command(
  OUTPUT ${jar}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${stage}
  ${copy_libraries}
  COMMAND ${CMAKE_COMMAND} -E copy ${properties} ${stage}/${resources}/build.properties
  COMMAND ${create_jar} --file ${jar} --manifest ${CMAKE_CURRENT_BINARY_DIR}/manifest.txt
    -C $<TARGET_PROPERTY:skiplist-classes,CLASSDIR> stor -C ${stage} ${resources}
    -C ${CMAKE_CURRENT_SOURCE_DIR}/src/main/resources META-INF/native-image
  DEPENDS ${libraries} skiplistjni skiplist-classes $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
    ${CMAKE_CURRENT_BINARY_DIR}/manifest.txt ${properties}
  COMMENT "Packaging skiplist-native.jar"
  VERBATIM)
add_custom_target(skiplist-native ALL DEPENDS ${jar})
set_target_properties(skiplist-native PROPERTIES JAR_FILE ${jar})

# What is installed is what ships: an optimised library that needs no sanitizer's runtime.
if(NOT CMAKE_BUILD_TYPE STREQUAL Release OR SKIPLIST_SANITIZE)
  return()
endif()

set(name skiplist-native-${version})
set(sources_jar ${CMAKE_CURRENT_BINARY_DIR}/${name}-sources.jar)
set(javadoc_jar ${CMAKE_CURRENT_BINARY_DIR}/${name}-javadoc.jar)
set(javadoc_folder ${CMAKE_CURRENT_BINARY_DIR}/skiplist-javadoc)
set(source_folder ${CMAKE_CURRENT_SOURCE_DIR}/src/main/java)
list(JOIN netty ":" netty_path)
configure_file(pom.xml.in ${name}.pom @ONLY)

add_custom_command(
  OUTPUT ${sources_jar}
  COMMAND ${create_jar} --file ${sources_jar}
    -C ${source_folder} stor/device/skiplist
  DEPENDS $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
  VERBATIM)
add_custom_command(
  OUTPUT ${javadoc_jar}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${javadoc_folder}
  COMMAND ${Java_JAVADOC_EXECUTABLE} -quiet -Xdoclint:all -Werror -notimestamp -encoding UTF-8
    -sourcepath ${source_folder} -classpath ${netty_path} -d ${javadoc_folder} stor.device.skiplist
  COMMAND ${create_jar} --file ${javadoc_jar} -C ${javadoc_folder} .
  DEPENDS $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
  VERBATIM)
add_custom_target(skiplist-documents ALL DEPENDS ${sources_jar} ${javadoc_jar})

# A folder that Maven and Gradle take as a repository. They warn where checksums are missing.
include(GNUInstallDirs)
# For all to read, whatever the mask of who installs.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(repository ${CMAKE_INSTALL_DATADIR}/maven-repo/stor/device/skiplist-native/${version})
install(FILES ${jar} DESTINATION ${repository} RENAME ${name}.jar)
install(FILES ${sources_jar} ${javadoc_jar} ${CMAKE_CURRENT_BINARY_DIR}/${name}.pom
  DESTINATION ${repository})
install(CODE "
  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX OUTPUT_VARIABLE prefix)
  set(repository \"\$ENV{DESTDIR}\${prefix}/${repository}\")
  foreach(file IN ITEMS ${name}.jar ${name}-sources.jar ${name}-javadoc.jar ${name}.pom)
    foreach(algorithm IN ITEMS MD5 SHA1)
      string(TOLOWER \${algorithm} suffix)
      file(\${algorithm} \"\${repository}/\${file}\" checksum)
      set(checksum_file \"\${repository}/\${file}.\${suffix}\")
      file(WRITE \"\${checksum_file}\" \${checksum})
      file(CHMOD \"\${checksum_file}\" PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    endforeach()
  endforeach()")
install(FILES $<TARGET_FILE:skiplistjni> DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${PROJECT_SOURCE_DIR}/data/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/data)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_FILE_NAME ${name}-${SKIPLIST_PLATFORM})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Off-heap range maps for Java storage engines")
include(CPack)
