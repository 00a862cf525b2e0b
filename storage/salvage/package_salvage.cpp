// Each folder is decoded by itself, so that damage in one costs nothing of the others; of a folder with
// several files those before the damage come back. Checksums decide what is whole. Without a header there are
// no names, sizes and checksums: then each packed stream is an item.

#include "storage/salvage/package_salvage.h"

#include "archive/engine.h"
#include "archive/folder_decoder.h"
#include "archive/header_layout.h"
#include "base/com_pointer.h"
#include "storage/salvage/lzma2_scan.h"
#include "storage/salvage/package_header.h"

#include <vexel/archive.h>

#include <7zCrc.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <exception>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace Vexel::Detail::Salvage {

using namespace Vexel::Storage::Engine;
using NArchive::N7z::CDbEx;
using Vexel::Storage::StringLess;
using Vexel::Storage::SZipArchive;

namespace {

using Path = std::vector<std::u16string>;

/// Items of more levels than this stand at the top, and those for whose storages there is no room: some for
/// all, and some for each item.
constexpr std::size_t kDeepest = 500;
constexpr std::size_t kParentsRoom = 0x800000;
constexpr std::size_t kRoomForEach = 512;

constexpr const char* kDamaged = "its packed bytes are damaged";
constexpr const char* kWrongChecksum = "its bytes do not agree with their checksum";
constexpr const char* kNoChecksum = "the package has no checksum of it";
constexpr const char* kUnknownMethod = "it is packed in a way that is not known here, or encrypted";
constexpr const char* kBehindDamage = "it is packed behind damaged bytes";
constexpr const char* kNotChecked = "its name, size and checksum are lost with the header";
constexpr const char* kMayBePart =
    "its name, size and checksum are lost with the header, and it may be the end of "
    "the damaged one before it";
constexpr const char* kCutOff = "its packed bytes are cut off or damaged";

std::u16string toNames(std::wstring_view text) { return {text.begin(), text.end()}; }

/// The name that an element of an item's path stands for, by the rule of SZipArchive::nameOf.
std::u16string nameOf(std::wstring_view element) {
    const CString name = SZipArchive::decodePathElement(element);
    const CString again = SZipArchive::encodePathElement(name);
    const std::wstring_view decoded = StringLess::view(name);
    const bool isEncoded =
        StringLess::view(again) == element && decoded.find(L'\0') == std::wstring_view::npos;
    return toNames(isEncoded ? decoded : element);
}

std::wstring_view pathOf(const CDbEx& database, unsigned index) {
    if (!database.NameOffsets || !database.NamesBuf)
        return {};
    const auto* names = reinterpret_cast<const wchar_t*>(static_cast<const Byte*>(database.NamesBuf));
    const std::size_t begin = database.NameOffsets[index];
    return {names + begin, database.NameOffsets[index + 1] - begin - 1};
}

std::uint64_t timeOf(const NArchive::N7z::CUInt64DefVector& times, unsigned index) {
    UInt64 time = 0;
    times.GetItem(index, time);
    return time;
}

/// The storages that the items' paths lead through, handed out as they come up.
class Storages {
public:
    Storages(const CDbEx& database, Output& output) : database_(database), output_(output) {
        for (unsigned i = 0; i < database.Files.Size(); ++i) {
            room_ += kRoomForEach + pathOf(database, i).size() * sizeof(wchar_t);
            if (database.Files[i].IsDir && !database.IsItemAnti(i))
                records_.emplace(pathOf(database, i), i);
        }
    }

    /// The node for a new stream with the path of an item, its storages being there then.
    Path place(std::wstring_view item) {
        const std::size_t slash = item.rfind(L'/');
        const std::wstring_view parent = slash == std::wstring_view::npos || !isInReach(item)
                                             ? std::wstring_view()
                                             : item.substr(0, slash);
        const std::wstring_view element = slash == std::wstring_view::npos ? item : item.substr(slash + 1);
        Path path = open(parent);
        path.push_back(newName(parent, element));
        return path;
    }

