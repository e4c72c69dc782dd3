# One jar with the classes and the native library inside; what goes beside it in a repository.

set(version ${PROJECT_VERSION})
file(CONFIGURE OUTPUT manifest.txt CONTENT
"Implementation-Title: ${PROJECT_NAME}
Implementation-Version: ${version}
Automatic-Module-Name: stor.device.skiplist
")

# Classes, then the header made from them, then the library compiled against it, then this.
set(jar ${CMAKE_BINARY_DIR}/skiplist-native.jar)
set(stage ${CMAKE_CURRENT_BINARY_DIR}/packaged)
set(resource stor/device/skiplist/native/linux-x86_64/libskiplistjni.so)
add_custom_command(
  OUTPUT ${jar}
  COMMAND ${CMAKE_COMMAND} -E copy $<TARGET_FILE:skiplistjni> ${stage}/${resource}
  COMMAND ${Java_JAR_EXECUTABLE} --create --file ${jar}
    --manifest ${CMAKE_CURRENT_BINARY_DIR}/manifest.txt
    -C $<TARGET_PROPERTY:skiplist-classes,CLASSDIR> stor -C ${stage} ${resource}
  DEPENDS skiplistjni skiplist-classes $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
    ${CMAKE_CURRENT_BINARY_DIR}/manifest.txt
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
  COMMAND ${Java_JAR_EXECUTABLE} --create --file ${sources_jar}
    -C ${source_folder} stor/device/skiplist
  DEPENDS $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
  VERBATIM)
add_custom_command(
  OUTPUT ${javadoc_jar}
  COMMAND ${CMAKE_COMMAND} -E rm -rf ${javadoc_folder}
  COMMAND ${Java_JAVADOC_EXECUTABLE} -quiet -Xdoclint:all -Werror -notimestamp -encoding UTF-8
    -sourcepath ${source_folder} -classpath ${netty_path} -d ${javadoc_folder} stor.device.skiplist
  COMMAND ${Java_JAR_EXECUTABLE} --create --file ${javadoc_jar} -C ${javadoc_folder} .
  DEPENDS $<TARGET_PROPERTY:skiplist-classes,JAR_FILE>
  VERBATIM)
add_custom_target(skiplist-documents ALL DEPENDS ${sources_jar} ${javadoc_jar})

include(GNUInstallDirs)
set(jars ${CMAKE_INSTALL_DATADIR}/java)
install(FILES $<TARGET_FILE:skiplistjni> DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${jar} DESTINATION ${jars} RENAME ${name}.jar)
install(FILES ${sources_jar} ${javadoc_jar} ${CMAKE_CURRENT_BINARY_DIR}/${name}.pom
  DESTINATION ${jars})
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR})

set(CPACK_GENERATOR TGZ)
set(CPACK_PACKAGE_FILE_NAME ${name}-linux-x86_64)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Off-heap range maps for Java storage engines")
include(CPack)
