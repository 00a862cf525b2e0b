// The same random scripts on our memory stream and on the system's streams (Wine's, where the tests run
// there). Every difference is wanted, or a fault of theirs, and has a name; a name that no script shows
// fails, too.

#include "support/compound_file.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <climits>
#include <map>
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
    ComPtr<IStorage> root; // of those in a compound file
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

struct Case {
    const Step& step;
    State before; // in ours
    Outcome ours, theirs;

    bool is(Kind kind) const { return step.kind == kind; }
    bool beyond() const { return before.position > before.size; }
    bool huge() const { return is(Kind::Seek) && (step.move == LLONG_MAX || step.move == LLONG_MIN); }

    // Where Seek is to go to; nothing for an unknown origin and before the beginning.
    std::optional<unsigned long long> destination() const {
        const unsigned long long from = std::array{0ULL, before.position, before.size, 0ULL}[step.origin];
        const auto distance = static_cast<unsigned long long>(step.move);
        if (step.origin == 3 || (step.move < 0 && 0 - distance > from))
            return {};
        return from + distance;
    }

    bool oursRefuses(HRESULT status) const {
        return ours.status == status && ours.moved + ours.written == 0 && ours.stream == before;
    }
    bool oursSeeks() const {
        const auto to = destination();
        return to ? ours.status == S_OK && ours.moved == *to && ours.stream == State{*to, before.size}
                  : oursRefuses(STG_E_INVALIDFUNCTION);
    }
    // Nothing but the status differs.
    bool statuses(HRESULT our, HRESULT their) const {
        Outcome same = theirs;
        return ours.status == our && std::exchange(same.status, our) == their && ours == same;
    }
};

struct Difference {
    const char* name;
    bool (*shows)(const Case& c);
};

struct Peer {
    const char* name;
    void (*fill)(Pool& pool, const Support::TempFolder& folder);
    bool (*mayAsk)(const Case& c); // else it would read foreign memory, or end the process
    std::vector<Difference> differences;
};

void PrintTo(const Peer& peer, std::ostream* out) { *out << peer.name; }

const Peer peers[] = {
    {"SHCreateMemStream",
     [](Pool& pool, const Support::TempFolder&) {
         pool.streams = {Support::systemStream(), Support::systemStream()};
     },
     [](const Case&) { return true; },
     {{"clones", [](const Case& c) { return c.is(Kind::Clone) && c.statuses(S_OK, E_NOTIMPL); }},
      {"success at the end", [](const Case& c) { return !c.is(Kind::Seek) && c.statuses(S_OK, S_FALSE); }},
      {"null source to copy from",
       [](const Case& c) { return c.beyond() && c.statuses(STG_E_INVALIDPOINTER, S_FALSE); }},
      {"status for an unknown origin",
       [](const Case& c) {
           return c.step.origin == 3 && c.statuses(STG_E_INVALIDFUNCTION, STG_E_INVALIDPARAMETER);
       }},
      {"64-bit positions", [](const Case& c) { return c.huge() && c.oursSeeks(); }},
      {"writing nothing does not extend",
       [](const Case& c) { return c.is(Kind::Write) && c.step.count == 0 && c.oursRefuses(S_OK); }}}},
    {"compound file",
     [](Pool& pool, const Support::TempFolder& folder) {
         const DWORD mode = STGM_CREATE | STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
         EXPECT_EQ(StgCreateDocfile(folder.file(L"file").c_str(), mode, 0, &pool.root), S_OK);
         for (const wchar_t* name : {L"a", L"b"})
             EXPECT_EQ(pool.root->CreateStream(name, mode, 0, 0, &pool.streams.emplace_back()), S_OK);
     },
     [](const Case& c) { return !c.is(Kind::Seek) || c.step.origin == 3 || c.destination(); },
     {{"nothing before the beginning",
       [](const Case& c) { return c.is(Kind::Seek) && c.oursRefuses(STG_E_INVALIDFUNCTION); }},
      {"null source to copy from",
       [](const Case& c) { return c.beyond() && c.statuses(STG_E_INVALIDPOINTER, S_OK); }}}},
};

class Script {
public:
    Script(const Peer& peer, unsigned seed, std::map<std::string, int>& shown)
        : peer_(peer), random_(seed), shown_(shown) {
        ours_.streams = {Support::streamOf(""), Support::streamOf("")};
        peer.fill(theirs_, folder_);
    }

    void step() {
        const Step step = draw();
        if (step.kind == Kind::CopyTo && memory_[step.stream] == memory_[step.target])
            return; // peers differ in where that ends, if it does
        const State before = stateOf(ours_.streams[step.stream].Get());
        const State targetBefore = stateOf(ours_.streams[step.target].Get());
        Case c{step, before, {}, {}};
        c.ours = ours_.run(step);
        if (peer_.mayAsk(c))
            c.theirs = theirs_.run(step);
        else
            c.theirs.status = E_PENDING;
        if (ours_.streams.size() == theirs_.streams.size() && ours_.streams.size() > memory_.size())
            memory_.push_back(memory_[step.stream]);
        ours_.streams.resize(memory_.size());
        if (c.ours != c.theirs)
            settle(c);
        align(step.stream, before, step.kind == Kind::SetSize ? ~0ULL : before.position);
        align(step.target, targetBefore, step.kind == Kind::CopyTo ? targetBefore.position : 0);
    }

private:
    Step draw() {
        const auto below = [&](unsigned n) { return random_() % n; };
        const auto kind = static_cast<Kind>(below(6));
        const size_t stream = below(8) % memory_.size(), target = below(8) % memory_.size();
        const ULONG counts[] = {0, 1, 1023, 1024, 1025, below(4000), below(4000), below(4000)};
        const long long away = below(4000), moves[] = {0, 1, -1, away, -away, LLONG_MAX, LLONG_MIN};
        return {kind, stream, target, counts[below(8)], moves[below(7)], below(4)};
    }

    // Whether it is one of the wanted differences.
    void settle(const Case& c) {
        for (const Difference& difference : peer_.differences)
            if (difference.shows(c)) {
                ++shown_[difference.name];
                return;
            }
        EXPECT_EQ(c.ours, c.theirs) << "operation " << static_cast<int>(c.step.kind) << ", " << c.step.count
                                    << " bytes, move " << c.step.move << " from " << c.step.origin << ", at "
                                    << c.before.position << " of " << c.before.size;
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

    const Peer& peer_;
    std::mt19937 random_;
    std::map<std::string, int>& shown_;
    Support::TempFolder folder_;
    Pool ours_, theirs_;
    std::vector<int> memory_{0, 1}; // streams with the same number share it
};

class Peers : public testing::TestWithParam<Peer> {};

TEST_P(Peers, DifferOnlyWhereTheyShould) {
    std::map<std::string, int> shown;
    for (unsigned seed = 0; seed < 40; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Script script(GetParam(), seed, shown);
        for (int i = 0; i < 60; ++i)
            script.step();
    }
    for (const Difference& difference : GetParam().differences)
        EXPECT_GT(shown[difference.name], 0) << difference.name;
}

INSTANTIATE_TEST_SUITE_P(System, Peers, testing::ValuesIn(peers));

} // namespace
