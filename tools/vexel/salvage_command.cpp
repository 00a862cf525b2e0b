// `vexel salvage IN OUT`. The library finds what survives and hands it out; here it goes into a package, as
// it comes, and what was lost is told when the package has its name.

#include "base/handles.h"
#include "command.h"
#include "console.h"
#include "failure.h"
#include "file_paths.h"
#include "progress.h"
#include "sizes.h"
#include "stopping.h"
#include "text.h"

#include <vexel/archive.h>
#include <vexel/salvage.h>

#include <wrl/client.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

using Vexel::Storage::SZipArchive;

struct Arguments {
    std::string from;
    std::string to;
    bool partial = false;
    bool force = false;
    bool json = false;
};

Detail::FileHandle openForReading(const std::wstring& path) {
    return Detail::FileHandle(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                          FILE_ATTRIBUTE_NORMAL, nullptr));
}

/// The damaged file, kept from writers while it is read.
class FileSource final : public SalvageSource {
public:
    explicit FileSource(const std::wstring& path) : file_(openForReading(path)) {
        LARGE_INTEGER size{};
        if (!file_ || !GetFileSizeEx(file_.get(), &size) || !GetFileInformationByHandle(file_.get(), &info_))
            checkOpened(lastErrorStatus(), path);
        size_ = static_cast<std::uint64_t>(size.QuadPart);
    }

    std::uint64_t size() const noexcept override { return size_; }

    /// The system reads a piece wholly or not at all. So where it cannot, half of the piece is tried, down to
    /// the sector at fault, which is remembered: a disk takes its time over each attempt.
    std::size_t read(std::uint64_t offset, std::span<std::byte> target) noexcept override {
        std::size_t done = 0;
        for (std::uint64_t most = kLargestRead; done < target.size() && offset + done < size_;) {
            const std::uint64_t at = offset + done;
            if (at / kSectorBytes == unreadable_)
                break;
            std::uint64_t end = (std::min)(offset + target.size(), at + most);
            if (most < kLargestRead && end / kSectorBytes > at / kSectorBytes)
                end -= end % kSectorBytes;
            if (at / kSectorBytes < unreadable_)
                end = (std::min)(end, unreadable_ * kSectorBytes);
            const std::size_t came = readPiece(at, target.subspan(done, static_cast<std::size_t>(end - at)));
            done += came;
            if (came > 0)
                continue;
            if ((end - 1) / kSectorBytes == at / kSectorBytes) {
                unreadable_ = at / kSectorBytes;
                break;
            }
            most = (end - at) / 2;
        }
        return done;
    }

    /// Whether this is the file at `path`: what is rescued must not replace it.
    bool isAt(const std::wstring& path) const {
        const Detail::FileHandle other = openForReading(path);
        BY_HANDLE_FILE_INFORMATION info{};
        return other && GetFileInformationByHandle(other.get(), &info) &&
               info.dwVolumeSerialNumber == info_.dwVolumeSerialNumber &&
               info.nFileIndexHigh == info_.nFileIndexHigh && info.nFileIndexLow == info_.nFileIndexLow;
    }

private:
    static constexpr std::size_t kLargestRead = 0x1000000;
    static constexpr std::uint64_t kSectorBytes = 512;
    static constexpr std::uint64_t kNoSector =
        ~std::uint64_t{0} / kSectorBytes; // behind the end of every file

    std::size_t readPiece(std::uint64_t offset, std::span<std::byte> target) noexcept {
        OVERLAPPED position{};
        position.Offset = static_cast<DWORD>(offset);
        position.OffsetHigh = static_cast<DWORD>(offset >> 32);
        DWORD done = 0;
        if (!ReadFile(file_.get(), target.data(), static_cast<DWORD>(target.size()), &done, &position) ||
            done > target.size())
            return 0;
        progress().add(done);
        return done;
    }

    Detail::FileHandle file_;
    BY_HANDLE_FILE_INFORMATION info_{};
    std::uint64_t size_ = 0;
    std::uint64_t unreadable_ = kNoSector; // the sector that could not be read last
};

std::wstring nodePathOf(const SalvagedNode& node) {
    std::wstring path;
    for (const std::u16string& name : node.path) {
        if (!path.empty())
            path += L'/';
        path += SZipArchive::encodePathElement(std::wstring(name.begin(), name.end())).GetString();
    }
    return path;
}

FILETIME fileTime(std::uint64_t time) { return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)}; }

/// What is told of a rescue.
struct Report {
    struct Lost {
        std::string path;
        std::uint64_t size;
        std::uint64_t there;
        bool isWritten;
        const char* reason;
    };
    struct Damage {
        const char* what;
        std::uint64_t where;
    };
    SalvageFormat format = SalvageFormat::None;
    unsigned long long storages = 0; // that came back
    unsigned long long streams = 0;
    unsigned long long bytes = 0;
    std::vector<Lost> lost;
    std::vector<Damage> damage;
};

