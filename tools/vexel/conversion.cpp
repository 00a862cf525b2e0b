#include "conversion.h"

#include "console.h"
#include "document.h"
#include "file_paths.h"
#include "progress.h"
#include "stopping.h"

#include <vexel/hash.h>

#include <cstdint>

namespace Vexel::Tool {
namespace {

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

/// Copies a document's nodes into a new package.
class Conversion {
public:
    Conversion(const Document& source, const std::wstring& path, std::wstring label)
        : source_(source), label_(std::move(label)), targets_(1) {
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
        if (node.type == StorageType::Stream) {
            copyStream(node);
            return;
        }
        StorageRef source;
        StorageRef target;
        const std::wstring label = source_.label(node.path);
        const wchar_t* const name = node.path.name().c_str();
        check(source.open(name, *node.parent, true), L"cannot open", label);
        check(target.create(name, targets_.back(), false), L"cannot copy", label);
        copyClass(source, target, label);
        targets_.push_back(std::move(target));
    }

    void copyStream(const Node& node) {
        // So that a large stream is alone in memory.
        if (unsaved_ > 0 && unsaved_ + node.size > kLargestInMemory)
            save();
        if (source_.root().format() == StorageFormat::Package)
            copyInPackages(node);
        else
            copyBytes(node);
        unsaved_ += node.size;
        if (unsaved_ >= kLargestInMemory)
            save();
    }

    // From package to package contents go without being in both.
    void copyInPackages(const Node& node) const {
        IStorage* const from = node.parent->storage();
        IStorage* const to = targets_.back().storage();
        const wchar_t* const name = node.path.name().c_str();
        const HRESULT status =
            from && to ? from->MoveElementTo(name, to, name, STGMOVE_COPY) : STG_E_INVALIDHANDLE;
        source_.checkUnpacking(status, L"cannot copy", node.path);
        progress().add(node.size);
    }

    void copyBytes(const Node& node) const {
        const std::wstring label = source_.label(node.path);
        StreamRef source = source_.openStream(node.path, *node.parent);
        StreamRef target;
        check(target.create(node.path.name().c_str(), targets_.back()), L"cannot copy", label);
        // At once, or the memory would grow by copying what is there already.
        check(target.setSize(source.size()), L"cannot copy", label);
        source_.read(source, node.path, [&](std::span<const std::byte> data) {
            if (target.WriteBytes(data.data(), data.size()) != data.size())
                throw Failure(L"cannot copy", label, STG_E_MEDIUMFULL);
        });
    }

    static void copyClass(const StorageRef& from, const StorageRef& to, const std::wstring& label) {
        const CLSID id = classOf(from, label);
        IStorage* const target = to.storage();
        if (id != CLSID_NULL)
            check(target ? target->SetClass(id) : E_FAIL, L"cannot copy the class of", label);
    }

    void save() {
        checkStop();
        check(targets_.front().commit(), L"cannot write", label_);
        targets_.front().deleteUnusedObjects(); // gives back what the file holds now
        unsaved_ = 0;
    }

    const Document& source_;
    std::wstring label_;
    std::vector<StorageRef> targets_; // from the root to the storage that the walk is in
    unsigned long long unsaved_ = 0;
};

/// What tells one run of bytes from another. The bytes come in the pieces of Document::read.
class Fingerprint {
public:
    void add(std::span<const std::byte> data) {
        Hash::SpookyV2_128(data.data(), data.size(), first_, second_);
    }
    bool operator==(const Fingerprint&) const = default;

private:
    std::uint64_t first_ = 0; // seeds of the next piece
    std::uint64_t second_ = 0;
};

/// Fails unless both documents have the same nodes, of the same class or with the same contents.
class Comparison {
public:
    Comparison(const Document& source, const Document& target, std::wstring label)
        : source_(source), target_(target), label_(std::move(label)) {}

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

    // One after the other: together, the contents of two packages would be in memory twice.
    void compareStreams(const Node& node) {
        const Fingerprint wanted = read(source_, source_.openStream(node.path, *node.parent), node);
        if (read(target_, target_.openStream(node.path), node) != wanted)
            fail();
    }

    Fingerprint read(const Document& document, StreamRef stream, const Node& node) {
        if (stream.size() != node.size)
            fail();
        Fingerprint found;
        document.read(stream, node.path, [&found](std::span<const std::byte> data) { found.add(data); });
        stream.close();
        inMemory_ += node.size;
        if (inMemory_ >= kLargestInMemory) {
            StorageRef(source_.root()).deleteUnusedObjects();
            StorageRef(target_.root()).deleteUnusedObjects();
            inMemory_ = 0;
        }
        return found;
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
    unsigned long long inMemory_ = 0; // bytes
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
    progress().begin(L"converting", total);
    Conversion(source, partial.path(), to).run();
    StorageContainer::Instance().deleteUnusedObjects(); // the package's file is to be read, and renamed
    progress().begin(L"verifying", 2 * total);
    {
        const Document target(partial.path(), RootStorageOpenMode::ReadOnlyDenyWrite);
        Comparison(source, target, to).run();
    }
    StorageContainer::Instance().deleteUnusedObjects();
    partial.finish(path, force);
}

} // namespace Vexel::Tool
