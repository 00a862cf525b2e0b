#pragma once

#include "base/handles.h"

#include <vexel/path_name.h>

#include <windows.h>

#include <atomic>
#include <map>
#include <utility>

/// What is known of each temporary file, by name and in the order of the names.
///
/// One thread at a time uses the records; the caller sees to that. At the end of the process it is the last
/// one that there is, and the system may have stopped another one in the middle of a change. The map is of no
/// use then, and no file may be forgotten for that. So the records are also in a list, which every change
/// leaves whole at every moment: a record comes and goes by one store to one pointer.
namespace Vexel::Detail {

struct FailureNote {
    DWORD tick = 0;
    DWORD error = 0;
};

struct TempRecord;
using NamedTempRecord = std::pair<const SharedPathName, TempRecord>;

struct TempRecord {
    FileHandle handle; ///< opened to delete the file when closed, or none
    FailureNote lastFailure;
    bool pendingDeletion = false;
    bool userFlag = false;
    unsigned long long mark = 0; ///< the number of the last mark for deletion

private:
    friend class TempRecords;
    std::atomic<NamedTempRecord*> next_ = nullptr;
    NamedTempRecord* previous_ = nullptr; ///< not looked at once a change may have been left half done
    bool isGone_ = false;                 ///< taken out since then
};

class TempRecords {
public:
    using Entry = NamedTempRecord;

    TempRecords() = default;
    TempRecords(const TempRecords&) = delete;
    TempRecords& operator=(const TempRecords&) = delete;
    ~TempRecords() = default;

    /// Null when there is none.
    Entry* find(const SharedPathName& name) noexcept;
    /// The record of that name, which is made when there is none. When there is no memory, `std::bad_alloc`
    /// is thrown and nothing has changed.
    Entry& findOrAdd(const SharedPathName& name);
    void remove(Entry& entry) noexcept;

    /// Calls `visit` for every record; it may remove that one.
    template <class Visit>
    void forEach(Visit visit) {
        if (!isMapWhole()) {
            for (Entry* entry = first_; entry; entry = entry->second.next_) {
                if (!entry->second.isGone_)
                    visit(*entry);
            }
            return;
        }
        for (auto entry = map_.begin(); entry != map_.end();)
            visit(*entry++);
    }

private:
    using Map = std::map<SharedPathName, TempRecord>;

    bool isMapWhole() const noexcept;
    void link(Entry& entry) noexcept;
    void unlink(Entry& entry) noexcept;

    Map map_;
    std::atomic<Entry*> first_ = nullptr;
    std::atomic<bool> isChanging_ = false; // a record is being put into the map or taken out
};

} // namespace Vexel::Detail
