// Gzip streams, made and judged by zlib.

#include "support/fake_storage.h"
#include "support/fault_sweep.h"
#include "support/framework_files.h"
#include "support/storage_test.h"
#include "support/streams.h"

#include <vexel/compressed_stream.h>

#include <zlib.h>

#include <algorithm>
#include <random>

using namespace Support;
using Vexel::Storage::InMemoryIStream;
using Origin = vxio::IStream::SeekPosition;

namespace {

const std::string kPlainHeader("\x1F\x8B\x08\0\0\0\0\0\0\xFF", 10);

/// The output of zlib's `step` for the whole input.
std::string converted(z_stream& state, int (*step)(z_stream*, int), int flush, const std::string& input) {
    std::string result((1 << 20) + input.size() * 2, '\0');
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(input.data()));
    state.avail_in = static_cast<uInt>(input.size());
    state.next_out = reinterpret_cast<Bytef*>(result.data());
    state.avail_out = static_cast<uInt>(result.size());
    step(&state, flush);
    result.resize(state.total_out);
    return result;
}

std::string gzip(const std::string& text, int level = 6) {
    z_stream state{};
    EXPECT_EQ(deflateInit2(&state, level, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY), Z_OK);
    const std::string result = converted(state, deflate, Z_FINISH, text);
    EXPECT_EQ(deflateEnd(&state), Z_OK) << "not finished";
    return result;
}

/// What zlib makes of the bytes behind a plain header, as longer as they go.
std::string inflated(const std::string& bytes) {
    z_stream state{};
    EXPECT_EQ(inflateInit2(&state, -15), Z_OK);
    const std::string result = converted(state, inflate, Z_SYNC_FLUSH, bytes);
    inflateEnd(&state);
    return result;
}

/// Compresses to about a half.
std::string sampleText(std::size_t size) {
    std::mt19937 random(static_cast<unsigned>(size));
    std::string text(size, '\0');
    std::generate(text.begin(), text.end(), [&] { return "abcdefghijklmnop"[random() % 16]; });
    return text;
}

std::string decompressed(const std::string& source, HRESULT expected = S_OK) {
    const auto target = streamOf("");
    EXPECT_EQ(DecompressStream(streamOf(source).Get(), target.Get()), expected);
    return bytesOf(target.Get());
}

/// The bytes of a stream, opened as what may be compressed.
struct Opened : COleStreamCompressFile {
    explicit Opened(const std::string& bytes, bool mayBeCompressed = true)
        : COleStreamCompressFile(mayBeCompressed) {
        EXPECT_TRUE(OpenStream(streamOf(bytes).Get()));
    }
};

std::string readAll(COleStreamCompressFile& file, std::size_t part) {
    file.SetIgnoreEndOfFile(true);
    std::string text;
    std::string buffer(part, '\0');
    while (const auto count = file.ReadBytes(buffer.data(), part))
        text.append(buffer, 0, static_cast<std::size_t>(count));
    return text;
}

int causeOf(const std::function<void()>& action) { return raised<CFileException>(action); }

std::string sampleFile(const wchar_t* name) { return readFile(samplePath(name)); }

using CompressedStream = StorageTest<>;

