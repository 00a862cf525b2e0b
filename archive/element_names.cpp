// Names of elements against how they are spelled in the archive. Other programs do not encode them: what does
// not come out of decoding and encoding as it was is called by its own spelling.

#include "archive/archive_private.h"
#include "base/status_guard.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Vexel::Storage {

namespace {

bool isPlain(std::wstring_view text) noexcept {
    return std::none_of(text.begin(), text.end(), [](wchar_t c) { return c == L'%' || c < 0x20; });
}

bool isEncoded(std::wstring_view element) {
    if (isPlain(element))
        return true;
    const CString name = SZipArchive::decodePathElement(element);
    const CString again = SZipArchive::encodePathElement(name);
    // A name ends at a zero.
    return StringLess::view(again) == element &&
           StringLess::view(name).find(L'\0') == std::wstring_view::npos;
}

CString join(std::wstring_view directory, std::wstring_view element) {
    return directory.empty() ? stringOf(element) : joined(directory, L"/", element);
}
CString join(std::wstring_view directory, const CString& element) {
    return join(directory, StringLess::view(element));
}

} // namespace

// Its own spelling may be how the name of another item decodes. Encoded once more it is no other's.
CString SZipArchivePrivate::nameOf(std::wstring_view directory, std::wstring_view element) const {
    if (isEncoded(element))
        return SZipArchive::decodePathElement(element);
    CString name = stringOf(element);
    for (;;) {
        CString encoded = SZipArchive::encodePathElement(name);
        if (!items.contains(join(directory, encoded)))
            return name;
        name = std::move(encoded);
    }
}

CString SZipArchivePrivate::childPath(std::wstring_view directory, std::wstring_view name) const {
    const bool hasSlash = name.find(L'/') != std::wstring_view::npos;
    if (isPlain(name) && !hasSlash)
        return join(directory, name);
    CString path = join(directory, SZipArchive::encodePathElement(name));
    if (isPlain(name) || hasSlash || items.contains(path))
        return path;
    // What may stand in the archive as it is, if anything does.
    CString element = stringOf(name);
    while (isEncoded(StringLess::view(element))) {
        if (isPlain(StringLess::view(element)))
            return path;
        element = SZipArchive::decodePathElement(element);
    }
    const bool isItem = StringLess::view(element).find(L'/') == std::wstring_view::npos &&
                        items.contains(join(directory, element)) &&
                        StringLess::view(nameOf(directory, StringLess::view(element))) == name;
    return isItem ? join(directory, element) : path;
}

CString SZipArchive::childPath(const CString& directory, std::wstring_view name) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    if (!guard)
        throw std::bad_alloc();
    return private_->childPath(StringLess::view(directory), name);
}

CString SZipArchive::nameOf(const CString& path) const {
    const RwGuard guard(private_->lock, RwGuard::Shared);
    if (!guard)
        throw std::bad_alloc();
    const std::wstring_view text = StringLess::view(path);
    return private_->nameOf(parentOf(text), lastElement(text));
}

// What is below a child is passed over: by steps while it is little, then at once.
HRESULT SZipArchive::visitChildren(
    const CString& path,
    const std::function<void(const CString& name, const SZipArchiveItem& item)>& visit) const {
    constexpr unsigned kFewSteps = 8;
    return private_->locked(RwGuard::Shared, [&] {
        const auto& items = private_->items;
        const std::wstring_view directory = StringLess::view(path);
        const std::size_t start = directory.empty() ? 0 : directory.size() + 1;
        unsigned steps = 0;
        const auto below = SZipArchivePrivate::descendants(items, directory);
        for (auto item = below.begin(); item != below.end();) {
            const std::wstring_view key = StringLess::view(item->first);
            const std::size_t end = key.find(L'/', start);
            if (end == std::wstring_view::npos) {
                if (key.size() > start) // one without a name cannot be opened
                    visit(private_->nameOf(directory, key.substr(start)), item->second);
                steps = 0;
            } else if (++steps > kFewSteps) {
                item = SZipArchivePrivate::descendantsEnd(items, key.substr(0, end));
                steps = 0;
                continue;
            }
            ++item;
        }
        return S_OK;
    });
}

} // namespace Vexel::Storage
