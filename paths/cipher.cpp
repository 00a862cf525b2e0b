#include <vexel/cipher.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

namespace {

constexpr int keyBytes = 72;
constexpr int wheelCount = 3;
constexpr int shortestWheel = (keyBytes - 3) / wheelCount;

// The byte that deciphering leaves behind, for all objects; see the class.
unsigned char intermediate = 0;

} // namespace

struct SECCryptoBlackBox::Wheels {
    struct Wheel {
        const char* data; // its part of `key`
        int length;
        int position;
    };
    std::array<char, keyBytes> key{};
    std::array<Wheel, wheelCount> wheels{};
    bool keyed = false;

    // Each wheel is a byte longer than the one before, and starts where that one ends.
    Wheels() {
        const char* data = key.data();
        int length = shortestWheel;
        for (Wheel& wheel : wheels) {
            wheel = {data, length, 0};
            data += length++;
        }
    }
    Wheels(const Wheels&) = delete;
    Wheels& operator=(const Wheels&) = delete;

    void turnTo(long offset) noexcept {
        for (Wheel& wheel : wheels)
            wheel.position = static_cast<int>((offset % wheel.length + wheel.length) % wheel.length);
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
    if (length == 0 || wheels_->keyed)
        return 0;
    // The hash never looks further than one byte past the last it writes for.
    std::array<char, keyBytes + 1> text{};
    const auto used = static_cast<int>((std::min)(length, text.size()));
    std::memcpy(text.data(), password, static_cast<std::size_t>(used));
    HashString(text.data(), used, wheels_->key.data(), keyBytes);
    wheels_->keyed = true;
    Reset();
    return 1;
}

void SECCryptoBlackBox::Reset() { wheels_->turnTo(0); }

void SECCryptoBlackBox::SetPtr(long offset) { wheels_->turnTo(offset); }

unsigned char SECCryptoBlackBox::NextKey() {
    unsigned key = 0;
    for (Wheels::Wheel& wheel : wheels_->wheels) {
        key ^= static_cast<unsigned char>(wheel.data[wheel.position]);
        if (++wheel.position == wheel.length)
            wheel.position = 0;
    }
    return static_cast<unsigned char>(key);
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
    for (long i = 0; i < length; ++i)
        direction_ != DirEncrypt ? Decrypt(buffer[i]) : Encrypt(buffer[i]);
}
