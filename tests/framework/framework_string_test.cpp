#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cwctype>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace {

std::wstring wide(const CString& text) {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

/// A place in a string, a number of characters that may go beyond its end, and a word.
struct Draw {
    int at, count;
    std::wstring word;
    std::size_t from() const { return static_cast<std::size_t>(at); }
    std::size_t many() const { return static_cast<std::size_t>(count); }
};

/// The same change of a string of ours and of a standard one, which says what must come out.
struct Change {
    void (*ours)(CString& s, const Draw& draw);
    void (*standard)(std::wstring& s, const Draw& draw);
};

void fillBuffer(CString& s, const Draw& draw) {
    wchar_t* text = s.GetBuffer(draw.count);
    std::wmemset(text, L'q', draw.many());
    text[draw.count] = 0;
    s.ReleaseBuffer();
}

void replaceAll(std::wstring& s, const Draw& /*draw*/) {
    for (std::size_t at = 0; (at = s.find(L"ab", at)) != std::wstring::npos; at += 3)
        s.replace(at, 2, L"a--");
}

const Change kChanges[] = {
    {[](CString& s, const Draw& d) { s += d.word.c_str(); },
     [](std::wstring& s, const Draw& d) { s += d.word; }},
    {[](CString& s, const Draw&) { s.GetLength() < 2000 ? s += s : s; },
     [](std::wstring& s, const Draw&) { s.size() < 2000 ? s += s : s; }},
    {[](CString& s, const Draw& d) { s.Append(s.GetString() + d.at); },
     [](std::wstring& s, const Draw& d) { s += s.substr(d.from()); }},
    {[](CString& s, const Draw& d) { s = s.GetString() + (d.count % 4 ? 0 : d.at); },
     [](std::wstring& s, const Draw& d) { s.erase(0, d.count % 4 ? 0 : d.from()); }},
    {[](CString& s, const Draw& d) { s.Insert(d.at, d.word.c_str()); },
     [](std::wstring& s, const Draw& d) { s.insert(d.from(), d.word); }},
    {[](CString& s, const Draw& d) { s.Delete(d.at, d.count % 6); },
     [](std::wstring& s, const Draw& d) { s.erase(d.from(), d.many() % 6); }},
    {[](CString& s, const Draw& d) { (s += L'y').SetAt(d.at, L'z'); },
     [](std::wstring& s, const Draw& d) { (s += L'y')[d.from()] = L'z'; }},
    {[](CString& s, const Draw& d) { s.Truncate(d.count % 4 ? s.GetLength() : d.at); },
     [](std::wstring& s, const Draw& d) { s.resize(d.count % 4 ? s.size() : d.from()); }},
    {fillBuffer, [](std::wstring& s, const Draw& d) { s.assign(d.many(), L'q'); }},
    {[](CString& s, const Draw& d) { s.ReleaseBufferSetLength(d.at); },
     [](std::wstring& s, const Draw& d) { s.resize(d.from()); }},
    {[](CString& s, const Draw&) { s.Replace(L"ab", L"a--"); }, replaceAll},
    {[](CString& s, const Draw&) { s.MakeUpper(); },
     [](std::wstring& s, const Draw&) { std::transform(s.begin(), s.end(), s.begin(), std::towupper); }},
    {[](CString& s, const Draw&) { s.MakeLower(); },
     [](std::wstring& s, const Draw&) { std::transform(s.begin(), s.end(), s.begin(), std::towlower); }},
};

TEST(FrameworkString, FollowsAStandardStringThroughAnyChangesAndCopiesStayAsTheyWere) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        std::mt19937 random(seed);
        const auto upTo = [&](std::size_t most) { return static_cast<int>(random() % (most + 1)); };
        CString ours;
        std::wstring standard;
        std::vector<std::pair<CString, std::wstring>> copies;
        for (int i = 0; i < 300; ++i) {
            copies.emplace_back(ours, standard);
            Draw draw{upTo(standard.size()), upTo(40), std::wstring(random() % 10, L' ')};
            for (wchar_t& c : draw.word)
                c = L"abAB.\u0416"[upTo(5)];
            EXPECT_EQ(wide(ours.Mid(draw.at, draw.count)), standard.substr(draw.from(), draw.many()));
            EXPECT_EQ(wide(ours.Left(draw.at)) + wide(ours.Mid(draw.at)), standard);
            EXPECT_EQ(wide(ours.Right(draw.at)), standard.substr(standard.size() - draw.from()));

            const Change& change = kChanges[random() % std::size(kChanges)];
            change.ours(ours, draw);
            change.standard(standard, draw);
            ASSERT_EQ(wide(ours), standard) << "seed " << seed << " step " << i;
            ASSERT_EQ(ours.GetString()[ours.GetLength()], L'\0');
            if (i % 3)
                copies.pop_back(); // so that buffers are shared in some steps and owned in others
        }
        for (const auto& [ourCopy, standardCopy] : copies)
            ASSERT_EQ(wide(ourCopy), standardCopy) << "seed " << seed;
    }
}

