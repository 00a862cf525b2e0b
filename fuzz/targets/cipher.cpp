// The cipher: deciphering undoes it, pieces do what one piece does, and a stream can be entered anywhere.

#include "fuzz/targets/input.h"

#include <vexel/cipher.h>

using namespace Vexel::Fuzz;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t choices = input.byte();
    std::vector<wchar_t> password = input.text(input.byte() % 8);
    password.push_back(0);
    const auto mode = choices & 1 ? SECCryptoBlackBox::ModeFeedback : SECCryptoBlackBox::ModeStream;
    const auto steps = input.bytes(input.byte() % 16);
    const long start = choices & 2 ? static_cast<long>(input.number<std::int32_t>()) : 0;
    const auto bytes = input.rest();
    const std::vector<unsigned char> plain(bytes.begin(), bytes.end());
    const auto length = static_cast<long>(plain.size());

    SECCryptoBlackBox encrypt(password.data(), SECCryptoBlackBox::DirEncrypt, mode);
    encrypt.SetPtr(start);
    std::vector<unsigned char> whole = plain;
    encrypt.TransformBuf(whole.data(), length);

    std::vector<unsigned char> pieces = plain;
    SECCryptoBlackBox again(password.data(), SECCryptoBlackBox::DirEncrypt, mode);
    again.SetPtr(start);
    long done = 0;
    for (const std::uint8_t step : steps) {
        const long count = (std::min)(static_cast<long>(step), length - done);
        again.TransformBuf(pieces.data() + done, count);
        done += count;
    }
    again.TransformBuf(pieces.data() + done, length - done);
    REQUIRE(pieces == whole);

    SECCryptoBlackBox decrypt(password.data(), SECCryptoBlackBox::DirDecrypt, mode);
    decrypt.SetPtr(start);
    std::vector<unsigned char> back = whole;
    decrypt.TransformBuf(back.data(), length);
    REQUIRE(back == plain);

    if (mode == SECCryptoBlackBox::ModeStream && length > 0 && start < INT32_MAX - length) {
        const long from = choices % length;
        decrypt.SetPtr(start + from);
        std::vector<unsigned char> rest(whole.begin() + from, whole.end());
        decrypt.TransformBuf(rest.data(), length - from);
        REQUIRE(std::equal(rest.begin(), rest.end(), plain.begin() + from));
    }
    return 0;
}
