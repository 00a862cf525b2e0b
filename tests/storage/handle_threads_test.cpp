// Handles on shared roots from many threads: opened by path in every mode, made writable, read, written,
// listed, committed, copied and cleaned up at once. Whatever one thread does, the calls of the others succeed
// and deliver the right bytes.
//
// VEXEL_TEST_SECONDS sets how long it runs.

#include "support/storage_test.h"
#include "support/streams.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <thread>

using namespace Support;

namespace {

constexpr int kThreadCount = 8;

/// The same for the same name, and different at every place.
std::string pattern(std::wstring_view name, size_t size) {
    return noise(size + std::hash<std::wstring_view>()(name) % 1000).substr(0, size);
}

std::wstring numbered(const wchar_t* name, int number) { return name + std::to_wstring(number); }

std::chrono::seconds duration() {
    const char* const wanted = std::getenv("VEXEL_TEST_SECONDS");
    return std::chrono::seconds(wanted ? std::strtol(wanted, nullptr, 10) : 3);
}

class Threads : public StorageTest<testing::TestWithParam<StorageFormat>> {
protected:
    static constexpr size_t kNoteSize = 9000;

    void SetUp() override {
        std::vector<Element> elements;
        for (int i = 0; i < kThreadCount; ++i) {
            const std::wstring box = numbered(L"Box", i);
            elements.push_back({box + L"/Note", pattern(box, kNoteSize)});
            elements.push_back({numbered(L"Work", i) + L"/Own", "none yet"});
        }
        for (const wchar_t* const file : kFiles)
            writeDocument(folder_.file(file), GetParam(), elements);
    }
    void TearDown() override {
        EXPECT_EQ(failures_, 0) << what_;
        container().deleteUnusedObjects();
        EXPECT_FALSE(container().deleteUnusedObjects()) << "nothing is left";
        EXPECT_TRUE(isSoon([] { return leftovers() == 0; }));
    }

