#include "support/log_capture.h"

#include <vexel/paths.h>

#include <gtest/gtest.h>

#include <set>
#include <vector>

using vxio::MakeFileNameUnique;

namespace {

constexpr bool kBrackets = true;
constexpr bool kUnderscores = false;
constexpr bool kStrip = true;
constexpr bool kKeep = false;

/// A directory that holds some names, and remembers what it was asked.
struct Directory {
    std::set<std::wstring> taken;
    std::vector<std::wstring> asked;

    std::error_code operator()(const CString& name) {
        asked.emplace_back(name.GetString());
        return taken.contains(asked.back()) ? std::make_error_code(std::errc::file_exists)
                                            : std::error_code();
    }
};

std::wstring id() { return std::to_wstring(GetCurrentProcessId()); }

TEST(UniqueNames, FindTheFirstFreeVariant) {
    struct {
        std::wstring name;
        bool brackets, strip;
        std::set<std::wstring> taken;
        std::wstring expected;
    } const cases[] = {
        {L"a (7).txt", kBrackets, kKeep, {}, L"a (7).txt"},
        {L"ab ().txt", kBrackets, kStrip, {}, L"ab.txt"},
        {L"a(7).txt", kBrackets, kStrip, {}, L"a(7).txt"},
        {L"a (7)", kBrackets, kStrip, {}, L"a"},
        {L"a (b7).txt", kBrackets, kStrip, {}, L"a (b7).txt"},
        {L" (1)", kBrackets, kStrip, {}, L" (1)"}, // the bracket closes too early
        {L" (12)", kBrackets, kStrip, {}, L""},    // and here just late enough, leaving nothing
        {L"a (2) (3).t", kBrackets, kStrip, {L"a (2).t"}, L"a (1).t"}, // split once more when taken
        {L"a (7).txt", kBrackets, kKeep, {L"a (7).txt"}, L"a (1).txt"},
        {L"a.txt", kBrackets, kKeep, {L"a.txt", L"a (1).txt"}, L"a (2).txt"},
        {L".rc", kBrackets, kKeep, {L".rc"}, L".rc (1)"},
        {L"b_3_1234.x", kUnderscores, kKeep, {L"b_3_1234.x"}, L"b_3_1234_1_" + id() + L".x"},
        {L"b_3_1234.x", kUnderscores, kStrip, {}, L"b_3_.x"},
        {L"b_3_1234.x", kUnderscores, kStrip, {L"b_3_.x"}, L"b_3__1_" + id() + L".x"},
        {L"1234", kUnderscores, kStrip, {}, L"1"},
        {L"a (7).x", kUnderscores, kStrip, {L"a (7).x"}, L"a (7)_1_" + id() + L".x"},
        {L"", kUnderscores, kStrip, {L""}, L"_1_" + id()},
    };
    const LogCapture log;
    for (const auto& c : cases) {
        Directory directory{c.taken, {}};
        CString name(c.name.c_str());
        EXPECT_TRUE(MakeFileNameUnique(name, std::ref(directory), c.brackets, c.strip));
        EXPECT_EQ(std::wstring(name.GetString()), c.expected);
        EXPECT_EQ(directory.asked.back(), c.expected);
        EXPECT_EQ(directory.asked.size(), c.taken.size() + 1) << "each once";
    }
    EXPECT_EQ(log.count(1, L"Trying temporary file name \"a (2).txt\"..."), 1);
    EXPECT_EQ(log.count(1, L"\"a.txt\""), 0) << "the name itself is no trial";
}

TEST(UniqueNames, GiveUpOnOtherErrors) {
    CString name(L"a (1).txt");
    EXPECT_FALSE(MakeFileNameUnique(name, nullptr, kBrackets, kStrip));
    for (int failAt = 0; failAt < 4; ++failAt) {
        int asked = 0;
        const auto probe = [&](const CString&) {
            return std::make_error_code(asked++ == failAt ? std::errc::permission_denied
                                                          : std::errc::file_exists);
        };
        EXPECT_FALSE(MakeFileNameUnique(name, probe, kBrackets, kStrip));
        EXPECT_EQ(asked, failAt + 1);
        EXPECT_EQ(name, L"a (1).txt"); // as it was
    }
}

} // namespace
