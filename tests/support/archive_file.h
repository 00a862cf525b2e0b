#pragma once

#include "support/streams.h"

#include <vexel/archive.h>

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <string_view>

/// Short ways to write into an archive and to look at all of it.
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

/// Every item with its contents, or with the status that is had instead.
inline std::map<std::wstring, std::string> statesOf(Vexel::Storage::SZipArchive& archive) {
    std::map<std::wstring, std::string> states;
    for (const auto& [path, item] : archive.items()) {
        std::string& state = states[path.GetString()];
        const HRESULT status = readItem(archive, Vexel::Storage::StringLess::view(path), state);
        if (status != S_OK)
            state = item.isDirectory() ? directoryMark : "status " + std::to_string(status);
    }
    return states;
}

/// Every item with its contents, or the mark of a directory.
inline std::map<std::wstring, std::string> contentsOf(Vexel::Storage::SZipArchive& archive) {
    std::map<std::wstring, std::string> contents;
    for (const auto& [path, item] : archive.items()) {
        std::string& bytes = contents[path.GetString()];
        if (item.isDirectory())
            bytes = directoryMark;
        else
            EXPECT_EQ(readItem(archive, Vexel::Storage::StringLess::view(path), bytes), S_OK) << bytes;
    }
    return contents;
}

} // namespace Support