/// Puts what is found into a new package. Nothing may be thrown through the library, so what fails is kept.
class Rescue final : public SalvageObserver {
public:
    Rescue(const std::wstring& path, std::wstring label, bool takesPartial)
        : archive_(path, false, true), label_(std::move(label)), takesPartial_(takesPartial) {
        // Without any change nothing would be saved, not even a package without nodes.
        check(archive_.createDirectory(L"-", true, false), L"cannot create", label_);
        check(archive_.clear(std::wstring_view()), L"cannot create", label_);
    }

    /// Writes what is not in the file yet; throws what failed before.
    void finish() {
        if (failure_)
            std::rethrow_exception(failure_);
        save();
    }

    const Report& report() const noexcept { return report_; }

    void onFormat(SalvageFormat format) override { report_.format = format; }

    // How often parts of the file have to be read then, nobody knows.
    void onDamage(const char* what, std::uint64_t where) override {
        progress().expect(0);
        attempt([&] { report_.damage.push_back({what, where}); });
    }

    void onStorage(const SalvagedNode& node) override {
        attempt([&] {
            const CString item = nodePathOf(node).c_str();
            if (!item.IsEmpty()) {
                check(archive_.createDirectory(item, false, false), L"cannot create", label(item));
                setTimes(item, node);
                ++report_.storages;
            }
            addClass(item, node);
        });
    }

    bool onStream(const SalvagedNode& node) override {
        if (failure_ || (node.state == SalvageState::CutShort && !takesPartial_))
            return false;
        attempt([&] {
            if (unsaved_ > 0 && unsaved_ + node.size > kLargestInMemory)
                save(); // so that a large one is alone in memory
            item_ = nodePathOf(node).c_str();
            check(archive_.createFile(&stream_, item_, false, true), L"cannot create", label(item_));
        });
        return stream_ != nullptr;
    }

    void onBytes(std::span<const std::byte> bytes) override {
        attempt([&] {
            ULONG written = 0;
            const HRESULT status = stream_->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written);
            check(status == S_OK && written != bytes.size() ? STG_E_MEDIUMFULL : status, L"cannot write",
                  label(item_));
            unsaved_ += bytes.size();
        });
    }

    void onStreamEnd(const SalvagedNode& node) override {
        attempt([&] { endStream(node); });
    }

    bool onProgress(std::uint64_t /*bytes*/) override {
        attempt(checkStop);
        return !failure_;
    }

private:
    template <class Body>
    void attempt(const Body& body) {
        if (failure_)
            return;
        try {
            body();
        } catch (...) {
            failure_ = std::current_exception();
            stream_.Reset();
        }
    }

    std::wstring label(const CString& item) const { return label_ + L"|" + item.GetString(); }

    void setTimes(const CString& item, const SalvagedNode& node) {
        Vexel::Storage::SZipArchiveItem* const made = archive_.item(item);
        made->setCreationTime(fileTime(node.created));
        made->setModificationTime(fileTime(node.modified));
    }

    // Packages keep a storage's class in a stream.
    void addClass(const CString& storage, const SalvagedNode& node) {
        if (node.classId == std::array<std::byte, 16>{})
            return;
        const CString item = storage.IsEmpty() ? CString(L".clsid") : storage + L"/.clsid";
        Microsoft::WRL::ComPtr<IStream> stream;
        check(archive_.createFile(&stream, item, false, true), L"cannot create", label(item));
        check(stream->Write(node.classId.data(), static_cast<ULONG>(node.classId.size()), nullptr),
              L"cannot write", label(item));
    }

    void endStream(const SalvagedNode& node) {
        const bool isOpen = stream_ != nullptr;
        stream_.Reset();
        const bool isKept = isOpen && (node.state <= SalvageState::Unchecked ||
                                       (takesPartial_ && node.state == SalvageState::CutShort));
        if (isOpen && !isKept)
            check(archive_.remove(item_), L"cannot remove", label(item_));
        if (isKept) {
            setTimes(item_, node);
            ++report_.streams;
            report_.bytes += node.there;
        }
        if (node.state != SalvageState::Whole)
            report_.lost.push_back({toUtf8(nodePathOf(node)), node.size, node.there, isKept, node.reason});
        if (unsaved_ >= kLargestInMemory)
            save();
    }

    void save() {
        checkStop();
        const Progress::Interlude compressing(progress(), L"compressing");
        check(archive_.save(true), L"cannot write", label_);
        unsaved_ = 0;
    }

    SZipArchive archive_;
    std::wstring label_;
    bool takesPartial_;
    Report report_;
    CString item_; // of the stream at hand
    Microsoft::WRL::ComPtr<IStream> stream_;
    unsigned long long unsaved_ = 0;
    std::exception_ptr failure_;
};

