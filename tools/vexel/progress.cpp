// A thread of its own draws the line, because the library may take long in one call. It is started with the
// first phase and only for a terminal.

#include "progress.h"

#include "console.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Vexel::Tool {
namespace {

std::wstring megabytes(double bytes) {
    constexpr double kMegabyte = 1'000'000;
    return std::to_wstring(static_cast<unsigned long long>(bytes / kMegabyte));
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
    using std::chrono::duration;
    const double seconds = duration<double>(std::chrono::steady_clock::now() - began_).count();
    if (done_ == 0)
        return phase_ + L": " + std::to_wstring(static_cast<unsigned long long>(seconds)) + L" s";
    const std::wstring rate = L", " + megabytes(static_cast<double>(done_) / seconds) + L" MB/s";
    if (total_ == 0)
        return phase_ + L": " + megabytes(static_cast<double>(done_)) + L" MB" + rate;
    const unsigned long long done = std::min(done_, total_);
    const double left = seconds * static_cast<double>(total_ - done) / static_cast<double>(done);
    return phase_ + L": " + std::to_wstring(done * 100 / total_) + L" % of " +
           megabytes(static_cast<double>(total_)) + L" MB" + rate + L", " +
           std::to_wstring(static_cast<unsigned long long>(std::ceil(left))) + L" s left";
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
