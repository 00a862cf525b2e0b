// Handles on shared roots from many threads: opened by path in every mode, made writable, read, written,
// listed, committed, copied and cleaned up at once. Whatever one thread does, the calls of the others succeed
// and deliver the right bytes. Then the same kinds of calls while memory and file handles run out at random:
// they fail for want of those and of nothing else, no document loses what was committed, and in the end
// everything is given back.
//
// VEXEL_TEST_SECONDS sets how long each of the two runs, for each format.

#include "base/status_guard.h"
#include "support/fault_driver.h"
#include "support/storage_test.h"
#include "support/streams.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <optional>
#include <random>
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

/// Memory and file handles that run out now and then, on threads that work.
class Scarcity {
public:
    static inline std::atomic<unsigned> shortages{0};

    Scarcity() {
        Vexel::Detail::Platform& calls = Vexel::Detail::platform();
        real = calls;
        calls.createFile = [](auto... arguments) -> HANDLE {
            if (!strikes())
                return real.createFile(arguments...);
            SetLastError(ERROR_TOO_MANY_OPEN_FILES);
            return INVALID_HANDLE_VALUE;
        };
        calls.openStorage = [](auto... arguments) -> HRESULT {
            return strikes() ? STG_E_TOOMANYOPENFILES : real.openStorage(arguments...);
        };
        calls.reallocate = [](void* block, unsigned long long bytes) noexcept {
            return strikes() ? nullptr : real.reallocate(block, bytes);
        };
        calls.commitPages = [](unsigned long long bytes) noexcept {
            return strikes() ? nullptr : real.commitPages(bytes);
        };
    }
    Scarcity(const Scarcity&) = delete;
    Scarcity& operator=(const Scarcity&) = delete;
    ~Scarcity() {
        FailAllocationsElsewhere(0);
        Vexel::Detail::platform() = real;
    }

private:
    static bool strikes() {
        thread_local std::minstd_rand random(GetCurrentThreadId());
        if (random() % 20 == 0)
            FailAllocationsElsewhere(1); // operator new's next one, whose thread ever that is
        return random() % 25 == 0 && ++shortages > 0;
    }
    static inline Vexel::Detail::Platform real;
};

class ScarceThreads : public Threads {
protected:
    /// A thread's own document: how often it was committed, its newest edition, and what its stream may hold.
    /// What was not committed stays with the root while a neighbour copies, and goes with it otherwise.
    struct Own {
        int commits = 0, edition = 0;
        std::vector<std::string> possible;

        bool mayBe(const std::string& bytes) const {
            return std::ranges::find(possible, bytes) != possible.end();
        }
    };

    static std::string contentsOf(int number, int edition) {
        return std::to_string(edition) + ' ' +
               pattern(std::to_wstring(number * 1000 + edition % 997),
                       3000 + static_cast<size_t>(edition) % 100);
    }
    /// Of some edition, or of one that is just being written.
    static bool isAnEdition(int number, const std::string& bytes) {
        return contentsOf(number, static_cast<int>(std::strtol(bytes.c_str(), nullptr, 10)))
            .starts_with(bytes);
    }
    const SharedPathName& own(int number) const { return own_[static_cast<size_t>(number)]; }