    void openAll() {
        for (const auto& [path, record] : records_)
            if (isInReach(path))
                open(path);
    }

private:
    /// A storage that was handed out.
    struct Opened {
        const Opened* parent; // none below the root
        std::u16string name;
    };

    /// Handles go 512 storages deep, and the text of paths grows with the square of their depth.
    bool isInReach(std::wstring_view item) {
        const auto levels = static_cast<std::size_t>(std::count(item.begin(), item.end(), L'/'));
        if (levels > kDeepest)
            return false;
        if (levels == 0 || opened_.contains(item.substr(0, item.rfind(L'/'))))
            return true;
        const std::size_t cost = levels * (item.size() * sizeof(wchar_t) + kRoomForEach);
        if (cost > room_)
            return false;
        room_ -= cost;
        return true;
    }

    std::u16string newName(std::wstring_view parent, std::wstring_view element) {
        const std::u16string wanted = nameOf(element);
        std::u16string name = names_[std::wstring(parent)].take(wanted);
        if (name != wanted)
            output_.damage("an item's name is none, or that of a sibling; it gets another one", 0);
        return name;
    }

    /// The storage's path as it is handed out. In front of a first "/" is the root. Items have their storages
    /// in common, so that the way down to one is gone once.
    Path open(std::wstring_view item) {
        const auto known = opened_.find(item);
        return pathTo(known != opened_.end() ? &known->second : openNew(item));
    }

    const Opened* openNew(std::wstring_view item) {
        const Opened* storage = nullptr;
        for (std::size_t begin = 0, end = 0; end < item.size(); begin = end + 1) {
            end = (std::min)(item.find(L'/', begin), item.size());
            if (end == 0)
                continue;
            const std::wstring_view key = item.substr(0, end);
            auto known = opened_.find(key);
            if (known == opened_.end()) {
                const std::wstring_view parent = begin == 0 ? std::wstring_view() : item.substr(0, begin - 1);
                Opened opened{storage, newName(parent, item.substr(begin, end - begin))};
                known = opened_.emplace(key, std::move(opened)).first;
                tell(pathTo(&known->second), known->first);
            }
            storage = &known->second;
        }
        return storage;
    }

    static Path pathTo(const Opened* storage) {
        Path path;
        for (; storage != nullptr; storage = storage->parent)
            path.push_back(storage->name);
        std::reverse(path.begin(), path.end());
        return path;
    }

    void tell(const Path& path, const std::wstring& key) {
        SalvagedNode node;
        node.path = path;
        node.isStorage = true;
        if (const auto record = records_.find(key); record != records_.end()) {
            node.created = timeOf(database_.CTime, record->second);
            node.modified = timeOf(database_.MTime, record->second);
        }
        output_.progress(0);
        output_.countNode();
        output_.storage(node);
    }

    const CDbEx& database_;
    Output& output_;
    std::map<std::wstring, unsigned, std::less<>> records_; // of directories, by item path
    std::map<std::wstring, Opened, std::less<>> opened_;    // by item path
    std::map<std::wstring, SiblingNames> names_;
    std::size_t room_ = kParentsRoom;
};

/// Takes a folder's bytes as they are decoded, and hands out the files that they are. Called on threads of
/// the decoder, so that nothing may be thrown: what fails is kept.
class FolderFiles final : public IUnknownImpl<ISequentialOutStream> {
public:
    FolderFiles(const CDbEx& database, unsigned folder, Storages& storages, Output& output)
        : database_(database), storages_(storages), output_(output),
          record_(database.FolderStartFileIndex[folder]),
          filesLeft_(database.NumUnpackStreamsVector[folder]) {}

    HRESULT STDMETHODCALLTYPE Write(const void* data, UInt32 size, UInt32* processed) noexcept override {
        UInt32 done = 0;
        try {
            const std::span bytes(static_cast<const std::byte*>(data), size);
            while (done < size && begin()) {
                const auto count =
                    static_cast<UInt32>((std::min)(node_.size - node_.there, std::uint64_t{size - done}));
                append(bytes.subspan(done, count));
                done += count;
            }
            output_.progress(done);
        } catch (...) {
            failure_ = std::current_exception();
            return E_ABORT;
        }
        if (processed)
            *processed = done;
        return done == size ? S_OK : E_FAIL;
    }

