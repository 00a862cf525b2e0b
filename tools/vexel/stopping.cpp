// The system calls back on a thread of its own. It only leaves a mark, which the command looks at between two
// steps; but while the command waits for input there are no steps, so then the process is ended from there.
// The three states see to it that it is not ended while something is being taken back.

#include "stopping.h"

#include <windows.h>

#include <atomic>

namespace Vexel::Tool {
namespace {

enum class State { Working, Waiting, Ending };

std::atomic<bool> wanted{false};
std::atomic<State> state{State::Working};

BOOL WINAPI onEvent(DWORD event) {
    wanted = true;
    auto waiting = State::Waiting;
    if (state.compare_exchange_strong(waiting, State::Ending))
        ExitProcess(kInterrupted);
    // The system ends the process when this returns, or some seconds later: time to clean up.
    constexpr DWORD kLongest = 20'000;
    if (event != CTRL_C_EVENT && event != CTRL_BREAK_EVENT)
        Sleep(kLongest);
    return TRUE;
}

} // namespace

void watchForStops() { SetConsoleCtrlHandler(onEvent, TRUE); }

bool stopIsWanted() noexcept { return wanted; }

void checkStop() {
    if (wanted)
        throw Stopped();
}

EndableWait::EndableWait() noexcept {
    state = State::Waiting;
    // The event may have come just before.
    if (wanted && state.exchange(State::Ending) == State::Waiting)
        ExitProcess(kInterrupted);
}

EndableWait::~EndableWait() {
    auto waiting = State::Waiting;
    if (!state.compare_exchange_strong(waiting, State::Working))
        Sleep(INFINITE); // another thread is ending the process
}

} // namespace Vexel::Tool
