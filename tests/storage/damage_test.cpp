// Damaged compound files through the handles: whatever is wrong with one, opening it, listing it and reading
// all of it ends, in a status or in no more than the file can hold.

#include "support/compound_file.h"

#include <vexel/diagnostics.h>
#include <vexel/storage.h>

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Seen {
    unsigned nodes = 0;
    unsigned long long bytes = 0;
};

// The deepest tree that is followed; damage can make one that is as deep as the file has elements.
constexpr int greatestDepth = 64;

void readAll(const StorageRef& storage, int depth, std::vector<char>& buffer, Seen& seen) {
    StorageEnumerator child;
    if (depth > greatestDepth || FAILED(child.reset(storage)))
        return;
    while (child.moveNext()) {
        ++seen.nodes;
        StorageRef inner;
        StreamRef stream;
        if (child.type() == StorageType::Storage && SUCCEEDED(inner.open(child.name(), storage, true)))
            readAll(inner, depth + 1, buffer, seen);
        if (child.type() == StorageType::Stream && SUCCEEDED(stream.open(child.name(), storage, true))) {
            // Not until nothing comes: where reading fails the system reports bytes and stays where it is.
            unsigned long long left = stream.size();
            unsigned long long read = 1;
            for (; left > 0 && read > 0; left -= read)
                seen.bytes += read = stream.ReadBytes(buffer.data(), (std::min)(left, buffer.size()));
        }
    }
}

/// A sample on disk that is damaged, judged and mended in place, over and over.
class Patient {
public:
    Patient(const Support::TempFolder& folder, std::wstring_view sample)
        : path_(folder.file(sample)), name_(sample.begin(), sample.end()) {
        CFile source(Support::samplePath(sample).c_str(), CFile::modeRead);
        whole_.resize(static_cast<std::size_t>(source.GetLength()));
        source.Read(whole_.data(), static_cast<UINT>(whole_.size()));
        Support::writeFile(path_, whole_);
    }

    std::size_t size() const { return whole_.size(); }

    void cutAt(std::size_t length) {
        Support::writeFile(path_, std::string_view(whole_).substr(0, length));
        judge("cut at", length, 0);
        Support::writeFile(path_, whole_);
    }

    void overwrite(std::size_t offset, const std::function<int(int)>& change) {
        const int before = static_cast<unsigned char>(whole_[offset]);
        const int after = change(before) & 0xFF;
        if (after == before)
            return;
        put(offset, after);
        judge("byte", offset, after);
        put(offset, before);
    }

    /// Opens for writing, adds a stream and commits: what was accepted and committed is there afterwards. The
    /// file is whole again when this is done.
    void overwriteAndChange(std::size_t offset, int value) {
        put(offset, value);
        std::snprintf(now_, sizeof now_, "%s: changing with byte %zu as %d", name_.c_str(), offset, value);
        const bool added = add();
        StorageContainer::Instance().deleteUnusedObjects();
        if (added) {
            ++changed_;
            EXPECT_TRUE(hasAdded()) << now_;
        }
        StorageContainer::Instance().deleteUnusedObjects();
        Support::writeFile(path_, whole_);
    }

    unsigned refused() const { return refused_; }
    unsigned changed() const { return changed_; }

private:
    static constexpr std::size_t addedBytes = 5000;

    bool add() const {
        StorageRef root;
        StreamRef stream;
        return SUCCEEDED(root.open(path(), RootStorageOpenMode::ReadWrite, false)) &&
               SUCCEEDED(stream.create(L"Added", root)) &&
               stream.WriteBytes(whole_.data(), addedBytes) == addedBytes && SUCCEEDED(stream.commit()) &&
               SUCCEEDED(root.commit());
    }

    bool hasAdded() const {
        StorageRef root;
        StreamRef stream;
        std::string bytes(addedBytes, 0);
        return SUCCEEDED(root.open(path(), RootStorageOpenMode::ReadOnlyDenyWrite, false)) &&
               SUCCEEDED(stream.open(L"Added", root, true)) && stream.size() == addedBytes &&
               stream.ReadBytes(bytes.data(), addedBytes) == addedBytes && whole_.starts_with(bytes);
    }

