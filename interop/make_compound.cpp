// Makes compound files with the system's own structured storage, for the checks against other programs.
//
//   make_compound large-sectors FILE    4096-byte sectors: sizes around every limit, nested, odd names
//   make_compound file-names FILE       names that the file system cannot hold
//   make_compound deep FILE             storages nested deeper than the program follows
//   make_compound large FILE            8 streams of 3 MB

#include "support/compound_file.h"

#include <map>

namespace {

using Support::Element;

// The bytes tell streams apart and do not repeat with the sectors.
Element stream(const std::wstring& path, std::size_t size) {
    std::string contents(size, '\0');
    auto state = static_cast<unsigned>(size + path.size());
    for (char& byte : contents) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return {path, contents};
}

std::vector<Element> largeSectors() {
    std::vector<Element> elements;
    for (const std::size_t size : {0u, 1u, 63u, 64u, 65u, 4095u, 4096u, 4097u, 8192u, 300000u})
        elements.push_back(stream(L"size " + std::to_wstring(size), size));
    elements.push_back(stream(L"\x05SummaryInformation", 120));
    elements.push_back(stream(L"100% [sure] {so}", 10));
    const std::wstring chart = L"\u0427\u0435\u0440\u0442\u0451\u0436/";
    elements.push_back(stream(chart + L"\u041b\u0438\u0441\u0442 \u2116 1", 5000));
    elements.push_back(stream(chart + L"\U0001F4D0", 7));
    elements.push_back(stream(chart + L"\x01\x02\x1f/name with 31 characters, no dot", 31));
    elements.push_back({chart + L"\x01\x02\x1f/empty/", {}});
    return elements;
}

std::vector<Element> fileNames() {
    std::vector<Element> elements;
    for (const wchar_t* name :
         {L"CON", L"nul.txt", L"com1", L"LPT\u00b2.a.b", L"console", L".", L"..", L"dot.", L"blank ",
          L" lead", L"a<b>c\"d|e?f*g", L"50%", L"tab\there", L"Stra\u00dfe", L"half\xd800", L"~"})
        elements.push_back(stream(name, 40));
    // The test overwrites these names with ones that the service would not make.
    for (const wchar_t* storage : {L"one/", L"two/", L"three/", L"four/"})
        elements.push_back(stream(std::wstring(storage) + L"__XXXXXXXXXX", 40));
    return elements;
}

std::vector<Element> deep() {
    std::wstring path;
    for (int depth = 0; depth < 300; ++depth)
        path += L"d/";
    return {stream(path + L"bottom", 5)};
}

std::vector<Element> large() {
    std::vector<Element> elements;
    for (wchar_t name = L'a'; name <= L'h'; ++name)
        elements.push_back(stream(std::wstring(1, name), 3'000'000));
    return elements;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    const std::map<std::wstring, std::vector<Element> (*)()> kinds{
        {L"large-sectors", largeSectors}, {L"file-names", fileNames}, {L"deep", deep}, {L"large", large}};
    const auto kind = count == 3 ? kinds.find(arguments[1]) : kinds.end();
    if (kind == kinds.end())
        return 2;
    Support::writeCompoundFile(arguments[2], kind->second(), kind->first == L"large-sectors" ? 4096 : 512);
    return 0;
}
