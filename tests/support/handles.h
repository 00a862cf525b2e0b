#pragma once

#include "archive/szip_storage.h"
#include "storage/tree/element_name.h"
#include "support/compound_file.h"

#include <vexel/storage.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

/// Short ways to go through the exported handles; a call that fails is a test failure.
namespace Support {

inline constexpr auto modeRead = RootStorageOpenMode::ReadOnly;
inline constexpr auto modeReadDenyWrite = RootStorageOpenMode::ReadOnlyDenyWrite;
inline constexpr auto modeWrite = RootStorageOpenMode::ReadWrite;

inline StorageContainer& container() { return StorageContainer::Instance(); }
inline SharedPathName element(std::wstring_view name) { return Vexel::Detail::elementName(name); }
inline SharedPathName path(std::wstring_view file) { return {file, false, false}; }

/// Closes handles, and then everything that no handle uses.
template <class... Handles>
void closeForGood(Handles&... handles) {
    (handles.close(), ...);
    container().deleteUnusedObjects();
}

inline StorageRef openRoot(const SharedPathName& path, RootStorageOpenMode mode) {
    StorageRef root;
    EXPECT_EQ(root.open(path, mode, false), S_OK);
    return root;
}
inline StorageRef newPackage(const SharedPathName& path) {
    StorageRef root;
    EXPECT_EQ(root.create(path), S_OK);
    return root;
}
inline StorageRef openStorage(std::wstring_view name, const StorageRef& parent, bool readOnly = true) {
    StorageRef storage;
    EXPECT_EQ(storage.open(element(name), parent, readOnly), S_OK);
    return storage;
}
inline StorageRef newStorage(const wchar_t* name, const StorageRef& parent) {
    StorageRef storage;
    EXPECT_EQ(storage.create(name, parent, false), S_OK);
    return storage;
}
inline StreamRef openStream(std::wstring_view name, const StorageRef& parent, bool readOnly = true) {
    StreamRef stream;
    EXPECT_EQ(stream.open(element(name), parent, readOnly), S_OK);
    return stream;
}
inline StreamRef newStream(const wchar_t* name, const StorageRef& parent, std::string_view bytes = {}) {
    StreamRef stream;
    EXPECT_EQ(stream.create(name, parent), S_OK);
    EXPECT_EQ(stream.WriteBytes(bytes.data(), bytes.size()), bytes.size());
    return stream;
}

/// All bytes, from the beginning on.
inline std::string contents(StreamRef& stream) {
    std::string bytes(static_cast<std::size_t>(stream.GetLength()), '\0');
    stream.SeekToBegin();
    bytes.resize(static_cast<std::size_t>(stream.ReadBytes(bytes.data(), bytes.size())));
    return bytes;
}
/// Those of a stream that may be missing: "none".
inline std::string read(std::wstring_view name, const StorageRef& parent) {
    StreamRef stream;
    return stream.open(element(name), parent, true) == S_OK ? contents(stream) : "none";
}
/// The names in a storage, each with a space behind it, those of storages with a "/" as well.
inline std::wstring children(const StorageRef& storage) {
    std::wstring names;
    StorageEnumerator child;
    EXPECT_EQ(child.reset(storage), S_OK);
    while (child.moveNext())
        names += child.name().asString() + std::wstring(child.type() == StorageType::Storage ? L"/ " : L" ");
    return names;
}

/// What a tree shows.
struct Seen {
    std::vector<Element> elements; ///< depth first, as listed
    bool complete = true;          ///< everything that is listed could be opened
    bool shortened = false;        ///< a stream had not as many bytes as its size
    bool whole() const { return complete && !shortened; }
};
/// Every element below, but what holds a package's class, which is there for a class only. Damage can make a
/// tree that is as deep as the file has elements, and is not followed so far.
inline void see(const StorageRef& storage, const std::wstring& prefix, int depth, Seen& seen) {
    constexpr int kGreatestDepth = 64;
    StorageEnumerator child;
    if (depth > kGreatestDepth || FAILED(child.reset(storage))) {
        seen.complete = false;
        return;
    }
    while (child.moveNext()) {
        const std::wstring name = child.name().asString(), path = prefix + name;
        StorageRef inner;
        StreamRef stream;
        if (storage.format() == StorageFormat::Package && name == L".clsid" &&
            read(name, storage) != std::string(sizeof(CLSID), '\0'))
            continue;
        if (child.type() == StorageType::Storage && SUCCEEDED(inner.open(child.name(), storage, true))) {
            seen.elements.push_back({path + L"/", {}});
            see(inner, path + L"/", depth + 1, seen);
        } else if (child.type() == StorageType::Stream &&
                   SUCCEEDED(stream.open(child.name(), storage, true))) {
            seen.elements.push_back({path, contents(stream)});
            seen.shortened = seen.shortened || seen.elements.back().contents.size() != child.size().QuadPart;
        } else {
            seen.complete = false;
        }
    }
    seen.complete = seen.complete && child.status() == S_FALSE;
}
inline Seen see(const StorageRef& root) {
    Seen seen;
    see(root, L"", 0, seen);
    return seen;
}
/// In the order of their paths.
inline std::vector<Element> sorted(std::vector<Element> elements) {
    std::ranges::stable_sort(elements, {}, &Element::path);
    return elements;
}
/// Of a sound tree.
inline std::vector<Element> elementsOf(const StorageRef& storage) {
    const Seen seen = see(storage);
    EXPECT_TRUE(seen.whole());
    return seen.elements;
}

/// Writes a new document with these elements, which nobody has open afterwards.
inline void writeDocument(const std::wstring& file, StorageFormat format,
                          const std::vector<Element>& elements) {
    if (format == StorageFormat::CompoundFile) {
        writeCompoundFile(file, elements);
        return;
    }
    DeleteFileW(file.c_str());
    Microsoft::WRL::ComPtr<Vexel::Storage::SZipStorage> root;
    EXPECT_EQ(Vexel::Storage::openPackage(file.c_str(), STGM_READWRITE, true, root.GetAddressOf()), S_OK);
    writeElements(root.Get(), elements);
}
/// Every element of a document that nobody has open: of a compound file by the system's word.
inline std::vector<Element> readDocument(const std::wstring& file, StorageFormat format) {
    if (format == StorageFormat::CompoundFile)
        return readCompoundFile(file);
    std::vector<Element> elements = elementsOf(openRoot(path(file), modeRead));
    container().deleteUnusedObjects();
    return elements;
}

} // namespace Support
