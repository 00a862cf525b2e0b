# The platform's headers and the standard library's take most of the time of a source that uses little of them. They
# are parsed once for all of the product and once for all tests.
set(VEXEL_COMMON_HEADERS <windows.h> <objbase.h> <objidl.h> <shlobj.h> <wrl/client.h> <algorithm> <array> <atomic>
  <functional> <map> <memory> <mutex> <optional> <span> <string> <string_view> <thread> <utility> <vector>)

# Parses the headers for other targets, with the flags that all of them have: what one of them defines for itself must
# not be known here, or the compiler would not take the headers for the others.
function(vexel_common_headers)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/common_headers.cpp CONTENT "// Exists for the headers parsed with it.\n")
  add_library(vexel_common_headers OBJECT ${CMAKE_BINARY_DIR}/common_headers.cpp)
  target_link_libraries(vexel_common_headers PRIVATE vexel_headers vexel_options)
  vexel_precompile(vexel_common_headers vexel_common_headers ${VEXEL_COMMON_HEADERS})
endfunction()

# Gives `target` the headers that `owner`, which may be the same target, has parsed.
function(vexel_precompile target owner)
  if(NOT VEXEL_PRECOMPILED_HEADERS)
    return()
  endif()
  if(target STREQUAL owner)
    target_precompile_headers(${target} PRIVATE ${ARGN})
  else()
    target_precompile_headers(${target} REUSE_FROM ${owner})
  endif()
  # Of headers parsed beforehand GCC no longer knows, once their functions are inlined, that they are the platform's and
  # not ours: it then warns, wrongly, of mingw-w64's wmemcpy and of the standard library's strings. A build without
  # precompiled headers, as with ccache, has these warnings.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE
      "$<$<COMPILE_LANGUAGE:CXX>:-Wno-array-bounds;-Wno-restrict;-Wno-stringop-overflow;-Wno-stringop-overread>")
  endif()
endfunction()
