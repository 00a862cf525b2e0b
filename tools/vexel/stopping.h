#pragma once

#include <exception>

namespace Vexel::Tool {

/// Thrown between two steps of a command when the user wants it to stop. What was begun is taken back on the
/// way out.
class Stopped : public std::exception {
public:
    const char* what() const noexcept override { return "interrupted"; }
};

/// Exit status of a command that was interrupted, as shells know it.
inline constexpr int kInterrupted = 130;

/// From here on Ctrl-C, Ctrl-Break and a console that closes do not end the process, but ask the command to
/// stop.
void watchForStops();

bool stopIsWanted() noexcept;

/// Throws Stopped when somebody wants the command to stop. To be called before each step of what takes long,
/// and before what cannot be taken back.
void checkStop();

/// While one lives, the command waits for another program and has nothing to take back: whoever wants it to
/// stop ends the process at once.
class EndableWait {
public:
    EndableWait() noexcept;
    EndableWait(const EndableWait&) = delete;
    EndableWait& operator=(const EndableWait&) = delete;
    ~EndableWait();
};

} // namespace Vexel::Tool
