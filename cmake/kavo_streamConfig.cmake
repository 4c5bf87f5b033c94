# find_package(kavo_stream) makes the target kavo::stream, and kavo::convert (for
# kavo/convert.hpp) where FFmpeg's libswscale can be found. COMPONENTS convert asks for that.
include("${CMAKE_CURRENT_LIST_DIR}/kavo_streamTargets.cmake")
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND AND NOT TARGET kavo::convert)
  pkg_check_modules(KAVO_CONVERT QUIET IMPORTED_TARGET libswscale libavutil)
  if(KAVO_CONVERT_FOUND)
    add_library(kavo::convert INTERFACE IMPORTED)
    target_link_libraries(kavo::convert INTERFACE kavo::stream PkgConfig::KAVO_CONVERT)
  endif()
endif()
set(kavo_stream_convert_FOUND FALSE)
if(TARGET kavo::convert)
  set(kavo_stream_convert_FOUND TRUE)
elseif("convert" IN_LIST kavo_stream_FIND_COMPONENTS)
  set(kavo_stream_FOUND FALSE)
  set(kavo_stream_NOT_FOUND_MESSAGE
    "kavo::convert needs pkg-config and FFmpeg's libswscale: on Debian, apt-get install pkg-config libswscale-dev")
endif()