const char* formatName(SalvageFormat format) {
    switch (format) {
    case SalvageFormat::CompoundFile:
        return "compound file";
    case SalvageFormat::Package:
        return "package";
    case SalvageFormat::None:
        break;
    }
    return "unknown";
}

const char* kindOf(const Report::Lost& lost) {
    if (!lost.isWritten)
        return "lost";
    return lost.there == lost.size ? "doubtful" : "partial";
}

std::string textOf(const Report& report) {
    std::string text;
    for (const auto& [what, where] : report.damage)
        text += std::string("damage: ") + what + " (" + std::to_string(where) + ")\n";
    for (const Report::Lost& lost : report.lost)
        text += std::string(kindOf(lost)) + ": " + toUtf8(onOneLine(toUtf16(lost.path))) + " (" +
                std::to_string(lost.there) + " of " + counted(lost.size, "byte") +
                (lost.size == 1 ? " is there): " : " are there): ") + lost.reason + "\n";
    return text + counted(report.streams, "stream") + " with " + counted(report.bytes, "byte") + " and " +
           counted(report.storages, "storage") + " came back, " + counted(report.lost.size(), "stream") +
           (report.lost.size() == 1 ? " is" : " are") + " lost, or not known to be whole\n";
}

nlohmann::ordered_json jsonOf(const Report& report) {
    nlohmann::ordered_json object;
    object["format"] = formatName(report.format);
    object["storages"] = report.storages;
    object["streams"] = report.streams;
    object["bytes"] = report.bytes;
    object["lost"] = nlohmann::ordered_json::array();
    for (const Report::Lost& lost : report.lost)
        object["lost"].push_back({{"path", lost.path},
                                  {"size", lost.size},
                                  {"there", lost.there},
                                  {"written", lost.isWritten},
                                  {"reason", lost.reason}});
    object["damage"] = nlohmann::ordered_json::array();
    for (const auto& [what, where] : report.damage)
        object["damage"].push_back({{"what", what}, {"where", where}});
    return object;
}

void print(const Report& report, bool asJson) {
    StandardOutput output;
    output.text(asJson ? jsonOf(report).dump(2) + "\n" : textOf(report));
    output.flush();
}

/// Makes the package beside its place, and gives it its name. If nothing came back, there is none.
SalvageOutcome rescueInto(const std::wstring& path, FileSource& source, const Arguments& arguments,
                          Report& report) {
    const std::wstring label = toUtf16(arguments.to);
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), label);
    partial.close();
    SalvageOutcome outcome{};
    {
        progress().expect(source.size() + source.size() / 4); // some of it, as tables, come twice
        Rescue rescue(partial.path(), label, arguments.partial);
        outcome = salvage(source, rescue);
        if (outcome == SalvageOutcome::OutOfMemory)
            throw Failure(L"cannot read all of", toUtf16(arguments.from), STG_E_INSUFFICIENTMEMORY);
        rescue.finish();
        report = rescue.report();
    }
    // Streams that are not whole can have been found, and none of them kept.
    if (outcome == SalvageOutcome::Losses && report.storages == 0 && report.streams == 0)
        outcome = SalvageOutcome::Nothing;
    if (outcome != SalvageOutcome::Nothing)
        partial.finish(path, arguments.force);
    return outcome;
}

void run(const Arguments& arguments) {
    const std::wstring from = toUtf16(arguments.from);
    const std::wstring to = toUtf16(arguments.to);
    const std::wstring path = withoutLengthLimit(to);
    FileSource source(from);
    if (source.isAt(path))
        throw UsageError(L"the package cannot be the damaged file itself:", to);
    checkFree(path, to, arguments.force);
    Report report;
    const SalvageOutcome outcome = rescueInto(path, source, arguments, report);
    print(report, arguments.json);
    if (outcome == SalvageOutcome::Nothing)
        throw Failure(L"nothing can be brought back from", from, STG_E_INVALIDHEADER,
                      report.lost.empty() || arguments.partial
                          ? L"no node of a document was found whole"
                          : L"no node was found whole; --partial keeps what is there of them");
    if (outcome != SalvageOutcome::Whole)
        throw Failure(L"not everything came back from", from, STG_E_DOCFILECORRUPT, L"the file is damaged");
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.required("IN", arguments->from, "The damaged compound file or package, which is only read");
    command.required("OUT", arguments->to, "The package to make of what survives");
    command.flag("--partial", arguments->partial, "Keep what is there of streams that are not whole");
    command.flag("--force", arguments->force, "Replace a file that is there");
    command.flag("--json", arguments->json, "Print one object with what came back and what was lost");
    command.examples("vexel salvage broken.cfb rescued.7z",
                     "vexel salvage --partial --json broken.7z rescued.7z");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("salvage", "Make a package of what survives in a damaged document, and tell what was lost",
                  add);

} // namespace
} // namespace Vexel::Tool
