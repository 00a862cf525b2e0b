#include "fuzz/targets/package_bytes.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string_view>

namespace Vexel::Fuzz {

namespace {

constexpr std::size_t kStart = 32;

using Random = std::minstd_rand;

template <class Value>
std::string little(Value value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::uint32_t checksum(std::string_view bytes) {
    return static_cast<std::uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size())));
}

template <class Value>
Value load(const std::string& bytes, std::size_t at) {
    Value value{};
    std::memcpy(&value, bytes.data() + at, sizeof value);
    return value;
}

std::string join(const std::string& packed, const std::string& header) {
    const std::string place = little<std::uint64_t>(packed.size()) + little<std::uint64_t>(header.size()) +
                              little(checksum(header));
    return std::string("7z\xBC\xAF\x27\x1C\0\4", 8) + little(checksum(place)) + place + packed + header;
}

struct Parts {
    std::string packed, header;
    bool isWrapped = false; // the header is to be packed
};

/// A header that was packed by copying, so that what changes in it can get a true checksum again.
Parts wrapped(const Parts& parts) {
    const auto number = [](std::uint64_t value) { return '\xFF' + little(value); };
    return {parts.packed + parts.header, std::string{0x17, 6} + number(parts.packed.size()) +
                                             std::string{1, 9} + number(parts.header.size()) +
                                             std::string{0, 7, 11, 1, 0, 1, 1, 0, 12} +
                                             number(parts.header.size()) + "\x0A\x01" +
                                             little(checksum(parts.header)) + std::string(2, '\0')};
}

Parts unwrapped(const Parts& parts) {
    constexpr std::size_t kOffsetAt = 3;
    if (parts.header.size() != wrapped({}).header.size())
        return parts;
    const auto offset = load<std::uint64_t>(parts.header, kOffsetAt);
    if (offset > parts.packed.size())
        return parts;
    const Parts inner{parts.packed.substr(0, offset), parts.packed.substr(offset), true};
    return wrapped(inner).header == parts.header ? inner : parts;
}

/// Of what was no package, all is header.
Parts split(const std::string& bytes) {
    if (bytes.size() < kStart)
        return {{}, bytes};
    const std::string behind = bytes.substr(kStart);
    const auto offset = load<std::uint64_t>(bytes, 12), size = load<std::uint64_t>(bytes, 20);
    if (offset > behind.size() || size > behind.size() - offset)
        return {{}, behind};
    return unwrapped({behind.substr(0, offset), behind.substr(offset, size)});
}

std::string mutated(std::string bytes, std::size_t most) {
    const std::size_t size = bytes.size();
    bytes.resize((std::max)(most, size));
    bytes.resize(LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(bytes.data()), size, bytes.size()));
    return bytes;
}

/// Writes a header by its grammar, now and then with a slip.
class Grammar {
public:
    explicit Grammar(unsigned seed) : random_(seed) {}

    Parts make() {
        const unsigned folders = below(4), empty = below(4);
        std::string header = {1, 4};
        packed_.clear();
        makeStreams(folders, header);
        unsigned files = 0;
        for (const unsigned count : counts_)
            files += count;
        header += '\x05';
        makeFiles(files + empty, empty, header);
        header += '\0';
        return {packed_, header};
    }

private:
    unsigned below(unsigned count) { return static_cast<unsigned>(random_() % count); }
    bool now(unsigned oneOf) { return below(oneOf) == 0; }

    std::string number(std::uint64_t value) {
        if (now(40))
            value = random_() >> below(31);
        if (value < 0x80)
            return std::string(1, static_cast<char>(value));
        return now(2) && value < 0x4000
                   ? std::string{static_cast<char>(0x80 | value >> 8), static_cast<char>(value)}
                   : '\xFF' + little(value);
    }

    std::string bytes(std::size_t count) {
        std::string made(count, '\0');
        for (char& byte : made)
            byte = static_cast<char>(random_() >> 8);
        return made;
    }

