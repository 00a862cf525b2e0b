// Processes that are ended from outside at any moment of a commit, a copy or a conversion. Each document is
// as it was at the last commit that returned, or at the one that was at work; it is whole, it opens, and what
// the process has left behind hinders nobody.
//
// VEXEL_TEST_KILLS says how many processes.

#include "support/storage_test.h"
#include "support/streams.h"

#include <process.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>

using namespace Support;

namespace {

constexpr auto* kVariable = L"VEXEL_TEST_KILLED";
constexpr auto* kMapping = L"VEXEL_TEST_KILLS_MAPPING"; // the variable; the name is the test's own

enum Document { Package, Compound, Conversion, Copy, IntoPackage, InPlace };
constexpr std::array kNames{L"package.7z", L"compound.doc", L"conversion.7z",
                            L"copy.doc",   L"into.7z",      L"in-place.7z"};
constexpr int kDocuments{kNames.size()};
StorageFormat formatOf(std::size_t document) {
    return document == Compound || document == Copy ? StorageFormat::CompoundFile : StorageFormat::Package;
}

/// What the processes tell each other: the edition that each document is about to get, and has.
struct Progress {
    std::array<std::atomic<int>, kDocuments> begun, done;
    std::atomic<int> commits;
    std::atomic<int> isReady, first; ///< of a process; where it is to begin

    int latest() const { return *std::max_element(begun.begin(), begun.end()); }
};

class SharedProgress {
public:
    SharedProgress()
        : mapping_(CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof(Progress),
                                      _wgetenv(kMapping))),
          progress_(static_cast<Progress*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, 0))) {}
    SharedProgress(const SharedProgress&) = delete;
    SharedProgress& operator=(const SharedProgress&) = delete;
    ~SharedProgress() {
        UnmapViewOfFile(progress_);
        CloseHandle(mapping_);
    }
    Progress* operator->() const noexcept { return progress_; }

private:
    HANDLE mapping_;
    Progress* progress_;
};

constexpr std::array kStreams{L"a", L"b", L"c", L"d"};
std::string contentsOf(int edition, std::size_t stream) {
    constexpr std::array<std::size_t, 4> kSizes{10, 3000, 20'000, 120'000};
    return std::to_string(edition) + " " + noise(kSizes[stream] + static_cast<std::size_t>(edition) % 50);
}

bool writeEdition(const StorageRef& root, int edition) {
    for (std::size_t i = 0; i < kStreams.size(); ++i) {
        StreamRef stream;
        const std::string bytes = contentsOf(edition, i);
        if (stream.create(kStreams[i], root) != S_OK ||
            stream.WriteBytes(bytes.data(), bytes.size()) != bytes.size())
            return false;
    }
    return root.commit() == S_OK;
}

/// The one that all streams are of, or -1, also where there is more than they and what was there at first.
int editionOf(const StorageRef& root) {
    std::size_t count = 0;
    StorageEnumerator child;
    for (child.reset(root); child.moveNext(); ++count)
        ;
    if (count != kStreams.size() + 1)
        return -1;
    const int edition = static_cast<int>(std::strtol(read(kStreams[0], root).c_str(), nullptr, 10));
    for (std::size_t i = 0; i < kStreams.size(); ++i)
        if (read(kStreams[i], root) != contentsOf(edition, i))
            return -1;
    return edition;
}

long openForChange(Document document, const SharedPathName& name, StorageRef& root) {
    if (document == Conversion)
        return root.create(name);
    return document == InPlace ? root.convert(name, modeWrite) : root.open(name, modeWrite, false);
}

/// Not a test of its own: what the other one runs in processes.
TEST(KilledProcess, DISABLED_ChangesDocuments) {
    const SharedProgress progress;
    const std::wstring folder = _wgetenv(kVariable);
    const auto at = [&](Document document) { return path(folder + kNames[document]); };
    for (int edition = progress->latest() + 1, i = progress->first;; ++edition) {
        for (; i < kDocuments; ++i) {
            const auto document = static_cast<Document>(i);
            StorageRef root, source;
            const bool isCopy = document == Conversion || document == Copy || document == IntoPackage;
            const Document from = document == Conversion ? Compound : Package;
            const int made = isCopy ? progress->done[from].load() : edition;
            progress->begun[document] = made;
            progress->isReady = 1;
            bool isDone = openForChange(document, at(document), root) == S_OK;
            if (isCopy)
                isDone = isDone && source.open(at(from), modeRead, false) == S_OK &&
                         source.copyTo(root) == S_OK && root.commit() == S_OK;
            else
                isDone = isDone && writeEdition(root, edition);
            if (!isDone)
                std::exit(1);
            progress->done[document] = made;
            ++progress->commits;
            closeForGood(root, source);
        }
        i = 0;
    }
}

