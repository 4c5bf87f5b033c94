# Finds the live555 streaming media libraries through pkg-config and makes the
# target Live555::Live555.
#
# Distributions build live555 with NO_STD_LIB, and its .pc file does not say so.
# With the wrong choice the event loop's watch variable has another type here
# than in the library: calls through a vtable work by luck, classes derived from
# the scheduler do not link. So the choice is tried against the library itself.
find_package(PkgConfig REQUIRED)
pkg_check_modules(PC_LIVE555 QUIET IMPORTED_TARGET live555)
find_package(OpenSSL QUIET)

if(PC_LIVE555_FOUND AND OPENSSL_FOUND)
  include(CheckCXXSourceCompiles)
  include(CMakePushCheckState)
  set(LIVE555_PROBE "
    #include <BasicUsageEnvironment.hh>
    int main() {
      EventLoopWatchVariable stop = 1;
      BasicTaskScheduler::createNew()->BasicTaskScheduler0::doEventLoop(&stop);
    }")
  cmake_push_check_state(RESET)
  set(CMAKE_REQUIRED_LIBRARIES PkgConfig::PC_LIVE555 OpenSSL::SSL)
  set(CMAKE_REQUIRED_DEFINITIONS -DNO_STD_LIB=1)
  check_cxx_source_compiles("${LIVE555_PROBE}" LIVE555_HAS_NO_STD_LIB)
  set(CMAKE_REQUIRED_DEFINITIONS)
  check_cxx_source_compiles("${LIVE555_PROBE}" LIVE555_HAS_STD_LIB)
  cmake_pop_check_state()
  if(LIVE555_HAS_NO_STD_LIB)
    set(LIVE555_DEFINITIONS NO_STD_LIB=1)
    set(LIVE555_USABLE TRUE)
  elseif(LIVE555_HAS_STD_LIB)
    set(LIVE555_DEFINITIONS)
    set(LIVE555_USABLE TRUE)
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Live555
  REQUIRED_VARS PC_LIVE555_LINK_LIBRARIES LIVE555_USABLE OPENSSL_FOUND
  VERSION_VAR PC_LIVE555_VERSION
  REASON_FAILURE_MESSAGE "scripts/run brings it along, and on Debian 13 scripts/setup-debian13 installs it")

if(Live555_FOUND AND NOT TARGET Live555::Live555)
  add_library(Live555::Live555 INTERFACE IMPORTED)
  target_link_libraries(Live555::Live555 INTERFACE PkgConfig::PC_LIVE555 OpenSSL::SSL)
  target_compile_definitions(Live555::Live555 INTERFACE ${LIVE555_DEFINITIONS})
endif()
