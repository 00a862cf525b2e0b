// Every call of the platform, allocation and interface fails, one after the other, in each form that a
// failure has, during all that is done to documents, settings and temporary files. Whatever it was: each file
// is the old one or the new one, the same objects can be used again and then succeed, and nothing leaks or
// stays behind.
//
// VEXEL_TEST_FAULTS says what is tried: everything for 1, else every so many-th row of operation, point and
// form, and of its uses every seventh; with a "," and a name behind it, one operation only.

#include "base/handles.h"
#include "base/status.h"
#include "base/status_guard.h"
#include "support/fault_driver.h"
#include "support/faulty_storage.h"
#include "support/handles.h"
#include "support/platform_guard.h"
#include "support/streams.h"

#include <vexel/copying.h>
#include <vexel/diagnostics.h>
#include <vexel/ini.h>
#include <vexel/open_package.h>
#include <vexel/properties.h>
#include <vexel/salvage.h>
#include <vexel/strings.h>
#include <vexel/temp_files.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>
#include <set>

namespace fs = std::filesystem;
using namespace Support;
using namespace std::string_literals;
using namespace std::string_view_literals;
using Microsoft::WRL::ComPtr;

namespace {

constexpr auto kCompound = StorageFormat::CompoundFile, kPackage = StorageFormat::Package;

constexpr std::size_t kSections = 40;
constexpr auto* kValue = L"value of some length";
constexpr auto* kSolid = L"solid-without-directories.7z";

using Elements = std::map<std::wstring, std::string>;

/// All below a storage, or why it cannot be had.
HRESULT readAll(const StorageRef& storage, const std::wstring& prefix, Elements& all) {
    StorageEnumerator child;
    if (const HRESULT status = child.reset(storage); status != S_OK)
        return status;
    while (child.moveNext()) {
        const std::wstring path = prefix + child.name().asString();
        if (child.type() == StorageType::Storage) {
            StorageRef inner;
            HRESULT status = inner.open(child.name(), storage, true);
            all[path + L"/"];
            if (status == S_OK)
                status = readAll(inner, path + L"/", all);
            if (status != S_OK)
                return status;
            continue;
        }
        StreamRef stream;
        if (const HRESULT status = stream.open(child.name(), storage, true); status != S_OK)
            return status;
        std::string bytes(static_cast<std::size_t>(child.size().QuadPart) + 1, '\0');
        unsigned long done = 0;
        if (const HRESULT status = stream.read(bytes.data(), static_cast<unsigned long>(bytes.size()), &done);
            status != S_OK)
            return Vexel::Detail::outcomeOf(status);
        if (done + 1 != bytes.size())
            return STG_E_READFAULT;
        bytes.resize(done);
        all[path] = bytes;
    }
    return child.status() == S_FALSE ? S_OK : child.status();
}

HRESULT write(StreamRef& stream, std::string_view bytes) {
    unsigned long done = 0;
    const HRESULT status = stream.write(bytes.data(), static_cast<unsigned long>(bytes.size()), &done);
    return status == S_OK && done != bytes.size() ? E_FAIL : Vexel::Detail::outcomeOf(status);
}

/// A disk of documents, and what is open of them. An operation may use all of it.
class Faults : public testing::Test {
protected:
    struct Operation {
        const char* name;
        HRESULT (Faults::*run)();
        /// What is there or open beforehand.
        void (Faults::*prepare)() = nullptr;
        StorageFormat format = kPackage;      ///< of the document
        StorageFormat otherFormat = kPackage; ///< of the other one
        bool commitsOnTheWay = false;         ///< when memory or file handles run out
        bool hidesFailures = false;           ///< of writing: a success does not say that it wrote
        bool tellsErrors = false;             ///< it ends in the status that the error of the system gives
        const wchar_t* sample = nullptr;      ///< what the document is instead: made by another program
    };
    static const Operation kOperations[];

    // What is opened and changed. What fails can be done once more: handles are let go of first.

