// placeholder
#include "archive/header_check.h"
#include "fuzz/targets/input.h"
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t*, std::size_t) { return 0; }
