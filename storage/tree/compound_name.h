#pragma once

#include <vexel/path_name.h>
#include <vexel/storage.h>

#include <windows.h>

#include <string_view>

namespace Vexel::Detail {

/// Whether an element of a file of this format may be made under the name. Not every version of the system's
/// storage refuses what others then cannot open.
inline bool isElementName(StorageFormat format, std::wstring_view name) noexcept {
    constexpr size_t kLongest = 31;
    return format != StorageFormat::CompoundFile || (!name.empty() && name.size() <= kLongest &&
                                                     name.find_first_of(L"/\\:!") == std::wstring_view::npos);
}

/// Whether both are names of one element of a compound file, which does not tell upper from lower case.
inline bool isSameElement(std::wstring_view a, std::wstring_view b) noexcept {
    return CompareStringOrdinal(a.data(), static_cast<int>(a.size()), b.data(), static_cast<int>(b.size()),
                                TRUE) == CSTR_EQUAL;
}

/// `status` of looking for the element `name`, with the reason in its place where there can be none.
inline HRESULT elementStatus(HRESULT status, StorageFormat format, const SharedPathName& name) noexcept {
    return status == STG_E_FILENOTFOUND && !isElementName(format, name) ? STG_E_INVALIDNAME : status;
}

} // namespace Vexel::Detail
