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

# The engine's own assembler code decodes 1.4 to 1.5 times as fast as its C code does. It is in MASM's language: Visual
# C++'s assembler takes the file as it is, for LLVM's it is translated.
option(VEXEL_ASSEMBLER_DECODER "Decode with the engine's assembler code, if there is an assembler for it" ON)
if(MSVC)
  find_program(VEXEL_MASM ml64)
else()
  find_program(VEXEL_MASM NAMES llvm-ml-22 llvm-ml)
endif()
if(VEXEL_ASSEMBLER_DECODER AND VEXEL_MASM)
  set(assembler_dir ${VEXEL_7ZIP_SOURCE_DIR}/Asm/x86)
  set(assembler_source ${assembler_dir}/LzmaDecOpt.asm)
  set(assembler_object ${CMAKE_CURRENT_BINARY_DIR}/LzmaDecOpt${CMAKE_C_OUTPUT_EXTENSION})
  set(translate)
  set(masm_flags)
  if(NOT MSVC)
    set(translated ${CMAKE_CURRENT_BINARY_DIR}/LzmaDecOpt.asm)
    set(translate COMMAND ${CMAKE_COMMAND} -DINPUT=${assembler_source} -DOUTPUT=${translated}
      -P ${CMAKE_CURRENT_LIST_DIR}/MasmForLlvm.cmake)
    set(assembler_source ${translated})
    set(masm_flags -m64)
  endif()
  add_custom_command(OUTPUT ${assembler_object} ${translate}
    COMMAND ${VEXEL_MASM} ${masm_flags} -c -Fo ${assembler_object} -I ${assembler_dir} ${assembler_source}
    DEPENDS ${assembler_dir}/LzmaDecOpt.asm ${CMAKE_CURRENT_LIST_DIR}/MasmForLlvm.cmake
    COMMENT "Assembling LzmaDecOpt.asm" VERBATIM)
  add_custom_target(assembler_decoder DEPENDS ${assembler_object})
  add_dependencies(seven_zip assembler_decoder)
  target_link_libraries(seven_zip INTERFACE ${assembler_object})
  target_compile_definitions(seven_zip PRIVATE Z7_LZMA_DEC_OPT)
elseif(VEXEL_ASSEMBLER_DECODER)
  message(STATUS "No assembler for the engine's decoder was found: its C code is used, which is slower")
endif()

# The C decoder under names of its own, for comparisons.
add_library(seven_zip_c_decoder OBJECT EXCLUDE_FROM_ALL
  ${VEXEL_7ZIP_SOURCE_DIR}/C/LzmaDec.c ${VEXEL_7ZIP_SOURCE_DIR}/C/Lzma2Dec.c)
foreach(name LzmaProps_Decode LzmaDecode Lzma2Decode LzmaDec_InitDicAndState LzmaDec_Init LzmaDec_DecodeToDic
    LzmaDec_DecodeToBuf LzmaDec_FreeProbs LzmaDec_Free LzmaDec_AllocateProbs LzmaDec_Allocate Lzma2Dec_AllocateProbs
    Lzma2Dec_Allocate Lzma2Dec_Init Lzma2Dec_DecodeToDic Lzma2Dec_Parse Lzma2Dec_DecodeToBuf)
  target_compile_definitions(seven_zip_c_decoder PRIVATE ${name}=C_${name})
endforeach()
if(NOT MSVC)
  target_compile_options(seven_zip_c_decoder PRIVATE -w -O2)
endif()
