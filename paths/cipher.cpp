#include <vexel/cipher.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace {

constexpr int keyBytes = 72;

// Buffers are transformed in runs: each wheel's bytes stand in memory so often that a run reads straight on.
constexpr int runBytes = 512;

using Word = std::uint64_t;
constexpr int wordBytes = sizeof(Word);
constexpr Word everyByte = 0x0101010101010101;

Word wordAt(const unsigned char* place) noexcept {
    Word word = 0;
    std::memcpy(&word, place, sizeof word);
    return word;
}

void putWord(unsigned char* place, Word word) noexcept { std::memcpy(place, &word, sizeof word); }

// The byte that deciphering leaves behind, for all objects; see the class.
unsigned char intermediate = 0;

// Each byte of the result is the exclusive or of that byte and all before it (the lower ones) in `word`.
constexpr Word accumulate(Word word) noexcept {
    word ^= word << 8;
    word ^= word << 16;
    return word ^ (word << 32);
}

} // namespace

struct SECCryptoBlackBox::Wheel {
    std::unique_ptr<unsigned char[]> data; // null until keyed
    int length = 0;
    int position = 0;

    bool accept(const char* key, int keyLength) {
        if (data)
            return false;
        data = std::make_unique<unsigned char[]>(static_cast<std::size_t>(keyLength) + runBytes);
        for (int i = 0; i < keyLength + runBytes; ++i)
            data[static_cast<std::size_t>(i)] = static_cast<unsigned char>(key[i % keyLength]);
        length = keyLength;
        position = 0;
        return true;
    }

    const unsigned char* current() const noexcept { return data.get() + position; }
    void turn(int steps) noexcept { position = (position + steps) % length; }
    void turnTo(long offset) noexcept {
        if (length != 0)
            position = static_cast<int>((offset % length + length) % length);
    }
};

struct SECCryptoBlackBox::Wheels {
    std::array<Wheel, 3> all;

    Wheel& operator[](int i) noexcept { return all[static_cast<std::size_t>(i)]; }
};

namespace {

// Takes the buffer run by run: `transform` gets a run, its length and where each wheel's key bytes for it
// begin.
template <class Wheels, class Transform>
void inRuns(Wheels& wheels, unsigned char* buffer, long length, Transform transform) {
    while (length > 0) {
        const int count = static_cast<int>((std::min)(length, static_cast<long>(runBytes)));
        transform(buffer, count, wheels[0].current(), wheels[1].current(), wheels[2].current());
        for (int i = 0; i < 3; ++i)
            wheels[i].turn(count);
        buffer += count;
        length -= count;
    }
}

} // namespace

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
    if (length == 0)
        return 0;
    // The hash never looks further than one byte past the last it writes for.
    std::array<char, keyBytes + 1> text{};
    const auto used = static_cast<int>((std::min)(length, text.size()));
    std::memcpy(text.data(), password, static_cast<std::size_t>(used));
    std::array<char, keyBytes> key{};
    HashString(text.data(), used, key.data(), keyBytes);

    const int shortest = (keyBytes - wheelCount_ * (wheelCount_ - 1) / 2) / wheelCount_;
    bool accepted = true;
    const char* next = key.data();
    for (int i = 0; i < wheelCount_; ++i) {
        accepted &= (*wheels_)[i].accept(next, shortest + i);
        next += shortest + i;
    }
    return accepted ? 1 : 0;
}

void SECCryptoBlackBox::Reset() { SetPtr(0); }

void SECCryptoBlackBox::SetPtr(long offset) {
    for (int i = 0; i < wheelCount_; ++i)
        (*wheels_)[i].turnTo(offset);
}

bool SECCryptoBlackBox::keyed() const noexcept { return (*wheels_)[wheelCount_ - 1].data != nullptr; }

unsigned char SECCryptoBlackBox::NextKey() {
    if (!keyed())
        return 0;
    unsigned char key = 0;
    for (int i = 0; i < wheelCount_; ++i) {
        key ^= *(*wheels_)[i].current();
        (*wheels_)[i].turn(1);
    }
    return key;
}

void SECCryptoBlackBox::Encrypt(unsigned char& byte) {
    byte = static_cast<unsigned char>(byte ^ NextKey() ^ encryptFeedback_);
    if (mode_ == ModeFeedback)
        encryptFeedback_ = byte;
}

void SECCryptoBlackBox::Decrypt(unsigned char& byte) {
    intermediate = static_cast<unsigned char>(byte ^ NextKey() ^ decryptFeedback_);
    if (mode_ == ModeFeedback)
        decryptFeedback_ = byte;
    byte = intermediate;
}

void SECCryptoBlackBox::TransformBuf(unsigned char* buffer, long length) {
    if (length < 1)
        return;
    if (direction_ != DirEncrypt)
        decryptAll(buffer, length);
    else
        encryptAll(buffer, length);
}

// What Encrypt does byte by byte, eight at a time. With feedback a cipher byte is the exclusive or of the
// feedback byte before the word and of all bytes up to its own, plain and key.
void SECCryptoBlackBox::encryptAll(unsigned char* buffer, long length) {
    if (keyed()) {
        const bool feedback = mode_ == ModeFeedback;
        const long whole = length - length % wordBytes;
        inRuns(*wheels_, buffer, whole,
               [&](unsigned char* run, int count, const auto* a, const auto* b, const auto* c) {
                   Word last = encryptFeedback_ * everyByte;
                   for (int i = 0; i < count; i += wordBytes) {
                       const Word mixed = wordAt(run + i) ^ wordAt(a + i) ^ wordAt(b + i) ^ wordAt(c + i);
                       const Word cipher = (feedback ? accumulate(mixed) : mixed) ^ last;
                       putWord(run + i, cipher);
                       if (feedback)
                           last = (cipher >> 56) * everyByte;
                   }
                   if (feedback)
                       encryptFeedback_ = static_cast<unsigned char>(last);
               });
        buffer += whole;
        length -= whole;
    }
    for (; length > 0; --length)
        Encrypt(*buffer++);
}

// What Decrypt does byte by byte. With feedback each cipher byte is mixed into the next.
void SECCryptoBlackBox::decryptAll(unsigned char* buffer, long length) {
    if (keyed()) {
        const bool feedback = mode_ == ModeFeedback;
        const long whole = length - length % wordBytes;
        inRuns(*wheels_, buffer, whole,
               [&](unsigned char* run, int count, const auto* a, const auto* b, const auto* c) {
                   Word before = feedback ? decryptFeedback_ : decryptFeedback_ * everyByte;
                   for (int i = 0; i < count; i += wordBytes) {
                       const Word cipher = wordAt(run + i);
                       const Word mixed = cipher ^ wordAt(a + i) ^ wordAt(b + i) ^ wordAt(c + i) ^ before;
                       putWord(run + i, feedback ? mixed ^ (cipher << 8) : mixed);
                       if (feedback)
                           before = cipher >> 56;
                   }
                   if (feedback)
                       decryptFeedback_ = static_cast<unsigned char>(before);
                   intermediate = run[count - 1];
               });
        buffer += whole;
        length -= whole;
    }
    for (; length > 0; --length)
        Decrypt(*buffer++);
}
