#include "base/handles.h"
#include "base/last_error.h"
#include "base/platform.h"
#include "base/process_end.h"
#include "paths/temp_names.h"
#include "paths/temp_records.h"

#include <vexel/diagnostics.h>
#include <vexel/temp_files.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Locks. The registry's mutex is taken first; the wake-up's mutex and the path-name table's lock (interning
// and releasing names) are taken inside it and never the other way round. The deletion thread deletes files
// without the mutex, so a name may be taken back, marked again or removed meanwhile: each mark for deletion
// has a number, and the thread removes a record only if it still bears the mark it was collected with.
//
// Process exit. As part of the DLL the registry is destroyed when the system has already ended all other
// threads, wherever they were. Nothing may then be waited for, and nothing of the threads' own be touched:
// not the mutex they may have held, not the condition variable that may still count the deletion thread as
// waiting, not its thread object, whose functions lock too. The records are used without the mutex, for they
// are whole wherever a thread was stopped.

using Vexel::Detail::FailureNote;
using Vexel::Detail::FileHandle;
using Vexel::Detail::isProcessEnding;
using Vexel::Detail::lastError;
using Vexel::Detail::platform;
using Vexel::Detail::TempRecord;
using Vexel::Detail::TempRecords;

namespace {

/// A file the deletion thread is about to delete, with what it knew of the record.
struct MarkedFile {
    SharedPathName name;
    FailureNote lastFailure;
    unsigned long long mark;
    bool deleted = false;
};

/// Whether the file is gone. A failure is logged unless it was logged for this file a minute ago or less.
bool deleteTempFile(const SharedPathName& name, FailureNote& lastFailure) {
    constexpr DWORD kSilentMilliseconds = 60001;
    if (platform().deleteFile(name.asString()))
        return true;
    const DWORD error = lastError();
    if (error == ERROR_FILE_NOT_FOUND)
        return true;
    const DWORD now = platform().getTickCount();
    if (error == lastFailure.error && now - lastFailure.tick < kSilentMilliseconds)
        return false;
    lastFailure = {now, error};
    VxLog_WriteW(VxLog_Error, L"Failed to delete temporary file \"%s\": 0x%08x", name.asString(), error);
    return false;
}

/// Wakes the deletion thread. A wake-up that comes while the thread is not waiting is lost, the order to stop
/// is not.
// Not a stop token: in some standard libraries taking back a stop callback while it runs never ends.
class WakeUp {
public:
    void broadcast() {
        const std::lock_guard lock(mutex_);
        wake_.notify_all();
    }
    void requestStop() {
        const std::lock_guard lock(mutex_);
        stopRequested_ = true;
        wake_.notify_all();
    }
    void clearStop() {
        const std::lock_guard lock(mutex_);
        stopRequested_ = false;
    }
    bool stopRequested() const {
        const std::lock_guard lock(mutex_);
        return stopRequested_;
    }

    /// Waits for one wake-up or the order to stop, with `outer` released meanwhile.
    void wait(std::unique_lock<std::recursive_mutex>& outer) {
        std::unique_lock lock(mutex_);
        outer.unlock();
        if (!stopRequested_)
            wake_.wait(lock);
        lock.unlock(); // the outer one comes first
        outer.lock();
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    bool stopRequested_ = false;
};

/// Keeps this module loaded for good: the thread runs its code, and unloading could not wait for the thread,
/// which needs the loader to end.
void pinModule() {
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                       reinterpret_cast<const wchar_t*>(&pinModule), &module);
}

} // namespace

struct TempFileContainer::State {
    std::recursive_mutex mutex;
    WakeUp wake;
    TempRecords records;
    /// Marks for deletion not yet worked off. A mark that `insert` takes back goes on counting.
    unsigned long long pendingCount = 0;
    unsigned long long lastMark = 0;
    std::thread deletionThread; ///< none until the first deferred deletion

    /// Takes the mutex, unless the process is ending.
    std::unique_lock<std::recursive_mutex> enter();
    void mark(TempRecord& record);
    bool wakeThread();
    bool startThread();
    void stopThread();
    void deleteNow(TempRecords::Entry& file);

