# What is installed, and the Debian packages made of it: the library, the files
# to develop with it, and the tools.
include(CMakePackageConfigHelpers)

install(TARGETS kavo_stream EXPORT kavo_streamTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
if(KAVO_PRIVATE_LIVE555)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/src/kavo-stream DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library
    USE_SOURCE_PERMISSIONS PATTERN licences EXCLUDE)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/src/kavo-stream/licences DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/kavo-stream
    COMPONENT library)
endif()
install(FILES include/kavo_stream.h include/kavo_status.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(DIRECTORY include/kavo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
set(KAVO_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc)
install(FILES cmake/copyright DESTINATION ${KAVO_DOC_DIR}/libkavo-stream2 COMPONENT library)
install(FILES cmake/copyright DESTINATION ${KAVO_DOC_DIR}/libkavo-stream-dev COMPONENT development)
install(FILES README.md CHANGELOG.md DESTINATION ${KAVO_DOC_DIR}/libkavo-stream-dev COMPONENT development)
install(DIRECTORY docs examples DESTINATION ${KAVO_DOC_DIR}/libkavo-stream-dev COMPONENT development
  PATTERN Doxyfile EXCLUDE PATTERN CMakeLists.txt EXCLUDE)
if(KAVO_TOOLS)
  install(TARGETS kavo-publish kavo-stat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  foreach(tool kavo-publish kavo-stat)
    install(FILES tools/completion.bash RENAME ${tool}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
  endforeach()
  install(FILES cmake/copyright DESTINATION ${KAVO_DOC_DIR}/kavo-publish COMPONENT tools)
endif()

set(KAVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kavo_stream)
install(EXPORT kavo_streamTargets NAMESPACE kavo:: DESTINATION ${KAVO_CMAKE_DIR} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kavo_streamConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/kavo_streamConfig.cmake ${PROJECT_BINARY_DIR}/kavo_streamConfigVersion.cmake
  DESTINATION ${KAVO_CMAKE_DIR} COMPONENT development)
configure_file(cmake/kavo_stream.pc.in kavo_stream.pc @ONLY)
configure_file(cmake/kavo_convert.pc.in kavo_convert.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kavo_stream.pc ${PROJECT_BINARY_DIR}/kavo_convert.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kavo-stream)
set(CPACK_PACKAGE_CONTACT "The developers of Kavo Stream <kavo-stream@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Live video over RTSP from a program's own frames")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL library development tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS OFF)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src ${PROJECT_BINARY_DIR}/src/kavo-stream)

set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libkavo-stream2)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/cmake/symbols)
# OpenH264 is loaded by the name without a number, which only this package has.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_RECOMMENDS libopenh264-8)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkavo-stream-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libkavo-stream2 (= ${PROJECT_VERSION}), libswscale-dev, libavutil-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kavo-publish)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION video)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libkavo-stream2 (= ${PROJECT_VERSION})")
include(CPack)
