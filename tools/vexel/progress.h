#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace Vexel::Tool {

/// Shows on standard error what work has got to, if people are looking there and it takes longer than a
/// second: "packing: 42 % (126 of 300 MB)". The line is gone when the object is. It is written by a thread of
/// its own, so that it goes on while the library is busy.
class Progress {
public:
    explicit Progress(std::wstring_view phase, unsigned long long total = 0);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    /// What is being done now, and how many bytes that will be; 0: not known. Without any, the time is shown.
    void begin(std::wstring_view phase, unsigned long long total = 0);
    void add(unsigned long long bytes);

private:
    void show(const std::stop_token& stop);
    std::wstring text() const;

    std::mutex lock_;
    std::condition_variable_any wake_;
    std::wstring phase_;
    unsigned long long total_ = 0;
    unsigned long long done_ = 0;
    std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
    std::jthread thread_; // last: it uses the others
};

} // namespace Vexel::Tool
