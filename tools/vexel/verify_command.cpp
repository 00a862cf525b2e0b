// `vexel verify FILE...`. Faults go to standard output, as they are the answer. What this program cannot read
// is told apart from damage and has an exit status of its own. Files are read on all processors, and told in
// order.

#include "command.h"
#include "console.h"
#include "document.h"
#include "file_paths.h"
#include "parallel.h"
#include "progress.h"
#include "sizes.h"
#include "text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Vexel::Tool {
namespace {

struct Arguments {
    std::vector<std::string> files;
    bool json = false;
};

// Exit status where nothing is damaged, as far as this program can read it.
constexpr int kNotReadable = 3;

enum class Outcome { Sound, NotReadable, Damaged, Failed };

constexpr const char* kOutcomeNames[] = {"sound", "not readable", "damaged", "failed"};

/// What has come of a file.
struct Verified {
    Outcome outcome = Outcome::Failed; // until it was read to its end
    std::vector<std::string> faults;   // what each node's is
    std::wstring message;              // of what is not sound
};

/// How many bytes all files have, for progress. Of a file that is not open yet that is not known: it is taken
/// to have as many for each of its own as those that are.
class Amount {
public:
    explicit Amount(const std::vector<std::wstring>& files) {
        for (const std::wstring& file : files)
            unopened_ += sizeOf(file);
    }

    void open(const std::wstring& file, const Document& document) {
        const auto contents = static_cast<double>(document.amountBelow({}));
        const std::lock_guard guard(lock_);
        opened_ += sizeOf(file);
        unopened_ -= std::min(unopened_, sizeOf(file));
        contents_ += contents;
        progress().expect(
            static_cast<unsigned long long>(contents_ + contents_ / std::max(opened_, 1.0) * unopened_));
    }

private:
    static double sizeOf(const std::wstring& file) {
        WIN32_FILE_ATTRIBUTE_DATA data{};
        if (!Progress::isShown() || !GetFileAttributesExW(file.c_str(), GetFileExInfoStandard, &data))
            return 0;
        constexpr double kLowHalf = 4294967296.0;
        return data.nFileSizeHigh * kLowHalf + data.nFileSizeLow;
    }

    std::mutex lock_;
    double opened_ = 0; // bytes of files
    double unopened_ = 0;
    double contents_ = 0; // in those that are open
};

// Reads everything that is in a document and notes each fault.
class Verification {
public:
    Verification(const std::wstring& file, Amount& amount, Verified& result)
        : file_(file), document_(file, RootStorageOpenMode::ReadOnlyDenyWrite), result_(result) {
        amount.open(file, document_);
    }

    void run() {
        document_.walk(
            {}, [this](const Node& node) { read(node); },
            [this](const Failure& failure, const NodePath&) {
                result_.faults.push_back(toUtf8(onOneLine(failure.message())));
                ++(document_.cannotRead(failure.status()) ? notReadable_ : faults_);
            });
        if (faults_ > 0)
            fail(count(faults_, "fault") + L" in", STG_E_DOCFILECORRUPT);
        if (notReadable_ > 0)
            fail(count(notReadable_, "node") + L" could not be checked in", E_NOTIMPL);
    }

private:
    // Why, the lines before it tell.
    [[noreturn]] void fail(const std::wstring& what, HRESULT status) const {
        throw Failure(what + L" \"" + file_ + L"\"", status);
    }

    static std::wstring count(unsigned long long number, const char* what) {
        return toUtf16(counted(number, what));
    }

    void read(const Node& node) const {
        if (node.type != StorageType::Stream)
            return;
        StreamRef stream = document_.openStream(node.path, *node.parent);
        document_.read(stream, node.path, [](std::span<const std::byte>) {});
    }

