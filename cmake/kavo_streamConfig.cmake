# find_package(kavo_stream) makes the target kavo::stream.
include("${CMAKE_CURRENT_LIST_DIR}/kavo_streamTargets.cmake")
