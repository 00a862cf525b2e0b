// Items packed by several threads: the bytes are the same whoever packs, no fault of a thread is one of the
// archive, and memory has its bounds.

#include "archive/engine.h"
#include "archive/pack_ahead.h"
#include "archive/packing_order.h"
#include "archive/update_step.h"
#include "base/com_pointer.h"
#include "base/platform.h"
#include "support/archive_file.h"
#include "support/fault_sweep.h"
#include "support/log_capture.h"
#include "support/platform_guard.h"
#include "support/streams.h"

#include <vexel/memory_streams.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

using namespace Vexel::Storage;
using namespace Vexel::Storage::Engine;
using namespace Support;
using namespace Vexel::Detail;

namespace {

constexpr unsigned kNumbers[] = {1, 4}; ///< of threads
constexpr std::size_t kMiB = std::size_t{1} << 20;

/// The threads and the memory that the library takes from the system.
struct Watch {
    std::mutex lock;
    std::map<void*, std::size_t> blocks;
    std::size_t live = 0, peak = 0;
    std::atomic<unsigned> started{0}, running{0};
    int left = -1; ///< allocations that do not fail; or any number
    bool refusesThreads = false;

    bool fails() {
        const std::lock_guard guard(lock);
        if (left < 0)
            return false;
        --left;
        return left < 0;
    }
    void* note(void* block, std::size_t size) {
        const std::lock_guard guard(lock);
        blocks[block] = size;
        live += size;
        peak = (std::max)(peak, live);
        return block;
    }
    void forget(void* block) {
        const std::lock_guard guard(lock);
        if (const auto found = blocks.find(block); found != blocks.end()) {
            live -= found->second;
            blocks.erase(found);
        }
    }
};
Watch* watch = nullptr;
const Platform kReal = platform();

void* allocate(void* block, unsigned long long size) noexcept {
    if (block)
        return kReal.reallocate(block, size);
    return watch->fails() ? nullptr : watch->note(kReal.reallocate(nullptr, size), size);
}
void release(void* block) noexcept {
    watch->forget(block);
    kReal.freeMemory(block);
}
void* commit(unsigned long long size) noexcept {
    return watch->fails() ? nullptr : watch->note(kReal.commitPages(size), size);
}
void decommit(void* pages) noexcept {
    watch->forget(pages);
    kReal.releasePages(pages);
}
std::thread startWatched(const std::function<void()>& body) {
    if (watch->refusesThreads)
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    ++watch->started;
    return kReal.startThread([body] {
        ++watch->running;
        body();
        --watch->running;
    });
}

class Packing : public testing::Test {
protected:
    static void SetUpTestSuite() { start(); }
    void SetUp() override {
        watch = &watch_;
        platform().reallocate = allocate;
        platform().freeMemory = release;
        platform().commitPages = commit;
        platform().releasePages = decommit;
        platform().startThread = startWatched;
    }

    void add(const std::wstring& name, ComPtr<::IStream> contents, std::uint64_t size) {
        UpdateEntry& entry = entries_.emplace_back();
        entry.name = name.c_str();
        entry.size = size;
        entry.hasNewData = true;
        entry.contents = std::move(contents);
    }
    void add(const std::wstring& name, const std::string& bytes) {
        add(name, adopt<::IStream>(new FaultyStream(bytes)), bytes.size());
    }
    void addMany(unsigned count, std::size_t size) {
        const std::string bytes = noise(size + count);
        for (unsigned i = 0; i < count; ++i)
            add(std::to_wstring(1000 + i), bytes.substr(i, size));
    }
    HRESULT write(std::string& file, unsigned threads, const FaultyStream::Plan& plan = {}) const {
        const auto stream = adopt(new FaultyStream);
        *stream->plan = plan;
        const auto output = adopt(new PassThroughOutStream(stream.Get()));
        const HRESULT status = writeArchive(entries_, nullptr, output.Get(), L"x", threads);
        EXPECT_EQ(watch_.running, 0U) << "threads are left";
        *stream->plan = {};
        file = Support::bytesOf(stream.Get());
        return status;
    }
    std::string written(unsigned threads) const {
        std::string file;
        EXPECT_EQ(write(file, threads), S_OK);
        return file;
    }
    /// What the archive unpacks to. Sizes and checksums are compared.
    static std::map<std::wstring, std::string> contentsOf(const std::string& file) {
        SZipArchive archive(Support::streamOf(file).Get());
        EXPECT_EQ(archive.reload(), S_OK);
        return Support::statesOf(archive);
    }

