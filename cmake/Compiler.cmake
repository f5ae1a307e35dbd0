# Flags that every target of the project is built with.

find_program(CCACHE ccache)
if(CCACHE)
  # It takes precompiled headers into account, if told that their time stamps don't matter.
  set(CMAKE_CXX_COMPILER_LAUNCHER
    ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
endif()

add_library(bekd_flags INTERFACE)
target_compile_options(bekd_flags INTERFACE
  -Wall -Wextra -Werror -Wshadow=local -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2
  -fstack-protector-strong)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

if(BEKD_SANITIZE)
  # Sanitizers bring their own checks of the string functions; fortify would hide accesses from them.
  # Not optimised: the checks make optimising take three times as long, for tests that run in seconds.
  target_compile_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all -g1)
  target_link_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE})
else()
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_definitions(bekd_flags INTERFACE _FORTIFY_SOURCE=2)
  endif()
  target_link_options(bekd_flags INTERFACE -Wl,-z,relro,-z,now)
endif()

set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
target_link_libraries(bekd_flags INTERFACE Threads::Threads)
