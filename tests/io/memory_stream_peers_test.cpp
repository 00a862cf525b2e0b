// The same random scripts on our memory streams and on the streams of one of the system's compound files.
// They differ in two ways only, which have to show.

#include "support/compound_file.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <numeric>
#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

using Microsoft::WRL::ComPtr;

namespace {

enum class Kind { Read, Write, Seek, SetSize, CopyTo, Clone };

struct Step {
    Kind kind;
    size_t stream, target; // `target` of CopyTo
    ULONG count;           // bytes, or the new size
    long long move;
    DWORD origin;
};

struct State {
    unsigned long long position = 0, size = 0;
    bool operator==(const State&) const = default;
};

struct Outcome {
    HRESULT status = S_OK;
    unsigned long long moved = 0; // bytes, or the position that Seek tells
    unsigned long long written = 0;
    std::string bytes;
    State stream, target; // afterwards
    bool operator==(const Outcome&) const = default;
};

void PrintTo(const Outcome& o, std::ostream* out) {
    *out << std::hex << static_cast<unsigned long>(o.status) << std::dec << " moved " << o.moved << ", "
         << o.written << ", now at " << o.stream.position << " of " << o.stream.size << ", target at "
         << o.target.position << " of " << o.target.size << ", read " << o.bytes;
}

void moveTo(::IStream* stream, unsigned long long position) {
    EXPECT_EQ(stream->Seek({.QuadPart = static_cast<long long>(position)}, STREAM_SEEK_SET, nullptr), S_OK);
}

State stateOf(::IStream* stream) {
    ULARGE_INTEGER position{};
    STATSTG entry{};
    EXPECT_EQ(stream->Seek({}, STREAM_SEEK_CUR, &position), S_OK);
    EXPECT_EQ(stream->Stat(&entry, STATFLAG_NONAME), S_OK);
    return {position.QuadPart, entry.cbSize.QuadPart};
}

std::string bytesOf(::IStream* stream, unsigned long long from, unsigned long long end) {
    std::string bytes(end - from, '\0');
    moveTo(stream, from);
    EXPECT_GE(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr), S_OK);
    return bytes;
}

// Two streams, and behind them their clones.
struct Pool {
    std::vector<ComPtr<::IStream>> streams;

    Outcome run(const Step& step) {
        const ComPtr<::IStream> stream = streams[step.stream];
        Outcome outcome;
        ULONG moved = 0;
        ULARGE_INTEGER number{.QuadPart = step.count}, written{};
        std::string bytes(step.count, '\0');
        std::iota(bytes.begin(), bytes.end(), static_cast<char>(step.target + step.count));
        if (step.kind == Kind::Read) {
            outcome.status = stream->Read(bytes.data(), step.count, &moved);
            outcome.bytes = bytes.substr(0, moved);
        } else if (step.kind == Kind::Write) {
            outcome.status = stream->Write(bytes.data(), step.count, &moved);
        } else if (step.kind == Kind::Seek) {
            outcome.status = stream->Seek({.QuadPart = step.move}, step.origin, &number);
        } else if (step.kind == Kind::SetSize) {
            outcome.status = stream->SetSize(number);
        } else if (step.kind == Kind::CopyTo) {
            outcome.status = stream->CopyTo(streams[step.target].Get(), number, &number, &written);
        } else {
            ComPtr<::IStream> clone;
            outcome.status = stream->Clone(&clone);
            if (clone)
                streams.push_back(clone);
        }
        if (step.kind == Kind::Seek && FAILED(outcome.status))
            number = {}; // not defined
        outcome.moved = step.kind == Kind::CopyTo || step.kind == Kind::Seek ? number.QuadPart : moved;
        outcome.written = written.QuadPart;
        outcome.stream = stateOf(stream.Get());
        outcome.target = stateOf(streams[step.target].Get());
        return outcome;
    }
};

/// Where Seek is to go to; nothing for an unknown origin and before the beginning.
std::optional<unsigned long long> destination(const Step& step, const State& before) {
    const unsigned long long from = std::array{0ULL, before.position, before.size, 0ULL}[step.origin];
    const auto distance = static_cast<unsigned long long>(step.move);
    if (step.origin == 3 || (step.move < 0 && 0 - distance > from))
        return {};
    return from + distance;
}

