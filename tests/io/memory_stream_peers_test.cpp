// The same random scripts on our memory streams and on the streams of one of the system's compound files.
// What is left out is a position before the beginning, which ours has to refuse: the system would go there,
// and read foreign memory.

#include "support/compound_file.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <climits>
#include <numeric>
#include <utility>

using Microsoft::WRL::ComPtr;

namespace {

enum class Kind { Read, Write, Seek, SetSize };

struct Step {
    Kind kind;
    ULONG count; // bytes, or the new size
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

Outcome run(::IStream* stream, const Step& step) {
    HRESULT status = S_OK;
    ULONG moved = 0;
    ULARGE_INTEGER number{.QuadPart = step.count};
    std::string bytes(step.count, '\0');
    std::iota(bytes.begin(), bytes.end(), static_cast<char>(step.count));
    if (step.kind == Kind::Read) {
        status = stream->Read(bytes.data(), step.count, &moved);
    } else if (step.kind == Kind::Write) {
        status = stream->Write(bytes.data(), step.count, &moved);
    } else if (step.kind == Kind::Seek) {
        status = stream->Seek({.QuadPart = step.move}, step.origin, &number);
        if (FAILED(status))
            number = {}; // not defined
    } else {
        status = stream->SetSize(number);
    }
    const auto [position, size] = stateOf(stream);
    return {status, "moved " + std::to_string(moved) + ", reached " + std::to_string(number.QuadPart) +
                        ", now at " + std::to_string(position) + " of " + std::to_string(size) + ", read " +
                        bytes.substr(0, moved)};
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
        EXPECT_EQ(root_->CreateStream(L"a", mode, 0, 0, &theirs_), S_OK);
    }

    void step() {
        const Step step = draw();
        const State before = stateOf(ours_.Get());
        const Outcome outcome = run(ours_.Get(), step);
        if (isBeforeTheBeginning(step, before)) {
            EXPECT_EQ(outcome.first, STG_E_INVALIDFUNCTION);
            EXPECT_EQ(stateOf(ours_.Get()), before);
            return;
        }
        EXPECT_EQ(outcome, run(theirs_.Get(), step))
            << "operation " << static_cast<int>(step.kind) << ", " << step.count << " bytes, move "
            << step.move << " from " << step.origin << ", at " << before.position << " of " << before.size;
        align(before, step.kind == Kind::SetSize ? ~0ULL : before.position);
    }

private:
    Step draw() {
        const auto below = [&](unsigned n) { return random_() % n; };
        const ULONG counts[] = {0, 1, 1023, 1024, 1025, below(4000), below(4000), below(4000)};
        const long long away = below(4000), moves[] = {0, 1, -1, away, -away, LLONG_MAX, LLONG_MIN};
        return {static_cast<Kind>(below(4)), counts[below(8)], moves[below(7)], below(4)};
    }

    // The bytes from the old end up to `end` are not defined, and go on as ours are. Positions stay small
    // enough for memory.
    void align(const State& before, unsigned long long end) {
        const State now = stateOf(ours_.Get());
        const std::string bytes = Support::bytesOf(ours_.Get());
        end = (std::min)(end, now.size);
        if (end > before.size) {
            moveTo(theirs_.Get(), before.size);
            EXPECT_EQ(theirs_->Write(bytes.data() + before.size, ULONG(end - before.size), nullptr), S_OK);
        }
        EXPECT_TRUE(bytes == Support::bytesOf(theirs_.Get()));
        for (::IStream* stream : {static_cast<::IStream*>(ours_.Get()), theirs_.Get()})
            moveTo(stream, now.position > 1'000'000 ? 0 : now.position);
    }

    std::mt19937 random_;
    Support::TempFolder folder_;
    ComPtr<IStorage> root_;
    ComPtr<::IStream> theirs_;
    ComPtr<Vexel::Storage::InMemoryIStream> ours_ = Support::streamOf("");
};

TEST(MemoryStream, DoesWhatTheSystemsStreamsDo) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        SCOPED_TRACE(seed);
        Script script(seed);
        for (int i = 0; i < 60; ++i)
            script.step();
    }
}

} // namespace
