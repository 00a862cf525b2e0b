#include <vexel/framework.h>

#include <gtest/gtest.h>

#include <climits>
#include <cwctype>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

std::wstring wide(const CString& text) {
    return {text.GetString(), static_cast<std::size_t>(text.GetLength())};
}

/// Changes a string in every way, at random, beside a standard one that says what must come out.
class Pair {
public:
    explicit Pair(unsigned seed) : random_(seed) {}

    void change() {
        static const std::vector<void (Pair::*)()> changes = {&Pair::append,
                                                              &Pair::appendItself,
                                                              &Pair::appendPartOfItself,
                                                              &Pair::assignPartOfItself,
                                                              &Pair::insert,
                                                              &Pair::erase,
                                                              &Pair::setCharacter,
                                                              &Pair::truncate,
                                                              &Pair::buffer,
                                                              &Pair::part,
                                                              &Pair::replace,
                                                              &Pair::upper};
        (this->*changes[upTo(static_cast<int>(changes.size()) - 1)])();
    }

    CString ours;
    std::wstring standard;

private:
    std::size_t upTo(int most) {
        return static_cast<std::size_t>(std::uniform_int_distribution<int>(0, most)(random_));
    }
    std::size_t place() { return upTo(static_cast<int>(standard.size())); }
    std::wstring word() {
        std::wstring text(upTo(9), L' ');
        for (wchar_t& c : text)
            c = L"abAB.\u0416"[upTo(5)];
        return text;
    }

    void append() {
        const std::wstring text = word();
        ours += text.c_str();
        standard += text;
    }
    void appendItself() {
        if (standard.size() > 2000)
            return;
        ours += ours;
        standard += standard;
    }
    void appendPartOfItself() {
        const std::size_t first = place();
        ours.Append(ours.GetString() + first);
        standard += standard.substr(first);
    }
    void assignPartOfItself() {
        const std::size_t first = upTo(3) ? 0 : place();
        ours = ours.GetString() + first;
        standard.erase(0, first);
    }
    void insert() {
        const std::size_t at = place();
        const std::wstring text = word();
        EXPECT_EQ(ours.Insert(static_cast<int>(at), text.c_str()),
                  static_cast<int>(standard.insert(at, text).size()));
    }
    void erase() {
        const std::size_t at = place();
        const std::size_t count = upTo(5);
        ours.Delete(static_cast<int>(at), static_cast<int>(count));
        standard.erase(at, count);
    }
    void setCharacter() {
        if (standard.empty())
            return;
        const std::size_t at = upTo(static_cast<int>(standard.size()) - 1);
        ours.SetAt(static_cast<int>(at), L'z');
        standard[at] = L'z';
    }
    void truncate() {
        const std::size_t length = upTo(3) ? standard.size() : place();
        ours.Truncate(static_cast<int>(length));
        standard.resize(length);
    }
    void buffer() {
        const std::size_t length = upTo(40);
        wchar_t* text = ours.GetBuffer(static_cast<int>(length));
        std::wmemset(text, L'q', length);
        text[length] = 0;
        ours.ReleaseBuffer();
        standard.assign(length, L'q');
    }
    void part() {
        const std::size_t at = place();
        const std::size_t count = place();
        const CString expected(standard.c_str() + at);
        EXPECT_EQ(wide(ours.Mid(static_cast<int>(at), static_cast<int>(count))), standard.substr(at, count));
        EXPECT_EQ(wide(ours.Left(static_cast<int>(at))) + wide(ours.Mid(static_cast<int>(at))), standard);
        EXPECT_EQ(ours.Right(expected.GetLength()), expected);
    }
    void replace() {
        ours.Replace(L"ab", L"a--");
        for (std::size_t at = 0; (at = standard.find(L"ab", at)) != std::wstring::npos; at += 3)
            standard.replace(at, 2, L"a--");
    }
    void upper() {
        ours.MakeUpper();
        for (wchar_t& c : standard)
            c = static_cast<wchar_t>(std::towupper(c));
    }

