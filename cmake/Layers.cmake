# The sources of one folder. A folder without any still makes a library, so that its place can be built upon.
function(vexel_sources result folder)
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  if(NOT sources)
    set(sources ${CMAKE_BINARY_DIR}/empty.cpp)
    file(CONFIGURE OUTPUT ${sources} CONTENT "// A folder without sources.\n")
  endif()
  set(${result} ${sources} PARENT_SCOPE)
endfunction()

# A DLL of its own, made of all sources of SOURCE_DIR.
function(vexel_dll name)
  cmake_parse_arguments(arg "" "SOURCE_DIR;DEFINE" "LIBRARIES" ${ARGN})
  vexel_sources(sources ${CMAKE_CURRENT_SOURCE_DIR}/${arg_SOURCE_DIR})
  add_library(${name} SHARED ${sources})
  add_library(Vexel::${name} ALIAS ${name})
  set_target_properties(${name} PROPERTIES PREFIX "")
  target_link_libraries(${name} PUBLIC vexel_headers PRIVATE $<BUILD_INTERFACE:vexel_options> ${arg_LIBRARIES})
  target_compile_definitions(${name} PRIVATE ${arg_DEFINE})
endfunction()

# One layer of the library: the sources of the folder `name` as objects, which go into the DLL and, for tests
# that reach the internals, straight into a test program.
set(VEXEL_LAYERS "")
function(vexel_layer name)
  cmake_parse_arguments(arg "" "" "USES;LIBRARIES" ${ARGN})
  vexel_sources(sources ${CMAKE_CURRENT_SOURCE_DIR}/${name})
  add_library(vexel_${name} OBJECT ${sources})
  target_include_directories(vexel_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(vexel_${name} PRIVATE VEXEL_BUILDING)
  target_link_libraries(vexel_${name} PUBLIC vexel_headers ${arg_USES} ${arg_LIBRARIES} PRIVATE vexel_options)
  set(VEXEL_LAYERS ${VEXEL_LAYERS} vexel_${name} PARENT_SCOPE)
endfunction()
