// What the observer of a rescue is told, and how much is read for it. That everything comes back which lies
// outside the damage is tested from outside, by interop/salvage_test.py.

#include "support/archive_bytes.h"
#include "support/compound_image.h"

#include <vexel/salvage.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace {

using namespace ArchiveBytes;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using Vexel::SalvagedNode;
using Vexel::SalvageFormat;
using Vexel::SalvageOutcome;
using Vexel::SalvageState;
using Image = Support::CompoundImage;

/// Bytes of which some cannot be read, with a count of those that were.
class Source final : public Vexel::SalvageSource {
public:
    explicit Source(std::string_view bytes) : bytes_(bytes) {}

    std::uint64_t size() const noexcept override { return bytes_.size(); }
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        const std::size_t begin = (std::min<std::size_t>)(offset, bytes_.size());
        std::size_t count = (std::min)(target.size(), bytes_.size() - begin);
        if (begin < badEnd && begin + count > badBegin)
            count = badBegin - (std::min)(badBegin, begin);
        hasAskedBeyond |= offset + target.size() > bytes_.size();
        std::memcpy(target.data(), bytes_.data() + begin, count);
        taken += count;
        ++calls;
        sinceAsked += count;
        mostUnasked = (std::max)(mostUnasked, sinceAsked);
        return count;
    }

    std::size_t badBegin = 0, badEnd = 0;
    std::uint64_t taken = 0;
    std::uint64_t calls = 0;
    std::uint64_t sinceAsked = 0; ///< whether the work may go on
    std::uint64_t mostUnasked = 0;
    bool hasAskedBeyond = false; ///< for bytes behind the end

private:
    std::string_view bytes_;
};

struct Found {
    SalvageState state;
    std::string bytes;
    std::uint64_t there;
    bool operator==(const Found&) const = default;
};
void PrintTo(const Found& found, std::ostream* out) {
    *out << "state " << int(found.state) << ", " << found.there << " bytes: " << found.bytes;
}

class Rescue final : public Vexel::SalvageObserver {
public:
    explicit Rescue(std::string_view bytes) : source(bytes) {}

    SalvageOutcome run() {
        const SalvageOutcome outcome = Vexel::salvage(source, *this);
        EXPECT_LE(mostNodesUnasked_, 2U);
        return outcome;
    }

    void onFormat(SalvageFormat found) override { format = found; }
    void onDamage(const char* what, std::uint64_t) override { damage.emplace_back(what); }
    void onStorage(const SalvagedNode&) override { countNode(); }
    bool onStream(const SalvagedNode&) override {
        bytes_.clear();
        return true;
    }
    void onBytes(std::span<const std::byte> bytes) override {
        bytes_.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        given += bytes.size();
    }
    void onStreamEnd(const SalvagedNode& node) override {
        countNode();
        std::u16string path;
        for (const std::u16string& name : node.path)
            path += (path.empty() ? u"" : u"/") + name;
        streams.insert_or_assign(path, Found{node.state, std::exchange(bytes_, {}), node.there});
        if (*node.reason)
            reasons.emplace_back(node.reason);
    }
    bool onProgress(std::uint64_t) override {
        source.sinceAsked = 0;
        nodesSinceAsked_ = 0;
        ++asked;
        return asked != lastAsked;
    }

    Source source;
    SalvageFormat format = SalvageFormat::None;
    std::vector<std::string> damage;
    std::vector<std::string> reasons;
    std::map<std::u16string, Found> streams;
    std::uint64_t given = 0; ///< bytes
    std::uint64_t asked = 0;
    std::uint64_t lastAsked = 0; ///< the call that is answered with no

private:
    void countNode() { mostNodesUnasked_ = (std::max)(mostNodesUnasked_, ++nodesSinceAsked_); }

    std::string bytes_;
    std::uint64_t nodesSinceAsked_ = 0;
    std::uint64_t mostNodesUnasked_ = 0;
};

std::string repeat(std::string_view piece, std::size_t size) {
    std::string all;
    while (all.size() < size)
        all += piece;
    return all;
}

