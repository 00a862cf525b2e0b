add_executable(lock_model threads/lock_model.cpp)
target_include_directories(lock_model PRIVATE ${root})
target_compile_options(lock_model PRIVATE -O2 -g1 -Wall -Wextra -Werror)

set(sources base/process_end base/spin_lock framework/exceptions framework/string framework/string_buffer
  framework/archive framework/file framework/mem_file archive/item_encoder archive/pack_ahead io/memory_stream io/com
  paths/canonical_path paths/file_system_entry paths/name_helpers paths/path_name paths/path_name_flags
  paths/path_name_hash paths/path_name_table paths/path_name_text paths/path_text paths/temp_files paths/temp_names
  paths/temp_records)
list(TRANSFORM sources REPLACE "(.+)" "${root}/\\1.cpp")
set(engine_c 7zCrc 7zCrcOpt Alloc CpuArch LzFind LzFindMt LzFindOpt Lzma2Enc LzmaEnc MtCoder Threads)
list(TRANSFORM engine_c REPLACE "(.+)" "${engine}/C/\\1.c")
add_library(thread_platform OBJECT platform/files.cpp platform/platform.cpp platform/text.cpp platform/wide.cpp
  ${engine_c})
target_compile_options(thread_platform PRIVATE -w -fsanitize=thread)
target_link_libraries(thread_platform PUBLIC options)
add_executable(shared_by_threads threads/shared.cpp ${sources})
target_compile_options(shared_by_threads PRIVATE -fsanitize=thread
  "SHELL:-include ${CMAKE_CURRENT_SOURCE_DIR}/threads/delays.h")
# What nobody calls here is not there.
target_link_options(shared_by_threads PRIVATE -fsanitize=thread -Wl,--gc-sections -no-pie
  -Wl,--unresolved-symbols=ignore-all)
target_link_libraries(shared_by_threads PRIVATE thread_platform pthread)
