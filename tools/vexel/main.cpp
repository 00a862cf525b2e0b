// All commands end here: each kind of exception has its exit status, and what was begun has been taken back
// by the destructors on the way.

#include "command.h"
#include "console.h"
#include "failure.h"
#include "log.h"
#include "progress.h"
#include "stopping.h"
#include "text.h"

#include <exception>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

enum ExitStatus { KDone = 0, KFailed = 1, KWrongUsage = 2 };

int run(int count, wchar_t** values) {
    std::vector<std::string> arguments;
    for (int i = 1; i < count; ++i)
        arguments.push_back(toUtf8(values[i]));
    runCommandLine(arguments);
    progress().end();
    if (!stopIsWanted())
        return KDone;
    report(L"interrupted, but what was to be done is done");
    return kInterrupted;
}

// The progress's thread must be gone before the process ends: to wait for it while statics are destroyed can
// be for ever.
int leave(int status) {
    progress().end();
    return status;
}

int fail(int status, std::wstring_view message) {
    progress().end();
    report(message);
    return status;
}

} // namespace
} // namespace Vexel::Tool

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** values) {
    using namespace Vexel::Tool;
    watchForStops();
    try {
        quietLog();
        return run(count, values);
    } catch (const Failure& failure) {
        return fail(KFailed, failure.message());
    } catch (const UsageError& error) {
        return fail(KWrongUsage, error.message());
    } catch (const Stopped&) {
        return fail(kInterrupted, L"interrupted");
    } catch (const SilentFailure& failure) {
        return leave(failure.exitStatus());
    } catch (const ReaderGone&) {
        return leave(kReaderGone);
    } catch (const std::exception& error) {
        return fail(KFailed, toUtf16(error.what()));
    }
}
