# Flags that every target of the project is built with.

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
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
  target_compile_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all -O1)
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
