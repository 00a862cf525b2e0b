#include "support/platform_guard.h"
#include "support/recording_stream.h"
#include "support/scarce_memory.h"
#include "support/streams.h"

#include <vexel/sub_stream.h>

#include <climits>
#include <cstdlib>
#include <numeric>
#include <tuple>
#include <vector>

using Microsoft::WRL::ComPtr;
using Support::streamOf;
using namespace Vexel::Detail;
using namespace Vexel::Storage;

namespace {

constexpr unsigned long long kLimit = ~0ULL;

std::string contents(const ComPtr<InMemoryIStream>& stream) {
    return stream->size() > 0 ? std::string(reinterpret_cast<const char*>(stream->data(0)), stream->size())
                              : "";
}

HRESULT seek(const ComPtr<InMemoryIStream>& stream, long long move, DWORD origin = STREAM_SEEK_SET) {
    return stream->Seek({.QuadPart = move}, origin, nullptr);
}

DynamicBuffer bufferOn(unsigned char* block, unsigned long long size, unsigned long long capacity,
                       bool owns) {
    DynamicBuffer buffer;
    std::tie(buffer.data, buffer.size, buffer.capacity, buffer.ownsMemory) =
        std::tuple(block, size, capacity, owns);
    return buffer;
}

TEST(ComObjects, AreOneObjectUnderAllTheirInterfaces) {
    const auto base = streamOf("0123");
    const ComPtr<::IStream> part = adopt<::IStream>(new Vexel::Storage::SubStream(base.Get(), 1, 2));
    for (::IStream* const object : {static_cast<::IStream*>(base.Get()), part.Get()})
        Support::expectInterfaces(object, {IID_IUnknown, IID_ISequentialStream, IID_IStream}, IID_IStorage);
}

TEST(MemoryStream, GrowsInSteps) {
    constexpr unsigned long long kMiB = 1 << 20;
    for (const auto& [initial, written, capacity] : {std::tuple(0ULL, 0ULL, 0ULL),
                                                     {0, 1, 1024},
                                                     {0, 1024, 2048},
                                                     {100, 101, 1124},
                                                     {3000, 6000, 9000},
                                                     {32 * kMiB, 32 * kMiB + 1, 64 * kMiB},
                                                     {48 * kMiB, 48 * kMiB + 1, 80 * kMiB}}) {
        const auto stream = adopt(new InMemoryIStream(initial));
        EXPECT_EQ(stream->capacity(), initial);
        const unsigned long long most = (std::min)(initial, written);
        EXPECT_EQ(stream->write(std::string(most, 'x').data(), most), most);
        EXPECT_EQ(stream->write(std::string(written - most, 'x').data(), written - most), written - most);
        EXPECT_EQ(stream->capacity(), capacity) << initial << ", " << written;
    }
}

TEST(MemoryStream, TakesWhatMemoryThereIs) {
    const auto stream = streamOf(std::string(100, 'x'));
    const std::string more(2000, 'y');
    ULONG done = 7;
    const PlatformGuard guard;
    platform().reallocate = [](auto...) noexcept -> void* { return nullptr; };
    EXPECT_EQ(adopt(new InMemoryIStream(5))->size(), 0U);
    EXPECT_FALSE(stream->resize(1025));
    EXPECT_TRUE(stream->resize(1024)) << "there already";
    EXPECT_TRUE(stream->resize(100));
    EXPECT_EQ(stream->SetSize({.QuadPart = 5000}), STG_E_INSUFFICIENTMEMORY);
    stream->seek(0, InMemoryIStream::End);
    EXPECT_EQ(stream->Write(more.data(), 2000, &done), S_OK) << "part of it";
    EXPECT_EQ(done, 924U);
    EXPECT_EQ(stream->Write(more.data(), 1, &done), STG_E_INSUFFICIENTMEMORY);
    EXPECT_EQ(done, 0U);
    EXPECT_EQ(seek(stream, 1025), S_OK);
    EXPECT_EQ(stream->write(more.data(), 0), 0U);
    EXPECT_EQ(stream->size(), 1024U) << "beyond the memory nothing changes";
    EXPECT_TRUE(stream->resize(1000));
    EXPECT_EQ(seek(stream, 1024), S_OK);
    EXPECT_EQ(stream->Write(more.data(), 1, &done), STG_E_INSUFFICIENTMEMORY);
    EXPECT_EQ(contents(stream), std::string(100, 'x') + std::string(924, 'y'))
        << "reaches to the position where the memory ends";
}

TEST(MemoryStream, RefusesSizesThatCannotBe) {
    const auto stream = streamOf("");
    EXPECT_TRUE(stream->resize(3001));
    EXPECT_EQ(seek(stream, LLONG_MAX), S_OK);
    for (const unsigned long long at : {kLimit / 2, kLimit - 1}) {
        EXPECT_EQ(stream->position(), at);
        EXPECT_EQ(stream->Write("0123456789", 10, nullptr), STG_E_INSUFFICIENTMEMORY);
        EXPECT_EQ(stream->position(), at);
        EXPECT_EQ(seek(stream, at > kLimit / 2 ? 0 : LLONG_MAX, STREAM_SEEK_CUR), S_OK);
    }
    EXPECT_FALSE(stream->resize(kLimit));
    EXPECT_EQ(stream->SetSize({.QuadPart = kLimit / 2 + 1}), STG_E_INSUFFICIENTMEMORY);
    EXPECT_EQ(stream->size(), 3001U);
    EXPECT_EQ(stream->capacity(), 3001U);
    EXPECT_EQ(stream->seek(5, InMemoryIStream::Current), 3001U) << "does not wrap";

    ::IStream* clone = stream.Get();
    AtMainAllocation(0, [] { throw std::bad_alloc(); });
    EXPECT_EQ(stream->Clone(&clone), E_OUTOFMEMORY);
    EXPECT_EQ(clone, nullptr);
    EXPECT_EQ(stream->numInstances(), 1);
    for (int skipped : {0, 1}) {
        AtMainAllocation(skipped, [] { throw std::bad_alloc(); });
        EXPECT_THROW(new InMemoryIStream(), std::bad_alloc) << skipped;
    }
}

// `Seek` is held against the system's streams elsewhere.
TEST(MemoryStream, SeeksDirectlyWithinItsBytes) {
    const auto stream = streamOf("01234");
    struct Case {
        long long move;
        int origin;
        unsigned long long reached; // from 2
    };
    for (const auto& [move, origin, reached] :
         {Case{5, 0, 5}, Case{6, 0, 5}, Case{-1, 0, 2}, Case{3, 1, 5}, Case{4, 1, 5}, Case{-2, 1, 0},
          Case{-3, 1, 2}, Case{LLONG_MAX, 1, 5}, Case{LLONG_MIN, 1, 2}, Case{-5, 2, 0}, Case{-6, 2, 2},
          Case{10, 2, 2}, Case{LLONG_MIN, 2, 2}, Case{0, 3, 2}}) {
        stream->seek(2, InMemoryIStream::Begin);
        EXPECT_EQ(stream->seek(move, static_cast<InMemoryIStream::SeekOrigin>(origin)), reached)
            << move << " " << origin;
    }
    EXPECT_EQ(seek(stream, 10, STREAM_SEEK_END), S_OK);
    EXPECT_EQ(stream->data(), nullptr);
    EXPECT_EQ(stream->seek(LLONG_MAX, InMemoryIStream::Current), 5U) << "back into the range";
}

TEST(MemoryStream, SharesItsMemoryWithClones) {
    const auto stream = streamOf("0123456789");
    ComPtr<::IStream> clone;
    ASSERT_EQ(stream->Clone(&clone), S_OK);
    auto& other = static_cast<InMemoryIStream&>(*clone.Get());
    EXPECT_EQ(other.numRefs(), 1U);
    EXPECT_EQ(stream->numInstances(), 2);

    // From the memory itself, which moves meanwhile.
    other.seek(0, InMemoryIStream::End);
    EXPECT_EQ(stream->CopyTo(clone.Get(), {.QuadPart = kLimit}, nullptr, nullptr), S_OK);
    EXPECT_EQ(contents(stream), "01234567890123456789") << "what there was at first";
    stream->resize(1024);
    std::memset(const_cast<unsigned char*>(stream->data(0)), 'z', 1024);
    other.seek(0, InMemoryIStream::End);
    EXPECT_EQ(other.write(stream->data(0), 1024), 1024U);
    EXPECT_EQ(contents(stream), std::string(2048, 'z'));

    stream->seek(9, InMemoryIStream::Begin);
    stream->freeMemory();
    EXPECT_EQ(stream->position(), 9U);
    EXPECT_EQ(other.size() + other.capacity(), 0U);
    EXPECT_EQ(other.position(), 2048U);
    EXPECT_EQ(other.data(0), nullptr);
    clone = nullptr;
    EXPECT_EQ(stream->numInstances(), 1);
    stream->rewind();
    EXPECT_EQ(stream->write("new", 3), 3U);
    EXPECT_EQ(contents(stream), "new");
}

TEST(MemoryStream, MovesEveryLength) {
    std::string start(400, '\0');
    std::iota(start.begin(), start.end(), '\0');
    for (std::size_t length = 0; length <= 200; ++length)
        for (const long long to : {93, 99, 100, 101, 117}) { // from 100, so that most overlap
            const auto stream = streamOf(start);
            std::string moved = start;
            moved.replace(static_cast<std::size_t>(to), length, start, 100, length);
            stream->seek(to, InMemoryIStream::Begin);
            ASSERT_EQ(stream->write(stream->data(100), length), length);
            ASSERT_EQ(contents(stream), moved) << length << " to " << to;
            std::string read(length + 2, '#');
            stream->seek(to, InMemoryIStream::Begin);
            ASSERT_EQ(stream->read(read.data() + 1, length), length);
            ASSERT_EQ(read, '#' + start.substr(100, length) + '#');
        }
}

unsigned char* newBlock() { return static_cast<unsigned char*>(std::malloc(8)); }

auto fieldsOf(const DynamicBuffer& buffer) {
    return std::tuple(buffer.data, buffer.size, buffer.capacity, buffer.ownsMemory);
}

// An assigned buffer brings all four fields, and what stood there before is freed if it was owned.
TEST(DynamicBuffers, FreeWhatTheyOwn) {
    static std::vector<void*> freed;
    freed.clear();
    const PlatformGuard guard;
    platform().freeMemory = [](void* block) noexcept {
        if (block)
            freed.push_back(block);
        std::free(block);
    };
    unsigned char bytes[8] = {};
    unsigned char *const first = newBlock(), *const second = newBlock();
    {
        DynamicBuffer target = bufferOn(first, 4, 8, true);
        target = bufferOn(bytes, 2, 7, false);
        EXPECT_EQ(freed, std::vector<void*>{first});
        EXPECT_EQ(fieldsOf(target), std::tuple(+bytes, 2ULL, 7ULL, false));
        target = bufferOn(second, 1, 8, true);
        DynamicBuffer& itself = target;
        target = std::move(itself);
        EXPECT_EQ(fieldsOf(target), std::tuple(second, 1ULL, 8ULL, true));
    }
    EXPECT_EQ(freed, (std::vector<void*>{first, second}));
}

TEST(MemoryStream, TakesBuffersOver) {
    auto* const block = newBlock();
    DynamicBuffer owned = bufferOn(block, 4, 8, true);
    const auto stream = adopt(new InMemoryIStream(std::move(owned)));
    // NOLINTNEXTLINE(bugprone-use-after-move): it keeps its numbers, but no memory
    EXPECT_EQ(fieldsOf(owned), std::tuple(nullptr, 4ULL, 8ULL, true));
    EXPECT_EQ(stream->data(0), block);
    EXPECT_EQ(stream->capacity(), 8U);
    const auto left = adopt(new InMemoryIStream(std::move(owned)));
    EXPECT_EQ(left->size() + left->capacity(), 0U);

    unsigned char bytes[8] = {'a', 'b', 'c', 'd'};
    const auto view = adopt(new InMemoryIStream(bufferOn(bytes, 4, 8, false)));
    EXPECT_FALSE(view->resize(4));
    EXPECT_EQ(view->SetSize({.QuadPart = 1}), STG_E_INSUFFICIENTMEMORY);
    view->seek(0, InMemoryIStream::End);
    ULONG done = 0;
    EXPECT_EQ(view->Write("efghijkl", 8, &done), S_OK);
    EXPECT_EQ(done, 4U);
    EXPECT_EQ(contents(view), "abcdefgh");
    EXPECT_EQ(view->Write("x", 1, &done), STG_E_INSUFFICIENTMEMORY);
    view->freeMemory();
    view->rewind();
    EXPECT_EQ(view->write("x", 1), 0U) << "never owned";
}

TEST(MemoryStream, CopiesAsFarAsTheTargetGoes) {
    struct Case {
        const char* what;
        unsigned long long position, count, most;
        ULONG excess;
        HRESULT answer, status;
        unsigned long long copied;
        std::string calls;
        int idle = 0;
    };
    for (const Case& c : {
             Case{"all", 1, kLimit, kLimit, 0, S_FALSE, S_FALSE, 9, "Write 9, "},
             Case{"in parts", 2, 6, 3, 0, S_OK, S_OK, 6, "Write 6, Write 3, "},
             Case{"taking its time", 0, 4, kLimit, 0, S_OK, S_OK, 4, "Write 4, Write 4, Write 4, ", 2},
             Case{"failing", 0, 10, 3, 0, STG_E_MEDIUMFULL, STG_E_MEDIUMFULL, 3, "Write 10, "},
             Case{"overstating", 0, 4, kLimit, 2, S_OK, S_OK, 6, "Write 4, "},
             Case{"nothing asked for", 0, 0, kLimit, 0, E_FAIL, S_OK, 0, ""},
             Case{"nothing left", 10, 5, kLimit, 0, E_FAIL, S_OK, 0, ""},
             Case{"from beyond", 12, 5, 0, 0, E_FAIL, E_FAIL, 0, "WriteNull 5, "},
             Case{"a lot from beyond", 12, 0x200000000, 1, 0, E_FAIL, E_FAIL, 1, "WriteNull 4294967295, "},
         }) {
        const auto stream = streamOf("0123456789");
        ASSERT_EQ(seek(stream, static_cast<long long>(c.position)), S_OK);
        const auto target = adopt(new Support::RecordingStream());
        target->status = c.answer;
        target->most = c.most;
        target->excess = c.excess;
        target->idle = c.idle;
        ULARGE_INTEGER read{.QuadPart = 77}, written{.QuadPart = 77};
        SCOPED_TRACE(c.what);
        EXPECT_EQ(stream->CopyTo(target.Get(), {.QuadPart = c.count}, &read, &written), c.status);
        EXPECT_EQ(target->take(), c.calls);
        EXPECT_EQ(read.QuadPart, c.copied);
        EXPECT_EQ(written.QuadPart, c.copied);
        EXPECT_EQ(stream->position(), c.position + c.copied);
    }
}

TEST(MemoryStream, AnswersWhatItCannotDo) {
    const auto stream = streamOf("01234");
    ULONG read = 7, written = 7;
    Support::expectEach(STG_E_INVALIDPOINTER,
                        {stream->Read(nullptr, 1, &read), stream->Write(nullptr, 0, &written),
                         stream->Stat(nullptr, 0), stream->Clone(nullptr),
                         stream->CopyTo(nullptr, {.QuadPart = 1}, nullptr, nullptr)});
    EXPECT_EQ(read + written + stream->read(nullptr, 1) + stream->write(nullptr, 1), 0U);
    EXPECT_EQ(stream->Commit(0), S_OK);
    Support::expectEach(E_NOTIMPL,
                        {stream->Revert(), stream->LockRegion({}, {}, 0), stream->UnlockRegion({}, {}, 0)});
    for (DWORD flag : {STATFLAG_DEFAULT, STATFLAG_NONAME}) {
        STATSTG entry;
        std::memset(&entry, 0xCC, sizeof entry);
        EXPECT_EQ(stream->Stat(&entry, flag), S_OK);
        EXPECT_EQ(std::exchange(entry.type, 0U), static_cast<DWORD>(STGTY_STREAM));
        EXPECT_EQ(std::exchange(entry.cbSize.QuadPart, 0U), 5U);
        EXPECT_EQ(std::exchange(entry.grfMode, 0U), static_cast<DWORD>(STGM_READWRITE));
        const std::string rest(reinterpret_cast<const char*>(&entry), sizeof entry);
        EXPECT_EQ(rest, std::string(sizeof entry, '\0')) << "the name, too";
    }
}

} // namespace
