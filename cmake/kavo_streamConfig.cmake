# find_package(kavo_stream) makes the target kavo::stream, and kavo::convert (for
# kavo/convert.hpp) where FFmpeg's libswscale can be found.
include("${CMAKE_CURRENT_LIST_DIR}/kavo_streamTargets.cmake")
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND AND NOT TARGET kavo::convert)
  pkg_check_modules(KAVO_CONVERT QUIET IMPORTED_TARGET libswscale libavutil)
  if(KAVO_CONVERT_FOUND)
    add_library(kavo::convert INTERFACE IMPORTED)
    target_link_libraries(kavo::convert INTERFACE kavo::stream PkgConfig::KAVO_CONVERT)
  endif()
endif()
