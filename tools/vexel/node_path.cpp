// Node paths are encoded as packages encode theirs, so that what `list` prints is the same for both formats
// and any name can be given on a command line.

#include "node_path.h"

#include "failure.h"

#include <optional>
#include <utility>

namespace Vexel::Tool {
namespace {

constexpr wchar_t kDigits[] = L"0123456789abcdef";

std::wstring encodeElement(std::wstring_view element) {
    std::wstring result;
    result.reserve(element.size());
    for (const wchar_t c : element) {
        if (c != L'/' && c != L'%' && c >= 0x20) {
            result += c;
            continue;
        }
        result += L'%';
        result += kDigits[c >> 4];
        result += kDigits[c & 0xf];
    }
    return result;
}

std::optional<unsigned> hexDigit(wchar_t c) {
    if (c >= L'0' && c <= L'9')
        return c - L'0';
    if (c >= L'a' && c <= L'f')
        return c - L'a' + 10u;
    if (c >= L'A' && c <= L'F')
        return c - L'A' + 10u;
    return std::nullopt;
}

wchar_t decodeEscape(std::wstring_view path, std::wstring_view digits) {
    const auto high = digits.empty() ? std::nullopt : hexDigit(digits[0]);
    const auto low = digits.size() < 2 ? std::nullopt : hexDigit(digits[1]);
    if (!high || !low)
        throw UsageError(L"malformed escape in node path", path);
    if (*high == 0 && *low == 0)
        throw UsageError(L"%00 in node path", path);
    return static_cast<wchar_t>(*high * 16 + *low);
}

std::wstring decodeElement(std::wstring_view path, std::wstring_view element) {
    if (element.empty())
        throw UsageError(L"empty element in node path", path);
    std::wstring result;
    result.reserve(element.size());
    for (std::size_t i = 0; i < element.size(); ++i) {
        if (element[i] != L'%') {
            result += element[i];
            continue;
        }
        result += decodeEscape(path, element.substr(i + 1));
        i += 2;
    }
    return result;
}

} // namespace

NodePath NodePath::parse(std::wstring_view text) {
    std::vector<std::wstring> elements;
    for (std::size_t start = 0; !text.empty();) {
        const std::size_t end = text.find(L'/', start);
        elements.push_back(decodeElement(text, text.substr(start, end - start)));
        if (end == std::wstring_view::npos)
            break;
        start = end + 1;
    }
    return NodePath(std::move(elements));
}

std::wstring NodePath::text() const {
    std::wstring result;
    for (const std::wstring& element : elements_) {
        if (!result.empty())
            result += L'/';
        result += encodeElement(element);
    }
    return result;
}

NodePath NodePath::first(std::size_t count) const {
    return NodePath({elements_.begin(), elements_.begin() + static_cast<std::ptrdiff_t>(count)});
}

NodePath NodePath::child(std::wstring_view name) const {
    NodePath result = *this;
    result.elements_.emplace_back(name);
    return result;
}

NodePath NodePath::below(TreePath path) const {
    NodePath result = *this;
    result.elements_.reserve(elements_.size() + path.size());
    for (const SharedPathName& name : path)
        result.elements_.emplace_back(name.asStringView());
    return result;
}

} // namespace Vexel::Tool