TEST(Kills, LeaveTheOldDocumentOrTheNewOne) {
    const TempFolder folder;
    _wputenv_s(kMapping, (L"vexel-kills-test-" + std::to_wstring(GetCurrentProcessId())).c_str());
    const SharedProgress progress;
    const char* const wanted = std::getenv("VEXEL_TEST_KILLS");
    const long kills = wanted ? std::strtol(wanted, nullptr, 10) : 20;
    _wputenv_s(kVariable, folder.file(L"").c_str());
    for (std::size_t i = 0; i < kDocuments; ++i) {
        writeDocument(folder.file(kNames[i]), formatOf(i), {{L"none", ""}});
        const StorageRef root = openRoot(path(folder.file(kNames[i])), modeWrite);
        ASSERT_TRUE(writeEdition(root, 0));
    }
    container().deleteUnusedObjects();

    std::mt19937 random(static_cast<unsigned>(kills));
    std::array<int, kDocuments> unfinished{};
    for (long kill = 0; kill < kills && !testing::Test::HasFailure(); ++kill) {
        SCOPED_TRACE(kill);
        progress->isReady = 0;
        progress->first = static_cast<int>(random() % kDocuments);
        const auto process = reinterpret_cast<HANDLE>(_wspawnl(_P_NOWAIT, _wpgmptr, L"child",
                                                               L"--gtest_also_run_disabled_tests",
                                                               L"--gtest_filter=KilledProcess.*", nullptr));
        const std::unique_ptr<void, decltype(&CloseHandle)> owner(process, CloseHandle);
        for (int i = 0; i < 20'000 && !progress->isReady; ++i)
            Sleep(1);
        EXPECT_EQ(progress->isReady, 1) << "it has not begun";
        const auto moment = std::chrono::steady_clock::now() + std::chrono::microseconds(random() % 90'000);
        while (std::chrono::steady_clock::now() < moment)
            Sleep(0);
        TerminateProcess(process, 9);
        ASSERT_EQ(WaitForSingleObject(process, 30'000), WAIT_OBJECT_0);
        DWORD exitCode = 0;
        GetExitCodeProcess(process, &exitCode);
        EXPECT_EQ(exitCode, 9u) << "a call failed";
        for (std::size_t i = 0; i < kDocuments; ++i) {
            SCOPED_TRACE(testing::PrintToString(std::wstring(kNames[i])));
            const int done = progress->done[i], begun = progress->begun[i];
            const StorageRef root = openRoot(path(folder.file(kNames[i])), kill % 2 ? modeRead : modeWrite);
            const int edition = editionOf(root);
            EXPECT_TRUE(edition == done || edition == begun) << edition << " of " << done << " to " << begun;
            unfinished[i] += done != begun;
            progress->done[i] = progress->begun[i] = edition; // from where the next one goes on
        }
        container().deleteUnusedObjects();
        for (const auto& entry : std::filesystem::directory_iterator(folder.file(L""))) {
            std::filesystem::path name = entry.path().filename();
            if (name.extension() == L".7ztmp") // of a save that was killed; the next one replaces it
                name.replace_extension();
            EXPECT_NE(std::ranges::find(kNames, name.wstring()), kNames.end()) << entry.path();
        }
    }
    std::cout << kills << " kills, " << progress->commits << " commits; in the midst of those of";
    for (std::size_t i = 0; i < kDocuments; ++i)
        std::cout << ' ' << std::filesystem::path(kNames[i]) << ' ' << unfinished[i];
    std::cout << '\n';
    testing::Test::RecordProperty("kills", static_cast<int>(kills));
}

} // namespace
