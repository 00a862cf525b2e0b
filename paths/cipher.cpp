#include <vexel/cipher.h>

#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

// By definition, the key byte for place n is the exclusive or of three bytes, one of each wheel: those at n
// modulo 23, 24 and 25. A loop that turns the wheels byte by byte spends its time on three positions and
// their wrapping, and takes some fifty times as long as this code in the chained mode and some two hundred
// times in the other.
//
// The wheels start together, so what they make between them repeats after 23 * 24 * 25 = 13,800 bytes. That
// period is computed once for each key, by mixing the wheels one after the other into a table (layOut), and
// one position in the table stands for those of all wheels. The table has a block more than the period, which
// only its filling needs. Enciphering is then the exclusive or of the data and a run of the table, 16 bytes
// at a time (SSE2, which every processor of this architecture has). The chained mode makes each byte depend
// on the one before; within a block this is worked out in four steps of shifting (accumulate) for
// enciphering, and by one shift for deciphering, which has all the cipher bytes at hand.

namespace {

constexpr int kKeyBytes = 72;
constexpr int kShortestWheel = (kKeyBytes - 3) / 3;
constexpr int kPeriod = kShortestWheel * (kShortestWheel + 1) * (kShortestWheel + 2);

// The byte that deciphering leaves behind, for all objects; see the class.
unsigned char intermediate = 0;

using Block = __m128i;
constexpr int kBlockBytes = sizeof(Block);

Block load(const unsigned char* place) noexcept {
    return _mm_loadu_si128(reinterpret_cast<const Block*>(place));
}

void store(unsigned char* place, Block block) noexcept {
    _mm_storeu_si128(reinterpret_cast<Block*>(place), block);
}

// Each byte of the result is the exclusive or of that byte of `block` and all before it.
Block accumulate(Block block) noexcept {
    block = _mm_xor_si128(block, _mm_slli_si128(block, 1));
    block = _mm_xor_si128(block, _mm_slli_si128(block, 2));
    block = _mm_xor_si128(block, _mm_slli_si128(block, 4));
    return _mm_xor_si128(block, _mm_slli_si128(block, 8));
}

// The last byte of `block` in every place.
Block spreadLast(Block block) noexcept {
    const Block pairs = _mm_unpackhi_epi8(block, block);
    const Block quarters = _mm_shufflehi_epi16(pairs, 0xFF);
    return _mm_unpackhi_epi64(quarters, quarters);
}

// What the byte-by-byte definitions make of a run of `count` bytes. The chained forms return the feedback
// byte for what follows.

void mix(unsigned char* run, int count, const unsigned char* key, unsigned char feedback) noexcept {
    const Block last = _mm_set1_epi8(static_cast<char>(feedback));
    int i = 0;
    for (; i + kBlockBytes <= count; i += kBlockBytes)
        store(run + i, _mm_xor_si128(_mm_xor_si128(load(run + i), load(key + i)), last));
    for (; i < count; ++i)
        run[i] = static_cast<unsigned char>(run[i] ^ key[i] ^ feedback);
}

// A cipher byte is the exclusive or of the feedback byte and all plain and key bytes up to its own.
unsigned char encryptChained(unsigned char* run, int count, const unsigned char* key,
                             unsigned char feedback) noexcept {
    Block last = _mm_set1_epi8(static_cast<char>(feedback));
    int i = 0;
    for (; i + kBlockBytes <= count; i += kBlockBytes) {
        const Block mixed = accumulate(_mm_xor_si128(load(run + i), load(key + i)));
        store(run + i, _mm_xor_si128(mixed, last));
        last = _mm_xor_si128(last, spreadLast(mixed)); // from `mixed`, so that blocks wait for this step only
    }
    feedback = static_cast<unsigned char>(_mm_cvtsi128_si32(last));
    for (; i < count; ++i)
        run[i] = feedback = static_cast<unsigned char>(run[i] ^ key[i] ^ feedback);
    return feedback;
}

// Each cipher byte is mixed into the next.
unsigned char decryptChained(unsigned char* run, int count, const unsigned char* key,
                             unsigned char feedback) noexcept {
    int i = 0;
    for (; i + kBlockBytes <= count; i += kBlockBytes) {
        const Block cipher = load(run + i);
        const Block before = _mm_or_si128(_mm_slli_si128(cipher, 1), _mm_cvtsi32_si128(feedback));
        feedback = run[i + kBlockBytes - 1];
        store(run + i, _mm_xor_si128(_mm_xor_si128(cipher, load(key + i)), before));
    }
    for (; i < count; ++i) {
        const unsigned char cipher = run[i];
        run[i] = static_cast<unsigned char>(cipher ^ key[i] ^ feedback);
        feedback = cipher;
    }
    return feedback;
}

// Mixes a wheel of `length` bytes into the whole of `stream`.
void mixWheel(unsigned char* stream, const char* wheel, int length) noexcept {
    std::array<unsigned char, kKeyBytes> again{}; // a block can be read from any place on the wheel
    for (int i = 0; i < length + kBlockBytes; ++i)
        again[static_cast<std::size_t>(i)] = static_cast<unsigned char>(wheel[i % length]);
    int place = 0;
    for (int i = 0; i < kPeriod; i += kBlockBytes) {
        store(stream + i, _mm_xor_si128(load(stream + i), load(again.data() + place)));
        place += place + kBlockBytes < length ? kBlockBytes : kBlockBytes - length;
    }
}

std::unique_ptr<unsigned char[]> layOut(const std::array<char, kKeyBytes>& key) {
    auto stream = std::make_unique<unsigned char[]>(kPeriod + kBlockBytes);
    const char* wheel = key.data();
    for (int length = kShortestWheel; length < kShortestWheel + 3; ++length) {
        mixWheel(stream.get(), wheel, length);
        wheel += length;
    }
    return stream;
}

} // namespace