    std::wstring file_;
    Document document_;
    Verified& result_;
    unsigned long long faults_ = 0;
    unsigned long long notReadable_ = 0;
};

Verified verify(const std::wstring& file, Amount& amount) {
    Verified result;
    try {
        Verification(file, amount, result).run();
        result.outcome = Outcome::Sound;
    } catch (const Failure& failure) {
        result.message = failure.message();
        if (isNotReadable(failure.status()))
            result.outcome = Outcome::NotReadable;
        else if (!result.faults.empty())
            result.outcome = Outcome::Damaged;
    } catch (const std::bad_alloc&) {
        result.message = L"not enough memory for \"" + file + L"\"";
    }
    // Else it stays open, with what was read last, until the end of all.
    StorageContainer::Instance().deleteUnusedObjects();
    return result;
}

/// A lock for each file. One that is named twice must not be read twice at a time: all handles of a stream
/// share its position.
class FileLocks {
public:
    explicit FileLocks(const std::vector<std::wstring>& files) {
        for (const std::wstring& file : files)
            locks_[keyOf(file)];
    }

    std::mutex& of(const std::wstring& file) { return locks_.find(keyOf(file))->second; }

private:
    // Where case counts after all, two files just wait for each other.
    static std::wstring keyOf(const std::wstring& file) {
        std::wstring key = absolutePath(file);
        CharLowerBuffW(key.data(), static_cast<DWORD>(key.size()));
        return key;
    }

    static std::wstring absolutePath(const std::wstring& file) {
        try {
            return withoutLengthLimit(file);
        } catch (const Failure&) {
            return file; // which cannot be opened either
        }
    }

    std::map<std::wstring, std::mutex> locks_;
};

const char* nameOf(Outcome outcome) { return kOutcomeNames[static_cast<int>(outcome)]; }

// One file has only its faults printed; of several it is told which are sound, too.
void print(StandardOutput& output, const std::wstring& file, const Verified& result, bool isOneOfMany) {
    for (const std::string& fault : result.faults)
        output.text(fault + "\n");
    if (isOneOfMany) {
        std::string name = nameOf(result.outcome);
        name.resize(14, ' ');
        output.text(name, result.outcome == Outcome::Sound ? Style::Good : Style::Bad);
        output.text(toUtf8(onOneLine(file)) + "\n");
    }
    output.flush();
    if (result.outcome == Outcome::Sound)
        return;
    const Progress::Hidden hidden(progress());
    report(result.message);
}

nlohmann::ordered_json jsonOf(const std::wstring& file, const Verified& result) {
    nlohmann::ordered_json object;
    object["file"] = toUtf8(file);
    object["status"] = nameOf(result.outcome);
    object["faults"] = result.faults;
    object["message"] = nullptr;
    if (!result.message.empty())
        object["message"] = toUtf8(onOneLine(result.message));
    return object;
}

int statusOf(Outcome worst) {
    if (worst == Outcome::Sound)
        return 0;
    return worst == Outcome::NotReadable ? kNotReadable : 1;
}

std::vector<std::wstring> filesOf(const Arguments& arguments) {
    std::vector<std::wstring> files;
    for (const std::string& argument : arguments.files) {
        const std::vector<std::wstring> named = expandFiles(toUtf16(argument));
        files.insert(files.end(), named.begin(), named.end());
    }
    return files;
}

void run(const Arguments& arguments) {
    StandardOutput output;
    auto all = nlohmann::ordered_json::array();
    Outcome worst = Outcome::Sound;
    const std::vector<std::wstring> files = filesOf(arguments);
    FileLocks locks(files);
    Amount amount(files);
    inParallel<Verified>(
        files.size(),
        [&](std::size_t i) {
            const std::lock_guard guard(locks.of(files[i]));
            return verify(files[i], amount);
        },
        [&](std::size_t i, const Verified& result) {
            worst = std::max(worst, result.outcome);
            if (arguments.json)
                all.push_back(jsonOf(files[i], result));
            else
                print(output, files[i], result, files.size() > 1);
        });
    if (arguments.json)
        output.text(all.dump(2) + "\n");
    output.flush();
    progress().end();
    if (const int status = statusOf(worst); status != 0)
        throw SilentFailure(status);
}

void add(Command& command) {
    const auto arguments = std::make_shared<Arguments>();
    command.files(arguments->files);
    command.flag("--json", arguments->json,
                 "Print an array of {\"file\", \"status\", \"faults\", \"message\"}");
    command.examples("vexel verify hall.7z", "vexel verify --json *.7z tower.cfb");
    command.run([arguments] { run(*arguments); });
}

const CommandRegistration kRegistration("verify", "Read every stream wholly and print each fault on a line",
                                        add);

} // namespace
} // namespace Vexel::Tool
