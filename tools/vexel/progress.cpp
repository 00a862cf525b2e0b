#include "progress.h"

#include "console.h"

#include <algorithm>

namespace Vexel::Tool {
namespace {

std::wstring megabytes(unsigned long long bytes) {
    constexpr unsigned long long kMegabyte = 1'000'000;
    return std::to_wstring(bytes / kMegabyte);
}

} // namespace

Progress::Progress(std::wstring_view phase, unsigned long long total) : phase_(phase), total_(total) {
    if (errorIsConsole())
        thread_ = std::jthread([this](const std::stop_token& stop) { show(stop); });
}

// The thread must be at its end before what it uses is.
Progress::~Progress() {
    if (!thread_.joinable())
        return;
    thread_.request_stop();
    thread_.join();
}

void Progress::begin(std::wstring_view phase, unsigned long long total) {
    const std::lock_guard guard(lock_);
    phase_ = phase;
    total_ = total;
    done_ = 0;
    began_ = std::chrono::steady_clock::now();
}

void Progress::add(unsigned long long bytes) {
    const std::lock_guard guard(lock_);
    done_ += bytes;
}

std::wstring Progress::text() const {
    if (total_ == 0 && done_ == 0) {
        const auto passed = std::chrono::steady_clock::now() - began_;
        return phase_ + L": " +
               std::to_wstring(std::chrono::duration_cast<std::chrono::seconds>(passed).count()) + L" s";
    }
    if (total_ == 0)
        return phase_ + L": " + megabytes(done_) + L" MB";
    const unsigned long long percent = std::min(done_, total_) * 100 / total_;
    return phase_ + L": " + std::to_wstring(percent) + L" % (" + megabytes(done_) + L" of " +
           megabytes(total_) + L" MB)";
}

void Progress::show(const std::stop_token& stop) {
    using std::chrono_literals::operator""ms;
    std::wstring shown;
    std::unique_lock guard(lock_);
    for (auto pause = 1000ms; !stop.stop_requested(); pause = 200ms) {
        wake_.wait_for(guard, stop, pause, [] { return false; });
        std::wstring line = text();
        if (stop.stop_requested() || line == shown)
            continue;
        shown.swap(line);
        const std::size_t rest = line.size() > shown.size() ? line.size() - shown.size() : 0;
        writeErrorConsole(L"\r" + shown + std::wstring(rest, L' '));
    }
    if (!shown.empty())
        writeErrorConsole(L"\r" + std::wstring(shown.size(), L' ') + L"\r");
}

} // namespace Vexel::Tool
