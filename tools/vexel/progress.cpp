// A thread of its own draws the line, because the library may take long in one call. It is started with the
// first phase and only for a terminal.

#include "progress.h"

#include "console.h"

#include <algorithm>
#include <utility>

namespace Vexel::Tool {
namespace {

std::wstring megabytes(unsigned long long bytes) {
    constexpr unsigned long long kMegabyte = 1'000'000;
    return std::to_wstring(bytes / kMegabyte);
}

} // namespace

Progress& progress() {
    static Progress instance;
    return instance;
}

void Progress::begin(std::wstring_view phase, unsigned long long total) {
    const std::lock_guard guard(lock_);
    phase_ = phase;
    total_ = total;
    done_ = 0;
    began_ = std::chrono::steady_clock::now();
    if (!thread_.joinable() && errorIsConsole())
        thread_ = std::jthread([this](const std::stop_token& stop) { show(stop); });
}

// The thread must be at its end before what it uses is.
void Progress::end() noexcept {
    if (!thread_.joinable())
        return;
    thread_.request_stop();
    thread_.join();
    thread_ = {};
    erase();
}

Progress::Hidden::Hidden(Progress& progress) : guard_(progress.lock_) { progress.erase(); }

void Progress::erase() noexcept {
    if (!shown_.empty())
        writeErrorConsole(L"\r" + std::wstring(shown_.size(), L' ') + L"\r");
    shown_.clear();
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

// The first line comes after a second, so that short commands show none. Each line is written over the one
// before; what that had more is blanked.
void Progress::show(const std::stop_token& stop) {
    using std::chrono_literals::operator""ms;
    std::unique_lock guard(lock_);
    for (auto pause = 1000ms; !stop.stop_requested(); pause = 200ms) {
        wake_.wait_for(guard, stop, pause, [] { return false; });
        std::wstring line = text();
        if (stop.stop_requested() || line == shown_)
            continue;
        const std::size_t rest = shown_.size() > line.size() ? shown_.size() - line.size() : 0;
        shown_ = std::move(line);
        writeErrorConsole(L"\r" + shown_ + std::wstring(rest, L' '));
    }
}

} // namespace Vexel::Tool
