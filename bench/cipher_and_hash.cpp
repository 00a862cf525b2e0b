// The cipher against its definition written out byte by byte; the hash in bytes a second.

#include "support/ratio.h"

#include <vexel/cipher.h>
#include <vexel/hash.h>

#include <array>
#include <string>
#include <vector>

namespace {

// Wheels of 23, 24 and 25 bytes, turned as the cipher turns them.
template <bool Decipher, bool Feedback>
class NaiveCipher {
public:
    void transform(unsigned char* buffer, long length) {
        for (long i = 0; i < length; ++i) {
            const unsigned char given = buffer[i];
            buffer[i] = static_cast<unsigned char>(given ^ nextKey() ^ last_);
            if (Feedback)
                last_ = Decipher ? given : buffer[i];
        }
    }

private:
    struct Wheel {
        std::array<unsigned char, 25> data{1, 2, 3};
        unsigned length;
        unsigned position = 0;
    };

    unsigned char nextKey() {
        unsigned char key = 0;
        for (Wheel& wheel : wheels_) {
            key ^= wheel.data[wheel.position];
            if (++wheel.position == wheel.length)
                wheel.position = 0;
        }
        return key;
    }

    std::array<Wheel, 3> wheels_{Wheel{.length = 23}, Wheel{.length = 24}, Wheel{.length = 25}};
    unsigned char last_ = 0;
};

template <class Cipher>
void run(benchmark::State& state, Cipher transform, long bytes) {
    std::vector<unsigned char> buffer(static_cast<std::size_t>(bytes));
    for (auto _ : state) {
        transform(buffer.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}

template <bool Decipher, bool Feedback>
void compareCipher(Vexel::Bench::Suite& suite, const std::string& name, long bytes) {
    using Box = SECCryptoBlackBox;
    const auto ours = [bytes](benchmark::State& state) {
        wchar_t password[] = L"password";
        Box box(password, Decipher ? Box::DirDecrypt : Box::DirEncrypt,
                Feedback ? Box::ModeFeedback : Box::ModeStream);
        run(
            state, [&](unsigned char* buffer, long length) { box.TransformBuf(buffer, length); }, bytes);
    };
    const auto naive = [bytes](benchmark::State& state) {
        NaiveCipher<Decipher, Feedback> cipher;
        run(
            state, [&](unsigned char* buffer, long length) { cipher.transform(buffer, length); }, bytes);
    };
    suite.compare(name, 0.25, ours, naive);
}

void keyCipher(benchmark::State& state) {
    wchar_t password[] = L"password";
    for (auto _ : state) {
        SECCryptoBlackBox box(password);
        benchmark::DoNotOptimize(box);
    }
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
    Vexel::Bench::Suite suite;
    constexpr long kLarge = 1 << 20;
    compareCipher<false, false>(suite, "encipher 1 MiB, stream", kLarge);
    compareCipher<false, true>(suite, "encipher 1 MiB, feedback", kLarge);
    compareCipher<true, false>(suite, "decipher 1 MiB, stream", kLarge);
    compareCipher<true, true>(suite, "decipher 1 MiB, feedback", kLarge);
    compareCipher<true, true>(suite, "decipher 64 B, feedback", 64);
    suite.measure("key a cipher", keyCipher);
    suite.measure("hash 16 B", hash<16>);
    suite.measure("hash 1 KiB", hash<1024>);
    suite.measure("hash 1 MiB", hash<1 << 20>);
    return suite.run(argc, argv);
}
