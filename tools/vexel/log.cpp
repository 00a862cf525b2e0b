#include "log.h"

#include "console.h"
#include "text.h"

#include <vexel/diagnostics.h>

#include <string>

namespace Vexel::Tool {

void quietLog() {
    VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
}

void verboseLog() {
    const auto print = [](int level, const wchar_t* message, void*) {
        printError(L"log " + std::to_wstring(level) + L": " + onOneLine(message));
    };
    VxLog_SetSink(print, nullptr);
}

} // namespace Vexel::Tool
