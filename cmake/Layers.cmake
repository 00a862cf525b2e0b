# What all DLLs have in common: a name without the toolchain's prefix, a version resource, an alias.
function(vexel_finish_dll name description)
  set(resource ${CMAKE_BINARY_DIR}/version/${name}.rc)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/version.rc.in ${resource} @ONLY)
  target_sources(${name} PRIVATE ${resource})
  set_target_properties(${name} PROPERTIES PREFIX "" LINKER_LANGUAGE CXX)
  add_library(Vexel::${name} ALIAS ${name})
endfunction()

# A DLL of its own, made of all sources of SOURCE_DIR.
function(vexel_dll name)
  cmake_parse_arguments(arg "" "SOURCE_DIR;DEFINE;DESCRIPTION" "LIBRARIES" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${arg_SOURCE_DIR}/*.cpp)
  add_library(${name} SHARED ${sources})
  target_include_directories(${name} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC vexel_headers PRIVATE $<BUILD_INTERFACE:vexel_options> ${arg_LIBRARIES})
  target_compile_definitions(${name} PRIVATE ${arg_DEFINE})
  vexel_precompile(${name} vexel_common_headers)
  vexel_finish_dll(${name} ${arg_DESCRIPTION})
endfunction()

# One layer of the library: the sources in and below the folder `name` as objects, which go into the DLL and,
# for tests that reach the internals, straight into a test program.
set(VEXEL_LAYERS "")
function(vexel_layer name)
  cmake_parse_arguments(arg "" "" "USES;LIBRARIES" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${name}/*.cpp)
  add_library(vexel_${name} OBJECT ${sources})
  target_include_directories(vexel_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(vexel_${name} PRIVATE VEXEL_BUILDING)
  target_link_libraries(vexel_${name} PUBLIC vexel_headers ${arg_USES} ${arg_LIBRARIES} PRIVATE vexel_options)
  vexel_precompile(vexel_${name} vexel_common_headers)
  set(VEXEL_LAYERS ${VEXEL_LAYERS} vexel_${name} PARENT_SCOPE)
endfunction()
