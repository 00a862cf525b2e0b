# Writes OUTPUT, the engine's assembler source INPUT in the part of MASM's language that llvm-ml knows. Run by the
# build, so that the engine's file stays the one source:
#   cmake -DINPUT=LzmaDecOpt.asm -DOUTPUT=file.asm -P MasmForLlvm.cmake
# llvm-ml takes a text macro for a whole operand or directive only, and joins names only inside macros.
file(READ ${INPUT} text)

# The text macros that stand for a part of an operand, by what they say; the longer names first.
foreach(macro GLOB_2 GLOB LOC_0 LOC)
  if(NOT text MATCHES "\n${macro} +equ +([^\n]+)\n")
    message(FATAL_ERROR "${INPUT} is not the file that was expected: no ${macro}")
  endif()
  string(STRIP "${CMAKE_MATCH_1}" meaning)
  string(REGEX REPLACE "\n${macro} +equ +[^\n]+\n" "\n" text "${text}")
  string(REGEX REPLACE "([ ,\t])${macro} +" "\\1${meaning}" text "${text}")
endforeach()
string(REPLACE "PTR_FIELD equ dq ?" "" text "${text}")
string(REPLACE "PTR_FIELD" "dq ?" text "${text}")
string(REPLACE "near ptr " "" text "${text}")

# The 16-bit registers of those that are joined with "_W", under the names of the 32-bit ones.
string(REPLACE "@CatStr(src, _W)" "src&_W" text "${text}")
set(words)
foreach(pair EAX=AX ECX=CX EDX=DX EBX=BX EBP=BP ESI=SI EDI=DI)
  string(REGEX REPLACE "(.+)=(.+)" "\\1_W equ \\2\n" line ${pair})
  string(APPEND words ${line})
endforeach()
foreach(number RANGE 8 15)
  string(APPEND words "r${number}d_W equ r${number}w\n")
endforeach()
string(REPLACE "include 7zAsm.asm\n" "include 7zAsm.asm\n${words}" text "${text}")

file(WRITE ${OUTPUT} "${text}")