    /// S_OK, or why something was not done; what is wrong otherwise is noted.
    long expect(long status, const char* what) {
        static constexpr long kWants[] = {STG_E_TOOMANYOPENFILES, STG_E_INSUFFICIENTMEMORY,
                                          HRESULT_FROM_WIN32(ERROR_TOO_MANY_OPEN_FILES),
                                          HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY),
                                          STG_E_REVERTED}; // an element whose replacement failed
        check(status == S_OK || std::ranges::find(kWants, status) != std::end(kWants), what, status);
        return status;
    }
    /// The contents of a stream; nothing if they cannot be had.
    std::optional<std::string> contentsIn(const StorageRef& root, const std::wstring& storage = L"Work",
                                          const wchar_t* name = L"Own") {
        StorageRef work;
        StreamRef stream;
        if (expect(work.open(element(storage), root, true), "open a storage") != S_OK ||
            expect(stream.open(element(name), work, true), "open a stream") != S_OK)
            return std::nullopt;
        std::string bytes(kNoteSize + 1, '\0');
        unsigned long done = 0;
        if (expect(stream.read(bytes.data(), kNoteSize + 1, &done), "read") != S_OK)
            return std::nullopt;
        bytes.resize(done);
        return bytes;
    }
    void verify(const StorageRef& root, const Own& own) {
        const auto bytes = contentsIn(root);
        check(!bytes || own.mayBe(*bytes), "a document is as it was committed");
    }
    void rewriteOwn(int number, Own& own, bool upgrades) {
        StorageRef root, work;
        if (expect(root.open(this->own(number), upgrades ? modeReadDenyWrite : modeWrite, false), "open") !=
            S_OK)
            return;
        verify(root, own);
        if (expect(work.open(L"Work", root, false), "open for writing") != S_OK)
            return;
        const std::string bytes = contentsOf(number, ++own.edition);
        std::string part = bytes;
        StreamRef stream;
        own.possible.reserve(own.possible.size() + 3); // memory may end at any moment
        own.possible.insert(own.possible.end(), {"", bytes});
        if (expect(stream.create(L"Own", work), "make a stream") != S_OK)
            return;
        unsigned long done = 0;
        const auto size = static_cast<unsigned long>(bytes.size());
        const long status = expect(stream.write(bytes.data(), size, &done), "write");
        stream.close();
        part.resize(done);
        own.possible.push_back(std::move(part));
        if (status == S_OK && expect(work.commit(), "commit a storage") == S_OK &&
            expect(root.commit(), "commit") == S_OK) {
            own.possible = {bytes};
            ++own.commits;
        }
    }
    void copyShared(int number) {
        StorageRef source, target;
        if (expect(source.open(source_, modeRead, false), "open a source") == S_OK &&
            expect(target.create(copy_[static_cast<size_t>(number)]), "make a package") == S_OK &&
            expect(source.copyTo(target), "copy") == S_OK &&
            expect(target.commit(), "commit a copy") == S_OK) {
            const std::wstring box = numbered(L"Box", number);
            const auto bytes = contentsIn(target, box, L"Note");
            check(!bytes || *bytes == pattern(box, kNoteSize), "compare the copy");
        }
    }
    /// Takes over what a neighbour has, who may be at work on it: some edition, but a whole one.
    void copyNeighbours(int number) {
        const int neighbour = (number + 1) % kThreadCount;
        StorageRef from, root, source, target;
        if (expect(from.open(own(neighbour), modeReadDenyWrite, false), "open a neighbour's") != S_OK ||
            expect(root.open(own(number), modeWrite, false), "open") != S_OK ||
            expect(source.open(L"Work", from, true), "open a source") != S_OK ||
            expect(target.create(L"Taken", root, true), "make a storage") != S_OK)
            return;
        const long copied = source.copyTo(target);
        if (copied == STG_E_INVALIDPARAMETER || // a storage cannot be opened
            expect(copied, "copy between documents") != S_OK)
            return;
        if (expect(target.commit(), "commit what was taken") == S_OK &&
            expect(root.commit(), "commit") == S_OK)
            ++copies_;
    }
    /// The storage is made first and the stream comes with the copy, which may have failed.
    void verifyTaken(const StorageRef& root, int number) {
        StorageRef taken;
        if (expect(taken.open(L"Taken", root, true), "open what was taken") != S_OK ||
            !taken.hasChild(element(L"Own"), StorageType::Stream))
            return;
        const auto bytes = contentsIn(root, L"Taken");
        check(!bytes || isAnEdition((number + 1) % kThreadCount, *bytes), "what was taken is whole");
    }
    void readOwn(int number, const Own& own) {
        StorageRef root;
        if (expect(root.open(this->own(number), modeReadDenyWrite, false), "open") != S_OK)
            return;
        verify(root, own);
        verifyTaken(root, number);
    }
    void step(unsigned what, int number, Own& own) {
        Vexel::Detail::withStatus([&]() -> long {
            if (what < 4)
                rewriteOwn(number, own, what % 2 != 0);
            else if (what == 4)
                readOwn(number, own);
            else if (what == 5)
                copyShared(number);
            else
                copyNeighbours(number);
            return S_OK;
        });
        dropUnused();
    }
    static void dropUnused() {
        while (Vexel::Detail::withStatus([] { return container().deleteUnusedObjects(), S_OK; }) != S_OK)
            ;
    }

    SharedPathName source_ = file(kFiles[4]);
    std::array<SharedPathName, kThreadCount> own_, copy_;
    std::atomic<int> copies_{0}; ///< between documents of different threads
};

