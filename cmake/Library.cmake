# bekd_library(NAME SOURCES file... [DEPENDS target...])
#
# Defines the static library of one folder below src/. Headers are included by their path from src/, so that an
# include line shows the layer that it depends on. Sanitizer builds compile several sources as one unit, which takes
# a third of the time; so a name in an anonymous namespace must not be used twice in a folder.
function(bekd_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  if(ARG_SOURCES)
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC bekd_flags ${ARG_DEPENDS})
    if(BEKD_SANITIZE)
      set_target_properties(${name} PROPERTIES UNITY_BUILD ON)
      # In a unity build, the warning takes types of the included sources for types of a header.
      target_compile_options(${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
    endif()
  else()
    add_library(${name} INTERFACE)
    target_include_directories(${name} INTERFACE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} INTERFACE bekd_flags ${ARG_DEPENDS})
  endif()
endfunction()
