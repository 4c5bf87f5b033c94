# Installs the library, its development files and the tools. debian/ makes packages of them.
include(CMakePackageConfigHelpers)

install(TARGETS kavo_stream EXPORT kavo_streamTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
if(KAVO_PRIVATE_LIVE555)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/src/kavo-stream DESTINATION ${CMAKE_INSTALL_LIBDIR}
    USE_SOURCE_PERMISSIONS PATTERN licences EXCLUDE)
  install(DIRECTORY ${PROJECT_BINARY_DIR}/src/kavo-stream/licences DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkavo-stream2)
endif()
install(FILES include/kavo_stream.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kavo DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(KAVO_TOOLS)
  install(TARGETS kavo-publish kavo-stat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  foreach(tool kavo-publish kavo-stat)
    install(FILES tools/completion.bash RENAME ${tool}
      DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  endforeach()
endif()

set(KAVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kavo_stream)
install(EXPORT kavo_streamTargets NAMESPACE kavo:: DESTINATION ${KAVO_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kavo_streamConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES cmake/kavo_streamConfig.cmake ${PROJECT_BINARY_DIR}/kavo_streamConfigVersion.cmake
  DESTINATION ${KAVO_CMAKE_DIR})
configure_file(cmake/kavo_stream.pc.in kavo_stream.pc @ONLY)
configure_file(cmake/kavo_convert.pc.in kavo_convert.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kavo_stream.pc ${PROJECT_BINARY_DIR}/kavo_convert.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