class Script {
public:
    explicit Script(unsigned seed) : random_(seed) {
        const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
        EXPECT_EQ(StgCreateDocfile(folder_.file(L"file").c_str(), mode, 0, &root_), S_OK);
        for (const wchar_t* name : {L"a", L"b"}) {
            EXPECT_EQ(root_->CreateStream(name, mode, 0, 0, &theirs_.streams.emplace_back()), S_OK);
            ours_.streams.emplace_back(Support::streamOf(""));
        }
    }

    void step() {
        const Step step = draw();
        if (step.kind == Kind::CopyTo && memory_[step.stream] == memory_[step.target])
            return; // peers differ in where that ends, if it does
        const State before = stateOf(ours_.streams[step.stream].Get());
        const State targetBefore = stateOf(ours_.streams[step.target].Get());
        const Outcome ours = ours_.run(step);
        if (step.kind == Kind::Seek && step.origin != 3 && !destination(step, before)) {
            // The system would go there, and read foreign memory.
            ++seeksBeforeTheBeginning;
            EXPECT_EQ(ours.status, STG_E_INVALIDFUNCTION);
            EXPECT_EQ(ours.stream, before);
        } else {
            Outcome theirs = theirs_.run(step);
            if (step.kind == Kind::CopyTo && before.position > before.size && theirs != ours) {
                ++copiesFromBeyond; // from no memory, which we hand to the target
                EXPECT_EQ(std::exchange(theirs.status, STG_E_INVALIDPOINTER), S_OK);
            }
            EXPECT_EQ(ours, theirs) << "operation " << static_cast<int>(step.kind) << ", " << step.count
                                    << " bytes, move " << step.move << " from " << step.origin << ", at "
                                    << before.position << " of " << before.size;
        }
        if (ours_.streams.size() > memory_.size())
            memory_.push_back(memory_[step.stream]);
        align(step.stream, before, step.kind == Kind::SetSize ? ~0ULL : before.position);
        align(step.target, targetBefore, step.kind == Kind::CopyTo ? targetBefore.position : 0);
    }

    static inline int seeksBeforeTheBeginning = 0, copiesFromBeyond = 0;

private:
    Step draw() {
        const auto below = [&](unsigned n) { return random_() % n; };
        const auto kind = static_cast<Kind>(below(6));
        const size_t stream = below(8) % memory_.size(), target = below(8) % memory_.size();
        const ULONG counts[] = {0, 1, 1023, 1024, 1025, below(4000), below(4000), below(4000)};
        const long long away = below(4000), moves[] = {0, 1, -1, away, -away, LLONG_MAX, LLONG_MIN};
        return {kind, stream, target, counts[below(8)], moves[below(7)], below(4)};
    }

    // The state goes on from ours, as do the bytes from the old end up to `end`, which are not defined; all
    // others must be equal already. Positions stay small enough for memory.
    void align(size_t index, const State& before, unsigned long long end) {
        ::IStream* const our = ours_.streams[index].Get();
        ::IStream* const their = theirs_.streams[index].Get();
        const State now = stateOf(our);
        EXPECT_EQ(their->SetSize({.QuadPart = now.size}), S_OK);
        end = (std::min)(end, now.size);
        if (end > before.size) {
            const std::string gap = bytesOf(our, before.size, end);
            moveTo(their, before.size);
            EXPECT_EQ(their->Write(gap.data(), static_cast<ULONG>(gap.size()), nullptr), S_OK);
        }
        EXPECT_TRUE(bytesOf(our, 0, now.size) == bytesOf(their, 0, now.size));
        for (::IStream* stream : {our, their})
            moveTo(stream, now.position > 1'000'000 ? 0 : now.position);
    }

    std::mt19937 random_;
    Support::TempFolder folder_;
    ComPtr<IStorage> root_;
    Pool ours_, theirs_;
    std::vector<int> memory_{0, 1}; // streams with the same number share it
};

TEST(MemoryStream, DoesWhatTheSystemsStreamsDo) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Script script(seed);
        for (int i = 0; i < 60; ++i)
            script.step();
    }
    EXPECT_GT(Script::seeksBeforeTheBeginning, 0);
    EXPECT_GT(Script::copiesFromBeyond, 0);
}

} // namespace
