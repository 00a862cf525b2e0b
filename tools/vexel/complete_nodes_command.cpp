// `vexel complete-nodes FILE [BEGINNING]`, which shells call while somebody types. It says nothing of what
// goes wrong.

#include "command.h"
#include "completion.h"
#include "console.h"
#include "document.h"
#include "text.h"

#include <memory>
#include <string>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string beginning;
};

bool beginsWith(std::wstring_view text, std::wstring_view beginning, bool ignoresCase) {
    return text.size() >= beginning.size() &&
           CompareStringOrdinal(text.data(), static_cast<int>(beginning.size()), beginning.data(),
                                static_cast<int>(beginning.size()), ignoresCase) == CSTR_EQUAL;
}

// The nodes of the storage that the beginning leads to, storages with what leads on.
void print(const Arguments& arguments) {
    const std::wstring beginning = toUtf16(arguments.beginning);
    const std::size_t slash = beginning.rfind(L'/');
    const NodePath top = NodePath::parse(slash == std::wstring::npos ? L"" : beginning.substr(0, slash));
    const Document document(toUtf16(arguments.file), RootStorageOpenMode::ReadOnlyDenyWrite);
    const bool ignoresCase = document.root().format() == StorageFormat::CompoundFile;
    StandardOutput output;
    StorageEnumerator child;
    for (check(child.reset(document.openStorage(top)), L"cannot list", document.label(top));
         child.moveNext();) {
        const std::wstring path = top.child(child.name().asStringView()).text();
        if (beginsWith(path, beginning, ignoresCase))
            output.text(toUtf8(path) + (child.type() == StorageType::Storage ? "/" : "") + "\n");
    }
    output.flush();
}

void run(const Arguments& arguments) {
    try {
        print(arguments);
    } catch (const Failure&) {
        throw SilentFailure(1);
    } catch (const UsageError&) {
        throw SilentFailure(1);
    }
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.optional("BEGINNING", arguments->beginning, "What is typed of a node's path");
    command.examples("vexel complete-nodes hall.7z", "vexel complete-nodes hall.7z Views/T");
    command.hide();
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration(kNodesCommand, "List the nodes that begin so, for completion", add);

} // namespace
} // namespace Vexel::Tool