    void runDeletionThread();
    std::vector<MarkedFile> waitAndCollect();
    std::vector<MarkedFile> collect();
    void settle(const std::vector<MarkedFile>& files);
};

std::unique_lock<std::recursive_mutex> TempFileContainer::State::enter() {
    return isProcessEnding() ? std::unique_lock<std::recursive_mutex>() : std::unique_lock(mutex);
}

void TempFileContainer::State::mark(TempRecord& record) {
    record.handle.close();
    record.pendingDeletion = true;
    record.mark = ++lastMark;
    ++pendingCount;
}

/// False when there is none.
bool TempFileContainer::State::wakeThread() {
    if (isProcessEnding() || !deletionThread.joinable())
        return false;
    wake.broadcast();
    return true;
}

bool TempFileContainer::State::startThread() {
    if (isProcessEnding())
        return false;
    try {
        pinModule();
        deletionThread = platform().startThread([this] { runDeletionThread(); });
        return true;
    } catch (const std::exception& error) {
        VxLog_Write(VxLog_Error, "Failed to start the temporary file deletion thread: %s", error.what());
        return false;
    }
}

void TempFileContainer::State::stopThread() {
    if (isProcessEnding() || !deletionThread.joinable())
        return;
    wake.requestStop();
    deletionThread.join();
    wake.clearStop();
}

/// Deletes the file in the calling thread; the record stays when that fails.
void TempFileContainer::State::deleteNow(TempRecords::Entry& file) {
    auto& [name, record] = file;
    record.handle.close();
    // At the end of the process the record stays: a thread may have been stopped in the middle of the heap.
    if (!deleteTempFile(name, record.lastFailure) || isProcessEnding())
        return;
    if (record.pendingDeletion)
        --pendingCount;
    records.remove(file);
}

void TempFileContainer::State::runDeletionThread() {
    do {
        std::vector<MarkedFile> files = waitAndCollect();
        for (MarkedFile& file : files)
            file.deleted = deleteTempFile(file.name, file.lastFailure);
        settle(files);
    } while (!wake.stopRequested());
}

std::vector<MarkedFile> TempFileContainer::State::waitAndCollect() {
    std::unique_lock lock(mutex);
    // Whatever there is to do by now: files marked before, the one that started the thread included, go with
    // the next wake-up.
    wake.wait(lock);
    try {
        return collect();
    } catch (const std::exception& error) {
        // Short of memory; the files stay marked for a later pass.
        VxLog_Write(VxLog_Error, "Failed to collect the temporary files to delete: %s", error.what());
        return {};
    }
}

std::vector<MarkedFile> TempFileContainer::State::collect() {
    std::vector<MarkedFile> files;
    files.reserve(pendingCount);
    records.forEach([&](const TempRecords::Entry& file) {
        const auto& [name, record] = file;
        if (record.pendingDeletion)
            files.push_back({name, record.lastFailure, record.mark});
    });
    return files;
}

/// Enters what became of the collected files.
void TempFileContainer::State::settle(const std::vector<MarkedFile>& files) {
    const std::lock_guard lock(mutex);
    for (const MarkedFile& file : files) {
        TempRecords::Entry* const found = records.find(file.name);
        if (!found || !found->second.pendingDeletion || found->second.mark != file.mark)
            continue;
        found->second.lastFailure = file.lastFailure;
        if (file.deleted) {
            records.remove(*found);
            --pendingCount;
        }
    }
}

TempFileContainer::TempFileContainer() : state_(std::make_unique<State>()) {}

TempFileContainer::~TempFileContainer() {
    clearAll();
    // The state is left to the end of the process then: destroying a condition variable waits for its
    // waiters, and a thread object that still stands for a thread ends the process.
    if (isProcessEnding())
        static_cast<void>(state_.release());
}

TempFileContainer& TempFileContainer::Instance() {
    static TempFileContainer instance;
    return instance;
}

namespace {

// Made while the module is loaded: the first use may be at the end of the process, when no local static
// object must be made any more. Without memory for it the module cannot be loaded.
// NOLINTNEXTLINE(bugprone-throwing-static-initialization)
[[maybe_unused]] const TempFileContainer& madeEarly = TempFileContainer::Instance();

} // namespace

