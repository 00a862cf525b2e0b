#pragma once

/// Path and element names, interned: all names of one text share one entry in a process-wide table, and what
/// is learnt about a path is kept there for every holder of it.
///
/// A name is one pointer. Copying it is an atomic increment; equality, order and `hash()` look at the pointer
/// alone. Names may be created, copied, compared and released on any thread, and by static objects until the
/// process has ended; one name object belongs to one thread at a time unless nobody changes it. Exhausted
/// memory throws the framework's memory exception and leaves every name as it was.

#include <vexel/export.h>
#include <vexel/flag_set.h>
#include <vexel/framework.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <utility>

class StreamRef;
struct IStream;

namespace vxio {
class IReadStream;
class IWriteStream;
} // namespace vxio

class SharedPathName;

namespace Vexel::Detail {
struct SharedPathEntry;
SharedPathName nameAsGiven(std::wstring_view text);
} // namespace Vexel::Detail

/// What is known of a path: for each fact a bit that it is known and a bit for its value, which has no
/// meaning without the first.
enum class SharedPathNameFlag : std::uint32_t {
    FileExistsKnown = 0x1,
    FileExists = 0x2,
    StorageKnown = 0x4,
    Storage = 0x8, ///< the file is a compound file or a package
    DirectoryCached = 0x10,
    DirectoryPathNameCached = 0x20,
    RelativeKnown = 0x40,
    Relative = 0x80,
    NetworkKnown = 0x100,
    Network = 0x200,
    UpToDateKnown = 0x400,
    UpToDate = 0x800,
};

/// While any block lives, in any thread, the answers of the file system about paths (existence, being a
/// storage, the up-to-date mark) are kept in their entries; when the last one ends they are forgotten. Blocks
/// nest.
class VEXEL_API SharedPathNameFlagsCacheBlock {
public:
    SharedPathNameFlagsCacheBlock() noexcept;
    ~SharedPathNameFlagsCacheBlock();
    SharedPathNameFlagsCacheBlock(const SharedPathNameFlagsCacheBlock&) = delete;
    SharedPathNameFlagsCacheBlock& operator=(const SharedPathNameFlagsCacheBlock&) = delete;

    static bool IsActive() noexcept;
};

class VEXEL_API SharedPathName {
public:
    /// How a serialised name is read.
    enum class ReadFlag : unsigned {
        CaseSensitive = 1,  ///< match exactly
        CArchiveString = 2, ///< the text is in the layout of the framework's archives
    };

    /// The document versions from which a name's hash follows its text: in streams and in archives.
    static const unsigned ConvertVersion = 3655;
    static const unsigned ArchiveConvertVersion = 3661;

    /// The empty name.
    static const SharedPathName null;

    constexpr SharedPathName() noexcept = default;
    /// Interns `text`; a null pointer or an empty text gives the null name. A text that is not relative is
    /// made canonical first (GetFullPathNameW; kept as it is when that fails), a relative one is kept as
    /// written.
    ///
    /// The first entry that matches is shared and keeps the spelling it was interned with: with
    /// `caseSensitive` one of exactly this text, without it one that differs in case at most. Only entries
    /// with the same hash are looked at, and `caseSensitiveHash` hashes without folding case.
    SharedPathName(const wchar_t* text, bool caseSensitive, bool caseSensitiveHash);
    SharedPathName(const CString& text, bool caseSensitive, bool caseSensitiveHash);
    SharedPathName(std::wstring_view text, bool caseSensitive, bool caseSensitiveHash);

    /// Shares the entry.
    inline SharedPathName(const SharedPathName& other) noexcept;
    /// Takes the entry over and leaves `other` null.
    SharedPathName(SharedPathName&& other) noexcept : entry_(std::exchange(other.entry_, nullptr)) {}
    inline SharedPathName& operator=(const SharedPathName& other) noexcept;
    /// Swaps: what this name held is released when `other` dies.
    SharedPathName& operator=(SharedPathName&& other) noexcept {
        swap(other);
        return *this;
    }
    inline ~SharedPathName();

    /// Makes the name null and returns it.
    SharedPathName& clear() noexcept {
        SharedPathName().swap(*this);
        return *this;
    }
    void swap(SharedPathName& other) noexcept { std::swap(entry_, other.entry_); }