    SharedPathName path() const { return {path_, false, false}; }

    void put(std::size_t offset, int value) {
        CFile file(path_.c_str(), CFile::modeReadWrite);
        file.Seek(static_cast<LONGLONG>(offset), CFile::begin);
        const char byte = static_cast<char>(value);
        file.Write(&byte, 1);
    }

    void judge(const char* what, std::size_t where, int value) {
        std::snprintf(now_, sizeof now_, "%s: %s %zu (%d)", name_.c_str(), what, where, value);
        Seen seen;
        {
            StorageRef root;
            const long status = root.open(path(), RootStorageOpenMode::ReadOnlyDenyWrite, false);
            if (SUCCEEDED(status))
                readAll(root, 0, buffer_, seen);
            refused_ += FAILED(status);
            EXPECT_EQ(FAILED(status), root.null()) << now_;
            EXPECT_TRUE(SUCCEEDED(status) || HRESULT_FACILITY(status) == FACILITY_STORAGE)
                << now_ << ": 0x" << std::hex << status;
        }
        StorageContainer::Instance().deleteUnusedObjects();
        // Chains may cross, so bytes may be read twice, but not without bound: 128 bytes are an element.
        const unsigned long long elements = whole_.size() / 128;
        EXPECT_LE(seen.nodes, elements * greatestDepth) << now_;
        EXPECT_LE(seen.bytes, elements * whole_.size()) << now_;
    }

    std::wstring path_;
    std::string name_;
    std::string whole_;
    std::vector<char> buffer_ = std::vector<char>(0x10000);
    char now_[120] = {}; // the case at hand, for a debugger and for what follows a crash
    unsigned refused_ = 0;
    unsigned changed_ = 0;
};

class Damage : public testing::TestWithParam<const wchar_t*> {
protected:
    // The log tells of each of thousands of files what is wrong with it.
    void SetUp() override {
        old_ = VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
    }
    void TearDown() override { VxLog_SetSink(old_, nullptr); }

    Support::TempFolder folder_;

private:
    VxLogSink old_ = nullptr;
};

TEST_P(Damage, CutAnywhere) {
    Patient patient(folder_, GetParam());
    for (std::size_t length = 0; length < patient.size(); length += 512)
        patient.cutAt(length);
    EXPECT_GT(patient.refused(), 0U);
}

TEST_P(Damage, InTheHeader) {
    Patient patient(folder_, GetParam());
    for (std::size_t offset = 0; offset < 512; offset += offset < 96 ? 1 : 7) {
        for (const int value : {0x00, 0xFF})
            patient.overwrite(offset, [=](int) { return value; });
        patient.overwrite(offset, [](int byte) { return byte ^ 1; });
        patient.overwrite(offset, [](int byte) { return byte ^ 0x80; });
    }
    EXPECT_GT(patient.refused(), 0U);
}

// A stride that meets every column of tables and elements, whose records are 4 and 128 bytes long.
TEST_P(Damage, Anywhere) {
    Patient patient(folder_, GetParam());
    const std::size_t stride = patient.size() / 400 | 1;
    for (std::size_t offset = 512; offset < patient.size(); offset += stride) {
        patient.overwrite(offset, [](int) { return 0; });
        patient.overwrite(offset, [](int byte) { return byte ^ 0xFF; });
    }
}

TEST_P(Damage, MeetsAWriter) {
    Patient patient(folder_, GetParam());
    const std::size_t stride = patient.size() / 100 | 1;
    for (std::size_t offset = 28; offset < patient.size(); offset += offset < 96 ? 3 : stride)
        patient.overwriteAndChange(offset, 0xFF);
    EXPECT_GT(patient.changed(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Samples, Damage, testing::Values(L"namesdemo.xls", L"foreign-tree.cfb"),
                         [](const auto& sample) {
                             return sample.index == 0 ? "Spreadsheet" : "ForeignTree";
                         });

} // namespace
