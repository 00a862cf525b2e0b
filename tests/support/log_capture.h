#pragma once

#include <vexel/diagnostics.h>

#include <windows.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Takes the log's messages while it lives.
class LogCapture {
public:
    LogCapture() {
        oldSink_ = VxLog_SetSink([](int level, const wchar_t* message,
                                    void* self) { static_cast<LogCapture*>(self)->add(level, message); },
                                 this, &oldContext_);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    ~LogCapture() { VxLog_SetSink(oldSink_, oldContext_); }

    /// A level and a text.
    using Message = std::pair<int, std::wstring>;

    std::vector<Message> messages() const {
        const std::lock_guard lock(mutex_);
        return messages_;
    }
    /// How many messages of this level contain `part`.
    std::ptrdiff_t count(int level, std::wstring_view part) const {
        const std::vector<Message> all = messages();
        return std::count_if(all.begin(), all.end(), [&](const Message& message) {
            return (level == anyLevel || message.first == level) &&
                   message.second.find(part) != std::wstring::npos;
        });
    }
    std::ptrdiff_t count(std::wstring_view part) const { return count(anyLevel, part); }
    void clear() {
        const std::lock_guard lock(mutex_);
        messages_.clear();
    }

private:
    static constexpr int anyLevel = -1;

    void add(int level, const wchar_t* message) {
        SetLastError(ERROR_INVALID_FUNCTION); // as any sink may; who logs must not lose the error it had
        const std::lock_guard lock(mutex_);
        messages_.emplace_back(level, message);
    }

    mutable std::mutex mutex_;
    std::vector<Message> messages_;
    VxLogSink oldSink_ = nullptr;
    void* oldContext_ = nullptr;
};
