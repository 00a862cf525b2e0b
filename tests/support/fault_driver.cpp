#include "support/fault_driver.h"

#include "support/faulty_storage.h"

#include <algorithm>
#include <atomic>
#include <system_error>
#include <thread>

namespace Support {

using Vexel::Detail::Platform;
using Vexel::Detail::platform;

namespace {

Platform real;
FaultForm form;
unsigned formNumber = 0;
std::atomic<std::ptrdiff_t> blocks;
std::atomic<unsigned> used, firstStruck, endOfStruck, hits;

/// Whether this use of the point fails. Threads that pack use the seam, too.
bool isStruck() {
    const unsigned use = used++;
    const bool strikes = use >= firstStruck && use < endOfStruck;
    if (strikes) {
        ++hits;
        SetLastError(static_cast<DWORD>(form.code));
    }
    return strikes;
}

template <auto A, auto B>
inline constexpr bool kIsSame = false;
template <auto A>
inline constexpr bool kIsSame<A, A> = true;

/// What a call that moves bytes does instead.
template <auto Member, class Data>
BOOL move(HANDLE file, Data data, DWORD size, DWORD* count, OVERLAPPED* at) {
    *count = 0;
    if (form.kind == FaultForm::Short)
        return (real.*Member)(file, data, size / 2, count, at);
    if (form.kind != FaultForm::Excess)
        return form.kind == FaultForm::Nothing;
    const BOOL done = (real.*Member)(file, data, size, count, at);
    *count = size + 4096;
    return done;
}

BOOL resize(HANDLE file, LARGE_INTEGER* size) {
    if (!real.getFileSize(file, size))
        return FALSE;
    size->QuadPart += form.code;
    return TRUE;
}

/// A call of the seam that fails where it is meant to.
template <auto Member>
struct Tap;
template <class Result, class... Arguments, bool IsSafe,
          Result (*Platform::*Member)(Arguments...) noexcept(IsSafe)>
struct Tap<Member> {
    static void install() { platform().*Member = call; }
    static Result call(Arguments... arguments) noexcept(IsSafe) {
        return isStruck() ? fail(arguments...) : (real.*Member)(arguments...);
    }
    static Result fail([[maybe_unused]] Arguments... arguments) noexcept(IsSafe) {
        if constexpr (kIsSame<Member, &Platform::readFile> || kIsSame<Member, &Platform::writeFile>)
            return move<Member>(arguments...);
        else if constexpr (kIsSame<Member, &Platform::createFile>)
            return INVALID_HANDLE_VALUE;
        else if constexpr (kIsSame<Member, &Platform::getAttributes>)
            return INVALID_FILE_ATTRIBUTES;
        else if constexpr (kIsSame<Member, &Platform::startThread>)
            throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
        else if constexpr (kIsSame<Member, &Platform::getFileSize>)
            return form.kind == FaultForm::Resized ? resize(arguments...) : FALSE;
        else if constexpr (kIsSame<Member, &Platform::probeForWriting> || std::is_same_v<Result, HRESULT>)
            return static_cast<Result>(form.code); // they return what failed
        else
            return Result{};
    }
};

/// A disk with room for so many more bytes.
BOOL writeWhileThereIsRoom(HANDLE file, const void* data, DWORD size, DWORD* count, OVERLAPPED* at) {
    const unsigned before = used.fetch_add(size), end = firstStruck;
    if (before + size <= end || before >= endOfStruck)
        return real.writeFile(file, data, size, count, at);
    ++hits;
    *count = 0;
    const DWORD fitting = before < end ? end - before : 0;
    if (fitting > 0)
        return real.writeFile(file, data, fitting, count, at);
    SetLastError(static_cast<DWORD>(form.code));
    return form.kind == FaultForm::Nothing;
}

HRESULT openFaulty(const wchar_t* path, DWORD stgm, DWORD format, DWORD attributes, STGOPTIONS* options,
                   PSECURITY_DESCRIPTOR security, REFIID iid, void** opened) {
    Microsoft::WRL::ComPtr<IStorage> inner;
    const HRESULT status = real.openStorage(path, stgm, format, attributes, options, security, iid,
                                            reinterpret_cast<void**>(inner.GetAddressOf()));
    *opened = status == S_OK ? static_cast<IStorage*>(new FaultyStorage(inner)) : nullptr;
    return status;
}

/// The fault is before, in the middle of or after what is done, by turns: the same call in each form another
/// way.
void installCallersStream() {
    FaultyStorage::draw = [] {
        const auto turn =
            form.kind == FaultForm::Excess ? Fault::Excess : static_cast<Fault>(1 + (used + formNumber) % 3);
        return std::pair(isStruck() ? turn : Fault::None, static_cast<HRESULT>(form.code));
    };
}
void installFaultyStorage() {
    FaultyStorage::includesStreams = true;
    installCallersStream();
    platform().openStorage = openFaulty;
}

/// The seam of this program, whose blocks and pages are counted.
template <auto Take, auto GiveBack>
void countBlocks(Platform& counting) {
    static Platform uncounted;
    uncounted = counting;
    if constexpr (kIsSame<Take, &Platform::reallocate>)
        counting.*Take = [](void* block, unsigned long long bytes) noexcept {
            void* const taken = (uncounted.*Take)(block, bytes);
            blocks += !block && taken;
            return taken;
        };
    else
        counting.*Take = [](unsigned long long bytes) noexcept {
            void* const taken = (uncounted.*Take)(bytes);
            blocks += taken != nullptr;
            return taken;
        };
    counting.*GiveBack = [](void* block) noexcept {
        blocks -= block != nullptr;
        (uncounted.*GiveBack)(block);
    };
}

using Kind = FaultForm::Kind;
constexpr FaultForm kErrors[] = {{"ERROR_DISK_FULL", Kind::Fails, ERROR_DISK_FULL},
                                 {"ERROR_ACCESS_DENIED", Kind::Fails, ERROR_ACCESS_DENIED},
                                 {"no error", Kind::Fails, 0},
                                 {"ERROR_SHARING_VIOLATION", Kind::Fails, ERROR_SHARING_VIOLATION},
                                 {"ERROR_INVALID_DATA", Kind::Fails, ERROR_INVALID_DATA},
                                 {"ERROR_TOO_MANY_OPEN_FILES", Kind::Fails, ERROR_TOO_MANY_OPEN_FILES},
                                 {"ERROR_NOT_ENOUGH_MEMORY", Kind::Fails, ERROR_NOT_ENOUGH_MEMORY},
                                 {"ERROR_CRC", Kind::Fails, ERROR_CRC},
                                 {"fewer bytes", Kind::Short, 0}, // from here on of reading and writing only
                                 {"no bytes", Kind::Nothing, 0},
                                 {"more bytes than asked for", Kind::Excess, 0}};
constexpr std::span<const FaultForm> kTransferErrors{kErrors}, kCallErrors{kErrors, 8};
/// No failure is a success here, which "no error" would be.
constexpr FaultForm kReturnedErrors[] = {kErrors[1], kErrors[3], kErrors[4], kErrors[5], kErrors[7]};
constexpr FaultForm kSizes[] = {kErrors[7],
                                kErrors[2],
                                {"too small a size", Kind::Resized, -1000},
                                {"too large a size", Kind::Resized, 4096},
                                {"a negative size", Kind::Resized, -100'000'000}};
constexpr FaultForm kStatuses[] = {{"STG_E_ACCESSDENIED", Kind::Fails, STG_E_ACCESSDENIED},
                                   {"S_FALSE", Kind::Fails, S_FALSE},
                                   {"0x20000002, a success", Kind::Fails, 0x20000002},
                                   {"STG_E_MEDIUMFULL", Kind::Fails, STG_E_MEDIUMFULL},
                                   {"STG_E_INSUFFICIENTMEMORY", Kind::Fails, STG_E_INSUFFICIENTMEMORY},
                                   {"STG_E_TOOMANYOPENFILES", Kind::Fails, STG_E_TOOMANYOPENFILES},
                                   {"STG_E_SHAREVIOLATION", Kind::Fails, STG_E_SHAREVIOLATION},
                                   {"0x80030000, no error", Kind::Fails, static_cast<long>(0x80030000)},
                                   kErrors[10]}; // from here on of reading and writing only
constexpr std::span<const FaultForm> kCallStatuses{kStatuses, 8};
constexpr FaultForm kNone[] = {{"none", Kind::Fails, ERROR_NOT_ENOUGH_MEMORY}};
constexpr FaultForm kNoRoom[] = {kErrors[0], kErrors[2], kErrors[9]};

// Deleting, cutting files off and asking for entries are not among them: mostly another failure leads there,
// and the tests of temporary files and of archives have them fail.
constexpr FaultPoint kPoints[] = {
    {"createFile", kCallErrors, Tap<&Platform::createFile>::install, 1, true},
    {"readFile", kTransferErrors, Tap<&Platform::readFile>::install, 1, true},
    {"writeFile", kTransferErrors, Tap<&Platform::writeFile>::install, 1, true},
    {"room on the disk", kNoRoom, [] { platform().writeFile = writeWhileThereIsRoom; }, 1511},
    {"flushFile", kCallErrors, Tap<&Platform::flushFile>::install, 1, true},
    {"moveFile", kCallErrors, Tap<&Platform::moveFile>::install, 1, true},
    {"copyFile", kCallErrors, Tap<&Platform::copyFile>::install},
    {"setPosition", kCallErrors, Tap<&Platform::setPosition>::install, 1, true},
    {"getFileSize", kSizes, Tap<&Platform::getFileSize>::install},
    {"getFileTime", kCallErrors, Tap<&Platform::getFileTime>::install},
    {"getAttributes", kCallErrors, Tap<&Platform::getAttributes>::install},
    {"setAttributes", kCallErrors, Tap<&Platform::setAttributes>::install},
    {"getFileInformation", kCallErrors, Tap<&Platform::getFileInformation>::install},
    {"probeForWriting", kReturnedErrors, Tap<&Platform::probeForWriting>::install},
    {"openStorage", kCallStatuses, Tap<&Platform::openStorage>::install},
    {"isStorageFile", kCallStatuses, Tap<&Platform::isStorageFile>::install},
    {"calls of the system's storage", kStatuses, installFaultyStorage},
    {"calls of the caller's stream", kStatuses, installCallersStream},
    {"reallocate", kNone, Tap<&Platform::reallocate>::install},
    {"commitPages", kNone, Tap<&Platform::commitPages>::install},
    {"startThread", kNone, Tap<&Platform::startThread>::install},
    {"operator new", kNone, nullptr}};

} // namespace

std::span<const FaultPoint> faultPoints() { return kPoints; }

bool FaultForm::isShortage() const noexcept {
    return code == ERROR_NOT_ENOUGH_MEMORY || code == ERROR_TOO_MANY_OPEN_FILES ||
           code == STG_E_INSUFFICIENTMEMORY || code == STG_E_TOOMANYOPENFILES;
}

std::string PlannedFault::name() const {
    const char* const uses = times == 1 ? " only in use " : " some times from use ";
    return std::string(point.name) + ": " + form.name + (times == kForGood ? " from use " : uses) +
           std::to_string(skipped);
}

FaultDriver::FaultDriver() : real_(platform()) {
    countBlocks<&Platform::reallocate, &Platform::freeMemory>(real_);
    countBlocks<&Platform::commitPages, &Platform::releasePages>(real_);
    for (const FaultPoint& point : kPoints) // all at once, so that none looks like a leak
        for (const FaultForm& kind : point.forms)
            tally_[std::string(point.name) + ", " + kind.name] = 0;
    release();
}

void FaultDriver::install(const FaultPoint& point) const {
    real = real_;
    firstStruck = endOfStruck = 0;
    release();
    if (point.install)
        point.install();
}

void FaultDriver::release() const {
    platform() = real_;
    FaultyStorage::draw = [] { return std::pair(Fault::None, S_OK); };
}

unsigned FaultDriver::count(const FaultPoint& point, const std::function<void()>& call) {
    firstStruck = endOfStruck = PlannedFault::kForGood;
    used = 0;
    call();
    firstStruck = endOfStruck = 0;
    return point.install ? used.load() : 1;
}

bool FaultDriver::strike(const PlannedFault& fault, const std::function<void()>& call) {
    form = fault.form;
    formNumber = static_cast<unsigned>(&fault.form - fault.point.forms.data());
    hits = used = 0;
    firstStruck = fault.skipped;
    endOfStruck = fault.times > PlannedFault::kForGood - fault.skipped ? PlannedFault::kForGood
                                                                       : fault.skipped + fault.times;
    bool isHit = false;
    if (fault.point.install)
        call();
    else
        isHit = WithFailingAllocation(fault.skipped, call, fault.times != 1);
    firstStruck = endOfStruck = 0;
    isHit |= hits > 0;
    if (isHit)
        ++tally_[std::string(fault.point.name) + ", " + fault.form.name];
    return isHit;
}

std::ptrdiff_t liveBlocks() noexcept { return blocks; }

unsigned openHandles() noexcept {
    // The system gives out the lowest numbers first, so that a long gap is the end.
    constexpr std::uintptr_t kStep = 4, kLongestGap = 512;
    unsigned count = 0;
    for (std::uintptr_t number = kStep, last = 0; number - last < kLongestGap; number += kStep) {
        DWORD flags = 0;
        if (GetHandleInformation(reinterpret_cast<HANDLE>(number), &flags)) {
            ++count;
            last = number;
        }
    }
    return count;
}

} // namespace Support
