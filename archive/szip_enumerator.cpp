// A listing is a copy of what the directory had at its beginning, sorted by name: the items may change under
// it.

#include "archive/szip_enumerator.h"

#include "archive/item_paths.h"
#include "base/com_pointer.h"
#include "base/status_guard.h"
#include "base/task_memory.h"

#include <algorithm>
#include <new>

namespace Vexel::Storage {

namespace {

STATSTG describe(const SZipArchiveItem& item) {
    STATSTG entry{};
    entry.type = item.isDirectory() ? STGTY_STORAGE : STGTY_STREAM;
    entry.cbSize.QuadPart = item.size();
    entry.mtime = entry.atime = item.modificationFileTime();
    entry.ctime = item.creationFileTime();
    return entry;
}

/// An element with a "/" in its name is cut there; documents rely on it.
CString cut(const CString& name) {
    const std::wstring_view text = StringLess::view(name);
    const std::size_t end = text.find(L'/');
    return end == std::wstring_view::npos ? name : stringOf(text.substr(0, end));
}

} // namespace

// The archive has its items in order, and most names are as their items' paths. Of several elements that come
// to one name the first stays.
SZipEnumerator::SZipEnumerator(const SZipArchive& archive, const CString& path) {
    const auto add = [this](const CString& name, const SZipArchiveItem& item) {
        entries_.push_back({cut(name), describe(item)});
    };
    if (archive.visitChildren(path, add) != S_OK)
        throw std::bad_alloc();
    if (!std::ranges::is_sorted(entries_, StringLess(), &Entry::name))
        std::ranges::stable_sort(entries_, StringLess(), &Entry::name);
    const auto repeated =
        std::ranges::unique(entries_, {}, [](const Entry& entry) { return StringLess::view(entry.name); });
    entries_.erase(repeated.begin(), repeated.end());
}

SZipEnumerator::SZipEnumerator(const SZipEnumerator& other) = default;

SZipEnumerator::~SZipEnumerator() = default;

HRESULT SZipEnumerator::QueryInterface(const GUID& iid, void** ppv) noexcept {
    return ppv && iid == __uuidof(IEnumSTATSTG) ? hand(ppv) : IUnknownImpl::QueryInterface(iid, ppv);
}

HRESULT SZipEnumerator::Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) noexcept {
    if (pceltFetched)
        *pceltFetched = 0;
    if (celt == 0)
        return next_ == entries_.size() ? S_FALSE : S_OK;
    if (!rgelt)
        return STG_E_INVALIDPOINTER;
    std::fill_n(rgelt, celt, STATSTG{});
    ULONG count = 0;
    for (; count < celt && count < entries_.size() - next_; ++count) {
        const Entry& entry = entries_[next_ + count];
        rgelt[count] = entry.description;
        rgelt[count].pwcsName = Detail::duplicateText(StringLess::view(entry.name));
        if (rgelt[count].pwcsName)
            continue;
        std::for_each(rgelt, rgelt + count, [](STATSTG& delivered) { CoTaskMemFree(delivered.pwcsName); });
        std::fill_n(rgelt, celt, STATSTG{});
        return STG_E_INSUFFICIENTMEMORY;
    }
    next_ += count;
    if (pceltFetched)
        *pceltFetched = count;
    return count == celt ? S_OK : S_FALSE;
}

HRESULT SZipEnumerator::Skip(ULONG celt) noexcept {
    const std::size_t count = (std::min)(std::size_t{celt}, entries_.size() - next_);
    next_ += count;
    return count == celt ? S_OK : S_FALSE;
}

HRESULT SZipEnumerator::Reset() noexcept {
    next_ = 0;
    return S_OK;
}

HRESULT SZipEnumerator::Clone(IEnumSTATSTG** ppenum) noexcept {
    if (!ppenum)
        return STG_E_INVALIDPOINTER;
    *ppenum = nullptr;
    return Detail::withStatus([&]() -> HRESULT {
        *ppenum = Detail::make<SZipEnumerator>(*this).Detach();
        return S_OK;
    });
}

} // namespace Vexel::Storage
