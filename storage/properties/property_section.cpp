// The section of a set: its properties, and the names that a user gave to them.

#include "storage/properties/property_set.h"
#include "storage/properties/property_values.h"

#include <windows.h>

#include <algorithm>
#include <string>

namespace Vexel::Detail {

namespace {

// A section: its size and the number of properties (4 bytes each), then for each its number and where in the
// section its value begins (4 each).
// The names are the value of number 0, without a type: how many (4), and for each the property's number (4),
// the length with the terminating zero (4) in bytes or, of wide ones, characters, and so many; wide ones are
// padded.
constexpr std::size_t kSectionHeader = 8;
constexpr std::size_t kEntrySize = 8;
constexpr PROPID kFirstReserved = 0x80000000;
constexpr int kLongestOldName = 255; // in the first version of the format

bool isOrdinary(PROPID id) noexcept { return id >= PID_FIRST_USABLE && id < kFirstReserved; }

struct Name {
    PROPID id = 0;
    ByteView entry; ///< all of it
    ByteView text;
};

/// The list of names: their number (4 bytes), then for each the property's number (4), the number of
/// characters, the final zero included (4), and the text. Wide text is padded to four bytes, narrow text is
/// not. Nothing when the list is damaged; the last entry may lack its padding.
std::optional<std::vector<Name>> splitNames(ByteView bytes, bool isWide) {
    std::optional names = std::vector<Name>();
    std::size_t at = 4;
    for (std::uint32_t left = numberAt(bytes, 0); left > 0; --left) {
        if (!has(bytes, at, 8))
            return std::nullopt;
        const std::uint64_t size = std::uint64_t{numberAt(bytes, at + 4)} * (isWide ? sizeof(wchar_t) : 1);
        if (!has(bytes, at + 8, size))
            return std::nullopt;
        const auto length = static_cast<std::size_t>(size);
        const std::size_t whole = 8 + (isWide ? paddedSize(length) : length);
        const ByteView rest = bytes.subspan(at);
        names->push_back(
            {numberAt(bytes, at), rest.first((std::min)(whole, rest.size())), rest.subspan(8, length)});
        at += names->back().entry.size();
    }
    return names;
}

/// The text with its terminating zero; nothing when the code page lacks one of its characters.
std::optional<std::string> narrowed(const CStringW& text, UINT codePage) {
    const bool isUtf8 = codePage == CP_UTF8; // which has them all, and takes no flags
    const DWORD flags = isUtf8 ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL isReplaced = FALSE;
    const int size = WideCharToMultiByte(codePage, flags, text.GetString(), text.GetLength() + 1, nullptr, 0,
                                         nullptr, isUtf8 ? nullptr : &isReplaced);
    std::string narrow(static_cast<std::size_t>((std::max)(size, 0)), '\0');
    WideCharToMultiByte(codePage, flags, text.GetString(), text.GetLength() + 1, narrow.data(), size, nullptr,
                        nullptr);
    return size > 0 && !isReplaced ? std::optional(narrow) : std::nullopt;
}

bool encodeName(PROPID id, const CStringW& name, UINT codePage, std::vector<unsigned char>& bytes) {
    appendNumber(bytes, id);
    if (codePage == kWideCodePage) {
        const auto units = static_cast<std::size_t>(name.GetLength()) + 1;
        appendNumber(bytes, units);
        appendBytes(bytes, name.GetString(), units * sizeof(wchar_t));
        padToFour(bytes);
        return true;
    }
    const auto narrow = narrowed(name, codePage);
    if (!narrow)
        return false;
    appendNumber(bytes, narrow->size());
    appendBytes(bytes, narrow->data(), narrow->size());
    return true;
}

/// Names are told apart without regard to case.
bool areDistinct(const PropertyNames& names) {
    std::vector<CStringW> sorted;
    for (const auto& name : names)
        sorted.push_back(name.second);
    std::ranges::sort(sorted, [](const CStringW& a, const CStringW& b) { return a.CompareNoCase(b) < 0; });
    return std::ranges::adjacent_find(sorted, [](const CStringW& a, const CStringW& b) {
               return a.CompareNoCase(b) == 0;
           }) == sorted.end();
}

} // namespace

PropertySection::PropertySection() {
    std::vector<unsigned char> value;
    appendNumber(value, VT_I2);
    appendNumber(value, kWideCodePage);
    put(PID_CODEPAGE, std::move(value));
}

bool PropertySection::split(ByteView section) {
    if (!has(section, 0, kSectionHeader))
        return false;
    const std::uint32_t count = numberAt(section, 4);
    if (!has(section, kSectionHeader, std::uint64_t{count} * kEntrySize))
        return false;
    ids_.clear();
    places_.clear();
    std::vector<std::size_t> offsets;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::size_t entry = kSectionHeader + i * kEntrySize;
        places_.emplace(numberAt(section, entry), ids_.size());
        ids_.push_back(numberAt(section, entry));
        offsets.push_back(numberAt(section, entry + 4));
    }
    auto blocks = splitBlocks(section, kSectionHeader + count * kEntrySize, offsets);
    if (!blocks)
        return false;
    blocks_ = std::move(*blocks);
    made_.clear();
    padding_ = paddedSize((std::max)(section.size(), std::size_t{numberAt(section, 0)})) - section.size();
    const ByteView page = find(PID_CODEPAGE);
    codePage_ = has(page, 0, 6) && numberAt(page, 0) == VT_I2 ? UINT{page[4]} | UINT{page[5]} << 8U : CP_ACP;
    if (codePage_ != kWideCodePage && !IsValidCodePage(codePage_))
        codePage_ = CP_ACP;
    return true;
}