    /// Temporary files of this process.
    static int leftovers() {
        const std::wstring mark = L"-18-" + std::to_wstring(GetCurrentProcessId());
        int count = 0;
        for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::temp_directory_path()))
            count += entry.path().filename().wstring().find(mark) != std::wstring::npos;
        return count;
    }

    /// Notes what should have succeeded.
    bool check(bool succeeded, const char* what, long status = 0) {
        if (!succeeded && failures_++ < 10) {
            const std::lock_guard lock(mutex_);
            what_ += what + (": " + std::to_string(status)) + "\n";
        }
        return succeeded;
    }
    bool check(long status, const char* what) { return check(SUCCEEDED(status), what, status); }

    SharedPathName file(const wchar_t* name) const { return path(folder_.file(name)); }

    // What the threads do. `number` is the thread's own part of the file.

    /// Piece by piece, so that others come in between.
    void readNote(const StorageRef& root, int number) {
        const std::wstring name = numbered(L"Box", number);
        StorageRef box;
        StreamRef note;
        if (!check(box.open(element(name), root, true), "open a storage") ||
            !check(note.open(L"Note", box, true), "open a stream"))
            return;
        const std::string expected = pattern(name, kNoteSize);
        std::array<char, 1000> piece{};
        for (size_t at = 0; at < kNoteSize; at += piece.size()) {
            if (!check(note.ReadBytes(piece.data(), piece.size()) == piece.size(), "read a piece") ||
                !check(expected.compare(at, piece.size(), piece.data(), piece.size()) == 0, "compare it"))
                return;
            if (at % 3000 == 0)
                std::this_thread::yield();
        }
        check(note.size() == kNoteSize, "ask for the size");
    }
    void rewrite(const StorageRef& root, int number, int edition) {
        StorageRef work;
        StreamRef own;
        const std::string bytes = pattern(std::to_wstring(edition), 2000);
        if (!check(work.open(element(numbered(L"Work", number)), root, false), "open for writing") ||
            !check(own.create(L"Own", work), "make a stream"))
            return;
        // In two parts: a save in between has to leave the second to the next one.
        check(own.WriteBytes(bytes.data(), 300) == 300, "write");
        std::this_thread::yield();
        check(own.WriteBytes(bytes.data() + 300, bytes.size() - 300) == bytes.size() - 300, "write on");
        own.close();
        check(work.commit(), "commit a storage");
        check(root.commit(), "commit the root");
        check(read(L"Own", work) == bytes, "read what was written");
        editions_[static_cast<size_t>(number)] = edition;
    }
    /// What is in the file, when nobody has it open.
    void readEditions() {
        container().clearAll();
        const StorageRef root = openRoot(file(kFiles[0]), modeRead);
        for (int i = 0; i < kThreadCount; ++i)
            if (const auto edition = editions_[static_cast<size_t>(i)])
                check(read(L"Own", openStorage(numbered(L"Work", i), root)) ==
                          pattern(std::to_wstring(*edition), 2000),
                      "read what was saved");
    }
    void list(const StorageRef& root) {
        StorageEnumerator child;
        if (!check(child.reset(root), "list"))
            return;
        int count = 0;
        while (child.moveNext()) {
            ++count;
            check(root.hasChild(child.name(), child.type()), "find a child");
            std::this_thread::yield();
        }
        check(count >= 2 * kThreadCount && child.status() == S_FALSE, "list all", child.status());
    }
    void copyInto(const StorageRef& from, const StorageRef& to, int number) {
        const SharedPathName name = element(numbered(L"Box", number));
        StorageRef source, target;
        if (check(source.open(name, from, true), "open a source") &&
            check(target.open(name, to, false), "open a target") &&
            check(source.copyTo(target), "copy a storage"))
            check(read(L"Note", target) == pattern(name.asString(), kNoteSize), "read the copy");
    }
    /// A document of the thread's own, which takes a shared one over.
    void copyWhole(const StorageRef& from, int number) {
        StorageRef target;
        if (!check(target.create(path(folder_.file(numbered(L"own", number)))), "make a package") ||
            !check(from.copyTo(target), "copy a document"))
            return;
        check(target.commit(), "commit a copy");
        readNote(target, number);
    }

    void work(int number, unsigned random) {
        const auto next = [&] { return (random = random * 1664525 + 1013904223) >> 24; };
        for (int i = 0; i < 6; ++i) {
            StorageRef changed, still, other;
            const bool writes = next() % 3 == 0;
            if (!check(changed.open(file(kFiles[0]), writes ? modeWrite : modeReadDenyWrite, false),
                       "open") ||
                !check(still.open(file(kFiles[1]), next() % 2 ? modeRead : modeReadDenyWrite, false),
                       "open for reading"))
                return;
            readNote(changed, number);
            list(next() % 2 ? still : changed);
            if (writes)
                rewrite(changed, number, i);
            readNote(still, number);
            const unsigned what = next() % 4;
            if (what == 0 && check(other.open(file(kFiles[4]), modeRead, false), "open a source"))
                copyWhole(other, number);
            if (what == 1 && check(changed.open(file(kFiles[2]), modeWrite, false), "open to copy") &&
                check(other.open(file(kFiles[3]), modeWrite, false), "open to copy"))
                number % 2 ? copyInto(changed, other, number) : copyInto(other, changed, number);
            if (what == 2)
                container().deleteUnusedObjects();
            if (what == 3)
                still.deleteUnusedObjects();
        }
    }

    static constexpr std::array kFiles{L"changed", L"still", L"a", L"b", L"source"};
    std::mutex mutex_;
    std::string what_;
    std::atomic<int> failures_{0};
    std::array<std::optional<int>, kThreadCount> editions_; ///< each thread's last one
};

TEST_P(Threads, ShareRoots) {
    const auto end = std::chrono::steady_clock::now() + duration();
    for (unsigned round = 0; failures_ == 0 && std::chrono::steady_clock::now() < end; ++round) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreadCount; ++i)
            threads.emplace_back([=, this] { work(i, round * 977 + static_cast<unsigned>(i) * 31); });
        for (std::thread& thread : threads)
            thread.join();
        if (round % 2 == 0)
            container().deleteUnusedObjects(); // so that the next ones open the files for reading again
        else
            readEditions();
    }
}

INSTANTIATE_TEST_SUITE_P(Both, Threads, testing::Values(StorageFormat::CompoundFile, StorageFormat::Package),
                         [](const auto& format) {
                             return format.param == StorageFormat::Package ? "Package" : "Compound";
                         });

} // namespace