    /// To be called when nothing more comes: what is left of the folder is lost, for this reason.
    void finish(const char* reason, const char* reasonOfOthers) {
        if (failure_)
            std::rethrow_exception(failure_);
        if (isOpen_ && node_.there < node_.size)
            end(node_.there > 0 ? SalvageState::CutShort : SalvageState::Lost, reason);
        while (filesLeft_ > 0) {
            nextFile();
            if (node_.size == 0) { // it needs nothing of what is damaged
                output_.stream(node_);
                end(SalvageState::Whole, "");
            } else {
                end(SalvageState::Lost, std::exchange(reason, reasonOfOthers));
            }
        }
    }

private:
    /// Sees that a file is open that takes bytes; false when there is none.
    bool begin() {
        while (!isOpen_ && filesLeft_ > 0) {
            nextFile();
            isWanted_ = output_.stream(node_);
            if (node_.size == 0)
                end(SalvageState::Whole, "");
        }
        return isOpen_;
    }

    void nextFile() {
        output_.progress(0);
        while (!database_.Files[record_].HasStream) // such ones may stand in between
            ++record_;
        --filesLeft_;
        path_ = storages_.place(pathOf(database_, record_));
        node_ = {};
        node_.path = path_;
        node_.size = database_.Files[record_].Size;
        node_.created = timeOf(database_.CTime, record_);
        node_.modified = timeOf(database_.MTime, record_);
        crc_ = 0xFFFFFFFF;
        isOpen_ = true;
    }

    void append(std::span<const std::byte> bytes) {
        crc_ = CrcUpdate(crc_, bytes.data(), bytes.size());
        node_.there += bytes.size();
        if (isWanted_)
            output_.bytes(bytes);
        if (node_.there < node_.size)
            return;
        const auto& file = database_.Files[record_];
        if (!file.CrcDefined)
            end(SalvageState::Unchecked, kNoChecksum);
        else if (file.Crc == ~crc_)
            end(SalvageState::Whole, "");
        else
            end(SalvageState::CutShort, kWrongChecksum);
    }

    void end(SalvageState state, const char* reason) {
        node_.state = state;
        node_.reason = reason;
        output_.streamEnd(node_);
        isOpen_ = false;
        ++record_;
    }