ByteView PropertySection::find(PROPID id) const noexcept {
    const auto place = places_.find(id);
    return place == places_.end() ? ByteView() : blocks_.list[place->second].bytes;
}

void PropertySection::put(PROPID id, std::vector<unsigned char>&& bytes) {
    const ByteView kept = made_.emplace_back(std::move(bytes));
    if (const auto place = places_.find(id); place != places_.end()) {
        blocks_.list[place->second].bytes = kept;
        return;
    }
    places_.emplace(id, ids_.size());
    ids_.push_back(id);
    blocks_.list.push_back({kNewBlock, kept});
}

bool PropertySection::decode(Properties& properties) const {
    for (const auto& [id, place] : places_)
        if (isOrdinary(id) && !decodeValue(blocks_.list[place].bytes, codePage_, properties[id]))
            return false;
    return true;
}

bool PropertySection::decodeNames(PropertyNames& names) const {
    const ByteView bytes = find(PID_DICTIONARY);
    if (bytes.empty())
        return true;
    const auto split = splitNames(bytes, codePage_ == kWideCodePage);
    if (!split)
        return false;
    for (const Name& name : *split)
        names[name.id] = decodeText(name.text, codePage_);
    return names.size() == split->size();
}

bool PropertySection::isSound() const {
    PropertyNames names;
    return places_.size() == ids_.size() && decodeNames(names) &&
           std::ranges::all_of(places_,
                               [this](const auto& entry) {
                                   PropertyVariant value;
                                   return entry.first == PID_DICTIONARY ||
                                          decodeValue(blocks_.list[entry.second].bytes, codePage_, value);
                               }) &&
           isLastWhole();
}

bool PropertySection::isLastWhole() const {
    const auto last = std::ranges::max_element(blocks_.list, {}, &Block::offset);
    if (last == blocks_.list.end() || last->bytes.data() == find(PID_DICTIONARY).data())
        return true;
    std::vector<unsigned char> padded(last->bytes.begin(), last->bytes.end());
    padded.insert(padded.end(), padding_, 0);
    PropertyVariant value, valueBefore;
    std::vector<unsigned char> bytes, bytesBefore;
    return decodeValue(last->bytes, codePage_, valueBefore) && decodeValue(padded, codePage_, value) &&
           encodeValue(valueBefore.get(), bytesBefore) && encodeValue(value.get(), bytes) &&
           bytes == bytesBefore;
}

bool PropertySection::set(const Properties& properties) {
    for (const auto& [id, value] : properties) {
        std::vector<unsigned char> bytes;
        if (!isOrdinary(id) || !encodeValue(value.get(), bytes))
            return false;
        if (const ByteView old = find(id); !old.empty()) {
            PropertyVariant read;
            std::vector<unsigned char> same;
            if (decodeValue(old, codePage_, read) && encodeValue(read.get(), same) && same == bytes)
                continue;
        }
        put(id, std::move(bytes));
        isNewer_ = isNewer_ || isNewerValue(value.get());
    }
    return true;
}

bool PropertySection::setNames(const PropertyNames& names) {
    PropertyNames all;
    const ByteView old = find(PID_DICTIONARY);
    const auto entries =
        old.empty() ? std::optional(std::vector<Name>()) : splitNames(old, codePage_ == kWideCodePage);
    if (!entries || !decodeNames(all))
        return false;
    std::vector<unsigned char> added;
    PropertyNames changed;
    for (const auto& [id, name] : names) {
        if (!isOrdinary(id) || name.IsEmpty())
            return false;
        if (const auto known = all.find(id); known != all.end() && known->second == name)
            continue;
        if (!encodeName(id, name, codePage_, added))
            return false;
        changed[id] = all[id] = name;
        isNewer_ = isNewer_ || name.GetLength() > kLongestOldName;
    }
    if (changed.empty())
        return true;
    std::vector<unsigned char> bytes;
    appendNumber(bytes, all.size());
    for (const Name& entry : *entries) {
        if (!changed.contains(entry.id))
            appendBytes(bytes, entry.entry.data(), entry.entry.size());
        if (codePage_ == kWideCodePage)
            padToFour(bytes); // the last one may lack it, and another comes behind it now
    }
    appendBytes(bytes, added.data(), added.size());
    padToFour(bytes);
    put(PID_DICTIONARY, std::move(bytes));
    return areDistinct(all);
}

std::vector<unsigned char> PropertySection::join() {
    std::vector<unsigned char> section(kSectionHeader + ids_.size() * kEntrySize);
    joinBlocks(blocks_, section);
    padToFour(section);
    std::vector<unsigned char> table;
    appendNumber(table, section.size());
    appendNumber(table, ids_.size());
    for (std::size_t i = 0; i < ids_.size(); ++i) {
        appendNumber(table, ids_[i]);
        appendNumber(table, blocks_.list[i].offset);
    }
    std::ranges::copy(table, section.begin());
    return section;
}

} // namespace Vexel::Detail
