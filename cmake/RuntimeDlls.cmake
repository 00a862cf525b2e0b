# Standard types and exceptions cross the DLL boundaries, so every module uses the compiler's runtime DLLs; they
# are put beside the programs, and installed with them. VEXEL_RUNTIME_DLLS becomes their names.
function(vexel_copy_runtime_dlls)
  if(NOT MINGW)
    return()
  endif()
  set(dlls libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
  if(VEXEL_CHECKED)
    list(APPEND dlls libssp-0.dll)
  endif()
  foreach(dll ${dlls})
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${dll}
      OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    # The compiler knows its own; the thread library comes with the Windows headers.
    if(NOT IS_ABSOLUTE "${path}")
      find_file(VEXEL_RUNTIME_${dll} ${dll} PATHS ${CMAKE_FIND_ROOT_PATH}/lib NO_CMAKE_FIND_ROOT_PATH REQUIRED)
      set(path ${VEXEL_RUNTIME_${dll}})
    endif()
    file(COPY ${path} DESTINATION ${CMAKE_RUNTIME_OUTPUT_DIRECTORY})
  endforeach()
  set(VEXEL_RUNTIME_DLLS ${dlls} PARENT_SCOPE)
endfunction()
