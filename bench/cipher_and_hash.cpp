// The cipher against its definition written out byte by byte; the hash in bytes a second.

#include "support/ratio.h"

#include <vexel/cipher.h>
#include <vexel/hash.h>

#include <array>
#include <vector>

namespace {

constexpr long bufferBytes = 1 << 20;

// Wheels of 23, 24 and 25 bytes, turned as the cipher turns them.
class NaiveCipher {
public:
    explicit NaiveCipher(bool feedback) : feedback_(feedback) {}

    void transform(unsigned char* buffer, long length) {
        for (long i = 0; i < length; ++i) {
            unsigned char key = 0;
            for (Wheel& wheel : wheels_) {
                key ^= wheel.data[static_cast<std::size_t>(wheel.position)];
                wheel.position = (wheel.position + 1) % wheel.length;
            }
            buffer[i] = static_cast<unsigned char>(buffer[i] ^ key ^ last_);
            if (feedback_)
                last_ = buffer[i];
        }
    }

private:
    struct Wheel {
        std::array<unsigned char, 25> data{1, 2, 3};
        int length;
        int position = 0;
    };
    std::array<Wheel, 3> wheels_{Wheel{.length = 23}, Wheel{.length = 24}, Wheel{.length = 25}};
    bool feedback_;
    unsigned char last_ = 0;
};

template <SECCryptoBlackBox::eDir Direction, SECCryptoBlackBox::eMode Mode>
void cipher(benchmark::State& state) {
    wchar_t password[] = L"password";
    SECCryptoBlackBox box(password, Direction, Mode);
    std::vector<unsigned char> buffer(bufferBytes);
    for (auto _ : state) {
        box.TransformBuf(buffer.data(), bufferBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bufferBytes);
}

template <bool Feedback>
void naive(benchmark::State& state) {
    NaiveCipher box(Feedback);
    std::vector<unsigned char> buffer(bufferBytes);
    for (auto _ : state) {
        box.transform(buffer.data(), bufferBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bufferBytes);
}

template <std::size_t Bytes>
void hash(benchmark::State& state) {
    const std::vector<unsigned char> message(Bytes, 0x5C);
    std::uint64_t hash1 = 0;
    std::uint64_t hash2 = 0;
    for (auto _ : state) {
        Vexel::Hash::SpookyV2_128(message.data(), message.size(), hash1, hash2);
        benchmark::DoNotOptimize(hash1);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(Bytes));
}

} // namespace

int main(int argc, char** argv) {
    using Box = SECCryptoBlackBox;
    Vexel::Bench::Suite suite;
    suite.compare("encipher 1 MiB, stream", 0.25, cipher<Box::DirEncrypt, Box::ModeStream>, naive<false>);
    suite.compare("encipher 1 MiB, feedback", 0.25, cipher<Box::DirEncrypt, Box::ModeFeedback>, naive<true>);
    suite.compare("decipher 1 MiB, stream", 0.25, cipher<Box::DirDecrypt, Box::ModeStream>, naive<false>);
    suite.measure("hash 16 B", hash<16>);
    suite.measure("hash 1 KiB", hash<1024>);
    suite.measure("hash 1 MiB", hash<1 << 20>);
    return suite.run(argc, argv);
}
