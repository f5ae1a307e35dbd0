# Flags that every target of the project is built with.

find_program(CCACHE ccache)
if(CCACHE)
  # It takes precompiled headers into account, if told that their time stamps don't matter. Trees in different places
  # share what it keeps, the copies that packages are built from too: see below. The language of messages counts as
  # well, and the tools that make packages set it in a way of their own.
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env --unset=LC_ALL LANG=C.UTF-8
    CCACHE_SLOPPINESS=pch_defines,time_macros
    CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE})
endif()

add_library(bekd_flags INTERFACE)
target_compile_options(bekd_flags INTERFACE
  -Wall -Wextra -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(bekd_flags INTERFACE -Werror -Wshadow=local)
else()
  # Fuzzing and coverage only; what clang's own warnings find is for clang-tidy to say.
  target_compile_options(bekd_flags INTERFACE -Wno-sign-conversion -O1)
endif()

# Against overflows of the stack into another mapping, and jumps to where no call leads.
include(CheckCXXCompilerFlag)
foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "BEKD_HAS${flag}" hasFlag)
  check_cxx_compiler_flag("-Werror ${flag}" ${hasFlag})
  if(${hasFlag})
    target_compile_options(bekd_flags INTERFACE ${flag})
  endif()
endforeach()

# Objects tell the same of the places of their sources wherever the tree is, whether ccache has made the paths
# relative or not: what is packaged is the same to the byte. The last one that fits counts.
file(RELATIVE_PATH sourceFromBuild ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR})
string(REGEX REPLACE "/$" "" sourceFromBuild "${sourceFromBuild}")
target_compile_options(bekd_flags INTERFACE
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${sourceFromBuild}=.
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=. -ffile-prefix-map=${PROJECT_BINARY_DIR}/=)

if(BEKD_COVERAGE)
  target_compile_options(bekd_flags INTERFACE -fprofile-instr-generate -fcoverage-mapping)
  target_link_options(bekd_flags INTERFACE -fprofile-instr-generate)
endif()
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

if(BEKD_SANITIZE)
  # Sanitizers bring their own checks of the string functions; fortify would hide accesses from them.
  # Not optimised: the checks make optimising take three times as long, for tests that run in seconds.
  target_compile_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all -g1)
  target_link_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Below 600 MB the compiler looks for no memory to reuse, which would be a tenth of its time.
    target_compile_options(bekd_flags INTERFACE --param=ggc-min-heapsize=600000)
  endif()
else()
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_definitions(bekd_flags INTERFACE _FORTIFY_SOURCE=2)
  endif()
  target_link_options(bekd_flags INTERFACE -Wl,-z,relro,-z,now)
endif()

# As an option of the compiler too: some libraries bring it along, and a precompiled header fits only what is
# compiled with the same macros.
target_compile_options(bekd_flags INTERFACE -pthread)
target_link_options(bekd_flags INTERFACE -pthread)
