// Memory is taken and given back outside the stretches in which the map changes: that keeps them short, and a
// thread that is stopped in the heap leaves the map whole.

#include "paths/temp_records.h"

#include "base/process_end.h"

namespace Vexel::Detail {

namespace {

/// For as long as the map is being changed.
class ChangeMark {
public:
    explicit ChangeMark(std::atomic<bool>& isChanging) noexcept : isChanging_(isChanging) {
        isChanging_ = true;
    }
    ChangeMark(const ChangeMark&) = delete;
    ChangeMark& operator=(const ChangeMark&) = delete;
    ~ChangeMark() { isChanging_ = false; }

private:
    std::atomic<bool>& isChanging_;
};

} // namespace

bool TempRecords::isMapWhole() const noexcept { return !isChanging_ || !isProcessEnding(); }

TempRecords::Entry* TempRecords::find(const SharedPathName& name) noexcept {
    if (isMapWhole()) {
        const auto found = map_.find(name);
        return found == map_.end() ? nullptr : &*found;
    }
    Entry* found = nullptr;
    forEach([&](Entry& entry) {
        if (entry.first == name)
            found = &entry;
    });
    return found;
}

TempRecords::Entry& TempRecords::findOrAdd(const SharedPathName& name) {
    if (Entry* const found = find(name))
        return *found;
    if (!isMapWhole()) {
        auto& entry = *new Entry(std::piecewise_construct, std::forward_as_tuple(name), std::tuple<>());
        link(entry); // to stay until the process has ended
        return entry;
    }
    Map made;
    made.try_emplace(name);
    const ChangeMark mark(isChanging_);
    Entry& entry = *map_.insert(made.extract(made.begin())).position;
    link(entry);
    return entry;
}

void TempRecords::remove(Entry& entry) noexcept {
    if (!isMapWhole()) {
        entry.second.isGone_ = true;
        return;
    }
    const auto place = map_.find(entry.first);
    Map::node_type gone;
    const ChangeMark mark(isChanging_);
    unlink(entry);
    gone = map_.extract(place);
}

void TempRecords::link(Entry& entry) noexcept {
    Entry* const next = first_;
    entry.second.next_ = next;
    if (next)
        next->second.previous_ = &entry;
    first_ = &entry;
}

void TempRecords::unlink(Entry& entry) noexcept {
    Entry* const next = entry.second.next_;
    Entry* const previous = entry.second.previous_;
    (previous ? previous->second.next_ : first_) = next;
    if (next)
        next->second.previous_ = previous;
}

} // namespace Vexel::Detail
