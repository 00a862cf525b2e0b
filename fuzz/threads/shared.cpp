// What several threads share, under ThreadSanitizer and with delays at each atomic step: the locks, the table
// of path names, the flags that are kept of them, the registry of temporary files, and packing ahead. Each is
// used by several threads at random for a while, and must be as it was at the end.

#include "archive/pack_ahead.h"
#include "base/rw_lock.h"
#include "base/spin_lock.h"
#include "fuzz/targets/input.h"

#include <vexel/memory_streams.h>
#include <vexel/path_name.h>
#include <vexel/temp_files.h>

#include <wrl/client.h>

#include <chrono>
#include <random>

using namespace Vexel::Detail;
using namespace Vexel::Storage::Engine;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;

namespace {

constexpr unsigned kThreads = 4;

using Random = std::minstd_rand;

/// On all threads until the time is over; returns how often it ran.
template <class Body>
std::uint64_t onThreads(double seconds, const Body& body) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    std::atomic<std::uint64_t> rounds{0};
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            Random random(i + 1);
            while (std::chrono::steady_clock::now() < end) {
                body(random);
                rounds.fetch_add(1);
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    return rounds.load();
}

std::uint64_t useRwLock(double seconds) {
    RwLockWord word{0};
    std::uint64_t data[2] = {0, 0};
    const std::uint64_t rounds = onThreads(seconds, [&](Random& random) {
        const auto mode = random() % 3 == 0 ? RwGuard::Exclusive : RwGuard::Shared;
        const auto change = [&] { data[1] = ++data[0]; };
        if (random() % 4 == 0) {
            const RwTryGuard guard(word, mode);
            if (guard && mode == RwGuard::Exclusive)
                change();
            return;
        }
        RwGuard guard(word, mode);
        REQUIRE(guard && data[0] == data[1]);
        const std::uint64_t before = data[0];
        if (mode == RwGuard::Shared && random() % 2 == 0)
            return;
        REQUIRE(!guard.upgrade() || data[0] == before);
        change();
    });
    REQUIRE(word.load() == 0 && data[0] == data[1]);
    return rounds;
}

std::uint64_t useSpinLock(double seconds) {
    std::atomic<std::uint32_t> word{0};
    std::uint64_t count = 0;
    const std::uint64_t rounds = onThreads(seconds, [&](Random&) {
        const SpinGuard guard(word);
        REQUIRE(static_cast<bool>(guard));
        ++count;
    });
    REQUIRE(count == rounds && word.load() == 0);
    return rounds;
}

SharedPathName nameOf(Random& random) {
    static constexpr const wchar_t* kTexts[] = {L"C:\\d\\a.txt", L"c:\\D\\A.TXT", L"C:\\d\\b.txt", L"rel\\x",
                                                L"REL\\X"};
    return {kTexts[random() % std::size(kTexts)], random() % 2 == 0, random() % 2 == 0};
}

std::uint64_t useNames(double seconds) {
    return onThreads(seconds, [&](Random& random) {
        const SharedPathName name = nameOf(random), other = name;
        REQUIRE(!name.empty() && name == other);
        int length = 0;
        name.fileName(&length);
        name.fileExtension(true, &length);
        REQUIRE(!name.getDirectory().empty());
        SharedPathName up = name.getDirectoryPathName();
        up = nameOf(random);
        REQUIRE(!name.isSubPath(name));
        if (random() % 4 == 0)
            up.changeExtension(L".new", false);
    });
}

std::uint64_t useFlags(double seconds) {
    const SharedPathName held(L"C:\\d\\held", true, true);
    const std::uint64_t rounds = onThreads(seconds, [&](Random& random) {
        const SharedPathNameFlagsCacheBlock block;
        const SharedPathName name = random() % 2 == 0 ? held : nameOf(random);
        REQUIRE(!name.fileExists());
        name.setUpToDate(random() % 2 == 0);
        name.isUpToDate();
        name.updateFileExists();
    });
    REQUIRE(!SharedPathNameFlagsCacheBlock::IsActive());
    REQUIRE(!held.isUpToDate());
    return rounds;
}

std::uint64_t useTempFiles(double seconds) {
    TempFileContainer& registry = TempFileContainer::Instance();
    const std::uint64_t rounds = onThreads(seconds, [&](Random& random) {
        const SharedPathName name = random() % 2 == 0 ? registry.insert(nullptr, L"tmp", false, false)
                                                      : registry.insert(nameOf(random), false, true);
        registry.contains(name);
        if (random() % 3 == 0)
            registry.release(name);
        else
            registry.erase(name);
        if (random() % 50 == 0)
            registry.clear();
    });
    registry.clearAll();
    return rounds;
}

std::uint64_t pack(double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    Random random(7);
    std::uint64_t rounds = 0;
    while (std::chrono::steady_clock::now() < end) {
        std::vector<ComPtr<InMemoryIStream>> contents;
        std::vector<PackAhead::Item> items;
        for (unsigned i = 0; i < 12; ++i) {
            std::vector<unsigned char> bytes(20000 + random() % 30000);
            for (unsigned char& byte : bytes)
                byte = static_cast<unsigned char>(random() >> 12 & 0x1F);
            ComPtr<InMemoryIStream> stream;
            *stream.GetAddressOf() = new InMemoryIStream();
            stream->write(bytes.data(), bytes.size());
            PackAhead::Item item{};
            item.index = i;
            item.contents = stream.Get();
            item.size = bytes.size();
            items.push_back(item);
            contents.push_back(std::move(stream));
        }
        // What comes out does not depend on who packs: it is the same as by one thread alone.
        CLzma2EncProps settings;
        Lzma2EncProps_Init(&settings);
        settings.numTotalThreads = 1;
        ItemEncoder alone(settings);
        PackAhead ahead(items, kThreads);
        ahead.configure(settings);
        // As the engine does it: it comes to each item in turn, reads it, and wants it packed. Now and then
        // it stops.
        const unsigned stopAt = random() % 3 == 0 ? static_cast<unsigned>(random() % 12) : 12;
        for (unsigned i = 0; i < stopAt; ++i) {
            ahead.reach(i);
            const auto size = static_cast<std::size_t>(items[i].size);
            std::memcpy(ahead.room(), contents[i]->data(0), size);
            std::span<const unsigned char> packed;
            REQUIRE(ahead.pack(size, packed) == S_OK);
            std::memcpy(alone.room(), contents[i]->data(0), size);
            REQUIRE(alone.pack(size, nullptr) == S_OK && std::ranges::equal(packed, alone.packed()));
        }
        ++rounds;
    }
    return rounds;
}

} // namespace

int main(int count, char** arguments) {
    const double seconds = count > 1 ? std::atof(arguments[1]) : 3;
    const struct {
        const char* name;
        std::uint64_t (*use)(double seconds);
    } all[] = {{"reader/writer lock", useRwLock}, {"spin lock", useSpinLock},        {"path names", useNames},
               {"kept flags", useFlags},          {"temporary files", useTempFiles}, {"packing ahead", pack}};
    for (const auto& [name, use] : all) {
        std::printf("%-20s %12llu rounds\n", name, static_cast<unsigned long long>(use(seconds)));
        std::fflush(stdout);
    }
    return 0;
}
