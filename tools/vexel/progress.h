#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

namespace Vexel::Tool {

/// Shows on standard error what the command has got to, if people are looking there and it takes longer than
/// a second: "packing: 42 % of 300.0 MB, 14.5 MB/s, 12 s left". It is written by a thread of its own, so that
/// it goes on while the library is busy.
class Progress {
public:
    Progress() = default;
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress() { end(); }

    /// Whether people would see it.
    static bool isShown() noexcept;

    /// What is being done now, and how many bytes that will be; 0: not known. Before the first, the
    /// time is shown.
    void begin(std::wstring_view phase, unsigned long long total = 0);
    void add(unsigned long long bytes);
    /// How many bytes it will be, where that comes out only now, or better than before.
    void expect(unsigned long long total);
    /// Takes the line away; the next `begin` brings it back.
    void end() noexcept;

    /// While one lives something else is being done, of which only the time is shown. Then what was done
    /// before goes on.
    class Interlude {
    public:
        Interlude(Progress& progress, std::wstring_view phase);
        Interlude(const Interlude&) = delete;
        Interlude& operator=(const Interlude&) = delete;
        ~Interlude();

    private:
        Progress& progress_;
        std::wstring phase_; // and what else is that of the work before
        unsigned long long total_ = 0;
        unsigned long long done_ = 0;
        std::chrono::steady_clock::duration passed_{};
    };

    /// While one lives the line is not there, so that other text can be.
    class Hidden {
    public:
        explicit Hidden(Progress& progress);

    private:
        std::unique_lock<std::mutex> guard_;
    };

private:
    void show(const std::stop_token& stop);
    std::wstring text() const;
    void erase() noexcept;

    std::mutex lock_;
    std::condition_variable_any wake_;
    std::wstring phase_;
    std::wstring shown_;
    unsigned long long total_ = 0;
    unsigned long long done_ = 0;
    std::chrono::steady_clock::time_point began_;
    std::jthread thread_; // last: it uses the others
};

/// That of the command that runs.
Progress& progress();

} // namespace Vexel::Tool