    HRESULT open(RootStorageOpenMode mode, StorageRef& root, const wchar_t* name = L"document") {
        root.close();
        return root.open(path(folder_.file(name)), mode, false);
    }
    HRESULT readWhole(RootStorageOpenMode mode) {
        if (const HRESULT status = open(mode, root_); status != S_OK)
            return status;
        return readOpen();
    }
    HRESULT readOpen() {
        Elements all;
        FILETIME created{}, modified{}, accessed{};
        if (!root_.getFileTimes(&created, &modified, &accessed))
            return E_FAIL;
        const HRESULT status = readAll(root_, L"", all);
        EXPECT_TRUE(status != S_OK || all == before_.at(L"document").elements) << "other contents are read";
        return status;
    }
    HRESULT openForReading() { return readWhole(modeRead); }
    HRESULT openDenyingWriters() { return readWhole(modeReadDenyWrite); }
    HRESULT openForWriting() { return readWhole(modeWrite); }

    HRESULT change(bool commits = true) {
        StorageRef box, made;
        StreamRef stream, other;
        HRESULT status = box.open(L"d", root_, false);
        if (status == S_OK)
            status = made.create(L"new", box, true);
        if (status == S_OK)
            status = stream.create(L"in it", made);
        if (status == S_OK)
            status = write(stream, "new");
        if (status == S_OK)
            status = other.open(L"empty", root_, false);
        if (status == S_OK)
            status = write(other, noise(30'000));
        for (StorageRef* const storage : {&made, &box})
            if (status == S_OK && commits)
                status = storage->commit();
        return status;
    }
    HRESULT changeAndCommit() {
        const HRESULT status = change();
        return status == S_OK ? root_.commit() : status;
    }
    /// What the system has lost has to be written again.
    HRESULT commit() {
        const HRESULT status = root_.commit();
        return status == STG_E_REVERTED ? changeAndCommit() : status;
    }
    HRESULT openChangeCommit() {
        const HRESULT status = open(modeWrite, root_);
        return status == S_OK ? changeAndCommit() : status;
    }
    HRESULT create() {
        root_.close();
        HRESULT status = root_.create(path(folder_.file(L"created")));
        StreamRef stream;
        StorageRef box;
        if (status == S_OK)
            status = box.create(L"box", root_, true);
        if (status == S_OK)
            status = stream.create(L"note", box);
        if (status == S_OK)
            status = write(stream, noise(70'000));
        if (status == S_OK) // enough for two threads that pack
            status = stream.create(L"another", box);
        if (status == S_OK)
            status = write(stream, noise(70'000));
        return status == S_OK ? commit() : status;
    }
    /// The other document's contents, into this one.
    HRESULT copy() {
        const HRESULT status = other_.copyTo(root_);
        return status == S_OK ? commit() : status;
    }
    HRESULT copyObserved() {
        Vexel::TreeObserver observer;
        const HRESULT status = Vexel::copyTree(other_, root_, &observer);
        return status == S_OK ? commit() : status;
    }
    HRESULT convert() {
        root_.close();
        HRESULT status = root_.create(path(folder_.file(L"created")));
        if (status == S_OK)
            status = other_.copyTo(root_);
        return status == S_OK ? commit() : status;
    }
    HRESULT convertInPlace() {
        root_.close();
        HRESULT status = root_.convert(path(folder_.file(L"document")), modeWrite);
        return status == S_OK ? changeAndCommit() : status;
    }
    HRESULT refuseToConvert() {
        root_.close();
        const HRESULT status = root_.convert(path(folder_.file(L"document")), modeWrite);
        return status == STG_E_INVALIDFUNCTION ? S_OK : FAILED(status) ? status : E_UNEXPECTED;
    }
    HRESULT borrow() {
        root_.close();
        HRESULT status = root_.create(path(folder_.file(L"created")));
        if (status == S_OK) // 0 is allowed: then the contents are packed anew
            status = root_.borrowPackedData(other_) >= 0 ? S_OK : E_FAIL;
        if (status == S_OK)
            status = other_.copyTo(root_);
        return status == S_OK ? commit() : status;
    }
    HRESULT move() {
        IStorage* const from = root_.storage();
        HRESULT status = from ? from->MoveElementTo(L"f", from, L"moved", STGMOVE_MOVE) : E_FAIL;
        if (status == STG_E_FILENOTFOUND && root_.hasChild(element(L"moved"), StorageType::Stream))
            status = S_OK; // by the first attempt
        return status == S_OK ? commit() : status;
    }
    HRESULT moveAcross() {
        IStorage *const from = other_.storage(), *const to = root_.storage();
        HRESULT status = from && to ? from->MoveElementTo(L"d", to, L"moved", STGMOVE_MOVE) : E_FAIL;
        if (status == STG_E_FILENOTFOUND)
            status = S_OK;
        if (status == S_OK)
            status = commit();
        return status == S_OK ? other_.commit() : status;
    }
    HRESULT writeProperties() {
        Vexel::Properties properties;
        properties[2] = Vexel::PropertyVariant(L"a title");
        HRESULT status = Vexel::WriteProperties(root_, FMTID_SummaryInformation, properties);
        if (status == STG_E_REVERTED && root_.destroy(L"\5SummaryInformation") == S_OK)
            status = Vexel::WriteProperties(root_, FMTID_SummaryInformation, properties);
        return status == S_OK ? commit() : status;
    }
    HRESULT remove() {
        HRESULT status = S_OK;
        for (const wchar_t* const name : {L"d", L"f"}) {
            status = root_.destroy(name);
            if (status != S_OK && status != STG_E_FILENOTFOUND)
                return status;
        }
        return commit();
    }
    HRESULT cleanUp() {
        container().deleteUnusedObjects();
        return readOpen();
    }
    HRESULT salvage() {
        struct Source final : Vexel::SalvageSource {
            HANDLE file;
            std::uint64_t size() const noexcept override {
                LARGE_INTEGER size{};
                Vexel::Detail::platform().getFileSize(file, &size);
                return static_cast<std::uint64_t>(size.QuadPart);
            }
            std::size_t read(std::uint64_t at, std::span<std::byte> target) noexcept override {
                OVERLAPPED place{};
                place.Offset = static_cast<DWORD>(at);
                DWORD done = 0;
                return Vexel::Detail::platform().readFile(file, target.data(),
                                                          static_cast<DWORD>(target.size()), &done, &place)
                           ? done
                           : 0;
            }
        } source;
        struct Observer final : Vexel::SalvageObserver {
            std::string bytes;
            std::multiset<std::string> whole;
            bool onStream(const Vexel::SalvagedNode& /*node*/) override { return bytes.clear(), true; }
            void onBytes(std::span<const std::byte> found) override {
                bytes.append(reinterpret_cast<const char*>(found.data()), found.size());
            }
            void onStreamEnd(const Vexel::SalvagedNode& node) override {
                if (node.state == Vexel::SalvageState::Whole)
                    whole.insert(bytes);
            }
        } observer;
        const Vexel::Detail::FileHandle file(CreateFileW(folder_.file(L"document").c_str(), GENERIC_READ,
                                                         FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0,
                                                         nullptr));
        source.file = file.get();
        const auto outcome = Vexel::salvage(source, observer);
        std::multiset<std::string> all;
        for (const auto& [name, bytes] : before_.at(L"document").elements)
            if (!name.ends_with(L'/'))
                all.insert(bytes);
        EXPECT_TRUE(std::ranges::includes(all, observer.whole));
        EXPECT_TRUE(outcome != Vexel::SalvageOutcome::Whole || observer.whole == all);
        return outcome == Vexel::SalvageOutcome::Whole ? S_OK : E_FAIL;
    }
    HRESULT saveSettings(const wchar_t* name) {
        return vxio::IniFile::SetString(L"new", L"key", CStringW(L"value"), folder_.file(name).c_str())
                   ? S_OK
                   : E_FAIL;
    }
    HRESULT saveSettings() { return saveSettings(L"settings"); }
    HRESULT saveWideSettings() { return saveSettings(L"wide settings"); }
    HRESULT readSettings() {
        vxio::IniFile file;
        if (!file.Load(folder_.file(L"settings").c_str()))
            return E_FAIL;
        EXPECT_EQ(file.GetSections().size(), kSections);
        for (std::size_t i = 0; i < kSections; ++i)
            EXPECT_EQ(file.GetString(L"section " + std::to_wstring(i), L"key", L""), CStringW(kValue)) << i;
        return S_OK;
    }
    HRESULT useTemporaryFiles() {
        auto& files = TempFileContainer::Instance();
        unsigned long error = 0;
        const SharedPathName copy =
            files.insertCopy(folder_.file(L"document").c_str(), L"faults", L"tmp", &error, true, false);
        if (copy.empty()) {
            EXPECT_NE(error, 0u);
            return E_FAIL;
        }
        container().setCreateOnDisk(true);
        StorageRef root;
        HRESULT status = root.createTemporary(false);
        container().setCreateOnDisk(false);
        StreamRef stream;
        if (status == S_OK)
            status = stream.create(L"note", root);
        if (status == S_OK)
            status = write(stream, "temporary");
        if (status == S_OK)
            status = root.commit();
        files.erase(copy);
        return status;
    }
    HRESULT openWithoutHandles() {
        ComPtr<IStorage> document;
        const HRESULT status = OpenVexelPackage(&document, folder_.file(L"document").c_str());
        return verifyContents(status, document);
    }
    HRESULT verifyContents(HRESULT status, const ComPtr<IStorage>& document) {
        ComPtr<::IStream> stream;
        if (status == S_OK)
            status = document->OpenStream(L"f", nullptr, STGM_READ | STGM_SHARE_EXCLUSIVE, 0, &stream);
        status = Vexel::Detail::outcomeOf(status); // S_FALSE for packed bytes that cannot be read
        EXPECT_TRUE(status != S_OK || bytesOf(stream.Get()) == before_.at(L"document").elements.at(L"f"));
        return status;
    }
    /// Opens what a stream of the caller holds.
    HRESULT openStream() {
        ComPtr<IStorage> document;
        const HRESULT status = OpenVexelPackageStream(&document, callers_.Get());
        return verifyContents(status, document);
    }
    HRESULT writeString() {
        const Vexel::Detail::FileHandle file(CreateFileW(folder_.file(L"string").c_str(), GENERIC_WRITE, 0,
                                                         nullptr, CREATE_ALWAYS, 0, nullptr));
        try {
            return VxwWriteUniString(file.get(), CStringW(L"a text")) ? S_OK : E_FAIL;
        } catch (CFileException* error) {
            error->Delete();
            return E_FAIL;
        }
    }

    void openRootForWriting() { ASSERT_EQ(open(modeWrite, root_), S_OK); }
    void openAndChange() {
        openRootForWriting();
        ASSERT_EQ(change(root_.format() == kCompound), S_OK); // which saves a package
    }
    void makeStream() {
        callers_ = Vexel::Detail::make<FaultyElement>(streamOf(before_.at(L"document").bytes).Detach(),
                                                      FaultyStorage::draw);
    }
    void openSource() { ASSERT_EQ(open(modeRead, other_, L"other"), S_OK); }
    void openBoth() {
        openRootForWriting();
        openSource();
    }
    void openBothForWriting() {
        openRootForWriting();
        ASSERT_EQ(open(modeWrite, other_, L"other"), S_OK);
    }
    void leaveUnused() {
        openRootForWriting();
        ASSERT_EQ(readOpen(), S_OK);
    }

    // The files.

    /// What is in a file.
    struct File {
        std::string bytes;
        Elements elements; ///< of a document
        bool operator==(const File&) const = default;
    };
    using Files = std::map<std::wstring, File>;

    /// Nobody must have it open.
    File fileOf(const std::wstring& file) const {
        File all{readFile(file), {}};
        const auto format = StorageRef::getFormat(file.c_str()).value_or(StorageFormat::None);
        if (format == StorageFormat::None)
            return all;
        StorageRef root;
        HRESULT status = root.open(path(file), modeRead, false);
        if (status == S_OK)
            status = readAll(root, L"", all.elements);
        if (status != S_OK)
            all.elements = {{L"unreadable", std::to_string(status)}};
        closeForGood(root);
        return all;
    }
    Files filesNow() const {
        Files all;
        for (const auto& entry : fs::directory_iterator(folder_.file(L"")))
            all[entry.path().filename().wstring()] = fileOf(entry.path().wstring());
        return all;
    }
    void makeFiles(const Operation& operation) {
        const auto elements = [](char difference) {
            return std::vector<Element>{{L"a", "first"},
                                        {L"d/", ""},
                                        {L"d/b", noise(9000) + difference},
                                        {L"d/deep/", ""},
                                        {L"d/deep/c", std::string(1, difference)},
                                        {L"empty", ""},
                                        {L"f", noise(45'000) + difference}};
        };
        closeAll();
        for (const auto& entry : fs::directory_iterator(folder_.file(L"")))
            fs::remove(entry.path());
        writeDocument(folder_.file(L"document"), operation.format, elements('1'));
        if (operation.sample)
            writeFile(folder_.file(L"document"), readFile(samplePath(operation.sample)));
        writeDocument(folder_.file(L"other"), operation.otherFormat, elements('2'));
        std::string settings;
        for (std::size_t i = 0; i < kSections; ++i) {
            settings += "[section " + std::to_string(i) + "]\nkey=value of some length\n";
            if (i == kSections / 2) // the first that is read ends in the midst of a section's name
                settings += ";" + std::string((64 << 10) - settings.size() - 6, 'x') + "\n";
        }
        writeFile(folder_.file(L"settings"), settings);
        // Without a mark, and at first sight in another encoding.
        writeFile(folder_.file(L"wide settings"),
                  "[\0\x95\x0A\x95\x0A]\0\n\0\x95\x0A\x95\x0A=\0\x95\x0A\x95\x0A\n\0"s);
        container().deleteUnusedObjects();
        before_ = filesNow();
    }
    void restoreFiles() const {
        for (const auto& entry : fs::directory_iterator(folder_.file(L"")))
            if (!before_.contains(entry.path().filename().wstring()))
                fs::remove(entry.path());
        for (const auto& [name, file] : before_)
            writeFile(folder_.file(name), file.bytes);
    }
    void closeAll() {
        for (StorageRef* const root : {&root_, &other_})
            root->close();
        callers_.Reset();
        container().deleteUnusedObjects();
    }

    static std::string differences(const Elements& now, const Elements& wanted) {
        std::string text;
        for (const auto& [name, bytes] : wanted)
            if (const auto found = now.find(name); found == now.end() || found->second != bytes)
                text += fs::path(name).string() + (found == now.end() ? " missing" : " other") + ", ";
        return text;
    }
    /// Whether some elements are replaced or added; those that could not be, `losses` at most, may be missing
    /// or empty. Whatever else there was stays.
    static bool isPart(const Elements& now, const Elements& old, const Elements& changed,
                       std::ptrdiff_t losses) {
        const auto isIn = [](const Elements& elements, const auto& element) {
            const auto found = elements.find(element.first);
            return found != elements.end() && found->second == element.second;
        };
        for (const auto& element : now)
            if (!isIn(old, element) && !isIn(changed, element) && (!element.second.empty() || --losses < 0))
                return false;
        for (const auto& element : old)
            if (!now.contains(element.first) && (!changed.contains(element.first) || --losses < 0))
                return false;
        return true;
    }
    /// One that may be open.
    File inCopy(const std::wstring& name) const {
        const std::wstring copy = scratch_.file(name);
        writeFile(copy, readFile(folder_.file(name)));
        return fileOf(copy);
    }
    /// Each file is the old one or the new one.
    void verifyFiles(const Operation& operation, const PlannedFault& fault, HRESULT status) const {
        const bool mayBePart = operation.commitsOnTheWay && fault.form.isShortage() && status != S_OK;
        // The fault of a system that loses what it was to replace may be any element's.
        const std::ptrdiff_t losses = fault.point.name == "calls of the system's storage"sv ? 10 : 1;
        for (const auto& entry : fs::directory_iterator(folder_.file(L"")))
            EXPECT_TRUE(after_.contains(entry.path().filename().wstring()))
                << entry.path() << " is left behind";
        for (const auto& [name, old] : before_) {
            const File& changed = after_.at(name);
            const std::string bytes = readFile(folder_.file(name));
            if (bytes == old.bytes) {
                EXPECT_TRUE(status != S_OK || changed == old) << "success without the change";
                continue;
            }
            const File now = inCopy(name);
            const bool isOld = !old.elements.empty() &&
                               (now.elements == old.elements ||
                                (mayBePart && isPart(now.elements, old.elements, changed.elements, losses)));
            EXPECT_TRUE(changed.elements.empty()
                            ? bytes == changed.bytes
                            : now.elements == changed.elements || (isOld && status != S_OK))
                << fs::path(name) << " is neither the old file nor the new one: "
                << differences(now.elements, changed.elements);
        }
        if (operation.run == &Faults::moveAcross) {
            EXPECT_TRUE(inCopy(L"other").elements == before_.at(L"other").elements ||
                        inCopy(L"document").elements == after_.at(L"document").elements)
                << "what was moved is in neither";
        }
        for (const auto& [name, changed] : after_) { // what there was not before
            if (before_.contains(name))
                continue;
            if (!fs::exists(folder_.file(name))) {
                EXPECT_NE(status, S_OK) << fs::path(name) << " is missing";
                continue;
            }
            const File now = inCopy(name);
            if (changed.elements.empty())
                EXPECT_TRUE(status != S_OK || now == changed) << fs::path(name);
            else
                EXPECT_TRUE(now.elements == changed.elements ||
                            (mayBePart && isPart(now.elements, {}, changed.elements, losses)))
                    << fs::path(name) << ": " << differences(now.elements, changed.elements);
        }
    }
    static bool isTemporaryFolderEmpty() {
        for (int i = 0; i < 500; ++i, Sleep(10)) {
            TempFileContainer::Instance().clear();
            if (fs::is_empty(fs::temp_directory_path() / "."))
                return true;
        }
        return false;
    }

    /// Functions without a status raise what others return.
    HRESULT run(const Operation& operation) {
        return Vexel::Detail::withStatus([&] { return (this->*operation.run)(); });
    }
    /// Others give up, and close what they have.
    static bool isRetrying(const PlannedFault& fault) { return fault.skipped / fault.point.step % 3 != 2; }
    /// False when there is nothing any more that could fail.
    bool attempt(const Operation& operation, const PlannedFault& fault) {
        SCOPED_TRACE(std::string(operation.name) + "; " + fault.name());
        restoreFiles();
        driver_.install(fault.point);
        if (operation.prepare)
            (this->*operation.prepare)();
        HRESULT status = E_FAIL;
        const bool isHit = driver_.strike(fault, [&] { status = run(operation); });
        EXPECT_TRUE(status == S_OK || FAILED(status)) << std::hex << status;
        EXPECT_TRUE(isHit || status == S_OK) << std::hex << status;
        driver_.release();
        if (operation.tellsErrors && isHit && fault.point.tellsErrors &&
            fault.form.kind == FaultForm::Fails && fault.times == PlannedFault::kForGood) {
            EXPECT_EQ(status, Vexel::Detail::storageStatus(static_cast<DWORD>(fault.form.code)));
        }
        if (operation.hidesFailures && status == S_OK && isHit)
            status = E_FAIL;
        verifyFiles(operation, fault, status);
        if (isRetrying(fault)) {
            if (fault.form.kind == FaultForm::Resized) { // a file of two sizes is taken for two files
                closeAll();
                if (operation.prepare)
                    (this->*operation.prepare)();
            }
            status = run(operation);
            EXPECT_EQ(status, S_OK) << "once more";
        }
        closeAll();
        verifyFiles(operation, fault, status);
        return isHit;
    }

    /// What nothing failed in, twice: what is kept for later is there from then on.
    void runClean(const Operation& operation) {
        for (int i = 0; i < 2; ++i) {
            makeFiles(operation);
            if (operation.prepare)
                (this->*operation.prepare)();
            EXPECT_EQ(run(operation), S_OK) << operation.name;
            closeAll();
            after_ = filesNow();
        }
    }
    unsigned usesOf(const FaultPoint& point, const Operation& operation) {
        restoreFiles();
        driver_.install(point);
        if (operation.prepare)
            (this->*operation.prepare)();
        const unsigned uses = FaultDriver::count(point, [&] { run(operation); });
        driver_.release();
        closeAll();
        return uses;
    }
    void sweep(const Operation& operation, const FaultPoint& point, const FaultForm& form, unsigned times) {
        const unsigned stride = (std::min)(every_, isOfMemory(point) ? 41U : 7U);
        const unsigned step = stride * point.step, first = rows_ % stride * point.step;
        const int before = failures();
        unsigned faults = 0;
        for (unsigned n = first; attempt(operation, {point, form, n, times}) && failures() == before;
             n += step)
            ++faults;
        if (faults == 0)
            return;
        faults_ += faults;
        EXPECT_TRUE(isTemporaryFolderEmpty()) << operation.name << ", " << point.name << ", " << form.name;
    }
    /// What there is to leak. The test's own notes of what it does are allocations, too.
    struct Holdings {
        std::ptrdiff_t blocks = liveBlocks(), allocations = LiveAllocations();
    };
    static bool isOfMemory(const FaultPoint& point) { return point.forms.size() == 1; }
    void sweep(const Operation& operation) {
        constexpr int kMostFailures = 60;
        runClean(operation);
        const unsigned before = faults_;
        std::optional<Holdings> held; // after the first faults: threads and the like are begun once for all
        unsigned handles = openHandles();
        bool packs = false;
        for (const FaultPoint& point : faultPoints()) {
            std::optional<unsigned> uses;
            for (const FaultForm& form : point.forms)
                for (const unsigned times : {1U, 3U, PlannedFault::kForGood}) {
                    const unsigned every = isOfMemory(point) ? (std::min)(every_, 3U) : every_;
                    if (++rows_ % every != 0 || failures() > kMostFailures)
                        continue;
                    if (!uses)
                        uses = usesOf(point, operation);
                    if (*uses > 0)
                        sweep(operation, point, form, times);
                    if (*uses == 0)
                        continue;
                    packs |= point.name == "startThread"sv || point.name == "moveFile"sv;
                    // What a fault makes the system begin for good is begun once; a leak rises each time.
                    const unsigned faults = faults_;
                    for (int again = 0; openHandles() > handles; ++again) {
                        handles = openHandles();
                        if (again == 4) {
                            ADD_FAILURE() << operation.name << ", " << point.name << ", " << form.name
                                          << ": handles leak";
                            break;
                        }
                        sweep(operation, point, form, times);
                    }
                    faults_ = faults;
                    handles = openHandles();
                    if (!held)
                        held.emplace();
                }
        }
        const Holdings now;
        if (!held)
            held = now;
        EXPECT_LE(now.blocks, held->blocks) << operation.name;
        // Lists of the engine's encoder leak what they hold when memory ends while they are copied.
        EXPECT_LE(now.allocations, held->allocations + (packs ? 400 : 30)) << operation.name;
        std::cout << operation.name << ": " << faults_ - before << " faults\n" << std::flush;
    }
    static int failures() {
        return testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
    }

    const TempFolder folder_, scratch_;
    const PlatformGuard guard_;
    const bool isFast_ = [] {
        Vexel::Detail::platform().flushFile = [](HANDLE) -> BOOL { return TRUE; }; // takes most of the time
        return true;
    }();
    FaultDriver driver_;
    StorageRef root_, other_;
    ComPtr<::IStream> callers_;
    Files before_, after_;
    unsigned every_ = 1, rows_ = 0, faults_ = 0;
};

const Faults::Operation Faults::kOperations[] = {
    {"create", &Faults::create},
    {"open for reading, package", &Faults::openForReading},
    {"open for reading, compound", &Faults::openForReading, nullptr, kCompound},
    {"open keeping writers out, package", &Faults::openDenyingWriters},
    {"open keeping writers out, compound", &Faults::openDenyingWriters, nullptr, kCompound},
    {"open for writing, package", &Faults::openForWriting},
    {"open for writing, compound", &Faults::openForWriting, nullptr, kCompound},
    {"read, package", &Faults::readOpen, &Faults::openRootForWriting},
    {"read, compound", &Faults::readOpen, &Faults::openRootForWriting, kCompound},
    {"write and commit, package", &Faults::openChangeCommit},
    {"write and commit, compound", &Faults::openChangeCommit, nullptr, kCompound},
    {"commit, package", &Faults::commit, &Faults::openAndChange, kPackage, kPackage, false, false, true},
    {"commit, compound", &Faults::commit, &Faults::openAndChange, kCompound},
    {"write and commit, solid package", &Faults::openChangeCommit, nullptr, kPackage, kPackage, false, false,
     false, kSolid},
    {"remove, solid package", &Faults::remove, &Faults::openRootForWriting, kPackage, kPackage, false, false,
     false, kSolid},
    {"copy, package to package", &Faults::copy, &Faults::openBoth, kPackage, kPackage, true},
    {"copy, compound to package", &Faults::copy, &Faults::openBoth, kPackage, kCompound, true},
    {"copy, package to compound", &Faults::copy, &Faults::openBoth, kCompound, kPackage, true},
    {"copy, compound to compound", &Faults::copy, &Faults::openBoth, kCompound, kCompound, true},
    {"copy observed, package to package", &Faults::copyObserved, &Faults::openBoth},
    {"copy observed, compound to package", &Faults::copyObserved, &Faults::openBoth, kPackage, kCompound},
    {"convert", &Faults::convert, &Faults::openSource, kPackage, kCompound, true},
    {"convert in place, package", &Faults::convertInPlace},
    {"convert in place, compound", &Faults::refuseToConvert, nullptr, kCompound},
    {"borrow packed data", &Faults::borrow, &Faults::openSource, kPackage, kPackage, true},
    {"move", &Faults::move, &Faults::openRootForWriting},
    {"write properties, package", &Faults::writeProperties, &Faults::openRootForWriting},
    {"write properties, compound", &Faults::writeProperties, &Faults::openRootForWriting, kCompound},
    {"move between documents", &Faults::moveAcross, &Faults::openBothForWriting},
    {"remove, package", &Faults::remove, &Faults::openRootForWriting},
    {"remove, compound", &Faults::remove, &Faults::openRootForWriting, kCompound},
    {"clean up, package", &Faults::cleanUp, &Faults::leaveUnused},
    {"clean up, compound", &Faults::cleanUp, &Faults::leaveUnused, kCompound},
    {"salvage, package", &Faults::salvage},
    {"salvage, compound", &Faults::salvage, nullptr, kCompound},
    {"open a caller's stream", &Faults::openStream, &Faults::makeStream},
    {"open without handles, package", &Faults::openWithoutHandles},
    {"open without handles, compound", &Faults::openWithoutHandles, nullptr, kCompound},
    {"save settings", &Faults::saveSettings, nullptr, kPackage, kPackage, false, true},
    {"save settings of another encoding", &Faults::saveWideSettings, nullptr, kPackage, kPackage, false,
     true},
    {"read settings", &Faults::readSettings},
    {"temporary files", &Faults::useTemporaryFiles},
    {"write a string", &Faults::writeString},
};

// Some volumes of other makers know no flush; what is there is written all the same.
TEST_F(Faults, AreNoneWhereAVolumeKnowsNoFlush) {
    for (const DWORD error : {DWORD{ERROR_INVALID_FUNCTION}, DWORD{ERROR_NOT_SUPPORTED}}) {
        makeFiles({});
        refuse(Vexel::Detail::platform().flushFile, error);
        openRootForWriting();
        EXPECT_EQ(changeAndCommit(), S_OK);
        EXPECT_EQ(saveSettings(), S_OK);
        closeAll();
        Elements wanted = before_.at(L"document").elements;
        wanted[L"d/new/"];
        wanted[L"d/new/in it"] = "new";
        wanted[L"empty"] = noise(30'000);
        EXPECT_EQ(filesNow().at(L"document").elements, wanted);
        EXPECT_TRUE(readFile(folder_.file(L"settings")).ends_with("[new]\nkey=value\n"));
    }
}

TEST_F(Faults, CostNoDocument) {
    const VxLogSink sink = VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr, nullptr);
    const char* const wanted = std::getenv("VEXEL_TEST_FAULTS");
    char none = '\0', *only = &none;
    every_ = wanted ? static_cast<unsigned>(std::strtoul(wanted, &only, 10)) : 97;
    const TempFolder temporary; // this process's alone
    SetEnvironmentVariableW(L"TMP", temporary.file(L"").c_str());
    for (const Operation& operation : kOperations) {
        if (*only == ',' && std::string_view(only + 1) != operation.name)
            continue;
        sweep(operation);
    }
    for (const auto& [name, count] : driver_.tally()) {
        EXPECT_TRUE(count > 0 || every_ > 1 || *only) << name << " never occurs";
        if (count > 0)
            std::cout << count << "  " << name << '\n';
    }
    std::cout << faults_ << " faults in " << rows_ << " rows\n";
    RecordProperty("faults", static_cast<int>(faults_));
    VxLog_SetSink(sink, nullptr);
}

} // namespace