    PlatformGuard platform_;
    LogCapture log_;
    Watch watch_;
    std::vector<UpdateEntry> entries_;
};

TEST_F(Packing, WritesTheSameFileWithAnyNumberOfThreads) {
    std::map<std::wstring, std::string> expected;
    unsigned number = 0;
    for (const std::size_t size : {1U, 2U, 2048U, 3000U, 102'400U, 0xFFFFFU, 0x100000U, 5'000'000U}) {
        std::string text(size, ' ');
        for (std::size_t i = 0; i < size; ++i)
            text[i] = static_cast<char>('a' + i * i / 37 % 19 + i % 3);
        for (const std::string& bytes : {text, std::string(size, '\0'), noise((std::min)(size, kMiB - 1))})
            expected[std::to_wstring(number++ * 7919 % 100)] = bytes;
    }
    for (const auto& [name, bytes] : expected)
        add(name, bytes);
    const std::string one = written(1);
    EXPECT_EQ(watch_.started, 0U);
    EXPECT_TRUE(contentsOf(one) == expected);
    for (const unsigned threads : {2U, 4U, 8U, 128U}) {
        watch_.started = 0;
        EXPECT_TRUE(written(threads) == one) << threads;
        EXPECT_EQ(watch_.started, (std::min)(threads - 1, 8U)) << "for their memory";
    }
}

// The engine puts some types first, and does not look at the case of names.
TEST_F(Packing, KnowsTheOrderOfTheEngine) {
    static std::vector<std::string> asked;
    struct Asked final : InMemoryIStream {
        std::string name;
        HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER to, DWORD origin, ULARGE_INTEGER* at) noexcept override {
            asked.push_back(name);
            return InMemoryIStream::Seek(to, origin, at);
        }
    };
    CObjectVector<NArchive::N7z::CUpdateItem> list;
    std::vector<PackAhead::Item> items;
    std::map<::IStream*, std::string> names;
    for (const char* name :
         {"b.txt", "a.xls", "B.7z", "z", "Y", "d/a", "d-a", "a.unknown", "C.TXT", "b.dll"}) {
        const auto stream = adopt(new Asked);
        stream->name = name;
        stream->write("12345", 5);
        items.push_back({static_cast<unsigned>(items.size()), stream.Get(), 5});
        names[stream.Get()] = name;
        add(std::wstring(name, name + std::strlen(name)), stream, 5);
        NArchive::N7z::CUpdateItem& item = list.AddNew();
        item.Name = entries_.back().name.GetString();
        item.Size = 5;
        item.IndexInArchive = -1;
        item.IsDir = item.IsAnti = false;
        item.NewData = item.NewProps = true;
    }
    putIntoPackingOrder(items, list);
    std::vector<std::string> known;
    for (const PackAhead::Item& item : items)
        known.push_back(names[item.contents]);
    asked.clear();
    written(1);
    EXPECT_EQ(known, asked);
}

// With the status that one thread would have met.
TEST_F(Packing, AnItemThatCannotBeReadEndsIt) {
    constexpr unsigned kCount = 40;
    addMany(kCount, 10'000);
    for (const unsigned index : {0U, kCount / 2, kCount - 1})
        for (const unsigned threads : kNumbers) {
            SCOPED_TRACE(testing::Message() << "item " << index << ", threads " << threads);
            const auto reading = adopt(new FaultyStream("x"));
            const auto seeking = adopt(new FaultyStream("x"));
            *reading->plan = {FaultyStream::Reading, STG_E_READFAULT, 0, true};
            *seeking->plan = {FaultyStream::Seeking, STG_E_SEEKERROR, 0, true};
            ComPtr<::IStream>& contents = entries_[index].contents;
            const ComPtr<::IStream> sound = contents;
            std::string file;
            contents = reading;
            EXPECT_EQ(write(file, threads), STG_E_READFAULT);
            contents = seeking;
            EXPECT_EQ(write(file, threads), STG_E_SEEKERROR);
            contents.Reset();
            EXPECT_EQ(write(file, threads), STG_E_INVALIDPARAMETER);
            contents = sound;
        }
    EXPECT_EQ(contentsOf(written(4)).size(), kCount);
}

// With the status of the output, wherever the threads are.
TEST_F(Packing, AnOutputThatFailsEndsIt) {
    struct Failure {
        FaultyStream::Call call;
        HRESULT status, expected;
        unsigned calls; ///< at least
    };
    addMany(40, 30'000);
    const std::string expected = written(1);
    for (const Failure& failure : {Failure{FaultyStream::Writing, STG_E_MEDIUMFULL, STG_E_MEDIUMFULL, 40},
                                   Failure{FaultyStream::Writing, S_FALSE, STG_E_WRITEFAULT, 40},
                                   Failure{FaultyStream::Seeking, STG_E_ACCESSDENIED, STG_E_ACCESSDENIED, 1},
                                   Failure{FaultyStream::Seeking, S_FALSE, STG_E_SEEKERROR, 1}}) {
        const auto attempt = [&](unsigned n) {
            SCOPED_TRACE(std::to_string(failure.call) + ", call " + std::to_string(n));
            std::string file;
            const HRESULT status = write(file, 1 + n % 4, {failure.call, failure.status, n, true});
            EXPECT_TRUE(status == S_OK ? file == expected : status == failure.expected) << std::hex << status;
            return status != S_OK;
        };
        EXPECT_GE(Support::sweepFaults(attempt), failure.calls);
    }
}

/// Whose bytes are others each time that it is read.
class ChangingStream final : public InMemoryIStream {
public:
    explicit ChangingStream(std::vector<std::string> versions) : versions_(std::move(versions)) {}
    HRESULT STDMETHODCALLTYPE Seek(LARGE_INTEGER /*to*/, DWORD /*origin*/,
                                   ULARGE_INTEGER* /*at*/) noexcept override {
        const std::string& bytes = versions_[(std::min)(next_++, versions_.size() - 1)];
        resize(0);
        rewind();
        write(bytes.data(), bytes.size());
        rewind();
        return S_OK;
    }

private:
    std::vector<std::string> versions_;
    std::size_t next_ = 0;
};

TEST_F(Packing, ContentsThatChangeMeanwhileAreAsTheEngineReadThem) {
    const std::string first = noise(50'000);
    const std::pair<const char*, std::string> changes[] = {{"other bytes", noise(50'001).substr(1)},
                                                           {"shorter", first.substr(0, 100)},
                                                           {"longer", first + first},
                                                           {"large", noise(2 * kMiB)},
                                                           {"just large", noise(kMiB)},
                                                           {"nothing", ""}};
    for (const unsigned threads : kNumbers)
        for (const auto& [name, changed] : changes) {
            SCOPED_TRACE(name + std::to_string(threads));
            entries_.clear();
            addMany(4, 50'000);
            // One thread reads it once, and two may.
            const unsigned versions = threads == 1 ? 1 : 2;
            std::vector<std::string> bytes(versions, first);
            bytes.back() = changed;
            add(L"9", adopt<::IStream>(new ChangingStream(bytes)), first.size());
            add(L"99", noise(50'000));
            const auto contents = contentsOf(written(threads));
            ASSERT_EQ(contents.size(), 6U);
            EXPECT_TRUE(contents.at(L"9") == changed ||
                        (threads > 1 && contents.at(L"9") == first)); // packed when the engine came to it
            EXPECT_EQ(contents.at(L"99"), noise(50'000));
        }
}

TEST_F(Packing, GoesOnAloneWithoutThreadsOrTheirMemory) {
    addMany(12, 20'000);
    const std::string expected = written(1);
    watch_.refusesThreads = true;
    EXPECT_TRUE(written(8) == expected);
    watch_.refusesThreads = false;
    Support::sweepFaults([&](unsigned n) {
        watch_.left = static_cast<int>(n);
        std::string file;
        const HRESULT status = write(file, 4);
        EXPECT_TRUE(status == S_OK ? file == expected : status == STG_E_INSUFFICIENTMEMORY)
            << n << ": " << std::hex << status;
        return std::exchange(watch_.left, -1) < 0;
    });
}

TEST_F(Packing, TakesNoMoreMemoryThanItsWindowAndAnEncoderForEachThread) {
    constexpr std::size_t kEncoder = 9 * kMiB;
    static std::size_t full;
    /// Takes nothing before the threads have packed as much as they may.
    struct SlowStream final : InMemoryIStream {
        HRESULT STDMETHODCALLTYPE Write(const void* from, ULONG size, ULONG* done) noexcept override {
            if (size < kMiB / 2)
                return InMemoryIStream::Write(from, size, done);
            std::size_t before = 0;
            for (unsigned i = 0; i < 60 && (watch->peak < full || watch->peak != before); ++i) {
                before = watch->peak;
                Sleep(700);
            }
            return STG_E_WRITEFAULT;
        }
    };
    addMany(40, kMiB - 60'000);
    for (const unsigned threads : {2U, 4U}) {
        watch_.peak = watch_.live = 0;
        watch_.blocks.clear();
        full = PackAhead::kWindow + threads * kEncoder / 2;
        {
            const auto output = adopt(new PassThroughOutStream(adopt(new SlowStream).Get()));
            EXPECT_EQ(writeArchive(entries_, nullptr, output.Get(), L"x", threads), STG_E_WRITEFAULT);
        }
        EXPECT_EQ(watch_.running, 0U);
        EXPECT_LE(watch_.peak, PackAhead::kWindow + threads * kEncoder);
        EXPECT_GE(watch_.peak, full) << "the window was not filled";
        EXPECT_EQ(watch_.live, 0U);
    }
}

} // namespace
