// A file that takes the old one's place in one step is the only way in which neither a crash nor a full disk
// can cost the old contents. But it would also break links and lose names, so there are files that have to be
// written into instead. Others may be doing the same at the time; their files are open for moments, which is
// what the attempts are for.

#include "io/whole_file.h"

#include "base/last_error.h"
#include "base/platform.h"

#include <vexel/files.h>

#include <atomic>
#include <cwchar>
#include <string>

namespace Vexel::Detail {

using vxio::FileAccess;
using vxio::FileCreation;
using vxio::SimpleFile;

namespace {

constexpr unsigned kAttempts = 40;
constexpr unsigned kReplacements = 6; // attempts to put a file in the old one's place

struct Target {
    DWORD error = 0; ///< of opening it for writing; none when it is not there
    bool mayBeReplaced = true;
    DWORD attributes = INVALID_FILE_ATTRIBUTES;
};

/// What may be done with the file. It is opened for writing for a moment, because only that tells whether it
/// may be written: replacing it would go by the rights on its folder.
Target lookAt(const wchar_t* path) {
    Target target;
    target.attributes = platform().getAttributes(path);
    if (target.attributes != INVALID_FILE_ATTRIBUTES &&
        (target.attributes & (FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY))) {
        target.error = ERROR_WRITE_PROTECT; // replacing it would not ask
        return target;
    }
    SimpleFile file;
    if (!file.Open(path, FileAccess::Write, FileCreation::OpenExisting, vxio::ProtectNothing)) {
        if (file.GetLastErrorCode() != ERROR_FILE_NOT_FOUND)
            target.error = file.GetLastErrorCode();
        else // a link that leads nowhere stays, too
            target.mayBeReplaced = target.attributes == INVALID_FILE_ATTRIBUTES ||
                                   !(target.attributes & FILE_ATTRIBUTE_REPARSE_POINT);
        return target;
    }
    BY_HANDLE_FILE_INFORMATION information{};
    target.mayBeReplaced = GetFileType(file.GetHandle()) == FILE_TYPE_DISK &&
                           platform().getFileInformation(file.GetHandle(), &information) &&
                           information.nNumberOfLinks == 1 &&
                           !(target.attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_ENCRYPTED));
    return target;
}

std::wstring folderOf(const wchar_t* path) {
    std::wstring folder(path);
    const std::size_t separator = folder.find_last_of(L"\\/");
    const std::size_t drive = folder.size() > 1 && folder[1] == L':' ? 2 : 0;
    folder.resize(separator == std::wstring::npos ? drive : separator + 1);
    return folder;
}

/// Short, since a folder may be nearly as long as paths can be; unique in this process and among others.
std::wstring temporaryName() {
    static std::atomic<unsigned> counter = 0;
    wchar_t name[32];
    std::swprintf(name, std::size(name), L"~vx%lx-%x.tmp", GetCurrentProcessId(), ++counter);
    return name;
}

/// A file beside another. It goes, unless it takes the other's place.
class FileBeside {
public:
    explicit FileBeside(const wchar_t* path) : folder_(folderOf(path)) {}
    FileBeside(const FileBeside&) = delete;
    FileBeside& operator=(const FileBeside&) = delete;
    ~FileBeside() { remove(); }

    /// What went wrong when it was filled; 0 also when it could not even be made.
    DWORD fillingError() const noexcept { return fillingError_; }

    /// Once; false for good when it cannot be made.
    bool make(Bytes contents) {
        if (!isTried_)
            isMade_ = create() && fill(contents);
        isTried_ = true;
        return isMade_;
    }

    bool replace(const wchar_t* path, DWORD attributes) {
        constexpr DWORD kKept = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM | FILE_ATTRIBUTE_ARCHIVE |
                                FILE_ATTRIBUTE_NOT_CONTENT_INDEXED;
        if (attributes != INVALID_FILE_ATTRIBUTES)
            platform().setAttributes(path_.c_str(),
                                     attributes & kKept ? attributes & kKept : FILE_ATTRIBUTE_NORMAL);
        if (!platform().moveFile(path_.c_str(), path, MOVEFILE_REPLACE_EXISTING))
            return false;
        path_.clear();
        return true;
    }

private:
    bool create() {
        constexpr int kNames = 16; // of a process of this number that was ended
        for (int i = 0; i < kNames; ++i) {
            std::wstring path = folder_ + temporaryName();
            if (file_.Open(path.c_str(), FileAccess::Write, FileCreation::CreateNew, vxio::ProtectAll)) {
                path_.swap(path);
                return true;
            }
            if (file_.GetLastErrorCode() != ERROR_FILE_EXISTS)
                return false;
        }
        return false;
    }

    bool fill(Bytes contents) {
        const bool isFilled =
            file_.Write(contents.data(), contents.size()) == contents.size() && file_.Flush();
        if (!isFilled)
            fillingError_ = file_.GetLastErrorCode();
        file_.Close();
        if (!isFilled)
            remove();
        return isFilled;
    }

    void remove() noexcept {
        file_.Close();
        if (!path_.empty())
            platform().deleteFile(path_.c_str());
        path_.clear();
    }

    std::wstring folder_;
    std::wstring path_; // of what is to go
    SimpleFile file_;
    DWORD fillingError_ = 0;
    bool isTried_ = false;
    bool isMade_ = false;
};

/// Writes into the file, making it where there is none. Its size comes first: where there is no room the old
/// contents stay.
WholeFile overwrite(const wchar_t* path, Bytes contents, DWORD& error) {
    SimpleFile file;
    const auto failed = [&](WholeFile result) {
        error = file.GetLastErrorCode();
        return result;
    };
    if (!file.Open(path, FileAccess::Write, FileCreation::OpenOrCreate, vxio::ProtectWriting))
        return failed(WholeFile::NotOpened);
    const bool hasSize = GetFileType(file.GetHandle()) == FILE_TYPE_DISK;
    if (hasSize && contents.size() > file.GetLength() && !file.SetLength(contents.size()))
        return failed(WholeFile::Failed);
    const bool isWritten = file.Write(contents.data(), contents.size()) == contents.size() &&
                           (!hasSize || file.SetLength(contents.size()));
    return isWritten ? WholeFile::Written : failed(WholeFile::Failed);
}

/// What another that saves the file causes for a moment.
bool isPassing(DWORD error) noexcept {
    return error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED || error == ERROR_LOCK_VIOLATION;
}

} // namespace

// Replacing comes first. After some attempts, each of which a reader may have spoilt, the contents are
// written into the file, which a reader that shares it for writing does not hinder. A failure that does not
// pass, or stays for all attempts, is the result.
WholeFile writeWholeFile(const wchar_t* path, Bytes contents, DWORD& error) {
    FileBeside beside(path);
    for (unsigned attempt = 1;; ++attempt) {
        const Target target = lookAt(path);
        error = target.error;
        if (error == 0) {
            const bool isBeside = target.mayBeReplaced && beside.make(contents);
            if (isBeside && beside.replace(path, target.attributes))
                return WholeFile::Written;
            error = beside.fillingError();
            if (error != ERROR_SUCCESS) // which the old contents would not survive
                return WholeFile::Failed;
            error = ERROR_SHARING_VIOLATION;
            if (!isBeside || attempt >= kReplacements)
                if (const WholeFile result = overwrite(path, contents, error); result != WholeFile::NotOpened)
                    return result;
        }
        if (attempt == kAttempts || !isPassing(error))
            return WholeFile::NotOpened;
        Sleep(1 + (GetCurrentThreadId() / 4 + attempt) % 8); // two that met do not meet again
    }
}

} // namespace Vexel::Detail
