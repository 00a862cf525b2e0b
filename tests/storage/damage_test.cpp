// Damaged compound files through every door: the handles, copying into both formats, and the interfaces for
// other programs. Whatever is wrong with a file, each ends, in a status or in no more than the file can hold,
// and what says that it succeeded is whole.

#include "support/case_watch.h"
#include "support/compound_image.h"
#include "support/storage_test.h"
#include "support/streams.h"

#include <vexel/diagnostics.h>
#include <vexel/open_package.h>

using namespace Support;
using Image = CompoundImage;
using Form = Image::Form;

namespace {

/// What the doors answer.
struct Answers {
    long handles, intoPackage, intoCompound, byPath, inStream;
    Seen seen; ///< through the handles
};

class Damage : public StorageTest<> {
protected:
    Damage() {
        // Of each of thousands of files the log tells what is wrong with it: more than to keep.
        VxLog_SetSink([](int, const wchar_t*, void*) {}, nullptr);
        writeCompoundFile(folder_.file(L"target"), {});
    }

    /// Goes through every door with these bytes.
    Answers judge(const std::string& name, std::string_view bytes) {
        CaseWatch::begin(name);
        const testing::ScopedTrace trace(__FILE__, __LINE__, name);
        writeFile(file_, bytes);
        Answers answers{};
        StorageRef root;
        answers.handles = answers.intoPackage = answers.intoCompound =
            root.open(path_, modeReadDenyWrite, false);
        if (root.notNull()) {
            answers.seen = see(root);
            StorageRef package;
            EXPECT_EQ(package.createTemporary(false), S_OK);
            answers.intoPackage = copy(root, package, &answers.seen);
            answers.intoCompound = copyIntoCompound(root, &answers.seen);
        }
        closeForGood(root);
        const auto stream = Vexel::Detail::adopt(new StreamOfLockedBytes(bytes));
        Microsoft::WRL::ComPtr<IStorage> byPath, inStream;
        answers.byPath = OpenVexelPackage(&byPath, file_.c_str());
        answers.inStream = OpenVexelPackageStream(&inStream, stream.Get());
        for (IStorage* const opened : {byPath.Get(), inStream.Get()}) {
            EXPECT_EQ(opened != nullptr, SUCCEEDED(answers.byPath));
            if (opened)
                expectSame(see(StorageRef::fromPtr(opened)), answers.seen);
        }
        compare(answers, bytes);
        return answers;
    }

    void judgeInStream(const std::string& name, std::string_view bytes, const Seen& whole) {
        CaseWatch::begin(name + " in a stream");
        const auto stream = Vexel::Detail::adopt(new StreamOfLockedBytes(bytes));
        Microsoft::WRL::ComPtr<IStorage> root;
        if (SUCCEEDED(OpenVexelPackageStream(&root, stream.Get()))) {
            EXPECT_EQ(sorted(see(StorageRef::fromPtr(root.Get())).elements), sorted(whole.elements)) << name;
        }
    }

    /// The target is as it was afterwards.
    long copyIntoCompound(const StorageRef& from, const Seen* expected = nullptr) const {
        return copy(from, openRoot(path(folder_.file(L"target")), modeWrite), expected);
    }

private:
    static long copy(const StorageRef& from, const StorageRef& to, const Seen* expected) {
        const long status = from.copyTo(to);
        if (SUCCEEDED(status) && expected)
            expectSame(see(to), *expected);
        return status;
    }

    /// Nothing is missing in what was handed over.
    static void expectSame(const Seen& seen, const Seen& expected) {
        EXPECT_FALSE(seen.shortened);
        EXPECT_FALSE(expected.shortened);
        if (seen.complete && expected.complete) {
            EXPECT_EQ(sorted(seen.elements), sorted(expected.elements));
        }
    }

