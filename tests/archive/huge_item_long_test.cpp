// An item whose size does not fit 32 bits.

#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/archive.h>

#include <gtest/gtest.h>

#include <string>

using Microsoft::WRL::ComPtr;
using Vexel::Storage::SZipArchive;

namespace {

constexpr unsigned long long kSize = 0x1'0000'0000 + 12345;
constexpr ULONG kPart = 0x4000000;

TEST(HugeItem, IsSavedAndReadBack) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    const std::wstring path = folder.file(L"huge.7z");
    std::string part(kPart, 'h');
    for (std::size_t i = 0; i < part.size(); i += 4099)
        part[i] = static_cast<char>(i);
    {
        SZipArchive archive(path, false, true);
        ComPtr<IStream> stream;
        ASSERT_EQ(archive.createFile(&stream, L"huge", true, false), S_OK);
        ASSERT_EQ(stream->SetSize({.QuadPart = kSize}), S_OK);
        for (int i = 0; i < 64; ++i)
            ASSERT_EQ(stream->Write(part.data(), kPart, nullptr), S_OK);
        ASSERT_EQ(stream->Write(part.data(), 12345, nullptr), S_OK);
        stream.Reset();
        ASSERT_EQ(archive.save(true), S_OK);
    }
    SZipArchive archive(path, true, true);
    ASSERT_EQ(archive.reload(), S_OK);
    EXPECT_EQ(archive.item(std::wstring_view(L"huge"))->size(), kSize);
    ComPtr<IStream> stream;
    ASSERT_EQ(archive.extractFile(&stream, std::wstring_view(L"huge")), S_OK); // which compares the checksum
    ASSERT_EQ(stream->Seek({.QuadPart = 0x1'0000'0000}, STREAM_SEEK_SET, nullptr), S_OK);
    std::string end(20000, '\0');
    ULONG count = 0;
    ASSERT_EQ(stream->Read(end.data(), static_cast<ULONG>(end.size()), &count), S_OK);
    EXPECT_EQ(end.substr(0, count), part.substr(0, 12345));
}

} // namespace
