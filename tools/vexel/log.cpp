#include "log.h"

#include "console.h"
#include "text.h"

#include <vexel/diagnostics.h>

#include <string>

namespace Vexel::Tool {
namespace {

std::wstring nameOf(int level) {
    if (level >= VxLog_Error)
        return L"error";
    if (level >= VxLog_Minor)
        return L"minor failure";
    if (level >= VxLog_Warning)
        return L"warning";
    return level >= VxLog_Notice ? L"notice" : L"trace";
}

} // namespace

void quietLog() {
    VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
}

void verboseLog() {
    const auto print = [](int level, const wchar_t* message, void*) {
        printError(L"log, " + nameOf(level) + L": " + onOneLine(message));
    };
    VxLog_SetSink(print, nullptr);
}

} // namespace Vexel::Tool
