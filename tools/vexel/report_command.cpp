// `vexel report FILE [-o PAGE]`. The document is read wholly before anything is written; the page then
// appears whole under its name.

#include "command.h"
#include "console.h"
#include "failure.h"
#include "file_paths.h"
#include "progress.h"
#include "report_page.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
    std::string page;
    bool force = false;
};

void writeTo(const std::wstring& page, const DocumentReport& report, bool force) {
    const std::wstring path = withoutLengthLimit(page);
    PartialFile partial(path.substr(0, path.rfind(L'\\') + 1), page);
    writeReportPage(report, [&](std::string_view text) { partial.write(text.data(), text.size()); });
    partial.finish(path, force);
}

void run(const Arguments& arguments) {
    const std::wstring page = toUtf16(arguments.page);
    if (!page.empty() && !arguments.force &&
        GetFileAttributesW(withoutLengthLimit(page).c_str()) != INVALID_FILE_ATTRIBUTES)
        throw Failure(L"cannot create", page, HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    if (!page.empty() && isSameFile(toUtf16(arguments.file), page))
        throw Failure(L"will not write the page over the document itself,", page,
                      HRESULT_FROM_WIN32(ERROR_FILE_EXISTS));
    const DocumentReport report = reportOn(toUtf16(arguments.file));
    if (!page.empty()) {
        writeTo(page, report, arguments.force);
        return;
    }
    StandardOutput output;
    writeReportPage(report, [&](std::string_view text) { output.text(text); });
    output.flush();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.option("-o,--output", arguments->page, "The page to write; without it, standard output");
    command.flag("--force", arguments->force, "Replace a file that is there");
    command.examples("vexel report hall.7z -o hall.html", "vexel report hall.cfb > hall.html");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("report", "Make a web page that shows what a document is and what makes it big", add);

} // namespace
} // namespace Vexel::Tool
