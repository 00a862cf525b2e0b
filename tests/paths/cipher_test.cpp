#include <vexel/cipher.h>

#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <string>
#include <vector>

namespace {

using Box = SECCryptoBlackBox;
using Bytes = std::vector<unsigned char>;

constexpr long kPeriod = 23L * 24 * 25;

Bytes plain(std::size_t length) {
    Bytes bytes(length);
    for (std::size_t i = 0; i < length; ++i)
        bytes[i] = static_cast<unsigned char>(i * 7 + 3);
    return bytes;
}

Box keyed(std::wstring password, Box::eDir direction, Box::eMode mode) {
    return {password.data(), direction, mode};
}

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

// Worked out from the definition by a program of its own: the first bytes, which see each wheel come round,
// and the last, which see all of them come round together.
TEST(Cipher, GivesTheKnownAnswers) {
    constexpr auto kStream = Box::ModeStream, kFeedback = Box::ModeFeedback;
    const struct {
        std::wstring password;
        Box::eMode mode;
        const char *first, *last;
    } cases[] = {
        {L"A", kStream, "a5f20a67ab2c8c25e9ee8ee3a78018094d7ab2afe3040422f75a", "7183a8a2efc5"},
        {L"A", kFeedback, "a5575d3a91bd3114fd139d7ed9594148057fcd62818581a3540e", "d754fc5eb174"},
        {L"\x5a41\x4242", kStream, "8c968747dfd015ed2a16f323bdf0391138d6dfcf03f85d937978", "2766c8100594"},
        {L"\x5a41\x4242", kFeedback, "8c1a9dda05d5c02d0711e2c17c8cb5a49c4a955a59a1fc6f166e", "ee88405055c1"},
        {L"\xff80", kStream, "340af62498120adc7c1a7ed48032727c440a860428f25a5b7b82", "118f13018973"},
        {L"\xff80", kFeedback, "343ec8ec74666cb0ccd6a87cfccebcc0848e080c24d68cd7ac2e", "47c8dbda5320"},
        {longPassword(), kStream, "7f9d861a6c2208536937da287ef48c99cb197ee6e096382efa72", "42e91fa9cda3"},
        {longPassword(), kFeedback, "7fe2647e1230386b0235efc7b94dc158938af412f2645c7288fa", "fe1708a16ccf"},
    };
    for (const auto& c : cases) {
        Box box = keyed(c.password, Box::DirEncrypt, c.mode);
        Bytes bytes = through(box, 30000);
        EXPECT_EQ(hex({bytes.begin(), bytes.begin() + 26}), c.first);
        EXPECT_EQ(hex({bytes.end() - 6, bytes.end()}), c.last);
        Box back = keyed(c.password, Box::DirDecrypt, c.mode);
        transform(back, bytes);
        EXPECT_EQ(bytes, plain(30000));
    }
}

struct ByteCipher : Box {
    using Box::Box;
    using Box::Decrypt;
    using Box::Encrypt;
};

// Long buffers take another way than single bytes, which must not show, whatever was done before.
TEST(Cipher, DoesNotDependOnHowABufferIsCut) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        std::mt19937 random(seed);
        wchar_t password[] = L"k";
        Box box(password);
        ByteCipher byByte(password);
        Box::eDir direction = Box::DirEncrypt;
        for (int step = 0; step < 100; ++step) {
            direction = random() % 2 ? Box::DirEncrypt : Box::DirDecrypt;
            const Box::eMode mode = random() % 2 ? Box::ModeStream : Box::ModeFeedback;
            const auto place = static_cast<long>(random());
            const long length = static_cast<long>(random() % (step % 20 ? 70 : 2 * kPeriod)) - 5;
            for (Box* each : {&box, static_cast<Box*>(&byByte)}) {
                each->SetDir(direction);
                each->SetMode(mode);
                if (step % 8 == 0)
                    each->SetPtr(place);
            }
            Bytes bytes = plain(2 * kPeriod);
            Bytes expected = bytes;
            box.TransformBuf(bytes.data(), length);
            for (long i = 0; i < length; ++i) {
                unsigned char& byte = expected[static_cast<std::size_t>(i)];
                direction == Box::DirEncrypt ? byByte.Encrypt(byte) : byByte.Decrypt(byte);
            }
            ASSERT_TRUE(bytes == expected) << seed << " step " << step << ", length " << length;
        }
    }
}

Bytes keyStream(std::size_t length) {
    Bytes keys(length);
    Box box = keyed(L"k", Box::DirEncrypt, Box::ModeStream);
    transform(box, keys);
    return keys;
}

TEST(Cipher, CanBeEnteredAnywhereInStreamMode) {
    const Bytes keys = keyStream(2 * kPeriod);
    Box box = keyed(L"k", Box::DirDecrypt, Box::ModeStream);
    std::vector<std::pair<long, long>> pointers{
        {-1, kPeriod - 1}, {LONG_MAX, LONG_MAX % kPeriod}, {LONG_MIN, kPeriod + LONG_MIN % kPeriod}};
    for (long place = 0; place < kPeriod + 37; ++place)
        pointers.emplace_back(place, place);
    for (const auto& [pointer, place] : pointers) {
        Bytes zeros(37);
        box.SetPtr(pointer);
        transform(box, zeros);
        ASSERT_EQ(zeros, Bytes(keys.begin() + place, keys.begin() + place + 37)) << pointer;
    }
}

// The last feedback byte outlives a reset, and goes on being mixed in when the mode is another. Any number
// but one means stream mode, any direction but one deciphering.
TEST(Cipher, KeepsTheFeedbackByte) {
    const Bytes keys = keyStream(60);
    for (const Box::eDir direction : {Box::DirEncrypt, Box::DirDecrypt, static_cast<Box::eDir>(7)}) {
        Box box = keyed(L"k", direction, Box::ModeFeedback);
        EXPECT_EQ(box.GetMode(), Box::ModeFeedback);
        const Bytes bytes = through(box, 40);
        const unsigned char feedback = direction == Box::DirEncrypt ? bytes.back() : plain(40).back();
        box.SetMode(static_cast<Box::eMode>(2));
        box.Reset();
        Bytes mixed(60);
        transform(box, mixed);
        for (std::size_t i = 0; i < mixed.size(); ++i)
            ASSERT_EQ(mixed[i], keys[i] ^ feedback) << i;
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
    Bytes zeros(30);
    transform(box, zeros);
    EXPECT_EQ(zeros, keyStream(30));
    Box copy;
    copy = box;
    zeros.assign(30, 0);
    transform(copy, zeros);
    transform(box, zeros); // goes on where the copy stopped: they share the wheels
    const Bytes keys = keyStream(90);
    for (std::size_t i = 0; i < 30; ++i)
        ASSERT_EQ(zeros[i], keys[30 + i] ^ keys[60 + i]) << i;
}

} // namespace