/// A package with one stored file; `digests` stands behind its size.
std::string storedPackage(const std::string& contents, const std::string& digests = {}) {
    return archiveOf(
        contents, streamsHeader(packInfo(contents.size()) + unpackInfo(copyFolder, contents.size(), digests),
                                1, u"file\0"s));
}
std::string digestOf(std::string_view contents) { return bytes({0x0A, 1}) + little(checksum(contents)); }

const std::string kHeadless = "7z\xBC\xAF\x27\x1C\0\4"s + std::string(24, '\xEE');
constexpr const char* kNotWhereItShouldBe = "the header is not what the package's beginning says";

/// A file in which there are as many beginnings of something as its bytes allow.
struct Maze {
    const char* name;
    std::string bytes;
};
void PrintTo(const Maze& maze, std::ostream* out) { *out << maze.name; }

class Mazes : public testing::TestWithParam<Maze> {};

TEST_P(Mazes, AreReadSoOftenOnlyAndAskWhetherToGoOn) {
    constexpr std::uint64_t kMostUnasked = 0x200000;
    constexpr std::uint64_t kMostOften = 200;
    const Maze& maze = GetParam();
    Rescue rescue(maze.bytes);
    // Where the work is without end, so the test is not.
    rescue.lastAsked = 1'000'000;
    EXPECT_NE(rescue.run(), SalvageOutcome::OutOfMemory);
    EXPECT_FALSE(rescue.source.hasAskedBeyond);
    EXPECT_LE(rescue.source.taken, kMostOften * maze.bytes.size());
    EXPECT_LE(rescue.given, kMostOften * maze.bytes.size());
    EXPECT_LE(rescue.source.mostUnasked, kMostUnasked + maze.bytes.size());
    Rescue ended(maze.bytes);
    ended.lastAsked = rescue.asked / 2 + 1;
    EXPECT_EQ(ended.run(), SalvageOutcome::Ended);
    EXPECT_EQ(ended.asked, ended.lastAsked);
}

constexpr std::size_t kMazeBytes = 0x40000;

// "salvage", four times.
const std::string kPackedStream = bytes({0xE0, 0x00, 0x1B, 0x00, 0x0D, 0x5D, 0x00, 0x39, 0x98, 0x49, 0xDC,
                                         0x55, 0x6E, 0x3E, 0x0C, 0x1F, 0x2D, 0xB8, 0xE0, 0x00, 0x00});

Maze ofStreams(const char* name, const std::string& piece, const std::string& end = {}) {
    return {name, kHeadless + '\0' + repeat(piece, kMazeBytes) + end};
}
/// Bytes as they are, as chunks of a stream.
std::string stored(std::string_view contents, char first = 1) {
    std::string chunks;
    for (std::string_view rest = contents; !rest.empty(); first = 2) {
        const std::string_view piece = rest.substr(0, 0x10000);
        rest.remove_prefix(piece.size());
        const std::size_t size = piece.size() - 1;
        chunks += {first, static_cast<char>(size >> 8), static_cast<char>(size)};
        chunks += piece;
    }
    return chunks;
}

/// A row of stored chunks in whose first ones streams begin that do not decode at once, but lead into the
/// row: each gives all of it.
Maze ofStreamsIntoOneRow() {
    constexpr std::size_t kStep = 3 + 0x10000;
    std::string file = kHeadless;
    for (std::size_t row = 0; row < 16; ++row) {
        std::string contents(0x10000, 'x');
        for (std::size_t at = 0; row < 3 && at + 100 < contents.size(); at += kPackedStream.size() + 4) {
            const std::string begin = '\0' + kPackedStream + '\1';
            const std::size_t rest = contents.size() - at - begin.size() - 3;
            contents.replace(at, begin.size() + 2,
                             begin + static_cast<char>(rest >> 8) + static_cast<char>(rest));
        }
        file += stored(contents, row == 0 ? 1 : 2);
    }
    EXPECT_EQ(file.size(), kHeadless.size() + 16 * kStep);
    return {"StreamsIntoOneRow", file};
}

