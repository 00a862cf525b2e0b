#include <vexel/cipher.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

namespace {

using Box = SECCryptoBlackBox;
using Bytes = std::vector<unsigned char>;

constexpr long period = 23L * 24 * 25;

Bytes plain(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

Box keyed(std::wstring password, Box::eDir direction, Box::eMode mode) {
    return {password.data(), direction, mode};
}

struct ByteCipher : Box {
    using Box::Box;
    using Box::Decrypt;
    using Box::Encrypt;
};

void transform(Box& box, Bytes& bytes) { box.TransformBuf(bytes.data(), static_cast<long>(bytes.size())); }

/// What becomes of the plain bytes.
Bytes through(Box& box, std::size_t length) {
    Bytes bytes = plain(length);
    transform(box, bytes);
    return bytes;
}

std::string hex(const Bytes& bytes) {
    std::string text;
    for (const unsigned char byte : bytes) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

// More bytes than the hash of a password looks at, none of them zero.
std::wstring longPassword() {
    std::wstring text;
    for (int i = 0; i < 40; ++i)
        text += static_cast<wchar_t>(0x0101 + i * 0x0201);
    return text;
}

// Worked out by tests/data/cipher_answers.py: the first bytes, which see each wheel come round, and the last,
// which see all of them come round together.
TEST(Cipher, GivesTheKnownAnswers) {
    struct Case {
        std::wstring password;
        Box::eMode mode;
        const char *first, *last;
    };
    constexpr auto stream = Box::ModeStream, feedback = Box::ModeFeedback;
    const Case cases[] = {
        {L"A", stream, "a5f20a67ab2c8c25e9ee8ee3a78018094d7ab2afe3040422f75a", "7183a8a2efc5"},
        {L"A", feedback, "a5575d3a91bd3114fd139d7ed9594148057fcd62818581a3540e", "d754fc5eb174"},
        {L"Another", stream, "a5f20a67ab2c8c25e9ee8ee3a78018094d7ab2afe3040422f75a", "7183a8a2efc5"},
        {L"\x5a41\x4242", stream, "8c968747dfd015ed2a16f323bdf0391138d6dfcf03f85d937978", "2766c8100594"},
        {L"\x5a41\x4242", feedback, "8c1a9dda05d5c02d0711e2c17c8cb5a49c4a955a59a1fc6f166e", "ee88405055c1"},
        {L"\xff80", stream, "340af62498120adc7c1a7ed48032727c440a860428f25a5b7b82", "118f13018973"},
        {L"\xff80", feedback, "343ec8ec74666cb0ccd6a87cfccebcc0848e080c24d68cd7ac2e", "47c8dbda5320"},
        {longPassword(), stream, "7f9d861a6c2208536937da287ef48c99cb197ee6e096382efa72", "42e91fa9cda3"},
        {longPassword(), feedback, "7fe2647e1230386b0235efc7b94dc158938af412f2645c7288fa", "fe1708a16ccf"},
    };
    for (const Case& c : cases) {
        Box box = keyed(c.password, Box::DirEncrypt, c.mode);
        Bytes bytes = through(box, 30000);
        EXPECT_EQ(hex({bytes.begin(), bytes.begin() + 26}), c.first);
        EXPECT_EQ(hex({bytes.end() - 6, bytes.end()}), c.last);
        Box back = keyed(c.password, Box::DirDecrypt, c.mode);
        transform(back, bytes);
        EXPECT_EQ(bytes, plain(30000));
    }
}

// Long buffers take another way than single bytes; cutting them up anywhere must not show.
TEST(Cipher, DoesNotDependOnHowABufferIsCut) {
    constexpr long length = period + 100;
    const Bytes given = plain(length);
    for (const Box::eMode mode : {Box::ModeStream, Box::ModeFeedback}) {
        Bytes byteByByte = given;
        wchar_t password[] = L"k";
        ByteCipher slow(password, Box::DirEncrypt, mode);
        ByteCipher slowBack(password, Box::DirDecrypt, mode);
        for (std::size_t i = 0; i < byteByByte.size(); ++i) {
            slow.Encrypt(byteByByte[i]);
            unsigned char back = byteByByte[i];
            slowBack.Decrypt(back);
            ASSERT_EQ(back, given[i]) << i;
        }
        for (long first = 0; first < length; first += first < 40 || first > period ? 1 : 1021) {
            Bytes bytes = given;
            Box box = keyed(L"k", Box::DirEncrypt, mode);
            box.TransformBuf(bytes.data(), first);
            box.TransformBuf(bytes.data() + first, length - first);
            ASSERT_EQ(bytes, byteByByte) << first;

            Box back = keyed(L"k", Box::DirDecrypt, mode);
            back.TransformBuf(bytes.data(), length - first);
            back.TransformBuf(bytes.data() + length - first, first);
            ASSERT_EQ(bytes, given) << first;
        }
    }
}

TEST(Cipher, CanBeEnteredAnywhereInStreamModeOnly) {
    constexpr std::size_t piece = 37;
    const Bytes given = plain(period + 2 * piece);
    Box box = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    Bytes cipher = through(box, given.size());
    Box entered = keyed(L"k", Box::DirDecrypt, Box::ModeStream);
    const auto enter = [&](std::size_t offset, long pointer) {
        Bytes bytes(cipher.begin() + static_cast<int>(offset),
                    cipher.begin() + static_cast<int>(offset + piece));
        entered.SetPtr(pointer);
        entered.TransformBuf(bytes.data(), 1);
        entered.TransformBuf(bytes.data() + 1, static_cast<long>(piece - 1));
        return std::equal(bytes.begin(), bytes.end(), given.begin() + static_cast<int>(offset));
    };
    for (std::size_t offset = 0; offset < period + piece; ++offset)
        ASSERT_TRUE(enter(offset, static_cast<long>(offset))) << offset;
    EXPECT_TRUE(enter(period - 1, -1)) << "the wheels are where they are after a whole period less one";
    EXPECT_TRUE(enter(LONG_MAX % period, LONG_MAX));
    EXPECT_TRUE(enter(period + LONG_MIN % period, LONG_MIN));

    box = keyed(L"k", Box::DirEncrypt, Box::ModeFeedback);
    cipher = through(box, 100);
    Box late = keyed(L"k", Box::DirDecrypt, Box::ModeFeedback);
    late.SetPtr(50);
    Bytes tail(cipher.begin() + 50, cipher.end());
    transform(late, tail);
    EXPECT_NE(tail.front(), plain(51).back());
    EXPECT_TRUE(std::equal(tail.begin() + 1, tail.end(), plain(100).begin() + 51))
        << "one byte later it is in step";
}

// Back in stream mode, the last feedback byte goes on being mixed in. Any number but one means that mode.
TEST(Cipher, KeepsTheFeedbackByteWhenTheModeChanges) {
    Bytes keys(100);
    Box stream = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    transform(stream, keys);
    for (const Box::eDir direction : {Box::DirEncrypt, Box::DirDecrypt, static_cast<Box::eDir>(7)}) {
        Box box = keyed(L"k", Box::DirEncrypt, static_cast<Box::eMode>(2));
        box.SetDir(direction);
        Bytes bytes = plain(100);
        box.TransformBuf(bytes.data(), 20);
        EXPECT_EQ(bytes[19], plain(20).back() ^ keys[19]);
        box.SetMode(Box::ModeFeedback);
        EXPECT_EQ(box.GetMode(), Box::ModeFeedback);
        box.TransformBuf(bytes.data() + 20, 20);
        box.SetMode(Box::ModeStream);
        box.TransformBuf(bytes.data() + 40, 60);
        const unsigned char feedback = direction == Box::DirEncrypt ? bytes[39] : plain(40).back();
        for (std::size_t i = 40; i < 100; ++i)
            ASSERT_EQ(bytes[i], plain(i + 1).back() ^ keys[i] ^ feedback) << i;
    }
}

TEST(Cipher, IsKeyedOnce) {
    Box box;
    EXPECT_EQ(through(box, 30), plain(30)) << "without a key";
    EXPECT_EQ(box.SetPassword(nullptr), 0);
    EXPECT_EQ(box.SetPassword(L""), 0);
    EXPECT_EQ(box.SetPassword(L"\x0100"), 0) << "its first byte is zero";
    box.SetPtr(5);
    EXPECT_EQ(box.SetPassword(L"k"), 1) << "and starts at the beginning";
    EXPECT_EQ(box.SetPassword(L"other"), 0);
    Box expected = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    EXPECT_EQ(through(box, 30), through(expected, 30));
}

TEST(Cipher, KeepsFeedbackOverResetAndSharesWheelsWithACopy) {
    Box box = keyed(L"k", Box::DirEncrypt, Box::ModeFeedback);
    const Bytes first = through(box, 16);
    box.Reset();
    const Bytes second = through(box, 16);
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
    EXPECT_EQ(whole, through(single, 32));
}

} // namespace