    void makeStreams(unsigned folders, std::string& header) {
        std::string sizes, coders, unpacked, contentsCrcs, partSizes, parts, crcs;
        unsigned packStreams = 0, digests = 0;
        counts_.clear();
        for (unsigned i = 0; i < folders; ++i) {
            const std::string contents = bytes(below(40) * (now(8) ? 100 : 1) + 1);
            const unsigned method = below(6);
            if (method < 2) { // LZMA2, in a chunk as it is
                coders += std::string{1, 0x21, 0x21, 1, static_cast<char>(below(41))};
                const std::size_t size = contents.size() - 1;
                const std::string packed =
                    std::string{1, static_cast<char>(size >> 8), static_cast<char>(size)} + contents + '\0';
                packed_ += packed;
                sizes += number(packed.size());
                unpacked += number(contents.size());
                ++packStreams;
            } else if (method < 4) {
                coders += std::string{1, 1, 0};
                packed_ += contents;
                sizes += number(contents.size());
                unpacked += number(contents.size());
                ++packStreams;
            } else if (method == 4) { // LZMA of what is none
                coders += std::string{1, 0x23, 3, 1, 1, 5, 0x5D} + bytes(1) + std::string{0, 1, 0};
                packed_ += '\0' + contents;
                sizes += number(contents.size() + 1);
                unpacked += number(contents.size());
                ++packStreams;
            } else { // copied twice
                coders += std::string{
                    2, 1, 0, 1, 0, static_cast<char>(below(2)), static_cast<char>(now(4) ? below(3) : 1)};
                packed_ += contents;
                sizes += number(contents.size());
                unpacked += number(contents.size()) + number(contents.size());
                ++packStreams;
            }
            const unsigned count = now(3) ? below(4) : 1;
            counts_.push_back(count);
            parts += number(count);
            for (unsigned part = 1; part < count; ++part)
                partSizes += number(below(static_cast<unsigned>(contents.size() / count + 1)));
            digests += count;
            contentsCrcs += little(checksum(contents));
        }
        if (folders > 0 || now(4)) {
            header += '\x06' + number(now(10) ? below(9) : 0) + number(packStreams) + '\x09' + sizes;
            if (now(8))
                header += "\x0A\x01" + bytes(packStreams * 4);
            header += '\0';
            header += std::string{7, 11} + number(folders) + '\0' + coders + '\x0C' + unpacked;
            const bool hasDigests = now(2);
            if (hasDigests)
                header += "\x0A\x01" + contentsCrcs;
            header += '\0';
            header += '\x08';
            if (now(2) || std::ranges::any_of(counts_, [](unsigned count) { return count != 1; }))
                header += '\x0D' + parts;
            if (!partSizes.empty())
                header += '\x09' + partSizes;
            if (!hasDigests && now(2))
                header += "\x0A\x01" + bytes(digests * 4);
            header += '\0';
        }
        header += '\0';
    }

    void makeFiles(unsigned files, unsigned empty, std::string& header) {
        static constexpr std::u16string_view kNames[] = {u"a",   u"b",      u"a/b", u"a/b/c", u"",
                                                         u"/",   u"x//y",   u"%25", u"%2f",   u"\xD800",
                                                         u"a\n", u"ab%zAB", u"Ä",   u"a/"};
        header += number(files);
        const auto property = [&](char id, const std::string& value) {
            header += id + number(value.size()) + value;
        };
        std::string isEmpty((files + 7) / 8, '\0');
        for (unsigned i = 0; i < empty && i < files; ++i)
            isEmpty[i / 8] = static_cast<char>(isEmpty[i / 8] | 0x80 >> i % 8);
        if (empty > 0) {
            property(0x0E, isEmpty);
            if (now(2))
                property(0x0F, bytes((empty + 7) / 8));
            if (now(4))
                property(0x10, bytes((empty + 7) / 8));
        }
        std::string names(1, '\0');
        for (unsigned i = 0; i < files; ++i) {
            for (const char16_t unit : kNames[below(std::size(kNames))])
                names += little(unit);
            if (now(2))
                names += little(static_cast<char16_t>('0' + i));
            names += std::string(2, '\0');
        }
        property(0x11, names);
        for (const char id : {0x12, 0x13, 0x14})
            if (now(3))
                property(id, std::string{1, 0} + bytes(files * 8));
        if (now(2))
            property(0x15, std::string{1, 0} + bytes(files * 4));
        if (now(5))
            property(0x19, std::string(below(9), '\0'));
        header += '\0';
    }

    Random random_;
    std::string packed_;
    std::vector<unsigned> counts_;
};

} // namespace

std::size_t mutatePackage(std::uint8_t* data, std::size_t size, std::size_t most, unsigned seed) {
    Random random(seed);
    const auto chosen = random() % 16;
    if (chosen == 0)
        return LLVMFuzzerMutate(data, size, most);
    Parts parts = split({reinterpret_cast<const char*>(data), size});
    const std::size_t room = most - (std::min)(most, kStart + parts.packed.size() + parts.header.size());
    if (chosen == 1)
        parts = Grammar(static_cast<unsigned>(random())).make();
    else if (chosen < 5)
        parts.packed = mutated(parts.packed, parts.packed.size() + room);
    else
        parts.header = mutated(parts.header, parts.header.size() + room);
    if (chosen >= 14 || (parts.isWrapped && chosen != 13))
        parts = wrapped(parts);
    const std::string whole = join(parts.packed, parts.header);
    if (whole.size() > most)
        return LLVMFuzzerMutate(data, size, most);
    std::copy(whole.begin(), whole.end(), data);
    return whole.size();
}

} // namespace Vexel::Fuzz

// A target may have its own.
extern "C" [[gnu::weak]] std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                                             std::size_t most, unsigned seed) {
    return Vexel::Fuzz::mutatePackage(data, size, most, seed);
}
