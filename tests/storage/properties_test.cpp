// Property sets of documents, held against the system's.

#include "support/fake_storage.h"
#include "support/fault_sweep.h"
#include "support/storage_test.h"

#include <vexel/properties.h>

#include <map>
#include <stdexcept>

using namespace std::string_literals;
using namespace Support;
using Microsoft::WRL::ComPtr;
using namespace Vexel;

namespace {

constexpr PROPID kTitle = 2, kAuthor = 4, kSavedTime = 13, kPages = 14;

const FMTID& summary = FMTID_SummaryInformation;
const FMTID& documentSummary = FMTID_DocSummaryInformation;
const FMTID& users = FMTID_UserDefinedProperties;
constexpr auto kSummaryName = L"\5SummaryInformation";
constexpr auto kDocumentName = L"\5DocumentSummaryInformation";

std::string bytesOf(const void* data, std::size_t size) { return {static_cast<const char*>(data), size}; }
std::string number(unsigned value) { return bytesOf(&value, sizeof value); }

std::string bytesOf(const CString& text) {
    return bytesOf(text.GetString(), static_cast<std::size_t>(text.GetLength()) * 2);
}

/// A value's type and bytes.
std::string describe(const PROPVARIANT& raw) {
    std::string all = std::to_string(raw.vt) + " ";
    if (const auto text = PropertyVariant(raw).asString())
        return bytesOf(*text);
    switch (raw.vt) {
    case VT_BLOB:
        return all + bytesOf(raw.blob.pBlobData, raw.blob.cbSize);
    case VT_CF:
        return all + bytesOf(&raw.pclipdata->ulClipFmt, 4) +
               bytesOf(raw.pclipdata->pClipData, raw.pclipdata->cbSize - 4);
    case VT_CLSID:
        return all + bytesOf(raw.puuid, sizeof(CLSID));
    case VT_DECIMAL:
        return all + bytesOf(&raw.decVal, sizeof(DECIMAL));
    case VT_VECTOR | VT_I2:
        return all + bytesOf(raw.cai.pElems, raw.cai.cElems * sizeof(SHORT));
    case VT_VECTOR | VT_LPWSTR:
        for (ULONG i = 0; i < raw.calpwstr.cElems; ++i)
            all += bytesOf(CString(raw.calpwstr.pElems[i])) + ", ";
        return all;
    case VT_VECTOR | VT_VARIANT:
        for (ULONG i = 0; i < raw.capropvar.cElems; ++i)
            all += describe(raw.capropvar.pElems[i]) + ", ";
        return all;
    default:
        return all + std::to_string(raw.hVal.QuadPart);
    }
}

/// A new document with, where wanted, a stream of these bytes.
class Document {
public:
    Document() { EXPECT_EQ(root.createTemporary(false), S_OK); }
    Document(const wchar_t* name, const std::string& bytes) : Document() { setBytes(name, bytes); }

    void setBytes(const wchar_t* name, const std::string& bytes) const { newStream(name, root, bytes); }
    std::string bytes(const wchar_t* name) const { return Support::read(name, root); }

    long write(const FMTID& format, PROPID id, PropertyVariant&& value) const {
        Properties properties;
        properties[id] = std::move(value);
        return Vexel::WriteProperties(root, format, properties);
    }

    Properties read(const FMTID& format) const {
        Properties properties;
        EXPECT_EQ(Vexel::ReadProperties(root, format, properties), S_OK);
        return properties;
    }

    /// All that can be read of a set, by name or number, but for one property.
    std::map<std::string, std::string> all(const FMTID& format, PROPID except = 0) const {
        std::map<std::string, std::string> described;
        Properties properties;
        Vexel::PropertyNames names;
        Vexel::ReadProperties(root, format, properties);
        Vexel::ReadPropertyNames(root, format, names);
        for (const auto& [id, value] : properties)
            if (id != except)
                described["value " + std::to_string(id)] = describe(value.get());
        for (const auto& [id, name] : names)
            described["name " + std::to_string(id)] = bytesOf(name);
        return described;
    }

