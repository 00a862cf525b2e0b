// The same random scripts on our memory streams and on the streams of one of the system's compound files.
// They differ in two ways only, which have to show.

#include "support/compound_file.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <climits>
#include <numeric>
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

/// A status, and what is there afterwards.
using Outcome = std::pair<HRESULT, std::string>;

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

/// Two streams, and behind them their clones.
using Pool = std::vector<ComPtr<::IStream>>;

Outcome run(Pool& streams, const Step& step) {
    const ComPtr<::IStream> stream = streams[step.stream];
    HRESULT status = S_OK;
    ULONG moved = 0;
    ULARGE_INTEGER number{.QuadPart = step.count}, written{};
    std::string bytes(step.count, '\0');
    std::iota(bytes.begin(), bytes.end(), static_cast<char>(step.target + step.count));
    if (step.kind == Kind::Read) {
        status = stream->Read(bytes.data(), step.count, &moved);
    } else if (step.kind == Kind::Write) {
        status = stream->Write(bytes.data(), step.count, &moved);
    } else if (step.kind == Kind::Seek) {
        status = stream->Seek({.QuadPart = step.move}, step.origin, &number);
        if (FAILED(status))
            number = {}; // not defined
    } else if (step.kind == Kind::SetSize) {
        status = stream->SetSize(number);
    } else if (step.kind == Kind::CopyTo) {
        status = stream->CopyTo(streams[step.target].Get(), number, &number, &written);
    } else {
        ComPtr<::IStream> clone;
        status = stream->Clone(&clone);
        if (clone)
            streams.push_back(clone);
    }
    std::string after = "moved or reached";
    for (const auto figure : {0ULL + moved, number.QuadPart, written.QuadPart})
        after += ' ' + std::to_string(figure);
    for (const std::size_t each : {step.stream, step.target}) {
        const auto [position, size] = stateOf(streams[each].Get());
        after += ", now at " + std::to_string(position) + " of " + std::to_string(size);
    }
    return {status, after + ", read " + bytes.substr(0, moved)};
}

bool isBeforeTheBeginning(const Step& step, const State& at) {
    if (step.kind != Kind::Seek || step.origin > STREAM_SEEK_END || step.move >= 0)
        return false;
    const unsigned long long origins[] = {0, at.position, at.size};
    return 0 - static_cast<unsigned long long>(step.move) > origins[step.origin];
}

class Script {
public:
    explicit Script(unsigned seed) : random_(seed) {
        const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
        EXPECT_EQ(StgCreateDocfile(folder_.file(L"file").c_str(), mode, 0, &root_), S_OK);
        for (const wchar_t* name : {L"a", L"b"}) {
            EXPECT_EQ(root_->CreateStream(name, mode, 0, 0, &theirs_.emplace_back()), S_OK);
            ours_.emplace_back(Support::streamOf(""));
        }
    }

    void step() {
        const Step step = draw();
        if (step.kind == Kind::CopyTo && memory_[step.stream] == memory_[step.target])
            return; // peers differ in where that ends, if it does
        const State before = stateOf(ours_[step.stream].Get());
        const State targetBefore = stateOf(ours_[step.target].Get());
        const Outcome ours = run(ours_, step);
        if (isBeforeTheBeginning(step, before)) { // where the system would go, and read foreign memory
            ++seeksBeforeTheBeginning;
            EXPECT_EQ(ours.first, STG_E_INVALIDFUNCTION);
            EXPECT_EQ(stateOf(ours_[step.stream].Get()), before);
        } else {
            Outcome theirs = run(theirs_, step);
            if (step.kind == Kind::CopyTo && before.position > before.size && theirs != ours) {
                ++copiesFromBeyond; // from no memory, which we hand to the target
                EXPECT_EQ(std::exchange(theirs.first, STG_E_INVALIDPOINTER), S_OK);
            }
            EXPECT_EQ(ours, theirs) << "operation " << static_cast<int>(step.kind) << ", " << step.count
                                    << " bytes, move " << step.move << " from " << step.origin << ", at "
                                    << before.position << " of " << before.size;
        }
        if (ours_.size() > memory_.size())
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
        ::IStream *const our = ours_[index].Get(), *const their = theirs_[index].Get();
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
