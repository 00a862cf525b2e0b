#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/diagnostics.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Message = LogCapture::Message;

TEST(Log, FormatsNarrowMessagesAsUtf8AndWideOnesByThePlatformsRule) {
    const LogCapture log;
    SetLastError(12345);
    VxLog_Write(7, "size %lu/%u, 0x%08x \"%s\"", 1UL, 2U, 0xABCU, "\xD0\x96.doc");
    VxLog_Write(3, "%d%%", 100);
    VxLog_WriteW(6, L"%ls|%s %hs %llu 0x%08x %p", L"\u0416", L"b", "c", 1ULL << 63, 0x80030002,
                 reinterpret_cast<void*>(0x1234));
    VxLog_Write(1, nullptr); // NOLINT: a null format is dropped
    VxLog_WriteW(1, nullptr);
    EXPECT_EQ(GetLastError(), 12345U);
    EXPECT_THAT(
        log.messages(),
        testing::ElementsAre(Message(7, L"size 1/2, 0x00000abc \"\u0416.doc\""), Message(3, L"100%"),
                             Message(6, L"\u0416|b c 9223372036854775808 0x80030002 0000000000001234")));
}

TEST(Log, KeepsMessagesOfAnyLengthWhole) {
    const LogCapture log;
    for (const std::size_t length : {0U, 1U, 510U, 511U, 512U, 513U, 100000U}) {
        const std::wstring text(length, L'\u0416');
        VxLog_WriteW(1, L"%ls", text.c_str());
        EXPECT_EQ(log.messages().back().second, text) << length;
        VxLog_Write(1, "%s", std::string(length, 'x').c_str());
        EXPECT_EQ(log.messages().back().second, std::wstring(length, L'x')) << length;
    }
}

TEST(Log, ASinkMayLogItselfAndMayThrow) {
    static int depth;
    depth = 0;
    const VxLogSink old = VxLog_SetSink(
        [](int level, const wchar_t*, void*) {
            if (++depth < 3)
                VxLog_WriteW(level, L"again");
            throw 1;
        },
        nullptr);
    VxLog_WriteW(7, L"first");
    VxLog_SetSink(old, nullptr);
    EXPECT_EQ(depth, 3);
}

// Setting a sink waits for the calls in the old one, so that what those use may go then.
TEST(Log, SinksChangeWhileManyThreadsLog) {
    struct Calls {
        std::atomic<int> begun = 0, ended = 0;
    } logged;
    const VxLogSink count = [](int, const wchar_t*, void* context) {
        auto& calls = *static_cast<Calls*>(context);
        ++calls.begun;
        Sleep(1);
        ++calls.ended;
    };
    const VxLogSink old = VxLog_SetSink(count, &logged);
    std::vector<std::jthread> threads(3);
    for (std::jthread& thread : threads)
        thread = std::jthread([] {
            for (int n = 0; n < 50; ++n)
                VxLog_WriteW(7, L"%d", n);
        });
    int lost = 0;
    for (int i = 0; i < 20; ++i) {
        Sleep(2);
        Calls own;
        EXPECT_EQ(VxLog_SetSink(count, &own), count);
        EXPECT_EQ(logged.begun, logged.ended);
        EXPECT_EQ(VxLog_SetSink(count, &logged), count);
        EXPECT_EQ(own.begun, own.ended);
        lost += own.ended;
    }
    threads.clear();
    VxLog_SetSink(old, nullptr);
    EXPECT_EQ(logged.ended + lost, 3 * 50);
}

/// What reaches the standard error stream meanwhile.
std::string standardError(const std::function<void()>& action) {
    const Support::TempFolder folder;
    const std::wstring file = folder.file(L"error");
    const HANDLE old = GetStdHandle(STD_ERROR_HANDLE);
    SetStdHandle(STD_ERROR_HANDLE,
                 CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    action();
    CloseHandle(GetStdHandle(STD_ERROR_HANDLE));
    SetStdHandle(STD_ERROR_HANDLE, old);
    return Support::readFile(file);
}

TEST(Log, TheDefaultSinkWritesLinesOfUtf8FromTheWarningLevelUp) {
    EXPECT_EQ(standardError([] {
                  for (const int level : {1, 2, 3, 4, 6, 7})
                      VxLog_WriteW(level, L"\u0416 %d\nx", level);
              }),
              "warning: \xD0\x96 4 x\nminor failure: \xD0\x96 6 x\nerror: \xD0\x96 7 x\n");
    const std::string longText(5000, 'y');
    EXPECT_EQ(standardError([&] { VxLog_Write(7, "%s", longText.c_str()); }), "error: " + longText + "\n");
}

// By what a status says, whichever facility says it; and all successes are one.
TEST(Log, StatusesBecomeErrorCodes) {
    const std::pair<HRESULT, int> cases[] = {
        {S_FALSE, VxError_None},
        {STG_S_CONVERTED, VxError_None},
        {HRESULT_FROM_WIN32(ERROR_BAD_NETPATH), 514}, // the application knows it by its number
        {MAKE_HRESULT(1, FACILITY_STORAGE, ERROR_DIRECTORY), VxError_NotFound},
        {MAKE_HRESULT(1, FACILITY_ITF, ERROR_FILE_NOT_FOUND), VxError_General},
        {HRESULT_FROM_WIN32(ERROR_SHARING_VIOLATION), VxError_InUse},
        {STG_E_DOCFILECORRUPT, VxError_Corrupt},
        {E_OUTOFMEMORY, VxError_OutOfMemory},
        {E_ABORT, VxError_Cancelled},
    };
    for (const auto& [status, code] : cases)
        EXPECT_EQ(VxHResultToVexelError(status), code) << std::hex << status;
}

} // namespace
