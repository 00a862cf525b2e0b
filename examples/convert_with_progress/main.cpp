// Makes a package of a document of either format, shows how far it is, and can be interrupted.
//
//   convert_with_progress.exe DOCUMENT PACKAGE [PERCENT]
//
// Ctrl-C ends the work, and so does reaching PERCENT, for those who want to see that happen. Either way
// nothing is left behind: the package is made under another name and gets its own when it is whole.
#include <vexel/copying.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {

std::atomic<bool> isInterrupted{false};

// The system calls this on a thread of its own.
BOOL WINAPI onCtrlC(DWORD /*event*/) {
    isInterrupted = true;
    return TRUE;
}

// Finds out how much there is to do: a walk meets every element, and reads no contents.
class Measure : public Vexel::TreeObserver {
public:
    bool onNode(const Vexel::TreeNode& node) override {
        bytes_ += node.size;
        return true;
    }
    unsigned long long bytes() const { return bytes_; }

private:
    unsigned long long bytes_ = 0;
};

class Progress : public Vexel::TreeObserver {
public:
    Progress(unsigned long long all, unsigned long long stopAt) : all_(all), stopAt_(stopAt) {}

    // False ends the work with the status E_ABORT.
    bool onProgress(unsigned long long bytes) override {
        done_ += bytes;
        const unsigned long long percent = all_ == 0 ? 100 : done_ * 100 / all_;
        for (; shown_ <= percent; shown_ += 25)
            std::printf("%llu %%\n", shown_);
        return !isInterrupted && percent < stopAt_;
    }
    // True goes on with what else can be had. The copy fails in the end, but whoever waits for it learns
    // about every element that is missing.
    bool onFault(const Vexel::TreeFault& fault) override {
        std::printf("cannot copy");
        for (const SharedPathName& name : fault.path)
            std::printf(" / %ls", name.asString());
        std::printf(": 0x%08lx\n", static_cast<unsigned long>(fault.status));
        return true;
    }

private:
    unsigned long long all_;
    unsigned long long stopAt_;
    unsigned long long done_ = 0;
    unsigned long long shown_ = 25;
};

SharedPathName pathOf(const CString& text) { return {text, false, false}; }

// The handles go when this returns. That matters: a file that is open can be neither renamed nor deleted.
long convert(const CString& from, const CString& to, unsigned long long stopAt) {
    StorageRef source;
    StorageRef target;
    long status = source.open(pathOf(from), RootStorageOpenMode::ReadOnlyDenyWrite, false);
    Measure measure;
    if (status == S_OK)
        status = Vexel::walkTree(source, measure);
    if (status == S_OK)
        status = target.create(pathOf(to));
    Progress progress(measure.bytes(), stopAt);
    if (status == S_OK)
        status = Vexel::copyTree(source, target, &progress);
    return status == S_OK ? target.commit() : status;
}

} // namespace

// NOLINTNEXTLINE(misc-use-internal-linkage): the entry point is called from outside.
int wmain(int count, wchar_t** arguments) {
    if (count != 3 && count != 4) {
        std::printf("usage: convert_with_progress DOCUMENT PACKAGE [PERCENT]\n");
        return 2;
    }
    SetConsoleCtrlHandler(onCtrlC, TRUE);
    const CString package = arguments[2];
    const CString unfinished = package + L".unfinished";
    const unsigned long long stopAt = count == 4 ? wcstoull(arguments[3], nullptr, 10) : 101;
    if (GetFileAttributesW(package) != INVALID_FILE_ATTRIBUTES) {
        std::printf("there is a file with the package's name\n");
        return 1;
    }
    long status = convert(arguments[1], unfinished, stopAt);
    // A package stays open without handles, so that it need not be read again. This closes it.
    StorageContainer::Instance().deleteUnusedObjects();
    // Does not replace a file that came in between.
    if (status == S_OK && !MoveFileExW(unfinished, package, 0))
        status = HRESULT_FROM_WIN32(GetLastError());
    if (status == S_OK) {
        std::printf("converted\n");
        return 0;
    }
    // Large documents are written piece by piece, so that a part of this one may be there.
    DeleteFileW(unfinished);
    if (status == E_ABORT)
        std::printf("stopped, and nothing was made\n");
    else
        std::printf("not converted: 0x%08lx\n", static_cast<unsigned long>(status));
    return 1;
}