    std::mt19937 random_;
};

TEST(FrameworkString, FollowsAStandardStringThroughAnyChangesAndCopiesStayAsTheyWere) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        Pair pair(seed);
        std::vector<std::pair<CString, std::wstring>> copies;
        for (int i = 0; i < 300; ++i) {
            copies.emplace_back(pair.ours, pair.standard);
            pair.change();
            ASSERT_EQ(wide(pair.ours), pair.standard) << "seed " << seed << " step " << i;
            ASSERT_EQ(pair.ours.GetString()[pair.ours.GetLength()], L'\0');
            if (i % 3)
                copies.pop_back(); // so that buffers are shared in some steps and owned in others
        }
        for (const auto& [ours, standard] : copies)
            ASSERT_EQ(wide(ours), standard) << "seed " << seed;
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
        EXPECT_TRUE(empty.IsEmpty());
        EXPECT_EQ(empty, CString());
        EXPECT_EQ(empty.Find(L'a'), -1);
        EXPECT_EQ(wide(empty + L"b"), L"b");
        EXPECT_EQ(empty[0], L'\0');
    }
}

TEST(FrameworkString, Compares) {
    const CString a = L"Dir\\a";
    const CString b = L"dir\\B";
    EXPECT_TRUE(a < b && a <= b && b > a && a != b);
    EXPECT_TRUE(a == L"Dir\\a" && L"Dir\\a" == a && a != L"Dir\\" && L"Dir" < a);
    EXPECT_EQ(a.CompareNoCase(L"dIR\\A"), 0);
    EXPECT_LT(a.CompareNoCase(b), 0);
    EXPECT_GT(CString(L"\xFFFF").Compare(L"\x0001"), 0);
}

TEST(FrameworkString, Searches) {
    const CString text = L"a.b.c";
    EXPECT_EQ(text.Find(L'.'), 1);
    EXPECT_EQ(text.Find(L'.', 2), 3);
    EXPECT_EQ(text.Find(L".c"), 3);
    EXPECT_EQ(text.Find(L'.', 6), -1);
    EXPECT_EQ(text.Find(L'.', -1), -1);
    EXPECT_EQ(text.ReverseFind(L'.'), 3);
    EXPECT_EQ(text.FindOneOf(L"cb"), 2);
    EXPECT_EQ(text.FindOneOf(L"xyz"), -1);
    CString slashes = L"a/b/c";
    EXPECT_EQ(slashes.Replace(L'/', L'\\'), 2);
    EXPECT_EQ(slashes, L"a\\b\\c");
    EXPECT_EQ(slashes.Insert(1, L'\0'), 6) << "a zero is a character too";
    EXPECT_EQ(wide(slashes), std::wstring(L"a\0\\b\\c", 6));
}

TEST(FrameworkString, Trims) {
    EXPECT_EQ(CString(L" \t a b\r\n").Trim(), L"a b");
    EXPECT_EQ(CString(L"xxaxx").TrimLeft(L'x'), L"axx");
    EXPECT_EQ(CString(L"xxaxx").TrimRight(L'x'), L"xxa");
    EXPECT_EQ(CString(L"\\/a/\\").TrimLeft(L"/\\").TrimRight(L"/\\"), L"a");
    EXPECT_EQ(CString(L"  ").TrimRight(), L"");
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

TEST(FrameworkString, CopiesAreSharedAmongThreads) {
    const CString original = L"shared";
    std::thread threads[4];
    for (std::thread& thread : threads) {
        thread = std::thread([&original] {
            for (int n = 0; n < 20000; ++n) {
                CString copy = original;
                if (copy.GetString() != original.GetString())
                    ADD_FAILURE() << "a copy took memory of its own";
                copy.AppendChar(L'!');
                if (copy != L"shared!")
                    ADD_FAILURE() << wide(copy).size();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(original, L"shared");
}

} // namespace
