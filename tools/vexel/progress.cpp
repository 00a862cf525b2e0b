// A thread of its own draws the line, because the library may take long in one call. It is started with the
// first phase and only for a terminal.

#include "progress.h"

#include "console.h"
#include "sizes.h"
#include "text.h"

#include <cmath>
#include <utility>

namespace Vexel::Tool {
namespace {

std::wstring amount(double bytes) { return toUtf16(humanSize(static_cast<unsigned long long>(bytes))); }

} // namespace

Progress& progress() {
    static Progress instance;
    return instance;
}

bool Progress::isShown() noexcept { return errorIsConsole(); }

void Progress::begin(std::wstring_view phase, unsigned long long total) {
    const std::lock_guard guard(lock_);
    phase_ = phase;
    total_ = total;
    done_ = 0;
    began_ = std::chrono::steady_clock::now();
    if (!thread_.joinable() && isShown())
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

Progress::Interlude::Interlude(Progress& progress, std::wstring_view phase)
    : progress_(progress), phase_(phase) {
    const std::lock_guard guard(progress.lock_);
    phase_.swap(progress.phase_);
    std::swap(total_, progress.total_);
    std::swap(done_, progress.done_);
    const auto now = std::chrono::steady_clock::now();
    passed_ = now - std::exchange(progress.began_, now);
}

Progress::Interlude::~Interlude() {
    const std::lock_guard guard(progress_.lock_);
    phase_.swap(progress_.phase_);
    progress_.total_ = total_;
    progress_.done_ = done_;
    progress_.began_ = std::chrono::steady_clock::now() - passed_;
}

void Progress::erase() noexcept {
    if (!shown_.empty())
        writeErrorConsole(L"\r" + std::wstring(shown_.size(), L' ') + L"\r");
    shown_.clear();
}

void Progress::add(unsigned long long bytes) {
    const std::lock_guard guard(lock_);
    done_ += bytes;
}

void Progress::expect(unsigned long long total) {
    const std::lock_guard guard(lock_);
    total_ = total;
}

std::wstring Progress::text() const {
    using std::chrono::duration;
    const double seconds = duration<double>(std::chrono::steady_clock::now() - began_).count();
    if (done_ == 0)
        return phase_ + L": " + std::to_wstring(static_cast<unsigned long long>(seconds)) + L" s";
    const std::wstring rate = L", " + amount(static_cast<double>(done_) / seconds) + L"/s";
    if (total_ < done_) // not known, or not true
        return phase_ + L": " + amount(static_cast<double>(done_)) + rate;
    const double left = seconds * static_cast<double>(total_ - done_) / static_cast<double>(done_);
    return phase_ + L": " + std::to_wstring(done_ * 100 / total_) + L" % of " +
           amount(static_cast<double>(total_)) + rate + L", " +
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
