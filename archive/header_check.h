#pragma once

#include "archive/page_buffer.h"

#include <windows.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// A look at an archive's headers before the engine reads them. The engine believes the counts and sizes that
/// it finds: 75 bytes can make it take 2 GiB, a packed header may promise 2^60 bytes. This holds every count,
/// size and range against the bytes that the header and the file really have, before anything is allocated
/// for them. It never looks at contents, and takes one pass over the unpacked header. Whether that has its
/// checksum is left to the engine, unless there is something else wrong with it.
///
/// A packed header can hold very much in few bytes, and honest ones do: 7zz packs 200,000 items whose names
/// count up at 12 to the byte, and names of 1000 characters at 1190 bytes to the byte. Refused are, with P
/// for the bytes that the header has in the file:
///  - an unpacked header above 16 MiB and 2048 P, and names above that; LZMA reaches about 7100 P;
///  - items, streams or packed streams above 65,536 and 20 P; folders above 65,536 and 10 P;
///  - items above 65,536 and P, or names above 16 MiB, of which less than half differ;
///  - more than 16 MiB of what nobody reads: properties that are unknown or come twice, and the like.
/// What is well-formed but cannot be decoded here, contents with whatever methods and dictionaries, passes.
/// Streams of additional data for the header, which no known program writes, are not read.
namespace Vexel::Storage::Engine {

/// Bytes that are an archive from their beginning on, or are to be judged.
class HeaderSource {
public:
    HeaderSource() = default;
    HeaderSource(const HeaderSource&) = delete;
    HeaderSource& operator=(const HeaderSource&) = delete;
    virtual ~HeaderSource() = default;

    virtual std::uint64_t size() const noexcept = 0;

    /// Reads into `target`, of 1 GiB at most, from `offset` on. `count` receives the number of bytes read:
    /// any but 0, which says that the input has ended. A failure ends the check with its status.
    virtual HRESULT read(std::uint64_t offset, std::span<std::byte> target, std::size_t& count) noexcept = 0;

    /// Asked before each MiB that a packed header unpacks to. False ends the check as a failure of the input.
    virtual bool mayGoOn() noexcept { return true; }
};

enum class HeaderFault {
    None,
    NotAnArchive, ///< does not begin as one; STG_E_INVALIDHEADER
    Header,       ///< contradicts itself or the file's size; STG_E_INVALIDHEADER
    Unsupported,  ///< uses what is not known here; HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED)
    Unreadable,   ///< of another version, or packed data that do not decode; E_FAIL
    Input,        ///< the input's status
};

struct HeaderVerdict {
    HeaderFault fault = HeaderFault::None;
    /// S_OK, or the status that stands at the fault.
    HRESULT status = S_OK;
    /// What is wrong, for the log; empty without a fault.
    const char* what = "";
    /// Where: the byte in the unpacked header, or in the file for faults before that.
    std::uint64_t where = 0;
};

/// An archive's header after unpacking, so that nobody need unpack it again: an archive made of `start`, any
/// bytes up to `offset`, and `bytes`, is to the engine the same as the one that was checked.
struct PlainHeader {
    std::array<std::byte, 32> start{}; ///< with the header's place, size, and the checksum that it must have
    std::uint64_t offset = 0;          ///< where the header begins, from the beginning of the archive
    PageBuffer bytes;                  ///< none for an archive without items
};

/// The most that a packed header may hold which has so many bytes in the file.
std::uint64_t mostUnpacked(std::uint64_t packed) noexcept;

/// Judges the headers. `plain`, if wanted, is filled when they are without a fault, else left as it was.
/// Throws std::bad_alloc.
HeaderVerdict checkHeaders(HeaderSource& source, PlainHeader* plain = nullptr);

} // namespace Vexel::Storage::Engine
