# The 7z archive engine: of 7-Zip's source only what reading, decoding and writing 7z archives with the methods Copy,
# LZMA and LZMA2 needs, without encryption. The methods register themselves through static objects, so these are
# objects that are linked as they are, not a library of which the linker takes what it misses. LZMA2 is registered by
# archive/packing_coder.cpp.
set(VEXEL_7ZIP_SOURCE_DIR ${CMAKE_SOURCE_DIR}/build/deps/7zip CACHE PATH "7-Zip's source")
if(NOT EXISTS ${VEXEL_7ZIP_SOURCE_DIR}/CPP/7zip/Archive/7z/7zIn.cpp)
  message(FATAL_ERROR "7-Zip's source is not in ${VEXEL_7ZIP_SOURCE_DIR}; run scripts/setup, or configure with "
    "-DVEXEL_7ZIP_SOURCE_DIR=")
endif()

set(sources)
function(vexel_seven_zip_sources folder extension)
  list(TRANSFORM ARGN PREPEND ${VEXEL_7ZIP_SOURCE_DIR}/${folder}/)
  list(TRANSFORM ARGN APPEND .${extension})
  set(sources ${sources} ${ARGN} PARENT_SCOPE)
endfunction()
vexel_seven_zip_sources(CPP/Common cpp CRC IntToString LzFindPrepare MyString MyVector StringConvert
  StringToInt Wildcard)
vexel_seven_zip_sources(CPP/Windows cpp FileDir FileFind FileIO FileName PropVariant Synchronization System TimeUtils)
vexel_seven_zip_sources(CPP/7zip/Common cpp CWrappers CreateCoder FilterCoder InBuffer InOutTempBuffer LimitedStreams
  MethodId MethodProps OutBuffer ProgressUtils PropId StreamBinder StreamObjects StreamUtils VirtThread)
vexel_seven_zip_sources(CPP/7zip/Archive/Common cpp CoderMixer2 InStreamWithCRC ItemNameUtils OutStreamWithCRC)
vexel_seven_zip_sources(CPP/7zip/Archive/7z cpp 7zDecode 7zEncode 7zFolderInStream 7zHeader 7zIn 7zOut 7zProperties
  7zSpecStream 7zUpdate)
vexel_seven_zip_sources(CPP/7zip/Compress cpp CopyCoder CopyRegister LzmaDecoder LzmaEncoder LzmaRegister
  Lzma2Decoder Lzma2Encoder)
vexel_seven_zip_sources(C c 7zCrc 7zCrcOpt 7zStream Alloc CpuArch LzFind LzFindMt LzFindOpt Lzma2Dec Lzma2DecMt
  Lzma2Enc LzmaDec LzmaEnc MtCoder MtDec Threads)

add_library(seven_zip OBJECT ${sources})
target_include_directories(seven_zip SYSTEM PUBLIC
  ${VEXEL_7ZIP_SOURCE_DIR}/CPP ${VEXEL_7ZIP_SOURCE_DIR}/C)
# Code that includes the engine's headers has to agree with it about these.
target_compile_definitions(seven_zip PUBLIC Z7_NO_CRYPTO UNICODE _UNICODE)
target_compile_features(seven_zip PRIVATE cxx_std_17)
# Its code is not ours to judge, and is too slow to test with when it is not optimised.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" OR CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(seven_zip PRIVATE -w -O2)
endif()
target_link_libraries(seven_zip PUBLIC oleaut32)
# Every C++ source of the engine begins with this header, which is little more than the platform's.
vexel_precompile(seven_zip seven_zip $<$<COMPILE_LANGUAGE:CXX>:${VEXEL_7ZIP_SOURCE_DIR}/CPP/Common/Common.h>)
# The one change to the engine: its copying coder gets its buffer from archive/copy_buffer.cpp, which says why.
set_source_files_properties(${VEXEL_7ZIP_SOURCE_DIR}/CPP/7zip/Compress/CopyCoder.cpp PROPERTIES
  COMPILE_DEFINITIONS "MidAlloc=VexelTakeCopyBuffer;MidFree=VexelReturnCopyBuffer")