/// Many damaged streams whose ends lie behind them all, where others begin that lead into one row to the end.
Maze ofEndsAhead() {
    constexpr std::size_t kStreams = 500, kRows = 64, kStep = 4; // bytes from end to end
    const auto lead = [](char control, std::size_t count) {
        return std::string{control, static_cast<char>((count - 1) >> 8), static_cast<char>(count - 1)};
    };
    const std::string piece = '\0' + kPackedStream + "\xE0\0\0\0\0\x5D\xFF"s;
    std::string file = kHeadless;
    const std::size_t ends = kHeadless.size() + kStreams * (piece.size() + 3);
    for (std::size_t i = 0; i < kStreams; ++i)
        file += piece + lead('\2', ends + i * kStep - file.size() - piece.size() - 3);
    const std::size_t row = ends + kStreams * kStep + 1;
    while (file.size() + 1 < row)
        file += '\0' + lead('\1', row - file.size() - kStep);
    file += 'x';
    for (std::size_t i = 0; i < kRows; ++i)
        file += stored(std::string(0x10000, 'x'), 2);
    return {"EndsAhead", file};
}

Maze ofHeaders(const char* name, const std::string& piece) {
    return {name, kHeadless + repeat(piece, kMazeBytes / 4)};
}

/// Of a document whose table of small streams is lost, and any sector could be the table's, in chains that
/// lead from everywhere into one that jumps all over the file.
Maze ofMiniTables() {
    constexpr std::uint32_t kSectors = 8000;
    Image image = Image::document({9, false, kSectors});
    image.number(Image::MiniFat) = Image::none;
    const std::uint32_t first = image.number(Image::FatSectors); // behind the table
    for (std::uint32_t i = 0; i < kSectors; ++i) {
        for (std::uint32_t at = 0; at < 128; ++at)
            image.number(first + i, at) = at + 1;
        // Odd ones lead to the even one before; these make up the chain.
        const std::uint32_t next = i % 2 != 0 ? i - 1 : (i + kSectors / 2 + 2) % kSectors;
        image.next(first + i) = first + next;
    }
    image.element(0, Image::Size) = kSectors * 128 / 4 * 64;
    return {"MiniTables", std::string(image.bytes())};
}

std::vector<Maze> mazes() {
    return {ofHeaders("Headers", "\1\5"),
            ofHeaders("PackedHeaders", "\x17\6"),
            {"PackedHeadersOfNothing", kHeadless + repeat(packedHeader(copyFolder, 1, 1), kMazeBytes)},
            ofHeaders("HeadersWithoutItems", "\1\4\0\0"s),
            ofHeaders("HeadersWithFolders", "\1\4\7\v\x90\0\0\0"s),
            ofHeaders("HeadersThatNearlyEnd", listHeader(1, u"a")),
            ofStreams("SmallChunks", "\1\0\0\0"s),
            ofStreams("LargeChunks", "\0\1\xFF\xFC"s),
            ofStreams("ChunksBeforeDamage", "\1\0\0\0"s, "\xE0\0\0\0\0\x5D\xFF\0"s),
            ofStreams("DamagedStreams", "\0\xE0\0\0\0\0\x5D\xFF"s, "\0"s),
            // Each begins behind a sound one, does not decode, and leads over the next sound ones to the end.
            ofStreams("StreamsWithoutEnd", "\xE0\0\0\0\x16\x5D\xFF\0"s + kPackedStream),
            ofStreamsIntoOneRow(),
            ofEndsAhead(),
            ofMiniTables()};
}
INSTANTIATE_TEST_SUITE_P(All, Mazes, testing::ValuesIn(mazes()),
                         [](const auto& maze) { return std::string(maze.param.name); });

TEST(Salvage, FindsAHeaderAmongManyBeginningsOfOne) {
    // In the file names end as headers without items begin, and the header is as long as is searched through.
    std::u16string list;
    for (unsigned i = 0; list.size() < 0x70000; ++i) {
        for (const char digit : std::to_string(i))
            list += static_cast<char16_t>(digit);
        list += u"\u0401\0"s;
    }
    const auto items = static_cast<std::uint64_t>(std::count(list.begin(), list.end(), u'\0'));
    std::string package = archiveOf({}, listHeader(items, list));
    package.replace(8, 24, 24, '\xEE');
    Rescue rescue(package);
    EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
    EXPECT_THAT(rescue.damage, ElementsAre(kNotWhereItShouldBe));
    EXPECT_LE(rescue.source.taken, 10 * package.size());
}

