// Reads all streams of a document on several threads, and shows that each got the right bytes.
//
//   several_threads.exe DOCUMENT
//
// The rules: a handle belongs to one thread at a time; threads may have handles on one document, and each
// call has the document for itself while it runs; the position in a stream is common to all handles on it.
#include <vexel/copying.h>
#include <vexel/framework.h>
#include <vexel/hash.h>
#include <vexel/storage.h>

#include <windows.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <thread>
#include <vector>

namespace {

constexpr int kThreads = 4;

using Path = std::vector<SharedPathName>;

// Takes down the paths of all streams. Names can be copied from thread to thread.
class List : public Vexel::TreeObserver {
public:
    bool onNode(const Vexel::TreeNode& node) override {
        if (node.type == StorageType::Stream)
            streams.emplace_back(node.path.begin(), node.path.end());
        return true;
    }
    std::vector<Path> streams;
};

// One reader's view of the document. Each thread has one of its own.
class Reader {
public:
    // All who open the same path share one open document, and it stays open for as long as one of them is
    // there.
    explicit Reader(const SharedPathName& path)
        : status_(document_.open(path, RootStorageOpenMode::ReadOnly, false)) {}
    long status() const { return status_; }
    const StorageRef& document() const { return document_; }

    // The hash of a stream's contents; none where they cannot be read.
    std::optional<std::uint64_t> hash(const Path& path) const {
        StorageRef parent = document_;
        for (std::size_t level = 0; level + 1 < path.size(); ++level)
            if (parent.open(path[level], parent, true) != S_OK)
                return std::nullopt;
        StreamRef stream;
        if (stream.open(path.back(), parent, true) != S_OK)
            return std::nullopt;
        // Piece by piece, each hashed with what came before it for a seed: how long a stream is, its document
        // says, and that may be damaged.
        std::array<char, 65536> piece = {};
        std::uint64_t first = 0;
        std::uint64_t second = 0;
        for (unsigned long long left = stream.size(); left > 0;) {
            const std::size_t count = stream.ReadBytes(piece.data(), piece.size());
            if (count == 0)
                return std::nullopt;
            Vexel::Hash::SpookyV2_128(piece.data(), count, first, second);
            left -= (std::min<unsigned long long>)(left, count);
        }
        return first;
    }

private:
    StorageRef document_;
    long status_;
};

// No two threads read one stream at the same time: they would move each other's position.
std::vector<std::optional<std::uint64_t>> hashOnThreads(const SharedPathName& path,
                                                        const std::vector<Path>& streams) {
    std::vector<std::optional<std::uint64_t>> hashes(streams.size());
    std::atomic<std::size_t> next{0};
    std::array<std::thread, kThreads> threads;
    for (std::thread& thread : threads)
        thread = std::thread([&] {
            const Reader reader(path);
            for (std::size_t index = next++; index < streams.size(); index = next++)
                hashes[index] = reader.hash(streams[index]);
        });
    for (std::thread& thread : threads)
        thread.join();
    return hashes;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 2) {
        std::printf("usage: several_threads DOCUMENT\n");
        return 2;
    }
    const SharedPathName path(arguments[1], false, false);
    const Reader alone(path);
    List list;
    if (alone.status() != S_OK || Vexel::walkTree(alone.document(), list) != S_OK) {
        std::printf("cannot list the document: 0x%08lx\n", static_cast<unsigned long>(alone.status()));
        return 1;
    }

    const auto hashes = hashOnThreads(path, list.streams);
    std::size_t same = 0;
    for (std::size_t index = 0; index < hashes.size(); ++index)
        same += hashes[index] && hashes[index] == alone.hash(list.streams[index]) ? 1 : 0;
    std::printf("%d of %d streams are the same on %d threads\n", static_cast<int>(same),
                static_cast<int>(hashes.size()), kThreads);
    return same == hashes.size() ? 0 : 1;
}
