#include "support/compound_image.h"

#include "support/compound_file.h"

#include <algorithm>
#include <cstring>

namespace Support {

namespace {

constexpr std::uint32_t kFatMark = 0xFFFFFFFD;
constexpr std::uint32_t kDifatMark = 0xFFFFFFFC;
constexpr std::uint32_t kInHeader = 109;

std::uint32_t parts(std::size_t bytes, std::size_t part) {
    return static_cast<std::uint32_t>((bytes + part - 1) / part);
}

bool isStream(const CompoundImage::Item& item) { return item.type == 2 && item.size > 0; }
bool isLarge(const CompoundImage::Item& item) { return isStream(item) && item.size >= 4096; }

} // namespace

CompoundImage::CompoundImage(const std::wstring& path) {
    const std::string bytes = readFile(path);
    size_ = bytes.size();
    numbers_.resize(parts(size_, 4));
    std::memcpy(numbers_.data(), bytes.data(), size_);
}

CompoundImage::CompoundImage(const std::vector<Item>& items, Form form) {
    const std::size_t bytes = std::size_t{1} << form.shift;
    const std::size_t perSector = bytes / 4;
    std::uint32_t miniSectors = 0;
    std::uint32_t largeSectors = 0;
    for (const Item& item : items)
        (isLarge(item) ? largeSectors : miniSectors) +=
            isStream(item) ? parts(item.size, isLarge(item) ? bytes : 64) : 0;
    const std::uint32_t directory = parts(items.size() * 128, bytes);
    const std::uint32_t miniFat = parts(std::size_t{miniSectors} * 4, bytes);
    const std::uint32_t miniStream = parts(std::size_t{miniSectors} * 64, bytes);
    const std::uint32_t others = directory + miniFat + miniStream + largeSectors + form.freeSectors;
    std::uint32_t fat = 0;
    std::uint32_t difat = 0;
    do {
        ++fat;
        difat = fat > kInHeader ? parts(fat - kInHeader, perSector - 1) : 0;
    } while (fat * perSector < others + fat + difat);

    const std::uint32_t total = others + fat + difat;
    const std::uint32_t firstFat = form.tablesLast ? others : 0;
    const std::uint32_t firstDifat = firstFat + fat;
    size_ = (total + 1) * bytes;
    numbers_.resize(size_ / 4);
    numbers_[0] = 0xE011CFD0;
    numbers_[1] = 0xE11AB1A1;
    numbers_[6] = (form.shift == 9 ? 3U : 4U) << 16 | 0x3E;
    numbers_[7] = static_cast<std::uint32_t>(form.shift) << 16 | 0xFFFE;
    numbers_[8] = 6;
    number(FatSectors) = fat;
    number(56) = 4096;
    number(Difat) = difat > 0 ? firstDifat : end;
    number(DifatSectors) = difat;
    for (std::uint32_t i = 0; i < kInHeader; ++i)
        number(Fat + i * 4) = i < fat ? firstFat + i : none;
    for (std::uint32_t i = 0; i < difat; ++i)
        for (std::uint32_t place = 0; place < perSector; ++place) {
            const std::uint32_t table = kInHeader + i * (static_cast<std::uint32_t>(perSector) - 1) + place;
            if (place + 1 == perSector)
                number(firstDifat + i, place) = i + 1 < difat ? firstDifat + i + 1 : end;
            else
                number(firstDifat + i, place) = table < fat ? firstFat + table : none;
        }
    for (std::uint32_t sector = 0; sector < fat * perSector; ++sector)
        next(sector) = none;
    for (std::uint32_t i = 0; i < fat + difat; ++i)
        next(firstFat + i) = i < fat ? kFatMark : kDifatMark;

    std::uint32_t at = form.tablesLast ? 0 : fat + difat + form.freeSectors;
    const auto take = [&](std::uint32_t count) {
        chain(at, count);
        return count > 0 ? (at += count) - count : end;
    };
    number(Directory) = take(directory);
    number(MiniFat) = take(miniFat);
    number(MiniFat + 4) = miniFat;
    const std::uint32_t firstMini = take(miniStream);
    if (form.shift == 12)
        number(40) = directory;
    std::uint32_t mini = 0;
    for (std::uint32_t i = 0; i < items.size(); ++i) {
        const Item& item = items[i];
        writeElement(i, item);
        if (!isStream(item))
            continue;
        const std::uint32_t sectors = parts(item.size, isLarge(item) ? bytes : 64);
        char* contents = reinterpret_cast<char*>(numbers_.data());
        if (isLarge(item)) {
            element(i, Start) = take(sectors);
            contents += (element(i, Start) + 1) * bytes;
        } else {
            element(i, Start) = mini;
            contents += (firstMini + 1) * bytes + std::size_t{mini} * 64;
            for (std::uint32_t k = 1; k <= sectors; ++k, ++mini)
                number(number(MiniFat), mini) = k < sectors ? mini + 1 : end;
        }
        for (std::uint32_t k = 0; k < item.size; ++k) // never zero, for that is what is missing
            contents[k] = static_cast<char>(1 + (k * 7 + k / 256 + i * 31) % 255);
    }
    for (std::uint32_t k = mini; miniFat > 0 && k < miniFat * perSector; ++k)
        number(number(MiniFat), k) = none;
    element(0, Start) = firstMini;
    element(0, Size) = mini * 64;
}

CompoundImage CompoundImage::document(Form form, bool foreign, bool small) {
    std::vector<Item> items{{L"Root Entry", 5, 0, none, none, 3},
                            {L"Big", 2, 4096},
                            {foreign ? L"\1Ole" : L"Ole1", 2, 100},
                            {L"Box", 1, 0, 1, 2}};
    if (!small) {
        items[3].child = 4;
        items.push_back({L"Bigger", 2, 5000});
    }
    return {items, form};
}

CompoundImage CompoundImage::line(unsigned elements, ElementField direction) {
    std::vector<Item> items{{L"Root Entry", 5, 0, none, none, 1}};
    for (std::uint32_t i = 1; i <= elements; ++i) {
        const std::wstring digits = std::to_wstring(100'000 + (direction == Left ? elements - i : i));
        Item item{digits, static_cast<unsigned char>(direction == Child ? 1 : 2), 0};
        std::uint32_t& sibling = direction == Left ? item.left : item.right;
        if (i < elements)
            (direction == Child ? item.child : sibling) = i + 1;
        items.push_back(item);
    }
    return {items, {}};
}

std::size_t CompoundImage::read(std::uint64_t offset, std::span<std::byte> target) noexcept {
    const auto rest = std::as_bytes(std::span(numbers_)).first(size_).subspan((std::min)(offset, size()));
    const std::size_t count = (std::min)(rest.size(), target.size());
    std::copy_n(rest.begin(), count, target.begin());
    return count;
}

std::uint32_t& CompoundImage::next(std::uint32_t sector) {
    const std::size_t perSector = sectorBytes() / 4;
    std::size_t table = sector / perSector;
    if (table < kInHeader)
        return number(number(Fat + table * 4), sector % perSector);
    std::uint32_t list = number(Difat);
    for (table -= kInHeader; table >= perSector - 1; table -= perSector - 1)
        list = number(list, perSector - 1);
    return number(number(list, table), sector % perSector);
}

std::uint32_t CompoundImage::follow(std::uint32_t sector, unsigned steps) {
    for (; steps > 0; --steps)
        sector = next(sector);
    return sector;
}

std::uint32_t& CompoundImage::element(std::uint32_t index, ElementField field) {
    const std::size_t perSector = sectorBytes() / 128;
    const std::uint32_t sector = follow(number(Directory), static_cast<unsigned>(index / perSector));
    return number(sector, index % perSector * 32 + static_cast<std::size_t>(field) / 4);
}

void CompoundImage::chain(std::uint32_t first, std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; ++i)
        next(first + i) = i + 1 < count ? first + i + 1 : end;
}

void CompoundImage::writeElement(std::uint32_t index, const Item& item) {
    std::uint32_t* const numbers = &element(index, Type) - Type / 4;
    std::memcpy(numbers, item.name.data(), item.name.size() * 2);
    numbers[Type / 4] = static_cast<std::uint32_t>(item.name.size() + 1) * 2 |
                        static_cast<std::uint32_t>(item.type) << 16 | 1U << 24;
    numbers[Left / 4] = item.left;
    numbers[Right / 4] = item.right;
    numbers[Child / 4] = item.child;
    numbers[Start / 4] = item.type == 2 ? end : 0;
    numbers[Size / 4] = item.size;
}

} // namespace Support