TEST(Salvage, FindsAHeaderBehindWhatCannotBeRead) {
    constexpr std::size_t kReadable = 5000;
    const std::string contents(20'000, 'c');
    std::string package = storedPackage(contents, digestOf(contents));
    package.replace(8, 24, 24, '\xEE');
    Rescue rescue(package);
    rescue.source.badBegin = 32 + kReadable;
    rescue.source.badEnd = rescue.source.badBegin + 512;
    EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
    const Found part{SalvageState::CutShort, contents.substr(0, kReadable), kReadable};
    EXPECT_THAT(rescue.streams, ElementsAre(Pair(u"file", part)));
    Rescue closer(package); // in the last sectors
    closer.source.badBegin = package.size() / 512 * 512 - 1024;
    closer.source.badEnd = closer.source.badBegin + 512;
    EXPECT_EQ(closer.run(), SalvageOutcome::Losses);
    EXPECT_EQ(closer.streams[u"file"].there, closer.source.badBegin - 32);
}

TEST(Salvage, FindsAHeaderThatDoesNotFollowItsStreams) {
    const std::string contents = "contents";
    std::string package =
        archiveOf(contents + "gap",
                  streamsHeader(packInfo(contents.size()) +
                                    unpackInfo(copyFolder, contents.size(), digestOf(contents)),
                                1, u"file\0"s)) +
        std::string(512, '\0');
    package.replace(8, 24, 24, '\xEE');
    Rescue rescue(package);
    EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
    EXPECT_THAT(rescue.streams, ElementsAre(Pair(u"file", Found{SalvageState::Whole, contents, 8})));
}

// A package may have others in it, as they are. Their headers lead to nothing in it.
TEST(Salvage, TakesNoHeaderOfAnInnerPackage) {
    const std::string inner = storedPackage("inner", digestOf("inner"));
    const std::string empty = archiveOf({}, listHeader(1, u"none"));
    const std::string packed = archiveOf(
        {}, packedHeader(copyFolder, 0, 1)); // whose header would be found right behind the beginning
    for (const std::string& other : {inner, empty, packed, kHeadless + "\1\5\3\x0E\1\xE0\0\0"s}) {
        const std::string outer = "outer" + other + std::string(100, 'x');
        for (const std::string& behind : {"\0"s + kPackedStream, ""s}) { // which cuts it off at the inner one
            const std::string headless =
                kHeadless + stored(behind.empty() ? "outer" + other : outer) + behind;
            Rescue rescue(headless);
            EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
            EXPECT_EQ(rescue.streams[u"item 0001"].bytes.substr(0, outer.size() - 100), "outer" + other);
        }
        std::string package = storedPackage(outer, digestOf(outer)) + "behind";
        package.replace(8, 24, 24, '\xEE');
        Rescue whole(package);
        EXPECT_EQ(whole.run(), SalvageOutcome::Losses);
        EXPECT_THAT(whole.streams,
                    ElementsAre(Pair(u"file", Found{SalvageState::Whole, outer, outer.size()})));
    }
}

TEST(Salvage, AsksWhileItReadsHeadersOfWhateverSize) {
    constexpr std::uint64_t kMostUnasked = 0x200000; // the end of the file is read at once
    const std::size_t size = 4 * kMostUnasked;
    for (const char first : {'\1', '\x17', 'x'}) {
        SCOPED_TRACE(static_cast<int>(first));
        for (const bool isSound : {true, false}) {
            std::string package = archiveOf({}, first + std::string(size, '\xEE'));
            package[8] ^= isSound ? 0 : 1; // the checksum of the beginning
            Rescue rescue(package);
            EXPECT_NE(rescue.run(), SalvageOutcome::Ended);
            EXPECT_LE(rescue.source.mostUnasked, kMostUnasked);
            if (first == 'x' && !isSound) {
                EXPECT_LT(rescue.source.taken, 2 * size); // only the search for packed streams
            }
            Rescue ended(package);
            ended.lastAsked = 2;
            EXPECT_EQ(ended.run(), SalvageOutcome::Ended);
            EXPECT_EQ(ended.asked, ended.lastAsked);
        }
    }
}

TEST(Salvage, FindsAHeaderWithSomethingBehindIt) {
    const std::string package = storedPackage("contents", digestOf("contents"));
    const struct {
        const char* name;
        std::string behind;
        bool isReadable;
    } cases[] = {
        {"a packed header that claims more than it can hold",
         packedHeader(lzmaFolder, 1, std::uint64_t{1} << 40), true},
        {"what cannot be read", std::string(3000, 'x'), false},
        {"a few bytes that could tell of an empty item", "\1\5\1\x0E\1\x80\0\0x"s, true},
    };
    for (const auto& [name, behind, isReadable] : cases) {
        SCOPED_TRACE(name);
        std::string file = package + behind;
        file.replace(8, 24, 24, '\xEE');
        Rescue rescue(file);
        rescue.source.badBegin = package.size();
        rescue.source.badEnd = isReadable ? 0 : file.size();
        EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
        EXPECT_THAT(rescue.damage, ElementsAre(kNotWhereItShouldBe));
        EXPECT_THAT(rescue.streams, ElementsAre(Pair(u"file", Found{SalvageState::Whole, "contents", 8})));
    }
}

TEST(Salvage, AsksWhileItUnpacksAHeader) {
    constexpr std::size_t kMiB = 0x100000;
    std::u16string noise; // so that the header is not refused for what it holds
    for (std::uint32_t i = 0, value = 1; i < 0x8000; ++i)
        noise += static_cast<char16_t>(u'\u4E00' + ((value = value * 1664525 + 1013904223) >> 19));
    const struct {
        const char* name;
        std::size_t unused;
        std::size_t letters;
    } cases[] = {{"unpacked at once", 8 * kMiB, 0}, {"unpacked as it is read", 10 * kMiB, 6 * kMiB}};
    for (const auto& [name, unused, letters] : cases) {
        SCOPED_TRACE(name);
        const std::string property = bytes({0x19}) + number(unused) + std::string(unused, '\0');
        const std::string header = listHeader(1, noise + std::u16string(letters, u'a') + u'\0', property);
        const std::string package = withPackedHeader(header);
        Rescue rescue(package);
        EXPECT_EQ(rescue.run(), SalvageOutcome::Whole);
        EXPECT_GE(rescue.asked, header.size() / kMiB);
        Rescue ended(package);
        ended.lastAsked = rescue.asked / 2;
        EXPECT_EQ(ended.run(), SalvageOutcome::Ended);
        EXPECT_EQ(ended.asked, ended.lastAsked);
    }
}

TEST(Salvage, FindsPackedStreamsBehindWhatCannotBeRead) {
    constexpr std::size_t kBegin = 1024;
    constexpr std::size_t kEnd = 2048;
    const std::string before(kBegin - kHeadless.size() - 3, 'b');
    constexpr std::uint64_t kMostCalls = 50; // not one for each byte
    const std::string rest = stored(std::string(3000, 'r'), 2) + '\0' + stored("behind") + '\0';
    for (const std::size_t shift :
         {0U, 1U, 2U}) { // so many bytes of the chunk's control and sizes can be read
        SCOPED_TRACE(shift);
        const std::string first = before.substr(shift);
        const std::string file = kHeadless + stored(first) + rest;
        Rescue rescue(file);
        rescue.source.badBegin = kBegin;
        rescue.source.badEnd = kEnd;
        EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
        EXPECT_THAT(rescue.streams,
                    ElementsAre(Pair(u"item 0001", Found{SalvageState::CutShort, first, first.size()}),
                                Pair(u"item 0002", Found{SalvageState::Unchecked, "behind", 6})));
        EXPECT_LE(rescue.source.calls, kMostCalls);
    }
}

TEST(Salvage, AsksWhereNothingCanBeRead) {
    constexpr std::size_t kSectors = 1000;
    const std::string file = kHeadless + std::string(kSectors * 512, 'x');
    Rescue rescue(file);
    rescue.source.badEnd = file.size();
    rescue.source.badBegin = kHeadless.size();
    rescue.run();
    EXPECT_GE(rescue.asked, 2 * kSectors); // looking for a header, and for streams
    EXPECT_LE(rescue.source.calls, 4 * kSectors);
}

TEST(Salvage, FindsPackedStreamsThatWrongSizesLeadOver) {
    constexpr unsigned kStreams = 10;
    const std::size_t size = kPackedStream.size();
    for (std::size_t over = 1; over < size * kStreams; ++over) {
        const std::size_t landing = (over - 1) % size;
        if (landing == 0 || kPackedStream[landing] == 0)
            continue; // it might be so: another beginning, or an end
        SCOPED_TRACE(over);
        std::string packed = kPackedStream;
        packed[4] = static_cast<char>(static_cast<std::size_t>(packed[4]) + over);
        const std::string stored = {'\1', 0, static_cast<char>(over), 'x', 0};
        for (const std::string& astray : {packed, kPackedStream.substr(0, size - 1) + stored}) {
            const std::string file = kHeadless + astray + repeat(kPackedStream, kStreams * size) + 'x';
            Rescue rescue(file);
            EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
            const Found whole = {SalvageState::Unchecked, "salvagesalvagesalvagesalvage", 28};
            EXPECT_EQ(std::count_if(rescue.streams.begin(), rescue.streams.end(),
                                    [&](const auto& stream) { return stream.second == whole; }),
                      kStreams);
        }
    }
}

constexpr const char* kGivenUp = "too much makes no sense to look at the packed bytes from here on";
constexpr const char* kPassedOver = "packed bytes that make no sense are passed over, up to byte";

// What follows a stream whose sizes are sound comes back, whatever lies in that stream.
TEST(Salvage, FindsWhatFollowsADamagedStream) {
    const std::string damaged = "\xE0\0\0\0\0\x5D\xFF"s;
    const std::string& sound = kPackedStream;
    const Found lost{SalvageState::Lost, "", 0};
    const Found whole{SalvageState::Unchecked, "salvagesalvagesalvagesalvage", 28};
    const Found begun{SalvageState::CutShort, "begun", 5};
    const struct {
        const char* name;
        std::string packed;
        std::vector<Found> streams;
        bool isGivenUp, isPassedOver;
    } cases[] = {
        {"nothing", damaged + '\0' + sound, {lost, whole}, false, false},
        {"a sound stream, and the next is damaged, too",
         damaged + stored("x\0"s + sound + 'x', 2) + '\0' + stored("begun") + damaged + '\0' + sound,
         {lost, whole, begun, whole},
         false,
         true},
        {"a sound stream behind which a longer one seems to begin",
         damaged + stored('\0' + sound + stored("1234").substr(0, 6), 2) + '\0' + stored("begun") + damaged +
             '\0' + sound,
         {lost, whole, {SalvageState::CutShort, "123\0begun"s, 9}, begun, whole},
         false,
         true},
        {"its own last part", damaged + stored("\0"s, 2) + sound + sound, {lost, whole, whole}, false, true},
        {"more than is looked at",
         damaged + stored(repeat("\0\1\0\0"s, 0x100000), 2) + '\0' + sound + sound,
         {lost, whole, whole},
         true,
         false},
        {"more than is looked at, and nothing follows",
         damaged + stored(repeat("\0\1\0\0"s, 0x100000), 2) + '\0',
         {lost},
         true,
         false},
    };
    for (const auto& [name, packed, streams, isGivenUp, isPassedOver] : cases) {
        SCOPED_TRACE(name);
        const std::string file = kHeadless + packed;
        Rescue rescue(file);
        rescue.run();
        std::vector<Found> found;
        for (const auto& stream : rescue.streams)
            found.push_back(stream.second);
        EXPECT_EQ(rescue.reasons.size() > 1 && rescue.reasons[1].ends_with("the damaged one before it"),
                  std::string(name) == "its own last part");
        EXPECT_EQ(found, streams);
        EXPECT_EQ(std::count(rescue.damage.begin(), rescue.damage.end(), kGivenUp), isGivenUp);
        EXPECT_EQ(std::count(rescue.damage.begin(), rescue.damage.end(), kPassedOver), isPassedOver);
    }
}

TEST(Salvage, GivesUpAfterMuchThatWasInVainAndSaysSo) {
    const std::string& stream = kPackedStream;
    constexpr unsigned kStreams = 300;
    const struct {
        const char* name;
        std::string bytes;
        bool isGivenUp;
        std::size_t streams;
    } cases[] = {
        {"stored bytes in chunks", repeat("\0\1\0\0"s, kMazeBytes), true, 0},
        {"streams that do not decode", 'x' + repeat("\0\xE0\0\0\0\0\x5D\xFF"s, kMazeBytes), true, 0},
        {"streams that do", repeat("x\0"s + stream, kStreams * (stream.size() + 2)), false, kStreams},
    };
    for (const auto& [name, piece, isGivenUp, streams] : cases) {
        SCOPED_TRACE(name);
        const std::string file = kHeadless + piece + 'x';
        Rescue rescue(file);
        EXPECT_NE(rescue.run(), SalvageOutcome::Ended);
        EXPECT_EQ(std::count(rescue.damage.begin(), rescue.damage.end(), kGivenUp), isGivenUp);
        EXPECT_EQ(rescue.streams.size(), streams);
    }
}

TEST(Salvage, AsksBeforeEachNode) {
    constexpr int kItems = 5;
    std::u16string list;
    for (int i = 0; i < kItems; ++i)
        list += {static_cast<char16_t>(u'a' + i), u'/', u'b', u'/', u'c', 0};
    const std::string directories = listHeader(kItems, list);
    const std::string files = listHeader(kItems, list, bytes({0x0F, 1, 0xFF}));
    const std::string unknownMethod = bytes({1, 1, 0x7F});
    const std::string counts = bytes({8, 0x0D, kItems, 9, 1, 1, 1, 1, 0});
    const std::string lost =
        streamsHeader(packInfo(kItems) + unpackInfo(unknownMethod, kItems) + counts, kItems, list);
    for (const std::string& package :
         {archiveOf({}, directories), archiveOf({}, files), archiveOf("lost?", lost)}) {
        Rescue rescue(package);
        EXPECT_NE(rescue.run(), SalvageOutcome::Nothing); // and see there
        EXPECT_THAT(rescue.damage, IsEmpty());
        EXPECT_GT(rescue.asked, 0U);
    }
}

TEST(Salvage, TellsOfDamageOnlyWhatTheFileTurnsOutToBe) {
    std::string package = storedPackage("contents", digestOf("contents"));
    package[0] = 'X';
    Rescue rescue(package);
    EXPECT_EQ(rescue.run(), SalvageOutcome::Losses);
    EXPECT_EQ(rescue.format, SalvageFormat::Package);
    EXPECT_THAT(rescue.damage, ElementsAre(kNotWhereItShouldBe));
    EXPECT_THAT(rescue.streams, ElementsAre(Pair(u"file", Found{SalvageState::Whole, "contents", 8})));

    Image image = Image::document({});
    image.number(0) ^= 1;
    Rescue document(image.bytes());
    EXPECT_EQ(document.run(), SalvageOutcome::Losses);
    EXPECT_EQ(document.format, SalvageFormat::CompoundFile);
    EXPECT_THAT(document.damage, ElementsAre("the header is damaged"));
}

TEST(Salvage, CallsWhatHasNoChecksumNotChecked) {
    const struct {
        const char* name;
        std::string digests;
        SalvageState state;
    } cases[] = {
        {"no checksum", {}, SalvageState::Unchecked},
        {"its checksum", digestOf("contents"), SalvageState::Whole},
        {"another's", digestOf("content"), SalvageState::CutShort},
    };
    for (const auto& [name, digests, state] : cases) {
        SCOPED_TRACE(name);
        const std::string package = storedPackage("contents", digests);
        Rescue rescue(package);
        EXPECT_EQ(rescue.run(),
                  state == SalvageState::Whole ? SalvageOutcome::Whole : SalvageOutcome::Losses);
        EXPECT_THAT(rescue.streams, ElementsAre(Pair(u"file", Found{state, "contents", 8})));
        EXPECT_EQ(rescue.reasons.size(), state == SalvageState::Whole ? 0U : 1U);
    }
}

TEST(Salvage, AsksInEachWalkThroughACompoundFile) {
    constexpr std::uint32_t kStreams = 200;
    constexpr std::uint32_t kFree = 4000;
    std::vector<Image::Item> items{{L"Root", 5, 0, Image::none, Image::none, 1}};
    for (std::uint32_t i = 1; i <= kStreams; ++i)
        items.push_back(
            {L"s" + std::to_wstring(i), 2, 4096, Image::none, i < kStreams ? i + 1 : Image::none});
    const Image whole(items, {});
    Image lost(items, {});
    for (std::uint32_t i = 1; i <= kStreams; ++i)
        lost.element(i, Image::Start) = 0xFFFFFF;
    Image marked = Image::document({9, false, kFree});
    for (std::uint32_t i = 0, first = marked.number(Image::FatSectors); i < kFree; ++i)
        marked.next(first + i) =
            i % 8 == 0 ? first + i + 1 : 0xFFFFFFFD; // where no number leads, no part is known
    marked.number(Image::Fat + 4) = Image::none;
    Image withoutMiniTable = Image::document({9, false, kFree});
    withoutMiniTable.number(Image::MiniFat) = Image::none;
    const struct {
        const char* name;
        const Image& image;
        std::uint32_t least;
    } cases[] = {
        {"streams are measured, claimed, begun and read", whole, 4 * kStreams},
        {"or measured, claimed in part and told of", lost, 3 * kStreams},
        {"the table is looked for in each sector, and in those that are marked", marked,
         kFree + kFree * 3 / 4},
        {"the table of small streams is looked for in each sector, as are lost elements", withoutMiniTable,
         2 * kFree},
    };
    for (const auto& [name, image, least] : cases) {
        SCOPED_TRACE(name);
        Rescue rescue(image.bytes());
        rescue.run();
        EXPECT_GE(rescue.asked, least);
        EXPECT_LT(rescue.asked, least + least / 6); // so that none of them can be missing
    }
}

TEST(Salvage, CallsAStreamLostOfWhichNothingCanBeRead) {
    Image image = Image::document({});
    const auto sectorOf = [&](std::uint32_t element) {
        return (image.element(element, Image::Start) + 1) * std::size_t{512};
    };
    constexpr std::size_t kBig = 1;
    constexpr std::size_t kBigBytes = 4096;
    const std::size_t big = sectorOf(kBig);
    const struct {
        const char* name;
        std::size_t begin;
        SalvageState state;
        std::size_t there;
    } cases[] = {
        {"from its first sector on", big, SalvageState::Lost, 0},
        {"from its second sector on", big + 512, SalvageState::CutShort, 512},
        {"behind it", big + kBigBytes, SalvageState::Whole, kBigBytes},
    };
    for (const auto& [name, begin, state, there] : cases) {
        SCOPED_TRACE(name);
        Rescue rescue(image.bytes());
        rescue.source.badBegin = begin;
        rescue.source.badEnd = big + kBigBytes;
        rescue.run();
        EXPECT_EQ(rescue.streams[u"Big"].state, state);
        EXPECT_EQ(rescue.streams[u"Big"].there, there);
        EXPECT_EQ(rescue.streams[u"Big"].bytes.size(), there);
    }
    Rescue small(image.bytes());
    small.source.badBegin = sectorOf(0);
    small.source.badEnd = small.source.badBegin + 512;
    small.run();
    EXPECT_EQ(small.streams[u"Ole1"].state, SalvageState::Lost);
}

} // namespace
