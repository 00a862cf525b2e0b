// The cipher and the hash in bytes a second.

#include "support/ratio.h"

#include <vexel/cipher.h>
#include <vexel/hash.h>

#include <cstdint>
#include <vector>

namespace {

template <SECCryptoBlackBox::eDir Direction, SECCryptoBlackBox::eMode Mode>
void cipher(benchmark::State& state) {
    wchar_t password[] = L"password";
    SECCryptoBlackBox box(password, Direction, Mode);
    std::vector<unsigned char> buffer(1 << 20);
    for (auto _ : state) {
        box.TransformBuf(buffer.data(), static_cast<long>(buffer.size()));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(buffer.size()));
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
    using Box = SECCryptoBlackBox;
    suite.measure("encipher 1 MiB, stream", cipher<Box::DirEncrypt, Box::ModeStream>);
    suite.measure("encipher 1 MiB, feedback", cipher<Box::DirEncrypt, Box::ModeFeedback>);
    suite.measure("decipher 1 MiB, stream", cipher<Box::DirDecrypt, Box::ModeStream>);
    suite.measure("decipher 1 MiB, feedback", cipher<Box::DirDecrypt, Box::ModeFeedback>);
    suite.measure("hash 16 B", hash<16>);
    suite.measure("hash 1 KiB", hash<1024>);
    suite.measure("hash 1 MiB", hash<1 << 20>);
    return suite.run(argc, argv);
}
