// `vexel verify FILE`. Faults go to standard output, as they are the answer. What this program cannot read is
// told apart from damage and has an exit status of its own.

#include "command.h"
#include "console.h"
#include "document.h"
#include "progress.h"
#include "text.h"

#include <memory>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::string file;
};

// Exit status where nothing is damaged, as far as this program can read it.
constexpr int kNotReadable = 3;

bool isNotReadable(HRESULT status) {
    return status == E_NOTIMPL || status == HRESULT_FROM_WIN32(ERROR_NOT_SUPPORTED);
}

[[noreturn]] void failAsNotReadable(const Failure& failure) {
    progress().end();
    report(failure.message());
    throw SilentFailure(kNotReadable);
}

// Reads everything that is in a document and prints each fault.
class Verification {
public:
    explicit Verification(const Document& document) : document_(document) {}

    void run() {
        document_.walk(
            {},
            [this](const Node& node) {
                if (node.type != StorageType::Stream)
                    return;
                StreamRef stream = document_.openStream(node.path, *node.parent);
                document_.read(stream, node.path, [](std::span<const std::byte>) {});
            },
            [this](const Failure& failure) {
                output_.text(toUtf8(onOneLine(failure.message())) + "\n");
                ++(isNotReadable(failure.status()) || hasSlash(failure.status()) ? notReadable_ : faults_);
            });
        output_.flush();
    }

    unsigned long long faults() const noexcept { return faults_; }
    unsigned long long notReadable() const noexcept { return notReadable_; }

private:
    // A package lists a node with a slash in its name, and does not find it again.
    bool hasSlash(HRESULT status) const {
        return status == STG_E_FILENOTFOUND && document_.root().format() == StorageFormat::Package;
    }

    const Document& document_;
    StandardOutput output_;
    unsigned long long faults_ = 0;
    unsigned long long notReadable_ = 0;
};

std::wstring count(unsigned long long number, std::wstring_view what) {
    return std::to_wstring(number) + L" " + std::wstring(what) + (number == 1 ? L"" : L"s");
}

void verify(const std::wstring& file) {
    const Document document(file, RootStorageOpenMode::ReadOnlyDenyWrite);
    Verification verification(document);
    verification.run();
    if (verification.faults() > 0)
        throw Failure(count(verification.faults(), L"fault") + L" in", file, STG_E_DOCFILECORRUPT);
    if (verification.notReadable() > 0)
        throw Failure(count(verification.notReadable(), L"node") + L" could not be checked in", file,
                      E_NOTIMPL);
}

void run(const Arguments& arguments) {
    try {
        verify(toUtf16(arguments.file));
    } catch (const Failure& failure) {
        if (!isNotReadable(failure.status()))
            throw;
        failAsNotReadable(failure);
    }
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.file(arguments->file);
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("verify", "Read every stream wholly and print each fault on a line",
                                        add);

} // namespace
} // namespace Vexel::Tool