    const CDbEx& database_;
    Storages& storages_;
    Output& output_;
    unsigned record_;
    unsigned filesLeft_; // without the one at hand
    Path path_;          // of the file at hand
    SalvagedNode node_;
    std::uint32_t crc_ = 0;
    bool isOpen_ = false;
    bool isWanted_ = false;
    std::exception_ptr failure_;
};

void deliverFolder(SalvageSource& source, const CDbEx& database, unsigned folder, Storages& storages,
                   Output& output) {
    const auto files = Detail::adopt(new FolderFiles(database, folder, storages, output));
    if (const HRESULT status = checkFolder(database, folder); status != S_OK) {
        const char* const reason = status == E_NOTIMPL ? kUnknownMethod : kDamaged;
        files->finish(reason, reason);
        return;
    }
    const auto input = Detail::adopt(new SourceInStream(source));
    const DecodedFolder decoded = decodeFolder(database, folder, *input.Get(), files.Get());
    if (decoded.status == STG_E_INSUFFICIENTMEMORY || decoded.status == E_OUTOFMEMORY)
        throw std::bad_alloc();
    files->finish(kDamaged, kBehindDamage);
}

void deliverWithoutContents(const CDbEx& database, Storages& storages, Output& output) {
    for (unsigned i = 0; i < database.Files.Size(); ++i) {
        const auto& file = database.Files[i];
        if (file.IsDir || file.HasStream || database.IsItemAnti(i))
            continue;
        output.progress(0);
        const Path path = storages.place(pathOf(database, i));
        SalvagedNode node;
        node.path = path;
        node.created = timeOf(database.CTime, i);
        node.modified = timeOf(database.MTime, i);
        output.stream(node);
        output.streamEnd(node);
    }
}

void deliverByHeader(SalvageSource& source, const CDbEx& database, Output& output) {
    Storages storages(database, output);
    storages.openAll();
    for (unsigned folder = 0; folder < database.NumFolders; ++folder) {
        output.progress(0);
        deliverFolder(source, database, folder, storages, output);
    }
    deliverWithoutContents(database, storages, output);
}

std::u16string itemName(unsigned number) {
    constexpr std::size_t kDigits = 4;
    const std::string digits = std::to_string(number);
    std::u16string name = u"item ";
    name.append(digits.size() < kDigits ? kDigits - digits.size() : 0, u'0');
    return name.append(digits.begin(), digits.end());
}

/// Returns how many bytes came out.
std::uint64_t deliverStream(SalvageSource& source, const Lzma2Stream& stream, const Path& path,
                            Output& output) {
    SalvagedNode node;
    node.path = path;
    node.state = stream.isEnded ? SalvageState::Unchecked : SalvageState::CutShort;
    node.size = stream.unpacked;
    node.there = stream.unpacked;
    node.reason = stream.mayBePart ? kMayBePart : kNotChecked;
    if (!stream.isEnded)
        node.reason = kCutOff;
    const bool isWanted = output.stream(node);
    node.there = decodeLzma2(source, stream, [&](std::span<const std::byte> bytes) {
        if (isWanted)
            output.bytes(bytes);
        output.progress(bytes.size());
    });
    if (node.there < node.size) {
        node.state = node.there > 0 ? SalvageState::CutShort : SalvageState::Lost;
        node.reason = kCutOff;
    }
    output.streamEnd(node);
    return node.there;
}

/// Where the packed streams end at most: at the header, if the beginning still says where that is.
std::uint64_t endOfStreams(SalvageSource& source) {
    std::array<std::byte, kStartBytes> start{};
    if (source.read(0, start) != start.size())
        return source.size();
    std::uint32_t crc = 0;
    std::uint64_t offset = 0;
    std::memcpy(&crc, start.data() + StartAt::kChecksum, sizeof crc);
    std::memcpy(&offset, start.data() + StartAt::kOffset, sizeof offset);
    const bool isTrue = CrcCalc(start.data() + StartAt::kOffset, start.size() - StartAt::kOffset) == crc;
    const std::uint64_t room = source.size() - kStartBytes;
    return kStartBytes + (isTrue ? (std::min)(offset, room) : room);
}

void deliverByStreams(SalvageSource& source, Output& output) {
    if (source.size() <= kStartBytes)
        return;
    output.damage("the header is lost; packed streams are looked for from byte", kStartBytes);
    Lzma2Scanner scanner(source, kStartBytes, endOfStreams(source),
                         [&](std::uint64_t bytes) { output.progress(bytes); });
    for (unsigned number = 1;; ++number) {
        const auto stream = scanner.next();
        if (!stream) {
            if (const auto at = scanner.givenUpAt())
                output.damage("too much makes no sense to look at the packed bytes from here on", *at);
            return;
        }
        if (!stream->isAdjacent)
            output.damage("packed bytes that make no sense are passed over, up to byte", stream->begin);
        scanner.wasDecoded(*stream, deliverStream(source, *stream, {itemName(number)}, output));
    }
}

} // namespace

void salvagePackage(SalvageSource& source, Output& output) {
    start();
    CDbEx database;
    database.Clear();
    const bool hasHeader = readHeader(source, database, output);
    output.format(SalvageFormat::Package);
    SalvagedNode root;
    root.isStorage = true;
    output.storage(root);
    if (hasHeader)
        deliverByHeader(source, database, output);
    else
        deliverByStreams(source, output);
}

} // namespace Vexel::Detail::Salvage
