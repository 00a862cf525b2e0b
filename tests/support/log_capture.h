#pragma once

#include <vexel/diagnostics.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

/// Takes the log's messages while it lives.
class LogCapture {
public:
    LogCapture() {
        oldSink_ = VxLog_SetSink([](int level, wchar_t const* message,
                                    void* self) { static_cast<LogCapture*>(self)->add(level, message); },
                                 this, &oldContext_);
    }
    LogCapture(LogCapture const&) = delete;
    LogCapture& operator=(LogCapture const&) = delete;
    ~LogCapture() { VxLog_SetSink(oldSink_, oldContext_); }

    /// How many messages of this level contain `part`.
    std::ptrdiff_t count(int level, std::wstring_view part) const {
        const std::lock_guard lock(mutex_);
        return std::count_if(messages_.begin(), messages_.end(), [&](Message const& message) {
            return message.level == level && message.text.find(part) != std::wstring::npos;
        });
    }
    /// The same for all levels.
    std::ptrdiff_t count(std::wstring_view part) const {
        const std::lock_guard lock(mutex_);
        return std::count_if(messages_.begin(), messages_.end(), [&](Message const& message) {
            return message.text.find(part) != std::wstring::npos;
        });
    }
    void clear() {
        const std::lock_guard lock(mutex_);
        messages_.clear();
    }

private:
    struct Message {
        int level;
        std::wstring text;
    };

    void add(int level, wchar_t const* message) {
        const std::lock_guard lock(mutex_);
        messages_.push_back({level, message});
    }

    mutable std::mutex mutex_;
    std::vector<Message> messages_;
    VxLogSink oldSink_ = nullptr;
    void* oldContext_ = nullptr;
};
