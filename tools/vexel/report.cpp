#include "report.h"

#include "document.h"
#include "progress.h"
#include "text.h"

#include <vexel/archive.h>

#include <algorithm>
#include <unordered_map>

namespace Vexel::Tool {
namespace {

using Vexel::Storage::SZipArchive;
using Vexel::Storage::SZipArchiveItem;

/// Meets all nodes of a document, reads the streams, and notes what fails at the node that it happens to.
class Reading {
public:
    Reading(const Document& document, DocumentReport& report) : document_(document), report_(report) {
        report_.nodes.emplace_back().isStorage = true;
    }

    void run() {
        progress().expect(document_.amountBelow({}));
        document_.walk(
            {}, [this](const Node& node) { read(node); },
            [this](const Failure& failure, const NodePath& path) {
                ReportNode& node = report_.nodes[indexOf(path)];
                node.fault += (node.fault.empty() ? "" : "; ") + shortened(failure);
                ++(document_.cannotRead(failure.status()) ? report_.notReadable : report_.faults);
            },
            [this](const NodePath&, const StorageRef&) { storages_.push_back(met_); });
        // Backwards, so that each storage is whole before it is added to its own.
        std::vector<ReportNode>& nodes = report_.nodes;
        for (std::size_t i = nodes.size(); i-- > 1;) {
            nodes[nodes[i].parent].size += nodes[i].size;
            nodes[nodes[i].parent].streams += nodes[i].isStorage ? nodes[i].streams : 1;
        }
    }

private:
    // A fault is that of the node that was met last, or of a storage that it is in.
    std::size_t indexOf(const NodePath& path) const {
        const std::size_t depth = path.elements().size();
        const bool isLast = report_.nodes[met_].path == toUtf8(path.text());
        return isLast || depth >= storages_.size() ? met_ : storages_[depth];
    }

    // The page is about one file, so its faults need not name that again.
    std::string shortened(const Failure& failure) const {
        std::wstring message = failure.message();
        const std::wstring prefix = document_.label({}) + L"|";
        if (const std::size_t at = message.find(prefix); at != std::wstring::npos)
            message.erase(at, prefix.size());
        return toUtf8(onOneLine(std::move(message)));
    }

    void read(const Node& node) {
        storages_.resize(node.depth + 1);
        met_ = report_.nodes.size();
        ReportNode& made = report_.nodes.emplace_back();
        made.path = toUtf8(node.path.text());
        made.parent = storages_.back();
        made.isStorage = node.type == StorageType::Storage;
        made.size = node.size;
        made.modified = toIso8601(node.modified);
        if (made.isStorage)
            return;
        StreamRef stream = document_.openStream(node.path, *node.parent);
        document_.read(stream, node.path, [](std::span<const std::byte>) {});
    }

    const Document& document_;
    DocumentReport& report_;
    std::vector<std::size_t> storages_; // those that the walk is in
    std::size_t met_ = 0;
};

/// Adds the packed sizes, which the handles do not tell. Where the package cannot be opened a second time, as
/// when somebody is writing it, there are none.
void addPackedSizes(const std::wstring& file, DocumentReport& report) {
    SZipArchive archive(file, true, true);
    if (archive.reload() != S_OK)
        return;
    std::unordered_map<std::string, unsigned long long> byPath;
    for (const auto& [path, item] : archive.items())
        byPath.emplace(toUtf8(path.GetString()), item.packedSize());
    std::vector<ReportNode>& nodes = report.nodes;
    for (ReportNode& node : nodes) {
        const auto found = byPath.find(node.path);
        node.packed = node.isStorage || found == byPath.end() ? 0 : found->second;
    }
    for (std::size_t i = nodes.size(); i-- > 1;)
        nodes[nodes[i].parent].packed += nodes[i].packed;
    report.hasPacked = true;
}

} // namespace

DocumentReport reportOn(const std::wstring& file) {
    DocumentReport report;
    report.file = toUtf8(file.substr(file.find_last_of(L"\\/") + 1));
    report.info = outsideOf(file);
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    report.summary = summaryOf(document.root());
    Reading(document, report).run();
    if (report.info.format == StorageFormat::Package)
        addPackedSizes(file, report);
    return report;
}

} // namespace Vexel::Tool