TEST_P(ScarceThreads, LoseNothing) {
    std::array<Own, kThreadCount> all;
    for (int i = 0; i < kThreadCount; ++i) {
        const auto at = static_cast<size_t>(i);
        own_[at] = file(numbered(L"own", i).c_str());
        copy_[at] = file(numbered(L"copy", i).c_str());
        all[at].possible = {contentsOf(i, 0)};
        writeDocument(
            folder_.file(numbered(L"own", i)), GetParam(),
            {{L"Work/Own", contentsOf(i, 0)}, {L"Taken/Own", contentsOf((i + 1) % kThreadCount, 0)}});
    }
    const auto run = [&](auto end) {
        std::vector<std::thread> threads;
        for (int i = 0; i < kThreadCount; ++i)
            threads.emplace_back([&, i] {
                for (unsigned random = static_cast<unsigned>(i) + 1; failures_ == 0 && !end();)
                    step((random = random * 1664525 + 1013904223) >> 29, i, all[static_cast<size_t>(i)]);
            });
        for (std::thread& thread : threads)
            thread.join();
        dropUnused();
    };
    std::atomic<int> warmUp = 100;
    run([&] { return --warmUp < 0; });
    const unsigned handles = openHandles();
    const std::ptrdiff_t memory = LiveAllocations();
    const VxLogSink sink = VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr, nullptr);
    {
        const Scarcity scarcity;
        const auto last = std::chrono::steady_clock::now() + duration();
        run([&] { return std::chrono::steady_clock::now() >= last; });
    }
    VxLog_SetSink(sink, &log_);
    int commits = 0;
    for (int i = 0; i < kThreadCount; ++i) {
        const Own& own = all[static_cast<size_t>(i)];
        const StorageRef root = openRoot(this->own(i), modeRead);
        EXPECT_TRUE(own.mayBe(read(L"Own", openStorage(L"Work", root)))) << i;
        verifyTaken(root, i);
        commits += own.commits;
    }
    dropUnused();
    std::cout << Scarcity::shortages << " shortages, " << commits << " commits, " << copies_ << " copies\n";
    EXPECT_GT(commits, 0);
    EXPECT_GT(copies_, 0);
    EXPECT_LE(openHandles(), handles + 8);
    // When memory ends within a copy of one of the engine's lists, the engine loses what it has copied of it.
    EXPECT_LE(LiveAllocations(), memory + 100 + static_cast<std::ptrdiff_t>(Scarcity::shortages) / 200);
}

INSTANTIATE_TEST_SUITE_P(Both, ScarceThreads,
                         testing::Values(StorageFormat::CompoundFile, StorageFormat::Package),
                         [](const auto& format) {
                             return format.param == StorageFormat::Package ? "Package" : "Compound";
                         });

INSTANTIATE_TEST_SUITE_P(Both, Threads, testing::Values(StorageFormat::CompoundFile, StorageFormat::Package),
                         [](const auto& format) {
                             return format.param == StorageFormat::Package ? "Package" : "Compound";
                         });

} // namespace
