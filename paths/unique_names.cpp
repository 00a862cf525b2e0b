// A name is taken apart into base, counter and extension; candidates are made by putting another counter in.
// The caller's probe alone says what is free, so that the same function serves files, list entries and
// anything else with names.

#include "base/text.h"

#include <vexel/diagnostics.h>
#include <vexel/paths.h>

#include <limits>

namespace vxio {

using Vexel::Detail::stringOf;
using Vexel::Detail::viewOf;

namespace {

enum class CounterStyle { None, Bracket, Underscore };

/// A file name taken apart: [0, baseEnd) base, [baseEnd, extension) counter, [extension, end) extension.
struct NameParts {
    std::size_t baseEnd;
    std::size_t extension;
};

constexpr bool isDigit(wchar_t c) noexcept { return c >= L'0' && c <= L'9'; }

/// The start of " (digits)" that ends at `end`, or `end`. The digits may be missing.
std::size_t findBracketCounter(std::wstring_view name, std::size_t end) noexcept {
    if (end < 5 || name[end - 1] != L')')
        return end;
    std::size_t first = end - 1;
    while (first > 2 && isDigit(name[first - 1]))
        --first;
    const bool opened = name[first - 1] == L'(' && name[first - 2] == L' ';
    return opened ? first - 2 : end;
}

/// The start of the digits that end at `end`; at least one character stays before them. The underscore in
/// front of them belongs to the base: "base_3_1234" has the base "base_3_".
std::size_t findTrailingDigits(std::wstring_view name, std::size_t end) noexcept {
    std::size_t first = end;
    while (first > 1 && isDigit(name[first - 1]))
        --first;
    return first;
}

NameParts split(std::wstring_view name, CounterStyle style) {
    const std::size_t dot = Vexel::FindFileExtension(name);
    const std::size_t extension = dot == std::wstring_view::npos ? name.size() : dot;
    switch (style) {
    case CounterStyle::Bracket:
        return {findBracketCounter(name, extension), extension};
    case CounterStyle::Underscore:
        return {findTrailingDigits(name, extension), extension};
    case CounterStyle::None:
        break;
    }
    return {extension, extension};
}

CString makeCandidate(std::wstring_view name, const NameParts& parts, std::wstring_view suffix) {
    std::wstring candidate(name.substr(0, parts.baseEnd));
    candidate += suffix;
    candidate += name.substr(parts.extension);
    return stringOf(candidate);
}

std::wstring makeSuffix(unsigned counter, bool bracketStyle) {
    const std::wstring number = std::to_wstring(counter);
    if (bracketStyle)
        return L" (" + number + L')';
    return L'_' + number + L'_' + std::to_wstring(GetCurrentProcessId());
}

} // namespace

bool MakeFileNameUnique(CString& name, const std::function<std::error_code(const CString&)>& probe,
                        bool bracketStyle, bool stripCounter) {
    if (!probe)
        return false;
    const CounterStyle wanted = bracketStyle ? CounterStyle::Bracket : CounterStyle::Underscore;

    std::wstring working(viewOf(name));
    const NameParts given = split(working, stripCounter ? wanted : CounterStyle::None);
    working.erase(given.baseEnd, given.extension - given.baseEnd);

    CString candidate = stringOf(working);
    std::error_code answer = probe(candidate);
    // A bracketed counter always gives way to the new one, else "a (1)" would grow to "a (1) (1)"; digits at
    // the end may be part of the name, and go only by request.
    const NameParts parts = split(working, bracketStyle || stripCounter ? wanted : CounterStyle::None);
    for (unsigned counter = 1; answer == std::errc::file_exists; ++counter) {
        candidate = makeCandidate(working, parts, makeSuffix(counter, bracketStyle));
        VxLog_WriteW(VxLog_Trace, L"Trying temporary file name \"%s\"...", candidate.GetString());
        answer = probe(candidate);
        if (counter == std::numeric_limits<unsigned>::max())
            break;
    }
    if (answer)
        return false;
    name = candidate;
    return true;
}

} // namespace vxio
