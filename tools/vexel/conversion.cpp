#include "conversion.h"

#include "console.h"
#include "document.h"
#include "file_paths.h"
#include "progress.h"

#include <algorithm>

namespace Vexel::Tool {
namespace {

// What is not in the file yet is in memory.
constexpr unsigned long long kLargestUnsaved = 64ULL << 20;

unsigned long long totalSize(const Document& document) {
    unsigned long long size = 0;
    document.walk({}, [&size](const Node& node) { size += node.size; });
    return size;
}

// The class that a storage's contents belong to; the null one when it says nothing.
CLSID classOf(const StorageRef& storage, const std::wstring& label) {
    IStorage* const open = storage.storage();
    STATSTG info{};
    check(open ? open->Stat(&info, STATFLAG_NONAME) : E_FAIL, L"cannot read the class of", label);
    return info.clsid;
}

class Conversion {
public:
    Conversion(const Document& source, const std::wstring& path, std::wstring label, Progress& progress)
        : source_(source), label_(std::move(label)), progress_(progress), targets_(1) {
        StorageRef& root = targets_.front();
        check(root.create(SharedPathName(path.c_str(), true, false)), L"cannot create", label_);
        // Without any change nothing would be saved, not even a package without nodes.
        check(StorageRef().create(L"-", root, false), L"cannot create", label_);
        check(root.destroy(L"-"), L"cannot create", label_);
    }

    void run() {
        copyClass(source_.root(), targets_.front(), source_.label({}));
        source_.walk({}, [this](const Node& node) { copy(node); });
        save();
    }

private:
    void copy(const Node& node) {
        targets_.resize(node.depth + 1);
        const SharedPathName name = elementName(node.path.name());
        if (node.type == StorageType::Stream) {
            copyStream(node, name);
            return;
        }
        StorageRef source;
        StorageRef target;
        const std::wstring label = source_.label(node.path);
        check(source.open(name, *node.parent, true), L"cannot open", label);
        check(target.create(name, targets_.back(), false), L"cannot copy", label);
        copyClass(source, target, label);
        targets_.push_back(std::move(target));
    }

    void copyStream(const Node& node, const SharedPathName& name) {
        StreamRef source = source_.openStream(node.path, *node.parent);
        StreamRef target;
        check(target.create(name, targets_.back()), L"cannot copy", source_.label(node.path));
        source_.read(source, node.path, [&](std::span<const std::byte> data) {
            if (target.WriteBytes(data.data(), data.size()) != data.size())
                throw Failure(L"cannot copy", source_.label(node.path), STG_E_MEDIUMFULL);
            progress_.add(data.size());
        });
        target.close();
        unsaved_ += node.size;
        if (unsaved_ >= kLargestUnsaved)
            save();
    }

    static void copyClass(const StorageRef& from, const StorageRef& to, const std::wstring& label) {
        const CLSID id = classOf(from, label);
        IStorage* const target = to.storage();
        if (id != CLSID_NULL)
            check(target ? target->SetClass(id) : E_FAIL, L"cannot copy the class of", label);
    }

    void save() {
        check(targets_.front().commit(), L"cannot write", label_);
        targets_.front().deleteUnusedObjects(); // gives back what the file holds now
        unsaved_ = 0;
    }

    const Document& source_;
    std::wstring label_;
    Progress& progress_;
    std::vector<StorageRef> targets_; // from the root to the storage that the walk is in
    unsigned long long unsaved_ = 0;
};

/// Fails unless both documents have the same nodes, of the same class or with the same contents.
class Comparison {
public:
    Comparison(const Document& source, const Document& target, std::wstring label, Progress& progress)
        : source_(source), target_(target), label_(std::move(label)), progress_(progress) {}

    void run() {
        compareClasses(source_.root(), target_.root(), {});
        unsigned long long nodes = 0;
        source_.walk({}, [&](const Node& node) {
            nodes += !isClass(node);
            compare(node);
        });
        target_.walk({}, [&nodes](const Node& node) { nodes -= !isClass(node); });
        if (nodes != 0)
            fail();
    }

private:
    // Packages keep a storage's class in a stream.
    static bool isClass(const Node& node) {
        return node.type == StorageType::Stream && node.path.name() == L".clsid";
    }

    void compare(const Node& node) {
        if (node.type == StorageType::Stream)
            compareStreams(node);
        else
            compareClasses(source_.openStorage(node.path), target_.openStorage(node.path), node.path);
    }

    void compareStreams(const Node& node) {
        StreamRef source = source_.openStream(node.path, *node.parent);
        StreamRef target = target_.openStream(node.path);
        if (target.size() != node.size)
            fail();
        std::vector<std::byte> copy(kChunkSize);
        source_.read(source, node.path, [&](std::span<const std::byte> data) {
            if (target.ReadBytes(copy.data(), data.size()) != data.size() ||
                !std::equal(data.begin(), data.end(), copy.begin()))
                fail();
            progress_.add(data.size());
        });
        target.close();
        compared_ += node.size;
        if (compared_ >= kLargestUnsaved) {
            StorageRef(target_.root()).deleteUnusedObjects();
            compared_ = 0;
        }
    }

    void compareClasses(const StorageRef& source, const StorageRef& target, const NodePath& path) const {
        if (classOf(source, source_.label(path)) != classOf(target, label_))
            fail();
    }

    [[noreturn]] void fail() const {
        throw Failure(L"what was written is not what was read:", label_, STG_E_WRITEFAULT);
    }

    const Document& source_;
    const Document& target_;
    std::wstring label_;
    Progress& progress_;
    unsigned long long compared_ = 0; // bytes that are in memory
};

} // namespace

void convertDocument(const std::wstring& from, const std::wstring& to, bool force) {
    const std::wstring path = withoutLengthLimit(to);
    if (!force && GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES)
        throw Failure(L"cannot create", to, HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    const Document source(from, RootStorageOpenMode::ReadOnlyDenyWrite);
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), to);
    partial.close();
    const unsigned long long total = totalSize(source);
    Progress progress(L"converting", total);
    Conversion(source, partial.path(), to, progress).run();
    StorageContainer::Instance().deleteUnusedObjects(); // the package's file is to be read, and renamed
    progress.begin(L"verifying", total);
    {
        const Document target(partial.path(), RootStorageOpenMode::ReadOnlyDenyWrite);
        Comparison(source, target, to, progress).run();
    }
    StorageContainer::Instance().deleteUnusedObjects();
    partial.finish(path, force);
}

} // namespace Vexel::Tool
