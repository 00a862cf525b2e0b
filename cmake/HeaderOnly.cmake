# A header-only library of the distribution, as a target of its own. The headers sit in the host's /usr/include,
# which must never come onto the cross compiler's path: only the library's one folder is linked into the build.
function(vexel_header_only target folder)
  find_path(VEXEL_${target}_PARENT ${folder} PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  set(include ${VEXEL_${target}_PARENT})
  if(CMAKE_CROSSCOMPILING)
    set(include ${CMAKE_BINARY_DIR}/header_only/${target})
    file(MAKE_DIRECTORY ${include})
    file(CREATE_LINK ${VEXEL_${target}_PARENT}/${folder} ${include}/${folder} SYMBOLIC)
  endif()
  add_library(${target} INTERFACE)
  target_include_directories(${target} SYSTEM INTERFACE ${include})
endfunction()

vexel_header_only(cli11 CLI)
vexel_header_only(nlohmann_json nlohmann)
if(VEXEL_BUILD_BENCHMARKS)
  vexel_header_only(simpleini SimpleIni.h)
endif()
