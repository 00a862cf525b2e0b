// `vexel report FILE [-o PAGE]`. The document is read wholly before anything is written; the page then
// appears whole under its name.

#include "command.h"
#include "output.h"
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

void run(const Arguments& arguments) {
    const std::wstring file = toUtf16(arguments.file);
    Output output(arguments.page, file, arguments.force);
    const DocumentReport report = reportOn(file);
    writeReportPage(report, [&output](std::string_view text) { output.text(text); });
    output.finish();
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.output(arguments->page, arguments->force);
    command.examples("vexel report hall.7z -o hall.html", "vexel report hall.cfb > hall.html");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration
    kRegistration("report", "Make a web page that shows what a document is and what makes it big", add);

} // namespace
} // namespace Vexel::Tool
