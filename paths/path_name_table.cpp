#include "paths/path_name_table.h"

#include "paths/spin_lock.h"

#include <algorithm>
#include <cwchar>
#include <locale>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

namespace Vexel::Detail {

namespace {

using Table = std::unordered_multimap<std::uint32_t, SharedPathEntry*>;

constexpr std::size_t initialBuckets = 8;

// Both are usable before any constructor of a static object has run and after every destructor has.
constinit std::atomic<std::uint32_t> tableLock{0};
constinit Table* table = nullptr;

// Names that other static objects release later find no table then and leave their entries to the process's
// end; names made later still get a new one.
struct TableEnd {
    ~TableEnd() {
        SpinLock spin(tableLock);
        const std::lock_guard guard(spin);
        delete std::exchange(table, nullptr);
    }
};

Table& tableUnderLock() {
    if (!table) {
        auto made = std::make_unique<Table>(initialBuckets);
        made->max_load_factor(1.0F);
        static const TableEnd end;
        table = made.release();
    }
    return *table;
}

bool matches(const CString& text, std::wstring_view wanted, bool caseSensitive) {
    const auto length = static_cast<std::size_t>(text.GetLength());
    if (length != wanted.size())
        return false;
    if (std::wmemcmp(text.GetString(), wanted.data(), length) == 0)
        return true;
    return !caseSensitive && _wcsnicmp(text.GetString(), wanted.data(), length) == 0;
}

std::uint32_t hashUnits(std::wstring_view text) noexcept {
    std::uint32_t hash = 0;
    for (const wchar_t unit : text)
        hash = hash * 33 + unit;
    return hash;
}

// A buffer on the stack for what names usually are, on the heap for the rest.
template <class Use>
std::uint32_t withLowerCase(std::wstring_view text, Use use) {
    const std::locale locale;
    const auto& ctype = std::use_facet<std::ctype<wchar_t>>(locale);
    wchar_t small[128];
    std::wstring large;
    wchar_t* copy = small;
    if (text.size() > std::size(small)) {
        large.resize(text.size());
        copy = large.data();
    }
    std::copy(text.begin(), text.end(), copy);
    ctype.tolower(copy, copy + text.size());
    return use(std::wstring_view(copy, text.size()));
}

std::unique_ptr<SharedPathEntry> makeEntry(std::wstring_view text, std::uint32_t hash) {
    auto entry = std::make_unique<SharedPathEntry>();
    entry->text.SetString(text.data(), static_cast<int>(text.size()));
    entry->hash = hash;
    return entry;
}

SharedPathEntry* findOrInsert(std::wstring_view text, std::uint32_t hash, bool caseSensitive) {
    SpinLock spin(tableLock);
    const std::lock_guard guard(spin);
    Table& entries = tableUnderLock();
    const auto [first, last] = entries.equal_range(hash);
    const auto found = std::find_if(
        first, last, [&](const auto& filed) { return matches(filed.second->text, text, caseSensitive); });
    if (found != last) {
        found->second->count.fetch_add(1, std::memory_order_relaxed);
        return found->second;
    }
    auto entry = makeEntry(text, hash);
    entries.emplace(hash, entry.get());
    return entry.release();
}

// Whether the entry was unlinked and is the caller's to destroy. It is looked up before it is touched: since
// its count fell to 0, another thread may have taken it up and dropped it again, and have destroyed it.
bool unlinkUnused(const SharedPathEntry* entry, std::uint32_t hash) noexcept {
    SpinLock spin(tableLock);
    const std::lock_guard guard(spin);
    if (!table)
        return false;
    const auto [first, last] = table->equal_range(hash);
    const auto found = std::find_if(first, last, [&](const auto& filed) { return filed.second == entry; });
    if (found == last || entry->count.load(std::memory_order_acquire) != 0)
        return false;
    table->erase(found);
    return true;
}

} // namespace

std::uint32_t pathNameHash(std::wstring_view text, bool caseSensitive) {
    if (caseSensitive)
        return hashUnits(text);
    try {
        return withLowerCase(text, hashUnits);
    } catch (const std::exception&) {
        return hashUnits(text); // a locale without the facet, or whose facet raises
    }
}

SharedPathEntry* internPathName(std::wstring_view text, std::uint32_t hash, bool caseSensitive) {
    try {
        return findOrInsert(text, hash, caseSensitive);
    } catch (const std::bad_alloc&) {
        AfxThrowMemoryException();
    }
}

void releasePathName(SharedPathEntry* entry) noexcept {
    const std::uint32_t hash = entry->hash;
    if (entry->count.fetch_sub(1, std::memory_order_acq_rel) != 1)
        return;
    if (unlinkUnused(entry, hash))
        delete entry; // outside the lock: it releases the names of its directories
}

} // namespace Vexel::Detail