CString TempFileContainer::generateUniqueFileName(const wchar_t* prefix, const wchar_t* extension) const {
    return Vexel::Detail::makeTempFileName(prefix, extension);
}

SharedPathName TempFileContainer::insert(const wchar_t* prefix, const wchar_t* extension, bool holdHandle,
                                         bool userFlag) {
    std::wstring path = Vexel::Detail::getTempNaming().directory.data();
    path += generateUniqueFileName(prefix, extension).GetString();
    return insert(SharedPathName(std::wstring_view(path), false, false), holdHandle, userFlag);
}

SharedPathName TempFileContainer::insert(const SharedPathName& name, bool holdHandle, bool userFlag) {
    if (name.empty())
        return name;
    const auto lock = state_->enter();
    TempRecord& record = state_->records.findOrAdd(name).second;
    // The pending count is not taken back with the mark, so `clear` goes on reporting unfinished work.
    record.pendingDeletion = false;
    record.userFlag = userFlag;
    if (holdHandle && !record.handle) {
        constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        // Of a link the link itself, as DeleteFileW does, and not what it leads to.
        constexpr DWORD kFlags = FILE_FLAG_DELETE_ON_CLOSE | FILE_FLAG_OPEN_REPARSE_POINT;
        record.handle = FileHandle(
            platform().createFile(name.asString(), 0, kShareAll, nullptr, OPEN_EXISTING, kFlags, nullptr));
    }
    return name;
}

SharedPathName TempFileContainer::insertCopy(const wchar_t* source, const wchar_t* prefix,
                                             const wchar_t* extension, unsigned long* error, bool holdHandle,
                                             bool userFlag) {
    const auto report = [error](DWORD code) {
        if (error)
            *error = code;
    };
    if (!source || !*source) {
        report(ERROR_INVALID_PARAMETER);
        return {};
    }

    SharedPathName target = insert(prefix, extension, holdHandle, userFlag);
    VxLog_WriteW(VxLog_Notice, L"Copying file \"%ls\" to \"%ls\"...", source, target.asString());
    if (!platform().copyFile(source, target.asString(), FALSE)) {
        const DWORD code = lastError();
        report(code);
        VxLog_WriteW(VxLog_Error, L"Failed to copy file \"%ls\" to \"%ls\": 0x%08x", source,
                     target.asString(), code);
        erase(target);
        return {};
    }
    report(ERROR_SUCCESS);
    // A read-only source must not make a temporary file that cannot be written or deleted.
    if (!platform().setAttributes(target.asString(), FILE_ATTRIBUTE_NORMAL)) {
        VxLog_WriteW(VxLog_Minor, L"Failed to change attributes of the file \"%ls\": 0x%08x",
                     target.asString(), GetLastError());
    }
    return target;
}

bool TempFileContainer::contains(const SharedPathName& name) const {
    const auto lock = state_->enter();
    return !name.empty() && state_->records.find(name);
}

void TempFileContainer::erase(const SharedPathName& name) {
    if (name.empty())
        return;
    const auto lock = state_->enter();
    TempRecords::Entry* const found = state_->records.find(name);
    if (!found || found->second.pendingDeletion)
        return;
    state_->mark(found->second);
    if (!state_->wakeThread() && !state_->startThread())
        state_->deleteNow(*found);
}

void TempFileContainer::release(const SharedPathName& name) {
    if (name.empty())
        return;
    const auto lock = state_->enter();
    TempRecords::Entry* const found = state_->records.find(name);
    if (found && !found->second.handle && !found->second.pendingDeletion)
        state_->records.remove(*found);
}

bool TempFileContainer::clear() {
    const auto lock = state_->enter();
    if (state_->pendingCount == 0)
        return true;
    if (state_->wakeThread())
        return false;
    state_->records.forEach([this](TempRecords::Entry& file) {
        if (file.second.pendingDeletion)
            state_->deleteNow(file);
    });
    return state_->pendingCount == 0;
}

// Without the mutex: at the end of the process a thread may be gone that never gave it back.
void TempFileContainer::clearAll() {
    state_->stopThread();
    state_->records.forEach([this](TempRecords::Entry& file) { state_->deleteNow(file); });
}
