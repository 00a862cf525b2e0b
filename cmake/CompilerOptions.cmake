# Options of the project's own code. Third-party code is built without them.
add_library(vexel_options INTERFACE)

function(vexel_compile_options)
  # Resource compilers know none of these.
  target_compile_options(vexel_options INTERFACE "$<$<COMPILE_LANGUAGE:CXX>:${ARGV}>")
endfunction()

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  # Not -Wnon-virtual-dtor: the platform's interfaces have no virtual destructor; objects delete themselves.
  # Not -Wnull-dereference: wrong about this library's own containers once they are inlined.
  vexel_compile_options(-Wall -Wextra -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
    -Woverloaded-virtual -Wcast-qual -Wformat=2
    # COM's DECLARE_INTERFACE and dllexport on inline members are theirs to answer for.
    -Wno-attributes)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # GCC's library uses what it deprecates in its own algorithms, and hides that from GCC only.
    vexel_compile_options(-Wno-deprecated-declarations)
  endif()
  if(VEXEL_CHECKED)
    target_compile_definitions(vexel_options INTERFACE _GLIBCXX_ASSERTIONS)
    vexel_compile_options(-fsanitize=undefined -fsanitize-undefined-trap-on-error -fstack-protector-strong)
    target_link_options(vexel_options INTERFACE -fstack-protector-strong)
  endif()
elseif(MSVC)
  # 4251 and 4275: standard types in exported classes are allowed, because all modules share one runtime.
  vexel_compile_options(/W4 /WX /permissive- /utf-8 /wd4251 /wd4275)
  if(VEXEL_FRAMEWORK STREQUAL "MFC")
    # It has to come before the platform's headers, which some sources include before any of the library's.
    vexel_compile_options(/FIafx.h)
  endif()
endif()
