# Standard types and exceptions cross the DLL boundaries, so every module uses the compiler's runtime DLLs; they
# are put beside the programs.
function(vexel_copy_runtime_dlls)
  if(NOT MINGW)
    return()
  endif()
  foreach(dll libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
      OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT IS_ABSOLUTE "${path}")
      find_file(path_${dll} ${dll} PATHS /usr/x86_64-w64-mingw32/lib NO_CMAKE_FIND_ROOT_PATH REQUIRED)
      set(path ${path_${dll}})
    endif()
    file(COPY ${path} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  endforeach()
endfunction()