    StorageRef root;
};

std::string sample(const wchar_t* name) {
    return Support::read(name, openRoot(path(samplePath(L"namesdemo.xls")), modeRead));
}

using PropertySets = StorageTest<>;

TEST_F(PropertySets, OfARealDocumentAreReadAndKept) {
    Document document(kSummaryName, sample(kSummaryName));
    document.setBytes(kDocumentName, sample(kDocumentName));
    Properties read = document.read(summary);
    EXPECT_EQ(read.size(), 6u);
    EXPECT_STREQ(read[kAuthor].asString().value_or(L"none"), L"John Machin");
    EXPECT_STREQ(read[18].asString().value_or(L"none"), L"Microsoft Excel");
    EXPECT_EQ(read[kSavedTime].asTime().value_or(FILETIME{}).dwHighDateTime, 0x01C71C3Du);
    EXPECT_EQ(read[19].asInteger(), 0);
    // Half of the second are vectors, whose elements are not padded.
    Properties second = document.read(documentSummary);
    EXPECT_EQ(second[13].type(), VT_VECTOR | VT_LPWSTR);
    EXPECT_THAT(describe(second[13].get()),
                testing::HasSubstr(", " + bytesOf(CString(L"Seamus O'Reilly")) + ", "));
    EXPECT_EQ(second[12].type(), VT_VECTOR | VT_VARIANT);
    EXPECT_THAT(describe(second[12].get()),
                testing::HasSubstr(" " + bytesOf(CString(L"Worksheets")) + ", 3 4, "));
    // What was read and not changed changes no byte.
    EXPECT_EQ(Vexel::WriteProperties(document.root, summary, read), S_OK);
    EXPECT_EQ(Vexel::WriteProperties(document.root, documentSummary, second), S_OK);
    EXPECT_EQ(document.bytes(kSummaryName), sample(kSummaryName));
    EXPECT_EQ(document.bytes(kDocumentName), sample(kDocumentName));
}

/// One of each kind.
Properties someProperties() {
    Properties properties;
    properties[kTitle] = PropertyVariant(L"\u0427\u0435\u0440\u0442\u0451\u0436");
    properties[kAuthor] = PropertyVariant(L"");
    properties[kSavedTime] = PropertyVariant(FILETIME{1000, 30'000'000});
    properties[kPages] = PropertyVariant(-7);
    properties[100] = PropertyVariant(2.5);
    properties[101] = PropertyVariant(true);
    char narrow[] = "narrow";
    wchar_t wide[] = L"wide\u0416", empty[] = L"";
    auto* const data = reinterpret_cast<BYTE*>(narrow);
    CLSID id = summary;
    CLIPDATA clip{10, -1, data};
    LPSTR narrows[]{narrow, narrow};
    LPWSTR wides[]{wide, empty, wide};
    SHORT shorts[]{1, -2, 3};
    PROPVARIANT variants[3]{};
    variants[0].vt = VT_LPSTR;
    variants[0].pszVal = narrow;
    variants[1].vt = VT_I2;
    variants[1].iVal = -3;
    const auto add = [&](int type, auto PROPVARIANT::*member, auto value) {
        PROPVARIANT raw{};
        raw.*member = value;
        raw.vt = static_cast<VARTYPE>(type);
        properties[200 + static_cast<PROPID>(type)] = PropertyVariant(raw);
    };
    add(VT_LPSTR, &PROPVARIANT::pszVal, static_cast<char*>(narrow));
    add(VT_CLSID, &PROPVARIANT::puuid, &id);
    add(VT_BLOB, &PROPVARIANT::blob, BLOB{5, data});
    add(VT_CF, &PROPVARIANT::pclipdata, &clip);
    add(VT_I2, &PROPVARIANT::iVal, SHORT{-2});
    add(VT_VECTOR | VT_LPSTR, &PROPVARIANT::calpstr, CALPSTR{2, narrows});
    add(VT_VECTOR | VT_LPWSTR, &PROPVARIANT::calpwstr, CALPWSTR{3, wides});
    add(VT_VECTOR | VT_I2, &PROPVARIANT::cai, CAI{3, shorts});
    add(VT_VECTOR | VT_VARIANT, &PROPVARIANT::capropvar, CAPROPVARIANT{3, variants});
    return properties;
}

PropertyVariant readBySystem(const std::wstring& file, PROPID id) {
    constexpr DWORD kMode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    ComPtr<IPropertySetStorage> sets;
    ComPtr<IPropertyStorage> set;
    EXPECT_EQ(openCompoundFile(file, kMode).As(&sets), S_OK);
    EXPECT_EQ(sets->Open(FMTID_SummaryInformation, kMode, &set), S_OK);
    const PROPSPEC which{PRSPEC_PROPID, {id}};
    PropertyVariant read;
    EXPECT_EQ(set->ReadMultiple(1, &which, read.put()), S_OK);
    return read;
}

TEST_F(PropertySets, ComeBackAsTheyWereWritten) {
    Properties written = someProperties();
    for (const StorageFormat format : {StorageFormat::Package, StorageFormat::CompoundFile}) {
        const bool isPackage = format == StorageFormat::Package;
        SCOPED_TRACE(isPackage ? "package" : "compound file");
        writeDocument(file_, format, {{L"Note", "note"}});
        if (!isPackage) // which the system reads too: some versions of it end with vectors
            std::erase_if(written, [](const auto& entry) { return (entry.second.type() & VT_VECTOR) != 0; });
        StorageRef document = openRoot(path_, modeWrite);
        ASSERT_EQ(Vexel::WriteProperties(document, summary, written), S_OK);
        newStorage(kDocumentName, document); // which other programs may make of a set
        EXPECT_EQ(Vexel::WriteProperties(document, documentSummary, {}), STG_E_FILEALREADYEXISTS);
        ASSERT_EQ(document.commit(), S_OK);
        closeForGood(document);
        document = openRoot(path_, modeRead);
        Properties read;
        ASSERT_EQ(Vexel::ReadProperties(document, summary, read), S_OK);
        ASSERT_EQ(read.size(), written.size());
        closeForGood(document);
        for (auto& [id, value] : written) {
            SCOPED_TRACE(id);
            const bool narrows = value.type() == (VT_VECTOR | VT_LPSTR);
            const std::string expected = describe(value.get());
            EXPECT_EQ(describe(read[id].get()),
                      narrows ? "4127 n\0a\0r\0r\0o\0w\0, n\0a\0r\0r\0o\0w\0, "s : expected);
            // Some versions of the system give clipboard data a layout of their own.
            if (!isPackage && value.type() != VT_CF) {
                EXPECT_EQ(describe(readBySystem(file_, id).get()), expected);
            }
        }
    }
}

// Types that came with version 1 make a set one of that version, which it stays; others leave it as it is.
TEST_F(PropertySets, HaveTheVersionThatTheirTypesNeed) {
    const std::map<VARTYPE, bool> newer{
        {VT_I4, false}, {VT_I1, true}, {VT_INT, true}, {VT_UINT, true}, {VT_DECIMAL, true}};
    for (const auto& [type, isNewer] : newer)
        for (const bool inVector : {false, true}) {
            SCOPED_TRACE(type);
            const Document document;
            PROPVARIANT raw{}, vector{};
            raw.decVal.scale = 2; // which is nothing to the others
            raw.lVal = type == VT_DECIMAL ? 0 : 77;
            raw.decVal.Lo64 = 77;
            raw.vt = type;
            vector.vt = VT_VECTOR | VT_VARIANT;
            vector.capropvar = {1, &raw};
            EXPECT_EQ(document.write(summary, 20, PropertyVariant(inVector ? vector : raw)), S_OK);
            const auto before = document.all(summary);
            EXPECT_EQ(document.read(summary)[20].type(), inVector ? vector.vt : type);
            EXPECT_EQ(document.bytes(kSummaryName)[2], isNewer);
            EXPECT_EQ(document.write(summary, 21, PropertyVariant(1)), S_OK);
            EXPECT_EQ(document.bytes(kSummaryName)[2], isNewer);
            EXPECT_EQ(document.all(summary, 21), before);
        }
}

/// A stream of the user's own properties: number, value and, of the first three, a name, in code page 1251.
/// One has a type that nobody knows. Its locale and behavior are kept like these.
std::string usersStream() {
    const std::string names = number(3) + number(3) + number(6) + "Gr\xF6\xDF" + "e\0"s + number(7) +
                              number(5) + "Gone\0"s + number(4) + number(3) + "Ab\0"s + "\0\0"s;
    const std::pair<PROPID, std::string> values[]{{PID_DICTIONARY, names},
                                                  {PID_CODEPAGE, number(VT_I2) + number(1251)},
                                                  {PID_LOCALE, number(VT_UI4) + number(1031)},
                                                  {PID_BEHAVIOR, number(VT_UI4) + number(1)},
                                                  {3, number(VT_I4) + number(5)},
                                                  {4, number(0x0FFF) + "whatever"},
                                                  {5, number(VT_ARRAY | VT_I4) + number(0)},
                                                  {6, number(VT_LPSTR) + number(4) + "M\xFC\0x"s}};
    std::string table, blocks;
    for (const auto& [id, bytes] : values) {
        table += number(id) + number(static_cast<unsigned>(8 + std::size(values) * 8 + blocks.size()));
        blocks += bytes;
    }
    const std::string header = number(0x1FFFE) + number(0x20105) + std::string(16, 'c') + number(1);
    return header + bytesOf(&users, sizeof users) + number(48) +
           number(static_cast<unsigned>(8 + table.size() + blocks.size())) +
           number(static_cast<unsigned>(std::size(values))) + table + blocks + "behind";
}

TEST_F(PropertySets, KeepWhatIsNotKnownAndNotNamed) {
    const std::string old = usersStream();
    const Document document(kDocumentName, old);
    Properties read = document.read(users);
    EXPECT_EQ(read.size(), 4u);
    EXPECT_EQ(read[4].type(), VT_EMPTY);
    EXPECT_STREQ(read[6].asString().value_or(L"none"), L"M\u044C");
    EXPECT_EQ(Vexel::WriteProperties(document.root, users, read), S_OK);
    EXPECT_EQ(document.bytes(kDocumentName), old);
    const auto before = document.all(users, 3);
    EXPECT_EQ(document.write(users, 3, PropertyVariant(6)), S_OK);
    std::string expected = old;
    expected[old.find(number(VT_I4) + number(5)) + 4] = 6;
    EXPECT_EQ(document.bytes(kDocumentName), expected);
    EXPECT_EQ(document.write(users, 3, PropertyVariant(L"longer than it was")), S_OK);
    EXPECT_EQ(document.write(users, 9, PropertyVariant(1)), S_OK);
    EXPECT_EQ(document.write(documentSummary, 2, PropertyVariant(1)), S_OK);
    auto after = document.all(users, 3);
    EXPECT_EQ(after["value 9"], "3 1");
    after.erase("value 9");
    EXPECT_EQ(after, before);
    const std::string bytes = document.bytes(kDocumentName);
    EXPECT_EQ(bytes.substr(0, 24), old.substr(0, 24)) << "version, system and class";
    EXPECT_NE(bytes.find(number(VT_UI4) + number(1031) + number(VT_UI4) + number(1)), std::string::npos);
    EXPECT_NE(bytes.find(number(0x0FFF) + "whatever"), std::string::npos);
    EXPECT_NE(bytes.find("behind"), std::string::npos);
    // VT_NULL takes the place of anything.
    PROPVARIANT null{};
    null.vt = VT_NULL;
    EXPECT_EQ(document.write(users, 4, PropertyVariant(null)), S_OK);
    EXPECT_EQ(document.bytes(kDocumentName).find("whatever"), std::string::npos);
}

TEST_F(PropertySets, HaveNames) {
    for (const bool isNarrow : {true, false}) {
        Document document;
        Vexel::PropertyNames names;
        EXPECT_EQ(Vexel::ReadPropertyNames(document.root, users, names), STG_E_FILENOTFOUND);
        if (isNarrow)
            document.setBytes(kDocumentName, usersStream());
        EXPECT_EQ(document.write(users, 3, PropertyVariant(5)), S_OK);
        const auto set = [&](PROPID id, const wchar_t* name) {
            return Vexel::WritePropertyNames(document.root, users, {{id, name}});
        };
        const Vexel::PropertyNames two{{4, L"Rename"}, {8, L"N\u0416w"}}; // wide, the first is padded
        EXPECT_EQ(Vexel::WritePropertyNames(document.root, users, two), S_OK);
        const std::string bytes = document.bytes(kDocumentName);
        EXPECT_EQ(set(8, L"N\u0416w"), S_OK);
        EXPECT_EQ(set(2, L"RENAME"), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(set(2, L""), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(set(PID_CODEPAGE, L"x"), STG_E_INVALIDPARAMETER);
        EXPECT_EQ(document.bytes(kDocumentName), bytes);
        EXPECT_EQ(set(2, L"\u00E9"), isNarrow ? STG_E_INVALIDPARAMETER : S_OK);
        EXPECT_EQ(Vexel::ReadPropertyNames(document.root, users, names), S_OK);
        const Vexel::PropertyNames expected =
            isNarrow ? Vexel::PropertyNames{{3, L"Gr\u0446\u042Fe"},
                                            {4, L"Rename"},
                                            {7, L"Gone"},
                                            {8, L"N\u0416w"}}
                     : Vexel::PropertyNames{{2, L"\u00E9"}, {4, L"Rename"}, {8, L"N\u0416w"}};
        EXPECT_TRUE(names == expected);
        EXPECT_EQ(document.read(users)[3].asInteger(), 5);
    }
}

// Some writers leave out the padding of what comes last, which the midst of a list cannot do without.
TEST_F(PropertySets, HaveNamesBehindAListThatLacksItsPadding) {
    for (const bool isCounted : {false, true}) { // in the size, although it is not there
        Vexel::PropertyNames expected{{0x1008, L"Ab"}};
        std::string names = number(8); // as a value's type that of a text, of a length that makes no sense
        for (PROPID id = 0x1001; id < 0x1008; ++id) {
            const wchar_t name[]{static_cast<wchar_t>(id), 0};
            expected[id] = name;
            names += number(id) + number(2) + bytesOf(CString(name)) + "\0\0"s;
        }
        names += number(0x1008) + number(3) + bytesOf(CString(L"Ab")) + "\0\0"s;
        const auto size = static_cast<unsigned>(32 + names.size() + (isCounted ? 2 : 0));
        const Document document(kDocumentName, usersStream().substr(0, 48) + number(size) + number(2) +
                                                   number(PID_CODEPAGE) + number(24) +
                                                   number(PID_DICTIONARY) + number(32) + number(VT_I2) +
                                                   number(1200) + names);
        EXPECT_EQ(Vexel::WritePropertyNames(document.root, users, {{6, L"New"}}), S_OK);
        expected[6] = L"New";
        Vexel::PropertyNames read;
        EXPECT_EQ(Vexel::ReadPropertyNames(document.root, users, read), S_OK);
        EXPECT_TRUE(read == expected);
    }
}

TEST_F(PropertySets, RefuseWhatTheyCannotHold) {
    Document document;
    Properties properties;
    EXPECT_EQ(Vexel::ReadProperties(StorageRef(), summary, properties), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(Vexel::WriteProperties(StorageRef(), summary, properties), STG_E_INVALIDPARAMETER);
    EXPECT_EQ(document.write(summary, kTitle, PropertyVariant(L"old")), S_OK);
    const std::string old = document.bytes(kSummaryName);
    constexpr int kUnknown = 0x0FFF;
    const struct {
        const char* what;
        PROPID id;
        int type;
    } cases[]{{"a stream", kTitle, VT_STREAM},
              {"no class", kTitle, VT_CLSID},
              {"clipboard data", kTitle, VT_VECTOR | VT_CF},
              {"an unknown type", kTitle, kUnknown},
              {"the code page", PID_CODEPAGE, VT_I4},
              {"the locale", PID_LOCALE, VT_I4},
              {"no number", PID_ILLEGAL, VT_I4}};
    for (const auto& [what, id, type] : cases) {
        PropertyVariant value;
        value.put()->vt = static_cast<VARTYPE>(type); // with nothing in it
        EXPECT_EQ(document.write(summary, id, std::move(value)), STG_E_INVALIDPARAMETER) << what;
    }
    PROPVARIANT raw{};
    raw.vt = VT_BLOB;
    std::string large(64 << 20, 'x');
    raw.blob = {static_cast<ULONG>(large.size()), reinterpret_cast<BYTE*>(large.data())};
    EXPECT_EQ(document.write(summary, kTitle, PropertyVariant(raw)), STG_E_DOCFILETOOLARGE);
    EXPECT_EQ(document.bytes(kSummaryName), old);
    raw.vt = kUnknown;
    EXPECT_THROW(
        try { PropertyVariant{raw}; } catch (CInvalidArgException* failure) {
            failure->Delete();
            throw std::invalid_argument("");
        },
        std::invalid_argument);
    // Only what is empty is nothing.
    document.setBytes(kSummaryName, "");
    EXPECT_EQ(Vexel::ReadProperties(document.root, summary, properties), STG_E_FILENOTFOUND);
    EXPECT_EQ(document.write(summary, kTitle, PropertyVariant(L"new")), S_OK);
    document.setBytes(kSummaryName, usersStream()); // another set
    EXPECT_EQ(Vexel::ReadProperties(document.root, summary, properties), STG_E_FILENOTFOUND);
    EXPECT_EQ(document.write(summary, kTitle, PropertyVariant(L"new")), STG_E_INVALIDHEADER);
    EXPECT_EQ(document.bytes(kSummaryName), usersStream());
}

TEST_F(PropertySets, AreThereAgainAfterAFailure) {
    FakeCalls calls;
    calls.keeps = true;
    calls.mode = STGM_READWRITE;
    std::size_t asked = 0;
    long committed = S_OK;
    const auto write = [&](const wchar_t* value, std::size_t failing = ~std::size_t{0},
                           std::size_t times = 1) {
        StorageRef root = StorageRef::fromPtr(fakeStorage(calls).Get());
        calls.take();
        for (std::size_t i = 0; i < times; ++i)
            calls.failures[failing + i] = STG_E_MEDIUMFULL;
        const long status = Vexel::WriteProperties(root, summary, {{kTitle, PropertyVariant(value)}});
        asked = calls.log.size();
        calls.failures.clear();
        committed = root.commit();
        closeForGood(root);
        return status;
    };
    const auto contents = [&] {
        const auto stream = calls.streams.find(kSummaryName);
        return stream == calls.streams.end() ? "none" : Support::bytesOf(stream->second.Get());
    };
    for (const bool isThere : {false, true}) {
        std::size_t failing = 0;
        for (bool struck = true; struck; ++failing) {
            calls.streams.clear();
            EXPECT_EQ(isThere ? write(L"first") : S_OK, S_OK);
            const std::string before = contents();
            const long status = write(L"second", failing);
            EXPECT_EQ(contents() == before, status != S_OK) << failing;
            struck = asked > failing;
            calls.streams.clear();
            EXPECT_EQ(isThere ? write(L"first") : S_OK, S_OK);
            const bool isWritten = write(L"second", failing, 20) == S_OK;
            EXPECT_TRUE(isWritten || contents() == before || committed == STG_E_REVERTED || !isThere)
                << failing;
        }
        EXPECT_GT(failing, 4u);
        EXPECT_EQ(write(L"over what cannot be read", 0), STG_E_MEDIUMFULL);
        EXPECT_EQ(write(L"second"), S_OK);
        EXPECT_EQ(asked, 1u) << "what is there already is not written again";
    }
}

// Whatever is in the stream: it is refused and stays as it is, or all that could be read stays.
TEST_F(PropertySets, DamagedOnesAreRefusedOrKept) {
    Document both(kDocumentName, usersStream());
    EXPECT_EQ(both.write(documentSummary, kTitle, PropertyVariant(L"summary")), S_OK);
    const struct {
        const wchar_t* name;
        const FMTID& format;
        std::string bytes;
    } samples[] = {{kSummaryName, summary, sample(kSummaryName).substr(0, 230)},
                   {kDocumentName, documentSummary, sample(kDocumentName).substr(0, 580)},
                   {kDocumentName, users, both.bytes(kDocumentName)},
                   {kDocumentName, documentSummary, both.bytes(kDocumentName)}};
    int refused = 0, kept = 0, read = 0;
    Document document;
    const auto check = [&](const auto& test, const std::string& bytes) {
        document.setBytes(test.name, bytes);
        Properties properties;
        read += Vexel::ReadProperties(document.root, test.format, properties) == S_OK;
        const FMTID& other = test.format == users ? documentSummary : users;
        const auto before = document.all(test.format, kPages), otherBefore = document.all(other);
        const long status = document.write(test.format, kPages, PropertyVariant(77));
        ++(status == S_OK ? kept : refused);
        if (status != S_OK) {
            EXPECT_TRUE(status == STG_E_INVALIDHEADER) << status;
            EXPECT_EQ(document.bytes(test.name), bytes);
            return;
        }
        const auto after = document.all(test.format, kPages);
        for (const auto& [what, value] : before)
            EXPECT_TRUE(value == "0 0" || (after.contains(what) && after.at(what) == value)) << what << value;
        EXPECT_EQ(document.all(other), otherBefore);
        EXPECT_EQ(document.read(test.format)[kPages].asInteger(), 77);
    };
    for (const auto& test : samples)
        sweepDamage(test.bytes, 1, {0x01, 0x80, 0xFF}, [&](const std::string& bytes) { check(test, bytes); });
    EXPECT_GT(refused, 1000);
    EXPECT_GT(kept, 1000);
    EXPECT_GT(read, kept) << "a sound set beside a damaged one is read";
    // A thousand values in the same bytes.
    constexpr unsigned kCount = 1000, kValues = 8 + kCount * 8, kSize = 10'000;
    std::string shared = sample(kSummaryName).substr(0, 48) + number(kValues + 8 + kSize) + number(kCount);
    for (unsigned id = 2; id < 2 + kCount; ++id)
        shared += number(id) + number(kValues);
    document.setBytes(kSummaryName, shared + number(VT_BLOB) + number(kSize) + std::string(kSize, 'x'));
    Properties properties;
    EXPECT_EQ(Vexel::ReadProperties(document.root, summary, properties), STG_E_INVALIDHEADER);
    // A vector without its last byte. Behind it, where it was the end, the padding would stand in for that.
    const std::string cut = sample(kSummaryName).substr(0, 48) + number(31) + number(1) + number(kPages) +
                            number(16) + number(VT_VECTOR | VT_VARIANT) + number(1) + number(VT_I4) +
                            std::string("\x07\0\0", 3);
    document.setBytes(kSummaryName, cut);
    EXPECT_EQ(document.read(summary)[kPages].type(), VT_EMPTY);
    EXPECT_EQ(document.write(summary, kPages + 1, PropertyVariant(1)), STG_E_INVALIDHEADER);
    EXPECT_EQ(document.bytes(kSummaryName), cut);
    // And so would the next set, for one that counts three bytes more than it has.
    const std::string shorter = sample(kDocumentName).substr(0, 24) + number(1) +
                                bytesOf(&documentSummary, sizeof documentSummary) + number(48) + number(39) +
                                number(1) + number(kPages) + number(16) + number(VT_VECTOR | VT_LPSTR) +
                                number(1) + number(11) + "eight-ch";
    document.setBytes(kDocumentName, shorter);
    EXPECT_EQ(document.read(documentSummary)[kPages].type(), VT_EMPTY);
    EXPECT_EQ(document.write(users, kPages, PropertyVariant(1)), STG_E_INVALIDHEADER);
    EXPECT_EQ(document.bytes(kDocumentName), shorter);
}

} // namespace
