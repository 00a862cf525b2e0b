// Text files in all encodings: what is decoded without loss is encoded to the same bytes, an encoding is
// guessed alike by parts and at once, and reading lines gives what decoding at once does.

#include "fuzz/platform/files.h"
#include "fuzz/targets/input.h"
#include "io/encoding_guess.h"
#include "io/text_encoding.h"

using namespace Vexel::Fuzz;
using namespace Vexel::Detail;
using vxio::TextEncoding;

namespace {

constexpr TextEncoding kAll[] = {TextEncoding::Ansi,    TextEncoding::Latin1,  TextEncoding::Utf8,
                                 TextEncoding::Utf16LE, TextEncoding::Utf16BE, TextEncoding::Utf32LE,
                                 TextEncoding::Utf32BE};

TextEncoding guess(Bytes bytes, std::size_t step) {
    return guessEncoding(
        [&](auto& guess) {
            for (std::size_t at = 0; at < bytes.size(); at += step)
                guess.add(bytes.subspan(at, (std::min)(step, bytes.size() - at)));
        },
        true);
}

void convert(Bytes bytes, TextEncoding encoding) {
    std::vector<wchar_t> text;
    const bool isWhole = decodeText(bytes, encoding, text);
    const std::wstring_view view(text.data(), text.size());
    std::vector<unsigned char> encoded;
    encodeText(view, encoding, encoded);
    if (isWhole)
        REQUIRE(std::equal(encoded.begin(), encoded.end(), bytes.begin(), bytes.end()));
    // What was made by encoding decodes to the same again, but for what only UTF-16 can hold.
    if (encoding >= TextEncoding::Utf8 && !hasLoneSurrogate(view)) {
        std::vector<wchar_t> again;
        REQUIRE(decodeText(encoded, encoding, again));
        REQUIRE(again == text);
    }
}

/// Lines, joined by line feeds, are the text: line ends and zeros apart.
void readLines(Bytes bytes, TextEncoding encoding) {
    const std::wstring path = L"C:\\text";
    files()[path].assign(bytes.begin(), bytes.end());
    vxio::TextFileReadStream stream;
    REQUIRE(stream.Open(path.c_str(), vxio::ProtectWriting, encoding, true));
    std::wstring lines;
    CStringW line;
    while (stream.ReadString(line))
        lines += std::wstring(line.GetString(), static_cast<std::size_t>(line.GetLength())) + L'\n';
    REQUIRE(stream.GetLastErrorCode() == 0 && stream.GetPosition() <= bytes.size());
    const Bytes mark = byteOrderMark(stream.GetEncoding());
    if (bytes.size() >= mark.size() && std::equal(mark.begin(), mark.end(), bytes.begin()))
        bytes = bytes.subspan(mark.size());
    std::vector<wchar_t> text;
    const bool isWhole = decodeText(bytes, stream.GetEncoding(), text);
    REQUIRE(isWhole == !stream.HasReplaced() || stream.GetEncoding() <= TextEncoding::Latin1);
    for (wchar_t& unit : text)
        if (unit == 0)
            unit = L'\n';
    std::wstring expected(text.begin(), text.end());
    if (!expected.empty() && expected.back() != L'\n')
        expected += L'\n';
    if (isWhole)
        REQUIRE(lines == expected);
    stream.Close();
    files().erase(path);
}

/// Writes it and reads it back.
void writeText(Bytes bytes, TextEncoding encoding) {
    const std::wstring path = L"C:\\written";
    std::vector<wchar_t> units(bytes.size() / 2);
    if (!units.empty())
        std::memcpy(units.data(), bytes.data(), units.size() * 2);
    const std::wstring_view text(units.data(), units.size());
    vxio::WriteStreamOpenArgs arguments;
    arguments.path = path.c_str();
    vxio::TextFileWriteStream stream;
    REQUIRE(stream.Open(arguments, encoding, true));
    REQUIRE(stream.WriteString(text.substr(0, text.size() / 2)) &&
            stream.WriteString(text.substr(text.size() / 2)));
    REQUIRE(stream.Close());
    std::vector<unsigned char> expected(byteOrderMark(encoding).begin(), byteOrderMark(encoding).end());
    encodeText(text.substr(0, text.size() / 2), encoding, expected);
    encodeText(text.substr(text.size() / 2), encoding, expected);
    REQUIRE(files()[path] == expected);
    files().erase(path);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const TextEncoding encoding = kAll[input.byte() % std::size(kAll)];
    const std::size_t step = 4 * (1 + std::size_t{input.byte()} % 16);
    const Bytes bytes = input.rest();
    convert(bytes, encoding);
    REQUIRE(guess(bytes, step) == guess(bytes, bytes.size() + 1));
    markedEncoding(bytes);
    readLines(bytes, encoding);
    readLines(bytes, TextEncoding::Detect);
    writeText(bytes, encoding);
    return 0;
}