TEST_F(CompressedStream, InflatesWhatZlibDeflated) {
    std::vector<std::size_t> sizes{0, 1, 16384, 16385, 1 << 20};
    for (std::size_t size = 4080; size < 4110; ++size)
        sizes.push_back(size); // level 0 makes them a little longer: what is read ahead cuts the trailer
    for (const std::size_t size : sizes)
        for (const int level : {0, 9}) {
            SCOPED_TRACE(testing::Message() << size << " bytes, level " << level);
            const std::string text = sampleText(size), packed = gzip(text, level);
            EXPECT_TRUE(decompressed(packed) == text);
            for (const std::size_t part : {1000u, 100'000u}) {
                Opened file(packed);
                EXPECT_TRUE(readAll(file, part) == text);
            }
        }
    EXPECT_EQ(log_.count(VxLog_Error, L""), 0);
    EXPECT_TRUE(decompressed(sampleFile(L"no-name.gz")).starts_with("inner x\ninner x\n"));
}

TEST_F(CompressedStream, TellsHeadersApart) {
    const std::string body = gzip("text").substr(10);
    const auto header = [](unsigned char flags, const std::string& rest) {
        std::string bytes = kPlainHeader + rest;
        bytes[3] = static_cast<char>(flags);
        return bytes;
    };
    const std::string accepted, name = "Failed to skip a null-terminated string";
    const std::string method = "Failed to read gzip compression method or the method is invalid";
    const std::string flags = "Failed to read gzip compression flags or some of the reserved flags are set";
    const std::string extra = "Failed to read length of extra gzip data";
    const struct {
        const char* name;
        std::string source, message;
    } cases[] = {
        {"text and two reserved flags", header(0x61, "") + body, accepted},
        {"all reserved flags", header(0xE0, "") + body, flags},
        {"another method", "\x1F\x8B\x07" + kPlainHeader.substr(3) + body, method},
        {"no method", "\x1F\x8B", method},
        {"no flags", "\x1F\x8B\x08", flags},
        {"an extra field", header(0x04, std::string("\3\0abc", 5)) + body, accepted},
        {"no length of the extra field", header(0x04, "\3"), extra},
        {"header checksum of 4 bytes", header(0x02, "1234") + body, accepted},
        {"a name", sampleFile(L"with-name.gz"), name},
        {"a comment", header(0x10, std::string("c\0", 2)) + body, name},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        log_.clear();
        COleStreamCompressFile file(true);
        const bool opens = test.message.empty();
        EXPECT_EQ(file.OpenStream(streamOf(test.source).Get()), opens);
        EXPECT_EQ(opens ? readAll(file, 100) : "text", "text");
        EXPECT_EQ(decompressed(test.source), opens ? "text" : test.source);
        const std::wstring message(test.message.begin(), test.message.end());
        EXPECT_EQ(log_.count(VxLog_Error, message), opens ? 0 : 2);
    }
    COleStreamCompressFile file(true);
    EXPECT_FALSE(file.OpenStream(streamOf(kPlainHeader).Get())) << "nothing behind the header";
}

// A truncated stream counts as read whole, and what zlib can make of it is kept.
TEST_F(CompressedStream, GivesWhatZlibGivesOfDamagedStreams) {
    const std::string whole = gzip(sampleText(300));
    sweepDamage(whole, kPlainHeader.size() + 1, {0x01, 0x80, 0xFF}, [](const std::string& bytes) {
        const std::string wanted = inflated(bytes.substr(kPlainHeader.size()));
        EXPECT_EQ(decompressed(bytes), wanted);
        Opened file(bytes);
        EXPECT_EQ(readAll(file, 64), wanted);
    });
}

TEST_F(CompressedStream, ChecksTheTrailerWhenClosing) {
    const std::string whole = gzip(sampleText(5000));
    std::string otherSum = whole, otherSize = whole;
    otherSum[whole.size() - 5] ^= 1;
    otherSize[whole.size() - 1] ^= 1;
    const struct {
        const char* name;
        std::string bytes;
        std::size_t read;
        std::ptrdiff_t broken, incomplete; ///< messages
    } cases[] = {
        {"whole", whole, 5001, 0, 0},
        {"another checksum", otherSum, 5001, 1, 0},
        {"another checksum, not read to the end", otherSum, 10, 0, 0},
        {"cut", whole.substr(0, whole.size() - 1), 5001, 0, 1},
        {"another size, which alone is not compared", otherSize, 5001, 0, 0},
    };
    for (const auto& test : cases) {
        log_.clear();
        Opened file(test.bytes);
        file.SetIgnoreEndOfFile(true);
        std::string text(test.read, '\0');
        file.ReadBytes(text.data(), test.read);
        file.CloseCompression();
        EXPECT_EQ(log_.count(VxLog_Error, L"Broken gzip data: size 5000/5000, CRC 0x"), test.broken)
            << test.name;
        EXPECT_EQ(log_.count(VxLog_Error, L"Incomplete gzip data"), test.incomplete) << test.name;
    }
}

TEST_F(CompressedStream, DecompressesFromWhereTheStreamsStand) {
    const std::string one = gzip("one"), longer = one + sampleText(10'000);
    const struct {
        const char* name;
        std::string source;
        long long position;
        std::string expected; ///< behind "kept ", over "and cut"
    } cases[] = {
        {"gzip", "skip" + one, 4, "one cut"},
        {"no gzip from there on", one, 1, one.substr(1)},
        {"another one behind, which was read ahead and counts as read", one + gzip("two"), 0, "one cut"},
        {"much behind", longer, 0, longer},
    };
    for (const auto& test : cases) {
        const auto source = streamOf(test.source), target = streamOf("kept and cut");
        source->seek(test.position, InMemoryIStream::Begin);
        target->seek(5, InMemoryIStream::Begin);
        EXPECT_EQ(DecompressStream(source.Get(), target.Get()), S_OK);
        EXPECT_TRUE(bytesOf(target.Get()) == "kept " + test.expected) << test.name;
    }
    EXPECT_EQ(DecompressStream(nullptr, streamOf("").Get()), STG_E_INVALIDPOINTER);
    EXPECT_EQ(DecompressStream(streamOf("").Get(), nullptr), STG_E_INVALIDPOINTER);
    // What fails is told, though the copy of the source as it is may follow; nor is that one a success where
    // it lacks its beginning, or has what was inflated before it.
    const struct {
        const char* name;
        std::string source;
        FaultyStream::Plan ofSource, ofTarget;
        HRESULT expected;
    } faults[] = {
        {"write", longer, {}, {FaultyStream::Writing, STG_E_WRITEFAULT}, STG_E_WRITEFAULT},
        {"write, oddly", longer, {}, {FaultyStream::Writing, 0x20000002}, STG_E_WRITEFAULT},
        {"way back", longer, {FaultyStream::Seeking, STG_E_SEEKERROR, 4}, {}, STG_E_SEEKERROR},
        {"cut", longer, {}, {FaultyStream::Resizing, E_NOTIMPL}, STG_E_WRITEFAULT},
        {"cut of nothing", "plain", {}, {FaultyStream::Resizing, E_NOTIMPL}, S_OK},
    };
    for (const auto& test : faults) {
        SCOPED_TRACE(test.name);
        const auto source = Vexel::Detail::make<FaultyStream>(test.source),
                   target = Vexel::Detail::make<FaultyStream>();
        *source->plan = test.ofSource;
        *target->plan = test.ofTarget;
        const bool isCopied = test.ofTarget.call == FaultyStream::Writing;
        EXPECT_EQ(DecompressStream(source.Get(), target.Get()), test.expected);
        EXPECT_TRUE(!isCopied || bytesOf(target.Get()) == longer);
    }
}

TEST_F(CompressedStream, ExplainsWhyAStreamDoesNotOpen) {
    const struct {
        HRESULT status;
        int cause;
        LONG osError;
    } cases[] = {
        {STG_E_SHAREVIOLATION, CFileException::sharingViolation, ERROR_SHARING_VIOLATION},
        {STG_E_INVALIDHEADER, CFileException::OsErrorToException(0xFB), 0xFB},
        {STG_E_INUSE, CFileException::sharingViolation, STG_E_INUSE},
        {STG_E_SHAREREQUIRED, CFileException::sharingViolation, STG_E_SHAREREQUIRED},
        {STG_E_DOCFILECORRUPT, CFileException::genericException, STG_E_DOCFILECORRUPT},
    };
    for (const auto& [status, cause, osError] : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << status);
        FakeCalls calls;
        StorageRef root = StorageRef::fromPtr(fakeStorage(calls).Get());
        calls.failures = {{1, status}, {2, status}}; // opening it, and once more after a clean-up
        COleStreamCompressFile file(true);
        CFileException error;
        EXPECT_FALSE(file.OpenStream(root, element(L"Note"), COleStreamCompressFile::OpenReadOnly, &error));
        EXPECT_EQ(error.m_cause, cause);
        EXPECT_EQ(error.m_lOsError, osError);
        closeForGood(root); // before what it writes to
    }
}

TEST_F(CompressedStream, MovesWithinInflatedBytesOnlyForward) {
    const std::string text = sampleText(40'000);
    Opened file(gzip(text));
    char byte = 0;
    for (const auto& [origin, place] : {std::pair(Origin::Current, 10), {Origin::Begin, 39'999}}) {
        EXPECT_EQ(file.Seek(origin, place), 0u);
        file.ReadBytes(&byte, 1);
        EXPECT_EQ(byte, text[static_cast<std::size_t>(place)]);
    }
    EXPECT_GT(file.GetPosition(), 10'000u); // of the compressed bytes

    constexpr int kBadSeek = CFileException::badSeek;
    EXPECT_EQ(causeOf([&] { file.Seek(Origin::Begin, -1); }), kBadSeek);
    EXPECT_EQ(causeOf([&] { file.SeekToEnd(); }), kBadSeek);
    EXPECT_EQ(causeOf([&] { file.GetLength(); }), kBadSeek);
    EXPECT_EQ(causeOf([&] { file.Seek(Origin::Begin, 40'001); }), CFileException::endOfFile);
    EXPECT_FALSE(file.SetIgnoreEndOfFile(true));
    EXPECT_EQ(causeOf([&] { file.Seek(Origin::Begin, 1LL << 62); }), -1);
    EXPECT_TRUE(file.SetIgnoreEndOfFile(false));
    file.Close();
    EXPECT_EQ(causeOf([&] { file.ReadBytes(&byte, 1); }), CFileException::endOfFile);
}

TEST_F(CompressedStream, PassesPlainBytesThrough) {
    for (const std::string& text : {std::string(), std::string("\x1F"), sampleText(40'000)}) {
        Opened file(text);
        EXPECT_EQ(file.GetLength(), text.size());
        EXPECT_TRUE(readAll(file, 20'000) == text);
        EXPECT_EQ(file.Seek(Origin::End, 0), text.size());
    }
    const std::string packed = gzip("text");
    Opened raw(packed, false);
    EXPECT_EQ(readAll(raw, 100), packed);
}

TEST_F(CompressedStream, OpensStreamsOfStructuredFiles) {
    const std::string packed = gzip("inner text");
    StorageRef document;
    ASSERT_EQ(document.createTemporary(false), S_OK);
    newStream(L"Packed", document, packed);
    newStream(L"Plain", document, "plain text");
    COleStreamCompressFile file(true);
    CFileException error;
    const auto opens = [&](const wchar_t* name, COleStreamCompressFile::OpenFlags flags) {
        return file.OpenStream(document, element(name), flags, &error);
    };
    constexpr auto kReading = COleStreamCompressFile::OpenReadOnly,
                   kWriting = COleStreamCompressFile::OpenForWriting;
    for (const std::wstring name : {L"Packed", L"Plain", L"Packed"}) { // one after the other
        ASSERT_TRUE(opens(name.c_str(), kReading));
        EXPECT_EQ(readAll(file, 100), name == L"Packed" ? "inner text" : "plain text");
    }
    EXPECT_FALSE(opens(L"None", kReading));
    EXPECT_EQ(error.m_cause, CFileException::fileNotFound);
    EXPECT_FALSE(file.OpenStream(nullptr));
    EXPECT_FALSE(file.OpenStream(StreamRef()));

    StreamRef stream = openStream(L"Packed", document);
    EXPECT_EQ(stream.Seek(Origin::Begin, 3), 3u);
    COleStreamCompressFile there(true, stream);
    EXPECT_EQ(readAll(there, 100), packed); // no gzip from there on: plain, from the begin
    ASSERT_TRUE(there.OpenStream(std::move(stream)));
    EXPECT_EQ(readAll(there, 100), "inner text");

    file.SetAutoOpenCompression(false);
    ASSERT_TRUE(opens(L"Packed", kReading));
    EXPECT_EQ(file.GetLength(), packed.size());
    EXPECT_TRUE(file.OpenCompression());
    EXPECT_EQ(readAll(file, 100), "inner text");
    file.SetAutoOpenCompression(true);
    EXPECT_FALSE(opens(L"Plain", kWriting));
    EXPECT_FALSE(opens(L"Packed", kReading | kWriting));
}

} // namespace
