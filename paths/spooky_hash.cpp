// SpookyHash V2 (Bob Jenkins, public domain algorithm): up to 191 bytes go through four words of state,
// longer messages through twelve.

#include <vexel/hash.h>

#include <array>
#include <bit>
#include <cstring>
#include <utility>

namespace {

using Word = std::uint64_t;

static_assert(std::endian::native == std::endian::little, "words are read as they lie in memory");

constexpr Word kFiller = 0xDEADBEEFDEADBEEF;
constexpr std::size_t kStateWords = 12;
constexpr std::size_t kBlockBytes = kStateWords * sizeof(Word);
constexpr std::size_t kShortestLong = 2 * kBlockBytes;

using State = std::array<Word, kStateWords>;

Word wordAt(const std::byte* place) noexcept {
    Word word = 0;
    std::memcpy(&word, place, sizeof word);
    return word;
}

// Four words of state.
struct ShortState {
    Word a, b, c, d;

    // Each line is one step on the next word of the cycle; the numbers are the algorithm's rotations.
    void mix() noexcept {
        mixOnce(c, d, a, 50), mixOnce(d, a, b, 52), mixOnce(a, b, c, 30), mixOnce(b, c, d, 41);
        mixOnce(c, d, a, 54), mixOnce(d, a, b, 48), mixOnce(a, b, c, 38), mixOnce(b, c, d, 37);
        mixOnce(c, d, a, 62), mixOnce(d, a, b, 34), mixOnce(a, b, c, 5), mixOnce(b, c, d, 36);
    }

    void end() noexcept {
        endOnce(d, c, 15), endOnce(a, d, 52), endOnce(b, a, 26), endOnce(c, b, 51);
        endOnce(d, c, 28), endOnce(a, d, 9), endOnce(b, a, 47), endOnce(c, b, 54);
        endOnce(d, c, 32), endOnce(a, d, 25), endOnce(b, a, 63);
    }

private:
    static void mixOnce(Word& x, Word& y, Word& z, int rotation) noexcept {
        x = std::rotl(x, rotation) + y;
        z ^= x;
    }
    static void endOnce(Word& x, Word& y, int rotation) noexcept {
        x ^= y;
        y = std::rotl(y, rotation);
        x += y;
    }
};

// The last 0 to 15 bytes: as two words, filled up with zeros, of which the second keeps the length above it.
void addTail(ShortState& state, const std::byte* place, std::size_t count) noexcept {
    if (count == 0) {
        state.c += kFiller;
        state.d += kFiller;
        return;
    }
    std::array<std::byte, 16> padded{};
    std::memcpy(padded.data(), place, count);
    state.c += wordAt(padded.data());
    state.d += wordAt(padded.data() + 8);
}

void hashShort(const std::byte* place, std::size_t length, Word& hash1, Word& hash2) noexcept {
    ShortState state{hash1, hash2, kFiller, kFiller};
    std::size_t left = length;
    for (; left >= 32; left -= 32, place += 32) {
        state.c += wordAt(place);
        state.d += wordAt(place + 8);
        state.mix();
        state.a += wordAt(place + 16);
        state.b += wordAt(place + 24);
    }
    if (left >= 16) {
        state.c += wordAt(place);
        state.d += wordAt(place + 8);
        state.mix();
        left -= 16;
        place += 16;
    }
    state.d += static_cast<Word>(length) << 56;
    addTail(state, place, left);
    state.end();
    hash1 = state.a;
    hash2 = state.b;
}

// One step on word I of the twelve; unrolled, so that the state stays in registers.
template <std::size_t I>
inline void mixWord(State& s, Word word) noexcept {
    constexpr std::array<int, kStateWords> kRotations{11, 32, 43, 31, 17, 28, 39, 57, 55, 54, 22, 46};
    s[I] += word;
    s[(I + 2) % kStateWords] ^= s[(I + 10) % kStateWords];
    s[(I + 11) % kStateWords] ^= s[I];
    s[I] = std::rotl(s[I], kRotations[I]);
    s[(I + 11) % kStateWords] += s[(I + 1) % kStateWords];
}

template <std::size_t I>
inline void endWord(State& s) noexcept {
    constexpr std::array<int, kStateWords> kRotations{44, 15, 34, 21, 38, 33, 10, 13, 38, 53, 42, 54};
    s[(I + 11) % kStateWords] += s[(I + 1) % kStateWords];
    s[(I + 2) % kStateWords] ^= s[(I + 11) % kStateWords];
    s[(I + 1) % kStateWords] = std::rotl(s[(I + 1) % kStateWords], kRotations[I]);
}

template <std::size_t... I>
inline void mixBlock(State& s, const std::byte* block, std::index_sequence<I...>) noexcept {
    (mixWord<I>(s, wordAt(block + I * sizeof(Word))), ...);
}

template <std::size_t... I>
inline void endRound(State& s, std::index_sequence<I...>) noexcept {
    (endWord<I>(s), ...);
}

constexpr auto kAllWords = std::make_index_sequence<kStateWords>();

void hashLong(const std::byte* place, std::size_t length, Word& hash1, Word& hash2) noexcept {
    State state{hash1, hash2, kFiller, hash1, hash2, kFiller, hash1, hash2, kFiller, hash1, hash2, kFiller};
    std::size_t left = length;
    for (; left >= kBlockBytes; left -= kBlockBytes, place += kBlockBytes)
        mixBlock(state, place, kAllWords);

    std::array<std::byte, kBlockBytes> last{};
    std::memcpy(last.data(), place, left);
    last.back() = static_cast<std::byte>(left);
    for (std::size_t i = 0; i < kStateWords; ++i)
        state[i] += wordAt(last.data() + i * sizeof(Word));
    for (int round = 0; round < 3; ++round)
        endRound(state, kAllWords);
    hash1 = state[0];
    hash2 = state[1];
}

} // namespace

void Vexel::Hash::SpookyV2_128(const void* data, std::size_t length, std::uint64_t& hash1,
                               std::uint64_t& hash2) noexcept {
    const auto* bytes = static_cast<const std::byte*>(data);
    if (length < kShortestLong)
        hashShort(bytes, length, hash1, hash2);
    else
        hashLong(bytes, length, hash1, hash2);
}
