# Compiler and linker flags for every target of the project.

find_program(CCACHE ccache)
if(CCACHE)
  # ccache handles precompiled headers if it is told to ignore their time stamps. With BASEDIR and NOHASHDIR, build
  # trees in different places share the cache, including the copies that packages are built from (see
  # -ffile-prefix-map below). The locale is part of the cache key and packaging tools change it, so it is fixed.
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
  # clang builds only fuzz targets and coverage; clang-tidy reports clang's own warnings.
  target_compile_options(bekd_flags INTERFACE -Wno-sign-conversion -Wthread-safety -Werror=thread-safety -O1)
endif()

# Protection from stack overflows into another mapping, and from hijacked calls and returns.
include(CheckCXXCompilerFlag)
foreach(flag IN ITEMS -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
  string(MAKE_C_IDENTIFIER "BEKD_HAS${flag}" hasFlag)
  check_cxx_compiler_flag("-Werror ${flag}" ${hasFlag})
  if(${hasFlag})
    target_compile_options(bekd_flags INTERFACE ${flag})
  endif()
endforeach()

# Source paths in the objects don't depend on where the tree is, nor on whether ccache has made them relative, so
# that packages are reproducible to the byte. If several maps match a path, the last one counts.
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
  # No _FORTIFY_SOURCE: the sanitizers check the string functions themselves, and fortified ones would hide accesses
  # from them. No optimisation: with the checks it triples the build time, for tests that run in seconds.
  target_compile_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all -g1)
  target_link_options(bekd_flags INTERFACE -fsanitize=${BEKD_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Below 600 MB the compiler doesn't collect garbage, which would take a tenth of its time.
    target_compile_options(bekd_flags INTERFACE --param=ggc-min-heapsize=600000)
  endif()
else()
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_definitions(bekd_flags INTERFACE _FORTIFY_SOURCE=2)
  endif()
  target_link_options(bekd_flags INTERFACE -Wl,-z,relro,-z,now)
endif()

# Also as a compiler option: some libraries add it, and a precompiled header can be used only by sources that are
# compiled with the same macros.
target_compile_options(bekd_flags INTERFACE -pthread)
target_link_options(bekd_flags INTERFACE -pthread)