    bool empty() const noexcept { return entry_ == nullptr; }
    /// Names are equal when they share an entry, whatever their texts.
    bool operator==(const SharedPathName& other) const noexcept { return entry_ == other.entry_; }
    bool operator!=(const SharedPathName& other) const noexcept { return entry_ != other.entry_; }
    /// An order for containers: stable while the names live, but neither alphabetic nor the same in the next
    /// run.
    bool operator<(const SharedPathName& other) const noexcept {
        return reinterpret_cast<std::uintptr_t>(entry_) < reinterpret_cast<std::uintptr_t>(other.entry_);
    }
    /// A hash of the entry's identity, on which equality rests, too; 0 for the null name.
    unsigned long long hash() const noexcept { return reinterpret_cast<std::uintptr_t>(entry_); }

    // The text. Pointers and views are valid while any name shares the entry. The text of the null name is
    // empty; no pointer is ever null.

    inline const wchar_t* asString() const noexcept;
    CString asCString() const noexcept;
    inline std::wstring_view asStringView() const noexcept;
    operator std::wstring_view() const noexcept { return asStringView(); }

    // Parts of the path, found once for an entry.

    /// The place where the file name starts, when trailing separators are set aside. `length`, if it is not
    /// null, receives the number of characters from there to the end of the text, such separators included.
    const wchar_t* fileName(int* length) const;
    /// The place where the extension starts, at its dot or behind it. When there is no extension, that is the
    /// terminating zero.
    const wchar_t* fileExtension(bool withDot, int* length) const;
    /// The text before the file name, with its separator; this name itself when it ends with a separator or
    /// is a bare drive. Interned without regard to case, as is the next. The reference is valid while this
    /// name holds its entry.
    const SharedPathName& getDirectory() const;
    /// The parent's path without trailing separators: `C:\Dir` for `C:\Dir\a.txt`, `C:` for `C:\Dir\`.
    const SharedPathName& getDirectoryPathName() const;

    // Edits. Each interns the new text (with this `caseSensitive`, folding case in the hash), makes this name
    // stand for it and returns it. The null name stays null.

    SharedPathName& addBackslash(bool caseSensitive);
    /// `extension` brings its dot; a null pointer or an empty text removes the present one. Nothing changes
    /// when the name has exactly that extension.
    SharedPathName& changeExtension(const wchar_t* extension, bool caseSensitive);
    /// Replaces slashes by backslashes.
    SharedPathName& slashNormalize(bool caseSensitive);

    // Questions about the path.

    bool isRelative() const;
    bool isNetwork() const;
    /// Whether this path lies inside `base` (Vexel::IsSubPath). The null base holds every name, the null name
    /// lies in no other.
    bool isSubPath(const SharedPathName& base) const;
    /// The same for a text, but an empty base is a text like any other here: it holds the names that begin
    /// with a separator.
    bool isSubPath(const CString& base) const;

    /// Whether the file-system entry exists. The file system is asked each time, unless a flags-cache block
    /// is active: then the first answer stands.
    bool fileExists() const;
    /// Asks again and replaces the answer that is kept; does nothing when none is kept.
    void updateFileExists() const;
    /// Whether the file is a structured one (StorageRef::isStorage); no value when it cannot be examined.
    /// False for the null name. Within a flags-cache block the answer is kept as that of fileExists is, and
    /// it serves as an answer to fileExists, too.
    std::optional<bool> isStorage() const;
    /// A mark of the application's, kept only within a flags-cache block: outside one, setting it does
    /// nothing.
    void setUpToDate(bool value) const;
    bool isUpToDate() const noexcept;

    Vexel::FlagSet<SharedPathNameFlag> flags() const noexcept;

    // In documents: the text, then, unless it is empty, the 32-bit hash of the name's entry, little-endian.
    //
    // Archives hold the text as the framework does, streams in the layouts of strings.h: VxwWriteString's of
    // a CString, and the same through COM. Whether a hash follows is told by comparing `fileVersion`, the
    // document's, with `hashVersion`, one of the two constants above. Null streams and handles are left
    // alone.

