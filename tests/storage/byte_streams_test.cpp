// One body for the library's two byte streams: the adapter of a COM stream and the stream handle.

#include "support/fake_storage.h"
#include "support/storage_test.h"
#include "support/streams.h"

#include <vexel/byte_streams.h>
#include <vexel/sub_stream.h>

#include <climits>

using namespace Support;
using Microsoft::WRL::ComPtr;
using Vexel::Detail::adopt;
using Origin = vxio::IStream::SeekPosition;

namespace {

// Both sides of one stream.
using Body = std::function<void(vxio::IReadStream&, vxio::IWriteStream&)>;

void onAdapter(const ComPtr<::IStream>& com, const Body& body) {
    vxio::IStreamStream stream(com.Get());
    body(stream, stream);
}

void onHandle(const StorageRef& root, bool create, const Body& body) {
    StreamRef stream;
    ASSERT_EQ(create ? stream.create(L"stream", root) : stream.open(L"stream", root, true), S_OK);
    body(stream, stream);
}

class ByteStreams : public StorageTest<> {};

TEST_F(ByteStreams, MoveBytesAndPositions) {
    const Body moves = [](vxio::IReadStream& reader, vxio::IWriteStream& writer) {
        char bytes[16] = {};
        EXPECT_EQ(writer.WriteBytes("0123456789", 10), 10U);
        EXPECT_EQ(reader.GetPosition(), 10U) << "one position for both sides";
        EXPECT_EQ(reader.GetLength(), 10U);
        writer.SeekToBegin();
        EXPECT_EQ(reader.ReadBytes(bytes, 4), 4U);
        EXPECT_EQ(reader.ReadBytes(bytes + 4, 12), 6U) << "short at the end";
        EXPECT_EQ(std::string(bytes), "0123456789");

        const struct {
            Origin origin;
            long long offset;
            unsigned long long reached; // from 3
        } cases[] = {{Origin::Begin, 11, 11},
                     {Origin::Begin, -1, 3},
                     {Origin::Current, 0, 3},
                     {Origin::Current, -3, 0},
                     {Origin::Current, LLONG_MIN, 3},
                     {Origin::End, -10, 0},
                     {Origin::End, 2, 12},
                     {Origin{-1}, 0, 3},
                     {Origin{7}, 5, 3}};
        for (const auto& [origin, offset, reached] : cases) {
            EXPECT_EQ(writer.Seek(Origin::Begin, 3), 3U);
            EXPECT_EQ(reader.Seek(origin, offset), reached) << static_cast<int>(origin) << " " << offset;
            EXPECT_EQ(writer.GetPosition(), reached);
        }
        EXPECT_EQ(writer.SeekToEnd(), 10U);
    };
    onAdapter(streamOf(""), moves);
    writeCompoundFile(file_, {});
    onHandle(openRoot(path_, modeWrite), true, moves);
}

// What differs between the two is kept so on purpose.
void goByCountsAndPositions(FakeCalls& calls, bool handle, vxio::IReadStream& reader,
                            vxio::IWriteStream& writer) {
    const auto fail = [&](size_t from, size_t to) {
        calls.take();
        calls.failures.clear();
        while (from < to)
            calls.failures[from++] = E_FAIL;
    };
    fail(0, 0);
    EXPECT_EQ(reader.ReadBytes(nullptr, 0) + writer.WriteBytes(nullptr, 0), 0U);
    EXPECT_EQ(calls.take(), L"") << "nothing to move, nothing asked";
    calls.available = ~0ULL;
    EXPECT_EQ(reader.ReadBytes(nullptr, 0x200000003), 0x200000003U) << "though all statuses are failures";
    EXPECT_EQ(calls.take(), L"Read 4294967295\nRead 4294967295\nRead 5\n");
    calls.available = 0x100000001;
    EXPECT_EQ(writer.WriteBytes(nullptr, 0x300000000), 0x100000001U);
    EXPECT_EQ(calls.take(), L"Write 4294967295\nWrite 4294967295\n") << "a short chunk ends it";

    EXPECT_EQ(reader.Seek(Origin::Begin, 4), 4U);
    fail(0, 1);
    EXPECT_EQ(reader.SeekToEnd(), handle ? 4U : 0U);
    fail(0, 1);
    reader.SeekToBegin();
    EXPECT_EQ(calls.take(), handle ? L"Seek\nSeek\n" : L"Seek\n");
    EXPECT_EQ(calls.position, 4U);
    fail(handle ? 1 : 0, handle ? 2 : 1); // the handle asks for the position beforehand
    EXPECT_EQ(reader.Seek(Origin::Begin, 9), 4U);
    fail(0, 9);
    EXPECT_EQ(reader.Seek(Origin::Begin, 9) + reader.GetPosition() + reader.GetLength(), 0U)
        << "what cannot be asked";
}

TEST(ByteStreamsOfFailingStreams, GoByCountsAndPositionsOnly) {
    FakeCalls calls;
    {
        const auto storage = fakeStorage(calls);
        ComPtr<::IStream> com;
        ASSERT_EQ(storage->OpenStream(L"stream", nullptr, STGM_READ, 0, &com), S_OK);
        onAdapter(com,
                  [&](auto& reader, auto& writer) { goByCountsAndPositions(calls, false, reader, writer); });
        calls.failures.clear();
        onHandle(StorageRef::fromPtr(storage.Get()), false,
                 [&](auto& reader, auto& writer) { goByCountsAndPositions(calls, true, reader, writer); });
    }
    container().deleteUnusedObjects();
    EXPECT_EQ(calls.alive, 0);
}

TEST(StreamAdapter, HoldsOneReference) {
    const auto memory = streamOf(""), other = streamOf("");
    {
        vxio::IStreamStream stream(memory.Get()), copy = stream;
        stream.Attach(memory.Get());
        EXPECT_EQ(memory->numRefs(), 3U);
        stream = std::move(copy);
        EXPECT_TRUE(copy) << "both held the same stream"; // NOLINT(bugprone-use-after-move)
        copy.Attach(other.Get());
        stream = std::move(copy);
        EXPECT_FALSE(copy); // NOLINT(bugprone-use-after-move)
        EXPECT_EQ(memory->numRefs(), 1U);
        copy = stream;
        copy.Close();
        EXPECT_EQ(other->numRefs(), 2U);
    }
    EXPECT_EQ(other->numRefs(), 1U);

    // A stream that only the old one keeps alive: it must be held before that goes.
    ComPtr<::IStream> clone;
    ASSERT_EQ(memory->Clone(&clone), S_OK);
    ::IStream* const inner = clone.Get();
    vxio::IStreamStream stream(
        adopt(new Vexel::Storage::SubStream(std::exchange(clone, nullptr).Get(), 0, 1)).Get());
    stream.Attach(inner);
    EXPECT_EQ(memory->numInstances(), 2);
}

TEST(ByteStreamsWithoutAStream, StayAtNothing) {
    vxio::IStreamStream adapter;
    StreamRef handle;
    char byte = 0;
    const auto moved = [&](auto& stream) {
        stream.SeekToBegin();
        return stream.SeekToEnd() + stream.GetLength() + stream.GetPosition() +
               stream.Seek(Origin::Begin, 3) + stream.ReadBytes(&byte, 1) + stream.WriteBytes(&byte, 1);
    };
    EXPECT_EQ(moved(adapter) + moved(handle), 0U);
}

} // namespace
