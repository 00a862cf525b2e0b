// `vexel diff A B`. The exit status is that of `diff`: 0 alike, 1 different, 2 trouble. The differences are
// found wholly before any is printed, but for contents that cannot be read: the others are told all the same.

#include "command.h"
#include "console.h"
#include "document_listing.h"
#include "faults.h"
#include "progress.h"
#include "sizes.h"
#include "text.h"
#include "tree_comparison.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <memory>
#include <new>

namespace Vexel::Tool {
namespace {

using Kind = Difference::Kind;
using What = Difference::What;

struct Arguments {
    std::string first;
    std::string second;
    bool json = false;
    bool bytes = false;
};

enum ExitStatus { KDifferent = 1, KTrouble = 2 };

constexpr const char* kKindNames[] = {"removed", "added", "changed", "moved"};
constexpr const char* kWhatNames[] = {"", "type", "class", "contents"};

const char* nameOf(Kind kind) { return kKindNames[static_cast<int>(kind)]; }
const char* nameOf(What what) { return kWhatNames[static_cast<int>(what)]; }

// No node's path can be "/".
std::string shown(const std::wstring& path) { return path.empty() ? "/" : toUtf8(path); }

std::string detailsOf(const Difference& difference, bool exact) {
    const auto size = [exact](unsigned long long bytes) { return sizeText(bytes, exact); };
    if (difference.what == What::Contents && difference.before != difference.after)
        return "  (" + size(difference.before) + " → " + size(difference.after) + ")";
    if (difference.kind == Kind::Changed)
        return std::string("  (") + nameOf(difference.what) + ")";
    if (difference.type == StorageType::Storage)
        return difference.nodes > 1 ? "  (with " + counted(difference.nodes - 1, "node") + " in it)" : "";
    return "  (" + size(difference.before + (difference.kind == Kind::Added ? difference.after : 0)) + ")";
}

Style styleOf(Kind kind) {
    static constexpr Style kStyles[] = {Style::Bad, Style::Good, Style::Changed, Style::Moved};
    return kStyles[static_cast<int>(kind)];
}

void print(StandardOutput& output, const Difference& difference, bool exact) {
    std::string kind = nameOf(difference.kind);
    kind.resize(9, ' ');
    std::string line;
    if (difference.kind == Kind::Moved)
        line += shown(difference.from) + " → ";
    line += shown(difference.path);
    // What was moved is as large as before.
    if (difference.type == StorageType::Storage && difference.kind != Kind::Changed)
        line += "/";
    output.text(kind, styleOf(difference.kind));
    output.text(line + detailsOf(difference, exact) + "\n");
}

std::size_t countOf(const ComparisonResult& result, Kind kind) {
    return static_cast<std::size_t>(
        std::count_if(result.differences.begin(), result.differences.end(),
                      [kind](const Difference& difference) { return difference.kind == kind; }));
}

void print(StandardOutput& output, const ComparisonResult& result, bool exact) {
    if (result.differences.empty())
        return;
    for (const Difference& difference : result.differences)
        print(output, difference, exact);
    std::string text;
    for (const Kind kind : {Kind::Removed, Kind::Added, Kind::Changed, Kind::Moved})
        text += std::to_string(countOf(result, kind)) + " " + nameOf(kind) + ", ";
    output.text(text + std::to_string(result.same) + " alike\n");
}

nlohmann::ordered_json jsonOf(const Difference& difference) {
    const bool isStream = difference.type == StorageType::Stream;
    const bool wasStream = isStream != (difference.what == What::Type);
    nlohmann::ordered_json object;
    object["kind"] = nameOf(difference.kind);
    object["path"] = toUtf8(difference.path);
    object["type"] = isStream ? "stream" : "storage";
    if (difference.kind == Kind::Moved)
        object["from"] = toUtf8(difference.from);
    if (difference.kind == Kind::Changed)
        object["what"] = nameOf(difference.what);
    if (difference.kind == Kind::Moved && !isStream)
        object["nodes"] = difference.nodes;
    if (wasStream && difference.kind != Kind::Added)
        object["before"] = difference.before;
    if (isStream && difference.kind != Kind::Removed)
        object["after"] = difference.after;
    return object;
}

nlohmann::ordered_json jsonOf(const ComparisonResult& result) {
    nlohmann::ordered_json object;
    object["differences"] = nlohmann::ordered_json::array();
    for (const Difference& difference : result.differences)
        object["differences"].push_back(jsonOf(difference));
    object["same"] = result.same;
    return object;
}

/// Reads both documents and compares them. `isWhole` becomes false when something could not be read, of which
/// a line on standard error has told.
ComparisonResult compare(const Arguments& arguments, bool& isWhole) {
    const Document first(toUtf16(arguments.first), RootStorageOpenMode::ReadOnlyDenyWrite);
    const Document second(toUtf16(arguments.second), RootStorageOpenMode::ReadOnlyDenyWrite);
    Faults faults;
    const Document::FaultHandler onFault = faults.handler();
    TreeListing before = listDocument(first, onFault);
    TreeListing after = listDocument(second, onFault);
    markWanted(before, after);
    progress().begin(L"comparing", wantedBytes(before) + wantedBytes(after));
    readWanted(first, before, onFault);
    readWanted(second, after, onFault);
    isWhole = !faults.any();
    return compareTrees(before, after);
}

int statusOf(const Arguments& arguments) {
    bool isWhole = true;
    const ComparisonResult result = compare(arguments, isWhole);
    StandardOutput output;
    if (arguments.json)
        output.text(jsonOf(result).dump(2) + "\n");
    else
        print(output, result, arguments.bytes);
    output.flush();
    if (!isWhole)
        return KTrouble;
    return result.differences.empty() ? 0 : KDifferent;
}

// What ends other commands with 1 would look like a difference here.
int statusOrTrouble(const Arguments& arguments) {
    try {
        return statusOf(arguments);
    } catch (const Failure& failure) {
        progress().end();
        report(failure.message());
    } catch (const std::bad_alloc&) {
        progress().end();
        report(L"not enough memory");
    } catch (const std::exception& exception) {
        progress().end();
        report(toUtf16(exception.what()));
    }
    return KTrouble;
}

void run(const Arguments& arguments) {
    if (const int status = statusOrTrouble(arguments); status != 0)
        throw SilentFailure(status);
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.required("A", arguments->first, "A document");
    command.required("B", arguments->second, "The document to compare it with, of either format");
    command.flag("--json", arguments->json, "Print one object with all differences");
    command.flag("--bytes", arguments->bytes, "Print sizes to the byte");
    command.examples("vexel diff hall.cfb hall.7z", "vexel diff --json before.7z after.7z");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("diff", "Tell what was added to a document, removed from it, changed and moved", add);

} // namespace
} // namespace Vexel::Tool
