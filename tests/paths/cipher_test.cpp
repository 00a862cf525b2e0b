#include <vexel/cipher.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using Box = SECCryptoBlackBox;
using Bytes = std::vector<unsigned char>;

Bytes plain(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

Box keyed(std::wstring password, Box::eDir direction, Box::eMode mode) {
    return Box(password.data(), direction, mode);
}

void transform(Box& box, Bytes& bytes) { box.TransformBuf(bytes.data(), static_cast<long>(bytes.size())); }

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// Worked out by tests/data/cipher_answers.py.
TEST(Cipher, GivesTheKnownAnswers) {
    struct Case {
        const wchar_t* password;
        Box::eMode mode;
        const char* cipher;
    };
    for (const Case& c : {
             Case{L"A", Box::ModeStream,
                  "a5f20a67ab2c8c25e9ee8ee3a78018094d7ab2afe3040422f75a18379974da0ddf369cc3f548a681"},
             Case{L"A", Box::ModeFeedback,
                  "a5575d3a91bd3114fd139d7ed9594148057fcd62818581a3540e1621b8cc161bc4f26ead5810b637"},
             Case{L"Another text of the same first letter", Box::ModeStream,
                  "a5f20a67ab2c8c25e9ee8ee3a78018094d7ab2afe3040422f75a18379974da0ddf369cc3f548a681"},
             Case{L"\x5a41\x4242", Box::ModeStream,
                  "8c968747dfd015ed2a16f323bdf0391138d6dfcf03f85d937978c3781623486570d27dda6a952a07"},
             Case{L"\x5a41\x4242", Box::ModeFeedback,
                  "8c1a9dda05d5c02d0711e2c17c8cb5a49c4a955a59a1fc6f166eadd5c3e0a8cdbd6f12c8a2371d1a"},
             Case{L"\xff80", Box::ModeStream,
                  "340af62498120adc7c1a7ed48032727c440a860428f25a5b7b82329058e2de18e4f26ad0b0f27668"},
             Case{L"\xff80", Box::ModeFeedback,
                  "343ec8ec74666cb0ccd6a87cfccebcc0848e080c24d68cd7ac2e1c8cd436e8f014e68c5cec1e6800"},
         }) {
        Box box = keyed(c.password, Box::DirEncrypt, c.mode);
        Bytes bytes = plain(40);
        transform(box, bytes);
        EXPECT_EQ(hex(bytes), c.cipher);
    }
}

// Long buffers take another way than single bytes; cutting them up anywhere must not show.
TEST(Cipher, DoesNotDependOnHowABufferIsCut) {
    for (const Box::eMode mode : {Box::ModeStream, Box::ModeFeedback}) {
        Bytes byteByByte = plain(3000);
        Box slow = keyed(L"k", Box::DirEncrypt, mode);
        for (unsigned char& byte : byteByByte)
            slow.TransformBuf(&byte, 1);
        for (long first = 0; first < 600; first += first < 40 ? 1 : 37) {
            Bytes bytes = plain(3000);
            Box box = keyed(L"k", Box::DirEncrypt, mode);
            box.TransformBuf(bytes.data(), first);
            box.TransformBuf(bytes.data() + first, 3000 - first);
            ASSERT_EQ(bytes, byteByByte) << first;

            Box back = keyed(L"k", Box::DirDecrypt, mode);
            back.TransformBuf(bytes.data(), 3000 - first);
            back.TransformBuf(bytes.data() + 3000 - first, first);
            ASSERT_EQ(bytes, plain(3000)) << first;
        }
    }
}

TEST(Cipher, CanBeEnteredAnywhereInStreamModeOnly) {
    constexpr std::size_t period = 23 * 24 * 25;
    Bytes cipher = plain(period + 64);
    Box box = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    transform(box, cipher);
    Box entered = keyed(L"k", Box::DirDecrypt, Box::ModeStream);
    for (std::size_t offset = 0; offset < period; ++offset) {
        unsigned char byte = cipher[offset];
        entered.SetPtr(static_cast<long>(offset));
        entered.TransformBuf(&byte, 1);
        ASSERT_EQ(byte, plain(offset + 1).back()) << offset;
    }
    unsigned char last = cipher[period - 1];
    entered.SetPtr(-1); // the wheels are where they are after a whole period less one
    entered.TransformBuf(&last, 1);
    EXPECT_EQ(last, plain(period).back());

    cipher = plain(100);
    box = keyed(L"k", Box::DirEncrypt, Box::ModeFeedback);
    transform(box, cipher);
    Box late = keyed(L"k", Box::DirDecrypt, Box::ModeFeedback);
    late.SetPtr(50);
    Bytes tail(cipher.begin() + 50, cipher.end());
    transform(late, tail);
    EXPECT_NE(tail.front(), plain(51).back());
    EXPECT_TRUE(std::equal(tail.begin() + 1, tail.end(), plain(100).begin() + 51))
        << "one byte later it is in step";
}

TEST(Cipher, IsKeyedOnce) {
    Box box;
    Bytes bytes = plain(30);
    transform(box, bytes);
    EXPECT_EQ(bytes, plain(30)) << "without a key";
    EXPECT_EQ(box.SetPassword(nullptr), 0);
    EXPECT_EQ(box.SetPassword(L""), 0);
    EXPECT_EQ(box.SetPassword(L"\x0100"), 0) << "its first byte is zero";
    EXPECT_EQ(box.SetPassword(L"k"), 1);
    EXPECT_EQ(box.SetPassword(L"other"), 0);
    transform(box, bytes);
    Box expected = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    Bytes wanted = plain(30);
    transform(expected, wanted);
    EXPECT_EQ(bytes, wanted);
}

TEST(Cipher, KeepsFeedbackOverResetAndSharesWheelsWithACopy) {
    Box box = keyed(L"k", Box::DirEncrypt, Box::ModeFeedback);
    Bytes first = plain(16);
    transform(box, first);
    box.Reset();
    Bytes second = plain(16);
    transform(box, second);
    EXPECT_EQ(second.front(), first.front() ^ first.back());

    Box stream = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    Box copy;
    copy = stream;
    Bytes whole = plain(32);
    stream.TransformBuf(whole.data(), 16);
    copy.TransformBuf(whole.data() + 16, 0);
    copy.TransformBuf(whole.data() + 16, -5);
    copy.TransformBuf(whole.data() + 16, 16);
    Box single = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    Bytes wanted = plain(32);
    transform(single, wanted);
    EXPECT_EQ(whole, wanted);
}

} // namespace
