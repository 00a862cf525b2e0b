// The table of all names files entries by hash, several under one where texts differ in case or hashes meet.
// An entry goes when its last name does, under the table's lock and only if nobody has taken it up meanwhile.

#include "paths/path_name_table.h"

#include "base/spin_lock.h"
#include "base/text.h"

#include <climits>
#include <cstddef>
#include <cwchar>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

namespace Vexel::Detail {

namespace {

using Table = std::unordered_multimap<std::uint32_t, SharedPathEntry*>;

constexpr std::size_t kInitialBuckets = 8;

// Usable before the constructors of static objects have run and after their destructors have; the lock guards
// the other two.
constinit std::atomic<std::uint32_t> tableLock{0};
constinit Table* table = nullptr;
constinit bool processIsEnding = false;

// At the end of the process the table goes with its last entry: static objects may still hold names, look
// for them and let them go.
void dropTableIfDone() noexcept {
    if (processIsEnding && table && table->empty())
        delete std::exchange(table, nullptr);
}

const struct ProcessEnd {
    ProcessEnd() = default;
    ProcessEnd(const ProcessEnd&) = delete;
    ProcessEnd& operator=(const ProcessEnd&) = delete;
    ~ProcessEnd() {
        const SpinGuard guard(tableLock);
        if (!guard)
            return;
        processIsEnding = true;
        dropTableIfDone();
    }
} kProcessEnd;

Table& tableUnderLock() {
    if (!table) {
        auto made = std::make_unique<Table>(kInitialBuckets);
        made->max_load_factor(1.0F);
        table = made.release();
    }
    return *table;
}

constexpr wchar_t foldAscii(wchar_t unit) {
    return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit | 0x20) : unit;
}

// As CString::CompareNoCase finds it, which stops at the first zero. In every locale it takes ASCII units as
// they are taken here; the locale is only asked from the first difference on that involves other units.
bool equalNoCase(const wchar_t* a, const wchar_t* b, std::size_t length) {
    for (std::size_t i = 0; i < length; ++i) {
        if (a[i] == b[i]) {
            if (a[i] == 0)
                break;
        } else if (a[i] >= 0x80 || b[i] >= 0x80) {
            return _wcsnicmp(a + i, b + i, length - i) == 0;
        } else if (foldAscii(a[i]) != foldAscii(b[i])) {
            return false;
        }
    }
    return true;
}

bool matches(const CString& text, std::wstring_view wanted, bool caseSensitive) {
    const auto length = static_cast<std::size_t>(text.GetLength());
    if (length != wanted.size())
        return false;
    return caseSensitive ? std::wmemcmp(text.GetString(), wanted.data(), length) == 0
                         : equalNoCase(text.GetString(), wanted.data(), length);
}

std::unique_ptr<SharedPathEntry> makeEntry(std::wstring_view text, std::uint32_t hash) {
    if (text.size() > INT_MAX)
        AfxThrowMemoryException();
    auto entry = std::make_unique<SharedPathEntry>();
    assign(entry->text, text);
    entry->hash = hash;
    return entry;
}

SharedPathEntry* findOrInsert(std::wstring_view text, std::uint32_t hash, bool caseSensitive) {
    const SpinGuard guard(tableLock);
    if (!guard)
        return makeEntry(text, hash)
            .release(); // shared with nobody and never destroyed, which is late enough
    Table& entries = tableUnderLock();
    auto last = entries.end();
    for (auto filed = entries.find(hash); filed != entries.end() && filed->first == hash; last = filed++) {
        SharedPathEntry* const entry = filed->second;
        if (matches(entry->text, text, caseSensitive)) {
            entry->count.fetch_add(1, std::memory_order_relaxed);
            return entry;
        }
    }
    auto entry = makeEntry(text, hash);
    // The hint keeps entries of one hash in the order in which they came: some libraries would put the new
    // one in front of the others, and it would be found before them.
    entries.emplace_hint(last, hash, entry.get());
    return entry.release();
}

// The entry if it is the caller's to destroy, else null. It is touched only once it has been found.
std::unique_ptr<SharedPathEntry> unlinkUnused(const SharedPathEntry* entry, std::uint32_t hash) noexcept {
    Table::node_type node; // freed outside the lock
    const SpinGuard guard(tableLock);
    if (!guard || !table)
        return nullptr;
    auto filed = table->find(hash);
    while (filed != table->end() && filed->first == hash && filed->second != entry)
        ++filed;
    if (filed == table->end() || filed->second != entry || entry->count.load(std::memory_order_acquire) != 0)
        return nullptr;
    node = table->extract(filed);
    dropTableIfDone();
    return std::unique_ptr<SharedPathEntry>(node.mapped());
}

} // namespace

SharedPathEntry* internPathName(std::wstring_view text, std::uint32_t hash, bool caseSensitive) {
    try {
        return findOrInsert(text, hash, caseSensitive);
    } catch (const std::bad_alloc&) {
        AfxThrowMemoryException();
    }
}

void destroyUnusedEntry(const SharedPathEntry* entry, std::uint32_t hash) noexcept {
    // Destroyed outside the lock: the entry lets the names of its directories go.
    const std::unique_ptr<SharedPathEntry> unused = unlinkUnused(entry, hash);
}

} // namespace Vexel::Detail

void SharedPathName::destroyUnused(Vexel::Detail::SharedPathEntry* entry, std::uint32_t hash) noexcept {
    Vexel::Detail::destroyUnusedEntry(entry, hash);
}