TEST(FrameworkString, AppendsItsOwnTextAlthoughTheBufferMoves) {
    CString text(L'x', 1 << 20); // so large that the heap unmaps a freed one
    text.Append(text.GetString() + 1, text.GetLength() - 1);
    EXPECT_EQ(text, CString(L'x', (2 << 20) - 1));
}

TEST(FrameworkString, EmptyOnesAreTextToo) {
    const CString moved = [] {
        CString from(L"x");
        const CString to = std::move(from);
        return from; // NOLINT(bugprone-use-after-move): a moved-from string is empty
    }();
    for (const CString& empty :
         {CString(), CString(L""), moved, CString(static_cast<const wchar_t*>(nullptr)),
          CString(static_cast<const char*>(nullptr)), CString(L"abc", 0)}) {
        EXPECT_STREQ(empty.GetString(), L"");
        EXPECT_EQ(empty.GetLength(), 0);
        EXPECT_EQ(empty.Find(L'a'), -1);
        EXPECT_EQ(wide(empty + L"b"), L"b");
        EXPECT_EQ(empty[0], L'\0');
    }
}

TEST(FrameworkString, ComparesAndSearches) {
    const CString a = L"Dir\\a";
    EXPECT_LT(a, L"dir\\B");
    EXPECT_LT(L"Dir", a);
    EXPECT_EQ(a.CompareNoCase(L"dIR\\A"), 0);
    EXPECT_LT(a.CompareNoCase(L"dir\\B"), 0);
    EXPECT_GT(CString(L"\xFFFF").Compare(L"\x0001"), 0);
    const CString text = L"a.b.c";
    EXPECT_EQ(text.Find(L'.', 2), 3);
    EXPECT_EQ(text.Find(L".c"), 3);
    EXPECT_EQ(text.Find(L'.', 6), -1);
    EXPECT_EQ(text.Find(L'.', -1), -1);
    EXPECT_EQ(text.ReverseFind(L'.'), 3);
    EXPECT_EQ(text.FindOneOf(L"cb"), 2);
    CString slashes = L"a/b/c";
    EXPECT_EQ(slashes.Replace(L'/', L'\\'), 2);
    EXPECT_EQ(slashes.Insert(1, L'\0'), 6) << "a zero is a character too";
    EXPECT_EQ(wide(slashes), std::wstring(L"a\0\\b\\c", 6));
}

TEST(FrameworkString, Trims) {
    EXPECT_EQ(CString(L" \t a b\r\n").Trim(), L"a b");
    EXPECT_EQ(CString(L"xxaxx").TrimLeft(L'x'), L"axx");
    EXPECT_EQ(CString(L"xxaxx").TrimRight(L'x'), L"xxa");
    EXPECT_EQ(CString(L"\\/a/\\").TrimLeft(L"/\\").TrimRight(L"/\\"), L"a");
}

TEST(FrameworkString, FormatsByThePlatformsRule) {
    CString text;
    text.Format(L"%s|%ls|%hs|%llu|%08x|%p", L"\u0416", L"b", "c", 1ULL << 63, 0xABCu,
                reinterpret_cast<void*>(0x1234));
    EXPECT_EQ(text, L"\u0416|b|c|9223372036854775808|00000abc|0000000000001234");
    text = L"x";
    text.Format(L"<%s>", text.GetString());
    text.AppendFormat(L"%s", CString(L'y', 100000).GetString());
    EXPECT_EQ(text, L"<x>" + CString(L'y', 100000));
}

TEST(FrameworkString, ReadsNarrowTextInTheThreadsCodePage) {
    const CString text("caf\xE9!", 4);
    wchar_t expected[8] = {};
    MultiByteToWideChar(CP_THREAD_ACP, 0, "caf\xE9", 4, expected, 8);
    EXPECT_EQ(text, expected);
    CString assigned;
    assigned = "abc";
    EXPECT_EQ(assigned, L"abc");
}

TEST(FrameworkString, RefusesBadArguments) {
    CString text = L"abc";
    const std::vector<std::function<void()>> bad = {
        [&] { text.GetAt(4); },         [&] { text.GetAt(-1); },
        [&] { text.SetAt(3, L'x'); },   [&] { CString(L"a", -1); },
        [&] { text.GetBuffer(-1); },    [&] { text.ReleaseBuffer(100); },
        [&] { text.Append(L"a", -1); }, [&] { text.Truncate(-1); },
        [&] { text.Format(nullptr); },  [&] { CString(static_cast<const wchar_t*>(nullptr), 1); }};
    for (const auto& call : bad) {
        EXPECT_THROW(call(), CInvalidArgException*);
        EXPECT_EQ(text, L"abc");
    }
    // One character too many for an int; neither gets as far as touching the text.
    CString half(L'x', 1 << 20);
    EXPECT_THROW(half.Append(half.GetString(), INT_MAX), CMemoryException*);
    EXPECT_EQ(half.GetLength(), 1 << 20);
}

} // namespace
