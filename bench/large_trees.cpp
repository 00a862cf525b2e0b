// Whether an item costs as much in a large tree as in a small one: listing, copying and removing trees of
// 100,000 items, against the same done to trees of 1,000 items until there were as many; and trees of 3,000
// storages inside one another against those of 1,000. Nothing but memory takes part, so processor time is
// what counts. Both sides share one heap, which under Wine serves small blocks slowly once large trees have
// been freed: that hits the peer, with its many small trees, more. How cost grows in processes of their own
// is what `bench_curves` tells.

#include "archive/szip_storage.h"
#include "support/archives.h"
#include "support/ratio.h"

#include <vexel/copying.h>
#include <vexel/storage.h>

#include <string>
#include <vector>

using namespace Vexel::Bench;

namespace {

constexpr unsigned kMany = 100'000;
constexpr unsigned kFew = 1000;
constexpr double kGrowth = 1.3;
/// The text of a path grows as its depth does, and each item has one.
constexpr double kGrowthOfPaths = 3;
constexpr unsigned kDepth = 3000;
constexpr unsigned kSmallDepth = 1000;

struct Shape {
    const char* name;
    unsigned storages; ///< in the root; 0 where the streams are there
    unsigned streams;  ///< in each storage
};

void addStreams(const StorageRef& storage, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        StreamRef stream;
        require(stream.create((L"Stream " + std::to_wstring(i)).c_str(), storage));
        check(stream.WriteBytes(&i, sizeof i) == sizeof i);
    }
}

void cleanUp() { StorageContainer::Instance().deleteUnusedObjects(); }

/// A package in memory.
StorageRef packageOf(const Shape& shape) {
    StorageRef root;
    require(root.createTemporary(false));
    if (shape.storages == 0)
        addStreams(root, shape.streams);
    for (unsigned i = 0; i < shape.storages; ++i) {
        StorageRef storage;
        require(storage.create((L"Storage " + std::to_wstring(i)).c_str(), root, false));
        addStreams(storage, shape.streams);
    }
    cleanUp();
    return root;
}

StorageRef copyOf(const StorageRef& root) {
    StorageRef copy;
    require(copy.createTemporary(false));
    require(root.copyTo(copy));
    return copy;
}

/// With each storage opened.
unsigned list(const StorageRef& storage) { // NOLINT(misc-no-recursion): two storages deep
    unsigned count = 0;
    StorageEnumerator child;
    require(child.reset(storage));
    while (child.moveNext()) {
        ++count;
        if (child.type() != StorageType::Storage)
            continue;
        StorageRef inner;
        require(inner.open(child.name(), storage, true));
        count += list(inner);
    }
    return count;
}

void removeEach(StorageRef& root) {
    StorageEnumerator child;
    require(child.reset(root));
    while (child.moveNext())
        require(root.destroy(child.name()));
}

// Trees whose depth handles do not lead to, by the interfaces.

ComPtr<IStorage> newPackage() {
    return Vexel::Detail::make<SZipStorage>(
        CString(), std::make_shared<SZipArchive>(std::wstring_view(), false, true), DWORD{STGM_READWRITE});
}

constexpr const wchar_t* kInner = L"Storage";
constexpr DWORD kWhole = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;

ComPtr<IStorage> chainOf(unsigned depth) {
    const ComPtr<IStorage> root = newPackage();
    ComPtr<IStorage> storage = root;
    for (unsigned i = 0; i < depth; ++i) {
        ComPtr<IStorage> inner;
        require(storage->CreateStorage(kInner, kWhole, 0, 0, &inner));
        storage = inner;
    }
    return root;
}

unsigned listChain(const ComPtr<IStorage>& root) {
    unsigned count = 0;
    for (ComPtr<IStorage> storage = root; storage; ++count) {
        ComPtr<IEnumSTATSTG> children;
        require(storage->EnumElements(0, nullptr, 0, &children));
        STATSTG child{};
        if (children->Next(1, &child, nullptr) != S_OK)
            break;
        ComPtr<IStorage> inner;
        require(storage->OpenStorage(child.pwcsName, nullptr, kWhole, nullptr, 0, &inner));
        CoTaskMemFree(child.pwcsName);
        storage = inner;
    }
    return count;
}

