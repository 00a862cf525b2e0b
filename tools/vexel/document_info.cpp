#include "document_info.h"

#include "base/handles.h"
#include "file_paths.h"
#include "package_size.h"
#include "text.h"

#include <vexel/properties.h>

#include <algorithm>
#include <cstddef>

namespace Vexel::Tool {
namespace {

constexpr DWORD kAnyAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

Detail::FileHandle openForReading(const std::wstring& file) {
    Detail::FileHandle handle(CreateFileW(file.c_str(), GENERIC_READ, kAnyAccess, nullptr, OPEN_EXISTING,
                                          FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle)
        checkOpened(lastErrorStatus(), file);
    return handle;
}

Info outsideOf(HANDLE handle, const std::wstring& file) {
    Info info;
    if (!GetFileInformationByHandle(handle, &info.file))
        throw Failure(L"cannot open", file, lastErrorStatus());
    info.format = StorageRef::getFormat(file.c_str()).value_or(StorageFormat::None);
    return info;
}

// The largest streams that were met.
class Largest {
public:
    void add(const Node& node) {
        if (node.size == 0 || (nodes_.size() == kMost && node.size <= nodes_.back().second))
            return;
        const auto place = std::find_if(nodes_.begin(), nodes_.end(),
                                        [&node](const auto& one) { return one.second < node.size; });
        nodes_.emplace(place, toUtf8(node.path.text()), node.size);
        if (nodes_.size() > kMost)
            nodes_.pop_back();
    }

    std::vector<std::pair<std::string, unsigned long long>> take() { return std::move(nodes_); }

private:
    static constexpr std::size_t kMost = 5;

    std::vector<std::pair<std::string, unsigned long long>> nodes_;
};

Contents contentsOf(const std::wstring& file, const Document::FaultHandler& onFault) {
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    Contents contents;
    Largest largest;
    contents.summary = summaryOf(document.root());
    document.walk(
        {},
        [&](const Node& node) {
            ++(node.type == StorageType::Storage ? contents.storages : contents.streams);
            contents.bytes += node.size;
            largest.add(node);
        },
        onFault);
    contents.largest = largest.take();
    return contents;
}

} // namespace

Summary summaryOf(const StorageRef& root) {
    static constexpr std::pair<PROPID, const char*> kFields[] = {
        {PIDSI_TITLE, "title"},     {PIDSI_SUBJECT, "subject"},   {PIDSI_AUTHOR, "author"},
        {PIDSI_COMMENTS, "remark"}, {PIDSI_LASTAUTHOR, "editor"}, {PIDSI_LASTSAVE_DTM, "saved"},
        {PIDSI_APPNAME, "program"},
    };
    Summary summary;
    Properties properties;
    if (ReadProperties(root, FMTID_SummaryInformation, properties) != S_OK)
        return summary; // most documents have none
    for (const auto& [id, name] : kFields) {
        const PropertyVariant& value = properties[id];
        if (const auto text = value.asString(); text && !text->IsEmpty())
            summary.emplace_back(name, toUtf8(onOneLine(text->GetString())));
        else if (const auto time = value.asTime())
            summary.emplace_back(name, toIso8601(*time));
    }
    return summary;
}

Info outsideOf(const std::wstring& file) { return outsideOf(openForReading(file).get(), file); }

Info infoOf(const std::wstring& file, const Document::FaultHandler& onFault) {
    const Detail::FileHandle handle = openForReading(file);
    Info info = outsideOf(handle.get(), file);
    if (info.format == StorageFormat::None)
        return info;
    info.contents = contentsOf(file, onFault);
    if (info.format == StorageFormat::Package)
        info.contents->packed = packedSizeOf(handle.get(), file);
    return info;
}

const char* formatName(StorageFormat format) {
    switch (format) {
    case StorageFormat::CompoundFile:
        return "compound file";
    case StorageFormat::Package:
        return "package";
    case StorageFormat::None:
        break;
    }
    return "neither compound file nor package";
}

std::optional<double> ratioOf(const Contents& contents) {
    if (!contents.packed || contents.bytes == 0)
        return std::nullopt;
    return static_cast<double>(*contents.packed) / static_cast<double>(contents.bytes);
}

unsigned long long sizeOf(const Info& info) {
    return (static_cast<unsigned long long>(info.file.nFileSizeHigh) << 32) | info.file.nFileSizeLow;
}

} // namespace Vexel::Tool
