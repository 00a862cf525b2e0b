#include "output.h"

#include "failure.h"
#include "text.h"

#include <utility>

namespace Vexel::Tool {

Output::Output(const std::string& file, const std::wstring& document, bool force) {
    if (file.empty()) {
        output_.emplace();
        return;
    }
    const std::wstring label = toUtf16(file);
    const std::wstring path = withoutLengthLimit(label);
    if (isSameFile(path, document))
        throw UsageError(L"will not write over the document itself:", label);
    checkFree(path, label, force);
    file_.emplace(path, label, force);
}

Output::File::File(std::wstring fullPath, const std::wstring& label, bool isForced)
    : path(std::move(fullPath)), partial(path.substr(0, path.rfind(L'\\') + 1), label), force(isForced) {}

void Output::bytes(std::span<const std::byte> data) {
    if (output_)
        output_->bytes(data);
    else if (file_)
        file_->partial.write(data.data(), data.size());
}

void Output::text(std::string_view utf8) {
    if (output_)
        output_->text(utf8);
    else if (file_)
        file_->partial.write(utf8.data(), utf8.size());
}

void Output::finish() {
    if (output_)
        output_->flush();
    else if (file_)
        file_->partial.finish(file_->path, file_->force);
}

} // namespace Vexel::Tool