    /// Always writes the hash. CArchiveException* (readOnly) when the archive is loading.
    void write(CArchive& archive) const;
    /// Writes the hash where `fileVersion` has reached `hashVersion`.
    void write(vxio::IWriteStream& stream, unsigned fileVersion, unsigned hashVersion) const;
    /// These always write the hash.
    void write(::IStream* stream) const;
    void write(const StreamRef& stream) const;

    // Reading. The name becomes the text that is read, interned with the case that `flags` ask for. In
    // documents of version 3688 and later the hash is taken as it stands, and so is the text; in older ones
    // the hash is dropped and worked out anew. When data are missing, the name is short or null.

    /// CArchiveException*: writeOnly when the archive is storing, and what the archive raises on bad data.
    void read(CArchive& archive, unsigned fileVersion, unsigned hashVersion, Vexel::FlagSet<ReadFlag> flags);
    /// With ReadFlag::CArchiveString the text is in the layout of the framework's archives;
    /// CArchiveException* for a length beyond what a string holds.
    void read(vxio::IReadStream& stream, unsigned fileVersion, unsigned hashVersion,
              Vexel::FlagSet<ReadFlag> flags);
    /// Reads the layout of streams only. Where no hash follows, case does not count, whatever `flags` say:
    /// documents of that age rely on it.
    void read(::IStream* stream, unsigned fileVersion, unsigned hashVersion, Vexel::FlagSet<ReadFlag> flags);
    /// Does what one of the two functions before does: with ReadFlag::CArchiveString the first of them, else
    /// the second.
    void read(const StreamRef& stream, unsigned fileVersion, unsigned hashVersion,
              Vexel::FlagSet<ReadFlag> flags);

private:
    friend class SharedPathNameFlagsCacheBlock;
    friend SharedPathName Vexel::Detail::nameAsGiven(std::wstring_view text);

    explicit SharedPathName(Vexel::Detail::SharedPathEntry* entry) noexcept : entry_(entry) {}
    static void destroyUnused(Vexel::Detail::SharedPathEntry* entry, std::uint32_t hash) noexcept;
    void cacheFlags(std::uint32_t known, std::uint32_t bits) const noexcept;
    void attach(const CString& text, unsigned hash, bool caseSensitive);
    template <class ReadHash>
    void become(const CString& text, bool hashFollows, unsigned fileVersion, bool caseSensitive,
                ReadHash readHash);

    Vexel::Detail::SharedPathEntry* entry_ = nullptr; // counts in it
};

namespace Vexel::Detail {

/// What the names of one text share. Only the library touches it; it stands here so that copying a name needs
/// no call.
struct SharedPathEntry {
    CString text;
    SharedPathName directory;
    SharedPathName directoryPathName;
    std::atomic<const wchar_t*> extension{nullptr}; ///< into `text`; null until found
    std::atomic<const wchar_t*> fileName{nullptr};  ///< into `text`; null until found
    std::uint32_t hash = 0;                         ///< under which the table files it
    std::atomic<std::uint32_t> flags{0};            ///< SharedPathNameFlag
    std::atomic<std::uint32_t> lock{0};             ///< guards the making of the two directories
    std::atomic<std::uint32_t> count{1};            ///< of the names and registrations that hold the entry
};

} // namespace Vexel::Detail

static_assert(sizeof(SharedPathName) == sizeof(void*));

inline SharedPathName::SharedPathName(const SharedPathName& other) noexcept : entry_(other.entry_) {
    if (entry_)
        entry_->count.fetch_add(1, std::memory_order_relaxed);
}

inline SharedPathName& SharedPathName::operator=(const SharedPathName& other) noexcept {
    if (entry_ != other.entry_)
        SharedPathName(other).swap(*this);
    return *this;
}

inline SharedPathName::~SharedPathName() {
    if (!entry_)
        return;
    // Read while the entry is certain to be there: once the count is 0 another thread may take the entry up,
    // drop it and destroy it.
    const std::uint32_t hash = entry_->hash;
    if (entry_->count.fetch_sub(1, std::memory_order_acq_rel) == 1)
        destroyUnused(entry_, hash);
}

inline const wchar_t* SharedPathName::asString() const noexcept {
    return entry_ ? entry_->text.GetString() : L"";
}

inline std::wstring_view SharedPathName::asStringView() const noexcept {
    if (!entry_)
        return L"";
    return {entry_->text.GetString(), static_cast<std::size_t>(entry_->text.GetLength())};
}
