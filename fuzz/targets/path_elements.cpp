// Names as elements of item paths: encoding must be undone by decoding, and make what is no part of a path.

#include "archive/item_paths.h"
#include "fuzz/targets/input.h"

using Vexel::Storage::StringLess;
using Vexel::Storage::SZipArchive;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<wchar_t> units = Vexel::Fuzz::Input(data, size).text(size);
    const std::wstring_view name(units.data(), units.size());
    const CString encoded = SZipArchive::encodePathElement(name);
    const std::wstring_view element = StringLess::view(encoded);
    REQUIRE(element.find(L'/') == std::wstring_view::npos);
    for (const wchar_t unit : element)
        REQUIRE(unit >= 0x20);
    const CString again = SZipArchive::decodePathElement(element);
    REQUIRE(StringLess::view(again) == name);
    // What nobody encoded decodes to no more than it has.
    const CString decoded = SZipArchive::decodePathElement(name);
    REQUIRE(StringLess::view(decoded).size() <= name.size());
    return 0;
}
