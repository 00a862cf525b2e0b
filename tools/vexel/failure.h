#pragma once

#include <windows.h>

#include <exception>
#include <string>
#include <string_view>
#include <utility>

namespace Vexel::Tool {

/// Ends the program with one line on standard error. The program's commands are short and straight, so they
/// leave by exception; besides `main`, only those catch that go on with the next node.
class Failure : public std::exception {
public:
    /// `what` without the object ("cannot open"), `where` a file's name or what Document::label gives. A
    /// cause that the system and the storage facility have statuses of their own for has the latter's.
    Failure(std::wstring_view what, std::wstring_view where, HRESULT status);
    /// With words of its own for the status.
    Failure(std::wstring_view what, std::wstring_view where, HRESULT status, std::wstring_view words);
    /// With a text that says all, without the status.
    Failure(std::wstring message, HRESULT status) noexcept : message_(std::move(message)), status_(status) {}
    /// The same failure, with what may have been meant instead.
    Failure(const Failure& failure, std::wstring_view meant);

    const std::wstring& message() const noexcept { return message_; }
    /// What it is about: a file, or a file and its node.
    const std::wstring& where() const noexcept { return where_; }
    HRESULT status() const noexcept { return status_; }
    const char* what() const noexcept override { return "command failed"; }

private:
    std::wstring message_;
    std::wstring where_;
    HRESULT status_;
};

/// Ends the program with a status of its own, after what was to be said has been.
class SilentFailure : public std::exception {
public:
    explicit SilentFailure(int exitStatus) noexcept : exitStatus_(exitStatus) {}

    int exitStatus() const noexcept { return exitStatus_; }
    const char* what() const noexcept override { return "command failed"; }

private:
    int exitStatus_;
};

/// Arguments that no document could satisfy: exit status 2.
class UsageError : public std::exception {
public:
    UsageError(std::wstring_view what, std::wstring_view argument);
    explicit UsageError(std::wstring message) noexcept : message_(std::move(message)) {}

    const std::wstring& message() const noexcept { return message_; }
    const char* what() const noexcept override { return "wrong usage"; }

private:
    std::wstring message_;
};

/// Throws Failure unless `status` is S_OK: other successes are half ones.
void check(HRESULT status, std::wstring_view what, std::wstring_view where);

/// Whether the program cannot read something that need not be damaged: a method that it does not have,
/// encryption.
bool isNotReadable(HRESULT status) noexcept;

/// Whether a disk has no space left, which the next file would meet as well.
bool isDiskFull(HRESULT status) noexcept;

/// The last error of the calling thread as a failing status, E_FAIL when none is set.
HRESULT lastErrorStatus();

/// `; did you mean "list"?`
std::wstring didYouMean(std::wstring_view meant);

/// The line on standard error.
void report(std::wstring_view message) noexcept;

} // namespace Vexel::Tool