/// Does it to each of the trees.
template <class Tree, class Action>
Function forEach(const std::vector<Tree>& trees, Action action) {
    return [&trees, action](benchmark::State& state) {
        for (auto _ : state)
            for (const Tree& tree : trees)
                action(state, tree);
    };
}

template <class Tree, class Action>
void compare(Suite& suite, const std::string& name, double limit, const std::vector<Tree>& large,
             const std::vector<Tree>& small, Action action) {
    suite.compare(name, limit, forEach(large, action), forEach(small, action), Clock::Processor);
}

/// What comes after the part that is measured.
template <class Action>
void aside(benchmark::State& state, Action action) {
    state.PauseTiming();
    action();
    state.ResumeTiming();
}

using Packages = std::vector<StorageRef>;
using Chains = std::vector<ComPtr<IStorage>>;

void compareTrees(Suite& suite, const Shape& large, const Packages& many, const Packages& few) {
    const std::string what = std::string(" 100,000 items, ") + large.name;
    compare(suite, "list" + what, kGrowth, many, few, [](auto& state, const StorageRef& root) {
        check(list(root) >= kFew);
        aside(state, cleanUp);
    });
    compare(suite, "copy" + what, kGrowth, many, few, [](auto& state, const StorageRef& root) {
        StorageRef copy = copyOf(root);
        aside(state, [&] {
            copy.close();
            cleanUp();
        });
    });
    compare(suite, "copy one by one" + what, kGrowth, many, few, [](auto& state, const StorageRef& root) {
        Vexel::TreeObserver observer;
        StorageRef copy;
        require(copy.createTemporary(false));
        require(Vexel::copyTree(root, copy, &observer));
        aside(state, [&] {
            copy.close();
            cleanUp();
        });
    });
    compare(suite, "remove" + what, kGrowth, many, few, [](auto& state, const StorageRef& root) {
        StorageRef copy;
        aside(state, [&] { copy = copyOf(root); });
        removeEach(copy);
        aside(state, [&] {
            copy.close();
            cleanUp();
        });
    });
}

void compareChains(Suite& suite, const Chains& large, const Chains& small) {
    const std::string what = " 3,000 storages inside one another";
    compare(suite, "list" + what, kGrowthOfPaths, large, small,
            [](auto&, const auto& root) { check(listChain(root) >= kSmallDepth); });
    compare(suite, "copy" + what, kGrowthOfPaths, large, small, [](auto& state, const auto& root) {
        ComPtr<IStorage> target = newPackage();
        require(root->CopyTo(0, nullptr, nullptr, target.Get()));
        aside(state, [&] { target.Reset(); });
    });
    compare(suite, "remove" + what, kGrowthOfPaths, large, small, [](auto& state, const auto& root) {
        const ComPtr<IStorage> target = newPackage();
        aside(state, [&] { require(root->CopyTo(0, nullptr, nullptr, target.Get())); });
        require(target->DestroyElement(kInner));
    });
}

} // namespace

int main(int argc, char** argv) {
    start();
    Suite suite;
    constexpr Shape kShapes[][2] = {{{"streams in one storage", 0, kMany}, {"", 0, kFew}},
                                    {{"storages in one storage", kMany, 0}, {"", kFew, 0}}};
    std::vector<Packages> packages;
    packages.reserve(2 * std::size(kShapes));
    for (const auto& [large, small] : kShapes) {
        const Packages& many = packages.emplace_back(1, packageOf(large));
        Packages& few = packages.emplace_back();
        for (unsigned i = 0; i < kMany / kFew; ++i)
            few.push_back(packageOf(small));
        compareTrees(suite, large, many, few);
    }
    const Chains large{chainOf(kDepth)};
    Chains small;
    for (unsigned i = 0; i < kDepth / kSmallDepth; ++i)
        small.push_back(chainOf(kSmallDepth));
    compareChains(suite, large, small);
    return suite.run(argc, argv);
}
