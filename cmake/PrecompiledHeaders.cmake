# The platform's headers and the standard library's take most of the time of a source that uses little of them. They
# are parsed once for all layers and once for all tests.
set(VEXEL_COMMON_HEADERS <windows.h> <objbase.h> <objidl.h> <shlobj.h> <wrl/client.h> <algorithm> <array> <atomic>
  <functional> <map> <memory> <mutex> <optional> <span> <string> <string_view> <thread> <utility> <vector>)

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
endfunction()