struct SECCryptoBlackBox::Wheels {
    std::unique_ptr<unsigned char[]>
        stream;       // one period of key bytes, filled up to a block; null until keyed
    int position = 0; // in it

    // Hands the buffer out in runs that do not leave the period, each with its key bytes.
    template <class Transform>
    void inRuns(unsigned char* buffer, long length, Transform transform) {
        while (length > 0) {
            const int count = static_cast<int>((std::min)(length, static_cast<long>(kPeriod - position)));
            transform(buffer, count, stream.get() + position);
            position = (position + count) % kPeriod;
            buffer += count;
            length -= count;
        }
    }
};

SECCryptoBlackBox::SECCryptoBlackBox(wchar_t* password, eDir direction, eMode mode)
    : wheels_(std::make_shared<Wheels>()), direction_(direction), mode_(mode) {
    if (password && *password)
        SetPassword(password);
}

SECCryptoBlackBox::~SECCryptoBlackBox() = default;

// NOLINTNEXTLINE(readability-non-const-parameter): the exported signature
void SECCryptoBlackBox::HashString(char* input, int inputLength, char* output, int outputLength) {
    std::uint8_t sum = 0;
    for (int i = 0; i < outputLength; ++i) {
        // NOLINTNEXTLINE(bugprone-signed-char-misuse): characters count as signed
        const int c = static_cast<signed char>(input[i % inputLength]);
        sum = static_cast<std::uint8_t>(sum + (i + c) * 17);
        output[i] = static_cast<char>(c * sum + static_cast<signed char>(input[(i + 1) % inputLength]));
    }
}

int SECCryptoBlackBox::SetPassword(const wchar_t* password) {
    // Hashed as narrow text: what was enciphered so must stay readable.
    const std::size_t length = password ? std::strlen(reinterpret_cast<const char*>(password)) : 0;
    if (length == 0 || wheels_->stream)
        return 0;
    // The hash never looks further than one byte past the last it writes for.
    std::array<char, kKeyBytes + 1> text{};
    const auto used = static_cast<int>((std::min)(length, text.size()));
    std::memcpy(text.data(), password, static_cast<std::size_t>(used));
    std::array<char, kKeyBytes> key{};
    HashString(text.data(), used, key.data(), kKeyBytes);

    wheels_->stream = layOut(key);
    wheels_->position = 0;
    return 1;
}

void SECCryptoBlackBox::Reset() { wheels_->position = 0; }

void SECCryptoBlackBox::SetPtr(long offset) {
    wheels_->position = static_cast<int>((offset % kPeriod + kPeriod) % kPeriod);
}

unsigned char SECCryptoBlackBox::NextKey() {
    unsigned char key = 0;
    if (wheels_->stream)
        wheels_->inRuns(&key, 1, [](unsigned char* to, int, const unsigned char* next) { *to = *next; });
    return key;
}

void SECCryptoBlackBox::Encrypt(unsigned char& value) {
    value = static_cast<unsigned char>(value ^ NextKey() ^ encryptFeedback_);
    if (mode_ == ModeFeedback)
        encryptFeedback_ = value;
}

void SECCryptoBlackBox::Decrypt(unsigned char& value) {
    intermediate = static_cast<unsigned char>(value ^ NextKey() ^ decryptFeedback_);
    if (mode_ == ModeFeedback)
        decryptFeedback_ = value;
    value = intermediate;
}

void SECCryptoBlackBox::TransformBuf(unsigned char* buffer, long length) {
    if (length < 1)
        return;
    const bool decrypt = direction_ != DirEncrypt;
    if (wheels_->stream) {
        decrypt ? decryptAll(buffer, length) : encryptAll(buffer, length);
        return;
    }
    for (long i = 0; i < length; ++i)
        decrypt ? Decrypt(buffer[i]) : Encrypt(buffer[i]);
}

void SECCryptoBlackBox::encryptAll(unsigned char* buffer, long length) {
    wheels_->inRuns(buffer, length, [this](unsigned char* run, int count, const unsigned char* key) {
        if (mode_ == ModeFeedback)
            encryptFeedback_ = encryptChained(run, count, key, encryptFeedback_);
        else
            mix(run, count, key, encryptFeedback_);
    });
}

void SECCryptoBlackBox::decryptAll(unsigned char* buffer, long length) {
    wheels_->inRuns(buffer, length, [this](unsigned char* run, int count, const unsigned char* key) {
        if (mode_ == ModeFeedback)
            decryptFeedback_ = decryptChained(run, count, key, decryptFeedback_);
        else
            mix(run, count, key, decryptFeedback_);
    });
    intermediate = buffer[length - 1];
}
