#pragma once

#include <windows.h>

#include <exception>
#include <string>
#include <string_view>

namespace Vexel::Tool {

/// Ends the program with one line on standard error. The program's commands are short and straight, so they
/// leave by exception; `main` is the only place that catches.
class Failure : public std::exception {
public:
    /// `what` without the object ("cannot open"), `where` a file's name or what Document::label gives.
    Failure(std::wstring_view what, std::wstring_view where, HRESULT status);

    const std::wstring& message() const noexcept { return message_; }
    const char* what() const noexcept override { return "command failed"; }

private:
    std::wstring message_;
};

/// Arguments that no document could satisfy: exit status 2.
class UsageError : public std::exception {
public:
    UsageError(std::wstring_view what, std::wstring_view argument);

    const std::wstring& message() const noexcept { return message_; }
    const char* what() const noexcept override { return "wrong usage"; }

private:
    std::wstring message_;
};

/// Throws Failure when `status` is a failure.
void check(HRESULT status, std::wstring_view what, std::wstring_view where);

/// The last error of the calling thread as a failing status, E_FAIL when none is set.
HRESULT lastErrorStatus();

/// "0x80030002 (there is no such file or node)".
std::wstring describeStatus(HRESULT status);

} // namespace Vexel::Tool
