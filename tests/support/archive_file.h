#pragma once

#include "support/streams.h"

#include <vexel/archive.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>

/// Short ways to write into an archive and to look at what it holds.
namespace Support {

inline constexpr const char* directoryMark = "<directory>";

inline HRESULT readItem(Vexel::Storage::SZipArchive& archive, std::wstring_view path, std::string& bytes) {
    Microsoft::WRL::ComPtr<IStream> stream;
    const HRESULT status = archive.extractFile(&stream, path);
    bytes = stream ? bytesOf(stream.Get()) : std::string();
    return status;
}

/// Creates or replaces a file.
inline HRESULT writeItem(Vexel::Storage::SZipArchive& archive, const wchar_t* path, std::string_view bytes) {
    Microsoft::WRL::ComPtr<IStream> stream;
    const HRESULT status = archive.createFile(&stream, path, false, true);
    return FAILED(status) ? status : stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
}

/// Paths with contents; a directory has its mark for contents.
using Contents = std::map<std::wstring, std::string>;

inline void fill(Vexel::Storage::SZipArchive& archive, const Contents& contents) {
    for (const auto& [path, bytes] : contents)
        EXPECT_EQ(bytes == directoryMark ? archive.createDirectory(path.c_str(), true, false)
                                         : writeItem(archive, path.c_str(), bytes),
                  S_OK);
}
/// One that has no file.
inline Vexel::Storage::SZipArchive inMemory(const Contents& contents = {}) {
    Vexel::Storage::SZipArchive archive(L"", false, true);
    fill(archive, contents);
    return archive;
}

/// What is had instead of contents.
inline std::string failed(HRESULT status) { return "status " + std::to_string(status); }

/// An item's contents.
inline std::string stateOf(Vexel::Storage::SZipArchive& archive, std::wstring_view path) {
    std::string bytes;
    const HRESULT status = readItem(archive, path, bytes);
    return status == S_OK ? bytes : failed(status);
}

/// Every item with its contents.
inline Contents statesOf(Vexel::Storage::SZipArchive& archive) {
    Contents states;
    for (const auto& [path, item] : archive.items())
        states[path.GetString()] =
            item.isDirectory() ? directoryMark : stateOf(archive, Vexel::Storage::StringLess::view(path));
    return states;
}

} // namespace Support