    static void compare(const Answers& answers, std::string_view bytes) {
        for (const long status :
             {answers.handles, answers.intoPackage, answers.intoCompound, answers.byPath, answers.inStream}) {
            EXPECT_TRUE(SUCCEEDED(status) || HRESULT_FACILITY(status) == FACILITY_STORAGE || status == E_FAIL)
                << std::hex << status;
        }
        EXPECT_EQ(answers.byPath, answers.inStream);
        EXPECT_TRUE(SUCCEEDED(answers.handles) || FAILED(answers.byPath));
        std::size_t sum = 0;
        for (const auto& [path, contents] : answers.seen.elements)
            sum += contents.size();
        EXPECT_LE(sum, 16 * bytes.size());
    }

    CaseWatch watch_;
};

const std::vector<Form> kForms{{9, false}, {9, true}, {12, false}, {12, true}};

std::string nameOf(const Form& form) {
    return std::to_string(1 << form.shift) + (form.tablesLast ? " tables last" : " tables first");
}

TEST_F(Damage, NoneIsRefused) {
    for (const Form& form : kForms)
        for (const bool foreign : {false, true}) {
            const auto answers = judge(nameOf(form), Image::document(form, foreign).bytes());
            EXPECT_TRUE(answers.seen.whole());
            EXPECT_EQ(answers.seen.elements.size(), 4U);
            EXPECT_EQ(answers.intoPackage | answers.intoCompound | answers.byPath, S_OK) << nameOf(form);
        }
}

// The length that goes with a name is not what counts.
TEST_F(Damage, NamesEndAtAZero) {
    Image image = Image::document({});
    image.element(1, Image::Name) = L'B';
    const Answers answers = judge("a zero in a name", image.bytes());
    ASSERT_TRUE(answers.seen.whole());
    EXPECT_EQ(sorted(answers.seen.elements)[0].path, L"B");
}

// Each byte through the one door that needs no disk, and all doors around the ends of sectors and elements.
TEST_F(Damage, CutAnywhere) {
    for (const Form& form : kForms) {
        const Image image = Image::document(form, form.tablesLast, true);
        const std::string bytes(image.bytes());
        const Answers whole = judge("whole", bytes);
        unsigned refused = 0;
        for (std::size_t length = 0; length < bytes.size(); ++length) {
            const std::string name = nameOf(form) + " cut at " + std::to_string(length);
            const auto rest = std::string_view(bytes).substr(0, length);
            const std::size_t record = form.shift == 9 ? 128 : 1024;
            if (form.shift == 9 || length % 64 < 2)
                judgeInStream(name, rest, whole.seen);
            if ((length + 1) % record > 2)
                continue;
            const Answers answers = judge(name, rest);
            refused += FAILED(answers.handles);
            if (SUCCEEDED(answers.intoCompound) || SUCCEEDED(answers.intoPackage)) {
                EXPECT_EQ(sorted(answers.seen.elements), sorted(whole.seen.elements)) << name;
            }
        }
        EXPECT_GT(refused, 0U);
    }
}

// Where a chain may lead to instead of on.
const struct {
    const char* name;
    std::uint32_t (*of)(Image&, std::uint32_t first, std::uint32_t next);
} kTargets[] = {
    {"its beginning", [](auto&, auto first, auto) { return first; }},
    {"the allocation table", [](auto& f, auto, auto) { return f.number(Image::Fat); }},
    {"a DIFAT sector", [](auto& f, auto, auto) { return f.number(Image::Difat); }},
    {"the directory", [](auto& f, auto, auto) { return f.number(Image::Directory); }},
    {"the mini table", [](auto& f, auto, auto) { return f.number(Image::MiniFat); }},
    {"the mini sectors", [](auto& f, auto, auto) { return f.element(0, Image::Start); }},
    {"one stream", [](auto& f, auto, auto) { return f.element(1, Image::Start) + 1; }},
    {"another stream", [](auto& f, auto, auto) { return f.element(4, Image::Start) + 1; }},
    {"a free sector", [](auto& f, auto, auto) { return static_cast<std::uint32_t>(f.size() >> 9) + 5; }},
    {"behind the table", [](auto&, auto, auto) { return 0x100000U; }},
    {"the header", [](auto&, auto, auto) { return Image::none; }},
    {"a mark", [](auto&, auto, auto) { return 0xFFFFFFFDU; }},
    {"nothing", [](auto&, auto, auto) { return Image::end; }},
    {"its beginning, 2^30 further", [](auto&, auto first, auto) { return first | 1U << 30; }},
    {"its beginning, 2^31 further", [](auto&, auto first, auto) { return first | 1U << 31; }},
    {"where it should, 2^30 further", [](auto&, auto, auto next) { return next | 1U << 30; }},
    {"where it should, 2^31 further", [](auto&, auto, auto next) { return next | 1U << 31; }},
};

// Each chain at its head and at its last link, with table sectors whose own successor leads on.
TEST_F(Damage, ChainsThatLeadAnywhere) {
    unsigned refused = 0;
    const auto judgeWith = [&](const Form& form, const auto& target, unsigned chain, bool tableGoesOn) {
        Image image = Image::document(form, tableGoesOn);
        if (form.tablesLast && form.shift == 9) { // a DIFAT that the header need not have
            image.number(Image::Difat) = image.number(Image::MiniFat);
            image.number(Image::DifatSectors) = 1;
        }
        std::uint32_t* const heads[]{&image.number(Image::Directory), &image.number(Image::MiniFat),
                                     &image.element(0, Image::Start), &image.element(1, Image::Start),
                                     &image.element(4, Image::Start)};
        std::uint32_t* link = heads[chain % 5];
        const std::uint32_t first = *link;
        while (chain >= 5 && *link < Image::end)
            link = &image.next(*link); // behind the last sector
        const std::uint32_t table = image.number(Image::Fat);
        const std::uint32_t to = target.of(image, first, *link);
        if (tableGoesOn)
            image.next(table) = first;
        *link = to;
        const std::string name = nameOf(form) + ", chain " + std::to_string(chain) + " to " + target.name +
                                 (tableGoesOn ? ", the table going on" : "");
        refused += FAILED(judge(name, image.bytes()).handles);
    };
    for (const Form& form : {Form{9}, Form{9, true}, Form{12, true}})
        for (const auto& target : kTargets)
            for (unsigned chain = 0; chain < 10; ++chain) {
                judgeWith(form, target, chain, false);
                if (&target - kTargets <= 2)
                    judgeWith(form, target, chain, true);
            }
    EXPECT_GT(refused, 300U);
}

// Every number of every element: sizes that nothing holds, links to every element and to none that is there.
TEST_F(Damage, NumbersOfElements) {
    const auto judgeWith = [&](const Form& form, std::uint32_t element, Image::ElementField field,
                               std::uint32_t value, std::uint32_t high) {
        Image image = Image::document(form, value % 2 == 0);
        image.element(element, field) = field == Image::Type ? image.element(element, field) ^ value : value;
        if (field == Image::Size)
            image.element(element, Image::SizeHigh) = high;
        judge(nameOf(form) + ", element " + std::to_string(element) + ", number " + std::to_string(field) +
                  " is " + std::to_string(high) + ":" + std::to_string(value),
              image.bytes());
    };
    for (std::uint32_t element = 0; element < 5; ++element) {
        for (const auto field : {Image::Left, Image::Right, Image::Child})
            for (const std::uint32_t to : {0U, 1U, 3U, 4U, 5U, 1000U, 0x80000001U})
                judgeWith({}, element, field, to, 0);
        for (const std::uint32_t bits : {1U, 2U, 4U, 5U, 6U, 1001U})
            judgeWith({}, element, Image::Type, bits << 16, 0);
        for (const std::uint32_t size : {4095U, 4097U, 9000U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU})
            for (const std::uint32_t high : {0U, 1U, 0xFFFFFFFFU})
                for (const unsigned shift : {9U, 12U})
                    if (element < 4)
                        judgeWith({shift}, element, Image::Size, size, high);
    }
}

// The system recurses where it copies, from sibling to sibling too; who lists goes on without.
TEST_F(Damage, LongLinesOfElements) {
    constexpr HRESULT kCorrupt = STG_E_DOCFILECORRUPT;
    const struct {
        unsigned elements;
        Image::ElementField direction;
        HRESULT opened, copied;
    } lines[] = {{3999, Image::Right, S_OK, S_OK},      {4001, Image::Left, S_OK, kCorrupt},
                 {15'000, Image::Left, S_OK, kCorrupt}, {17'000, Image::Right, kCorrupt, kCorrupt},
                 {999, Image::Child, S_OK, S_OK},       {1001, Image::Child, kCorrupt, kCorrupt}};
    for (const auto& [elements, direction, opened, copied] : lines) {
        const std::string name = std::to_string(elements) + " in a line, " + std::to_string(direction);
        const Image image = Image::line(elements, direction);
        CaseWatch::begin(name);
        writeFile(file_, image.bytes());
        StorageRef root;
        EXPECT_EQ(root.open(path_, modeReadDenyWrite, false), opened) << name;
        if (opened == S_OK) {
            EXPECT_EQ(copyIntoCompound(root), copied) << name;
        }
        root.close();
        Microsoft::WRL::ComPtr<IStorage> byPath;
        EXPECT_EQ(OpenVexelPackage(&byPath, file_.c_str()), copied) << name;
    }
}

// A stride that meets every column of tables and elements, whose records are 4 and 128 bytes long.
TEST_F(Damage, BytesAnywhere) {
    const struct {
        const wchar_t* sample;
        std::size_t begin, strides;
    } sweeps[] = {{L"namesdemo.xls", 24, 40}, {L"foreign-tree.cfb", 512, 12}};
    for (const auto& [sample, begin, strides] : sweeps) {
        std::string bytes = readFile(samplePath(sample));
        const std::size_t stride = bytes.size() / strides | 1;
        for (std::size_t offset = begin; offset < bytes.size(); offset += offset < 96 ? 1 : stride)
            for (const int mask : {0x01, 0x80, 0xFF}) {
                const char before = bytes[offset];
                bytes[offset] = static_cast<char>(before ^ mask);
                judge("byte " + std::to_string(offset) + " by " + std::to_string(mask), bytes);
                bytes[offset] = before;
            }
    }
}

// What was accepted and committed is there afterwards.
TEST_F(Damage, MeetsAWriter) {
    constexpr std::size_t kAdded = 5000;
    unsigned changed = 0;
    const auto addTo = [&](const std::string& bytes) {
        StorageRef root;
        StreamRef stream;
        return SUCCEEDED(root.open(path_, modeWrite, false)) && SUCCEEDED(stream.create(L"Added", root)) &&
               stream.WriteBytes(bytes.data(), kAdded) == kAdded && SUCCEEDED(root.commit());
    };
    for (const wchar_t* sample : {L"namesdemo.xls", L"foreign-tree.cfb"}) {
        std::string bytes = readFile(samplePath(sample));
        const std::size_t stride = bytes.size() / 100 | 1;
        for (std::size_t offset = 28; offset < bytes.size(); offset += offset < 96 ? 3 : stride) {
            const char before = std::exchange(bytes[offset], '\xFF');
            const std::string name = "changing with byte " + std::to_string(offset);
            CaseWatch::begin(name);
            writeFile(file_, bytes);
            const bool isThere = addTo(bytes);
            container().deleteUnusedObjects();
            if (isThere) {
                ++changed;
                const StorageRef root = openRoot(path_, modeReadDenyWrite);
                EXPECT_EQ(read(L"Added", root), bytes.substr(0, kAdded)) << name;
            }
            container().deleteUnusedObjects();
            bytes[offset] = before;
        }
    }
    EXPECT_GT(changed, 0U);
}

} // namespace
