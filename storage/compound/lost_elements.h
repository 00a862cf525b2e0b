#pragma once

#include "storage/tree/compound_name.h"

#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <vector>

namespace Vexel::Detail {

/// The elements that a storage has lost since it was opened: the system took them away, and then failed to
/// make what was to stand in their place. Until something stands there, or they were to go anyway, the
/// storage is not committed: the file still has them.
class LostElements {
    static auto isSame(std::wstring_view name) noexcept {
        return [name](const std::wstring& lost) { return isSameElement(lost, name); };
    }

public:
    bool empty() const noexcept { return names_.empty() && !isNameless_; }
    bool contains(std::wstring_view name) const noexcept {
        return std::any_of(names_.begin(), names_.end(), isSame(name));
    }
    void add(std::wstring_view name) noexcept {
        if (contains(name))
            return;
        try {
            names_.emplace_back(name);
        } catch (const std::bad_alloc&) {
            isNameless_ = true;
        }
    }
    void remove(std::wstring_view name) noexcept { std::erase_if(names_, isSame(name)); }
    void clear() noexcept {
        names_.clear();
        isNameless_ = false;
    }

private:
    std::vector<std::wstring> names_;
    bool isNameless_ = false; // one was lost for whose name there was no memory
};

} // namespace Vexel::Detail
