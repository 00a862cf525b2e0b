// A listing is a copy of what the directory had at its beginning, sorted by name: the items may change under
// it.

#include "archive/szip_enumerator.h"

#include "archive/item_paths.h"
#include "base/com_pointer.h"
#include "base/status_guard.h"
#include "base/task_memory.h"

#include <algorithm>
#include <iterator>
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
    return stringOf(text.substr(0, text.find(L'/')));
}

} // namespace

SZipEnumerator::SZipEnumerator(const SZipArchive& archive, const CString& path) {
    const auto add = [this](const CString& name, const SZipArchiveItem& item) {
        entries_.try_emplace(cut(name), describe(item));
    };
    if (archive.visitChildren(path, add) != S_OK)
        throw std::bad_alloc();
    next_ = entries_.begin();
}

SZipEnumerator::SZipEnumerator(const SZipEnumerator& other)
    : IUnknownImpl(other), entries_(other.entries_),
      next_(std::next(entries_.cbegin(), std::distance(other.entries_.cbegin(), other.next_))) {}

SZipEnumerator::~SZipEnumerator() = default;

HRESULT SZipEnumerator::QueryInterface(const GUID& iid, void** ppv) noexcept {
    return ppv && iid == __uuidof(IEnumSTATSTG) ? hand(ppv) : IUnknownImpl::QueryInterface(iid, ppv);
}

HRESULT SZipEnumerator::Next(ULONG celt, STATSTG* rgelt, ULONG* pceltFetched) noexcept {
    if (pceltFetched)
        *pceltFetched = 0;
    if (celt == 0)
        return next_ == entries_.end() ? S_FALSE : S_OK;
    if (!rgelt)
        return STG_E_INVALIDPOINTER;
    std::fill_n(rgelt, celt, STATSTG{});
    ULONG count = 0;
    auto entry = next_;
    for (; count < celt && entry != entries_.end(); ++entry, ++count) {
        rgelt[count] = entry->second;
        rgelt[count].pwcsName = Detail::duplicateText(StringLess::view(entry->first));
        if (rgelt[count].pwcsName)
            continue;
        std::for_each(rgelt, rgelt + count, [](STATSTG& delivered) { CoTaskMemFree(delivered.pwcsName); });
        std::fill_n(rgelt, celt, STATSTG{});
        return STG_E_INSUFFICIENTMEMORY;
    }
    next_ = entry;
    if (pceltFetched)
        *pceltFetched = count;
    return count == celt ? S_OK : S_FALSE;
}

HRESULT SZipEnumerator::Skip(ULONG celt) noexcept {
    for (; celt > 0 && next_ != entries_.end(); --celt)
        ++next_;
    return celt == 0 ? S_OK : S_FALSE;
}

HRESULT SZipEnumerator::Reset() noexcept {
    next_ = entries_.begin();
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
