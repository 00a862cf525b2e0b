#pragma once

#include "storage/compound/compound_layout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// How everything that looks into a compound file by itself gets at its bytes.
namespace Vexel::Detail {

/// Bytes that are a compound file, or are to be judged.
class CompoundSource {
public:
    CompoundSource() = default;
    CompoundSource(const CompoundSource&) = delete;
    CompoundSource& operator=(const CompoundSource&) = delete;
    virtual ~CompoundSource() = default;

    virtual std::uint64_t size() const noexcept = 0;

    /// Fills `target` from `offset` on and returns the number of bytes read: fewer at the end of the file or
    /// when reading fails.
    virtual std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept = 0;
};

namespace Compound {

/// Reads sectors through a window, because tables and directory mostly lie side by side: a small file takes
/// two or three reads.
class SectorReader {
public:
    explicit SectorReader(CompoundSource& source) : source_(source) {}

    void setSectorShift(unsigned shift) noexcept { shift_ = shift; }
    unsigned sectorShift() const noexcept { return shift_; }
    std::size_t sectorBytes() const noexcept { return std::size_t{1} << shift_; }

    /// The number of sectors, a last one that is cut short included.
    std::uint32_t sectors() const noexcept {
        const std::uint64_t bytes = source_.size();
        const std::uint64_t whole = (bytes + sectorBytes() - 1) >> shift_;
        return static_cast<std::uint32_t>(std::min<std::uint64_t>(whole > 0 ? whole - 1 : 0, kSectorLimit));
    }

    std::span<const std::byte> header() { return bytes(0, kHeaderBytes); }

    /// The sector's bytes, until the next call; fewer than sectorBytes() when it is cut short, none when it
    /// lies behind the end of the file.
    std::span<const std::byte> sector(std::uint32_t number) {
        return bytes((std::uint64_t{number} + 1) << shift_, sectorBytes());
    }

    std::uint64_t fileBytes() const noexcept { return source_.size(); }

    /// How much of the sector there is.
    std::uint64_t bytesThere(std::uint32_t number) const noexcept {
        const std::uint64_t begin = (std::uint64_t{number} + 1) << shift_;
        return std::min<std::uint64_t>(fileBytes() - std::min(begin, fileBytes()), sectorBytes());
    }

private:
    std::span<const std::byte> bytes(std::uint64_t offset, std::size_t length) {
        if (offset < windowOffset_ || offset + length > windowOffset_ + windowBytes_) {
            windowOffset_ = offset;
            windowBytes_ = source_.read(offset, window_);
        }
        const auto begin = static_cast<std::size_t>(offset - windowOffset_);
        return std::span<const std::byte>(window_).subspan(begin, std::min(length, windowBytes_ - begin));
    }

    CompoundSource& source_;
    unsigned shift_ = 9;
    std::vector<std::byte> window_{16384};
    std::uint64_t windowOffset_ = 0;
    std::size_t windowBytes_ = 0;
};

/// The sectors or elements that have been met, by number: one bit each, for a file has as many as its size
/// allows.
class NumberSet {
public:
    void resize(std::size_t size) { members_.resize(size); }
    bool contains(std::uint32_t number) const { return members_[number]; }
    /// False if it is in already.
    bool insert(std::uint32_t number) {
        if (members_[number])
            return false;
        members_[number] = true;
        return true;
    }

private:
    std::vector<bool> members_;
};

} // namespace Compound

} // namespace Vexel::Detail
