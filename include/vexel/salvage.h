#pragma once

/// Bringing back what survives in a damaged compound file or package. It is found by what the surviving
/// pieces say of themselves: where the way from the top is broken, tables, directories and packed streams are
/// looked for in the whole file. The file is read here, byte by byte; neither the system's storage nor the
/// handles take part, and nothing is written.
///
///     class Rescue : public Vexel::SalvageObserver {
///         bool onStream(const Vexel::SalvagedNode& node) override { return files.begin(node.path); }
///         void onBytes(std::span<const std::byte> bytes) override { files.write(bytes); }
///         void onStreamEnd(const Vexel::SalvagedNode& node) override { list.add(node.path, node.reason); }
///     };
///     Rescue rescue;
///     const Vexel::SalvageOutcome outcome = Vexel::salvage(file, rescue);
///
/// Of a compound file the tables and the directory are kept in memory, 12 bytes for each of its sectors,
/// small ones too, and some 250 for each element; time grows with the size of the file and of the contents
/// that come out, because what is searched for in vain is limited. Of a package its header is kept, and what
/// decoding takes: the dictionary, of 256 MiB at most without a header, or for a folder of 1 MiB and more a
/// few blocks of 4 MiB for each processor. docs/damaged-files.md tells the rules by which contents find their
/// streams, and the limits.

#include <vexel/export.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace Vexel {

/// The bytes of the damaged file. Neither function may throw.
class SalvageSource {
public:
    SalvageSource() = default;
    SalvageSource(const SalvageSource&) = delete;
    SalvageSource& operator=(const SalvageSource&) = delete;
    virtual ~SalvageSource() = default;

    virtual std::uint64_t size() const noexcept = 0;
    /// Fills `target` from `offset` on and returns the number of bytes read: fewer at the end of the file, or
    /// where it cannot be read. What cannot be read counts as lost, up to the next multiple of 512 bytes.
    virtual std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept = 0;
};

enum class SalvageState {
    Whole,
    /// All of its bytes are there, as far as can be told, but nothing says whether they are right, or,
    /// without a package's header, whether they are the end of a damaged stream.
    Unchecked,
    CutShort, ///< not all of its bytes are there, or it cannot be told whether they are its own
    Lost      ///< none of its bytes are there
};

/// A node that was found. It holds during the call that has it.
struct SalvagedNode {
    /// The names on the way to the node, from below the root; none for the root. Siblings differ, names have
    /// no "/" and are not empty: what is otherwise in the file is changed, and told by `onDamage`. Elements
    /// that the tree no longer leads to stand in the storage "Recovered", packed streams without a name are
    /// "item 0001" and so on.
    std::span<const std::u16string> path;
    bool isStorage = false;
    SalvageState state = SalvageState::Whole;
    std::uint64_t size = 0;              ///< the bytes that the stream should have, as far as that is known
    std::uint64_t there = 0;             ///< the bytes of it that there are
    const char* reason = "";             ///< why it is not whole, in English, for people
    std::array<std::byte, 16> classId{}; ///< of a storage in a compound file, in the file's order
    std::uint64_t created = 0;           ///< 100 ns since 1601, in UTC; 0: the file does not say
    std::uint64_t modified = 0;
};

enum class SalvageFormat { None, CompoundFile, Package };

/// Somebody who takes what is found. The functions are called one after the other, while
/// contents of packages are decoded perhaps on threads of the decoder; none may throw.
class SalvageObserver {
public:
    SalvageObserver() = default;
    SalvageObserver(const SalvageObserver&) = delete;
    SalvageObserver& operator=(const SalvageObserver&) = delete;
    virtual ~SalvageObserver() = default;

    /// What the file is, once that is known and before any node.
    virtual void onFormat(SalvageFormat /*format*/) {}
    /// Damage that is no node's: `what` in English, and the number of the sector or the byte it speaks of. Of
    /// a file that begins as neither format it is told once that is known, too.
    virtual void onDamage(const char* /*what*/, std::uint64_t /*where*/) {}
    /// A storage, before what is in it; the root first.
    virtual void onStorage(const SalvagedNode& /*node*/) {}
    /// A stream, with what is known of it before its bytes are read. False passes over its bytes.
    virtual bool onStream(const SalvagedNode& /*node*/) { return true; }
    /// The next bytes of that stream.
    virtual void onBytes(std::span<const std::byte> /*bytes*/) {}
    /// The stream's end, and what has come of it: only now it is known to be whole. For streams that were
    /// passed over, too, and of those that are lost this may be all that is told: `onStream` is not called
    /// for each of them.
    virtual void onStreamEnd(const SalvagedNode& /*node*/) {}
    /// So many bytes of the file, or of contents, have been gone through since the last call. False ends the
    /// work at the next step.
    virtual bool onProgress(std::uint64_t /*bytes*/) { return true; }
};

enum class SalvageOutcome {
    Whole,      ///< everything came back as it was
    Losses,     ///< something was lost or is doubtful, of which the observer was told
    Nothing,    ///< nothing was found that could come back: not a single node
    Ended,      ///< onProgress ended it
    OutOfMemory ///< not everything was looked at
};

/// Goes through the file and tells `observer` of everything that it finds. A file is taken for what it begins
/// as; if that is neither format, for a compound file if anything of one is found, and else for a package.
VEXEL_API SalvageOutcome salvage(SalvageSource& source, SalvageObserver& observer) noexcept;

} // namespace Vexel
