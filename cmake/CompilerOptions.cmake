# Options of the project's own code. Third-party code is built without them.
add_library(vexel_options INTERFACE)

if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(vexel_options INTERFACE -Wall -Wextra -Werror -Wshadow -Wconversion -Wsign-conversion
    -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual -Wcast-qual -Wformat=2 -Wnull-dereference
    # The Windows headers' interfaces have no virtual destructor, and the reference count deletes through ours.
    -Wno-non-virtual-dtor
    # COM's DECLARE_INTERFACE and dllexport on inline members are theirs to answer for.
    -Wno-attributes)
  if(VEXEL_CHECKED)
    target_compile_definitions(vexel_options INTERFACE _GLIBCXX_ASSERTIONS)
    target_compile_options(vexel_options INTERFACE -fsanitize=undefined -fsanitize-undefined-trap-on-error
      -fstack-protector-strong)
    target_link_options(vexel_options INTERFACE -fstack-protector-strong)
  endif()
elseif(MSVC)
  target_compile_options(vexel_options INTERFACE /W4 /WX /permissive- /utf-8 /wd4251 /wd4275)
endif()
