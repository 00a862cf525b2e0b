# Cross-compiles as mingw-w64.cmake does, with clang, GCC's standard library and runtime, and binutils' linker.
include(${CMAKE_CURRENT_LIST_DIR}/mingw-w64.cmake)
set(gcc /usr/lib/gcc/x86_64-w64-mingw32/12-posix)
set(CMAKE_C_COMPILER clang-22)
set(CMAKE_CXX_COMPILER clang++-22)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_OBJCOPY x86_64-w64-mingw32-objcopy)
set(CMAKE_OBJDUMP x86_64-w64-mingw32-objdump)
set(CMAKE_STRIP x86_64-w64-mingw32-strip)
# In front of clang's own folders, so that they are not taken for another copy of GCC's.
string(JOIN " " CMAKE_CXX_FLAGS_INIT -nostdinc++ -isystem ${gcc}/include/c++
  -isystem ${gcc}/include/c++/x86_64-w64-mingw32 -isystem /usr/x86_64-w64-mingw32/include)
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-L${gcc} -pthread")
endforeach()
