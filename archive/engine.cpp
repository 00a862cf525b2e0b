// The engine's methods register themselves by static objects. A linker that leaves one out takes a method
// away without an error, which would show only when some file cannot be read; so the list is compared here at
// the start.

#include "archive/engine.h"

#include "archive/engine_api.h"
#include "archive/header_layout.h"
#include "base/process_end.h"

#include <7zip/Common/RegisterCodec.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iterator>

// The methods that registered themselves.
extern unsigned g_NumCodecs;
extern const CCodecInfo* g_Codecs[];

namespace Vexel::Storage::Engine {

namespace {

constexpr CMethodId kMethods[] = {MethodId::kCopy, MethodId::kLzma, MethodId::kLzma2};

std::atomic<unsigned> threads{1};

bool isRegistered(CMethodId method) noexcept {
    return std::any_of(g_Codecs, g_Codecs + g_NumCodecs,
                       [method](const CCodecInfo* codec) { return codec->Id == method; });
}

/// The engine's tables and the registration of its methods are static objects; what can go wrong is that some
/// were not linked, or too many.
bool hasExactlyOurMethods() noexcept {
    return g_NumCodecs == std::size(kMethods) &&
           std::all_of(std::begin(kMethods), std::end(kMethods), isRegistered);
}

void raiseThreadCount() noexcept {
    SYSTEM_INFO system;
    GetNativeSystemInfo(&system);
    threads = (std::max)(threads.load(), static_cast<unsigned>(system.dwNumberOfProcessors));
}

} // namespace

void start() {
    static INIT_ONCE once = INIT_ONCE_STATIC_INIT;
    BOOL pending = FALSE;
    if (!InitOnceBeginInitialize(&once, 0, &pending, nullptr))
        std::abort();
    if (!pending)
        return;
    if (!hasExactlyOurMethods())
        std::abort();
    raiseThreadCount();
    if (!InitOnceComplete(&once, 0, nullptr))
        std::abort();
}

unsigned threadCount() noexcept { return Detail::isProcessEnding() ? 1 : threads.load(); }

} // namespace Vexel::Storage::Engine
