// Property sets of documents, held against the system's.

#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/properties.h>

#include <gtest/gtest.h>

#include <string>

using Microsoft::WRL::ComPtr;
using Vexel::Properties;
using Vexel::PropertyVariant;

namespace {

constexpr PROPID title = 2, author = 4, savedTime = 13, pages = 14;

TEST(PropertySets, OfARealDocumentAreRead) {
    StorageRef document;
    ASSERT_EQ(document.open({Support::samplePath(L"namesdemo.xls"), false, false},
                            RootStorageOpenMode::ReadOnlyDenyWrite, false),
              S_OK);
    Properties properties;
    ASSERT_EQ(Vexel::ReadProperties(document, FMTID_SummaryInformation, properties), S_OK);
    EXPECT_EQ(properties.size(), 6u);
    EXPECT_STREQ(properties[author].asString().value_or(L"none"), L"John Machin");
    EXPECT_STREQ(properties[18].asString().value_or(L"none"), L"Microsoft Excel");
    EXPECT_EQ(properties[savedTime].asTime().value_or(FILETIME{}).dwHighDateTime, 0x01C71C3Du);
    EXPECT_EQ(properties[19].asInteger(), 0);
    EXPECT_EQ(properties[title].type(), VT_EMPTY);
    // Its second set is half of vectors, which not every system reads.
    EXPECT_EQ(Vexel::ReadProperties(document, FMTID_DocSummaryInformation, properties), S_OK);
    EXPECT_EQ(Vexel::ReadProperties(StorageRef(), FMTID_SummaryInformation, properties),
              STG_E_INVALIDPARAMETER);
    EXPECT_TRUE(properties.empty());
    EXPECT_EQ(Vexel::WriteProperties(StorageRef(), FMTID_SummaryInformation, properties),
              STG_E_INVALIDPARAMETER);
}

std::string describe(const PropertyVariant& value) {
    const PROPVARIANT& raw = value.get();
    const auto bytes = [](const void* data, std::size_t size) {
        return std::string(static_cast<const char*>(data), size);
    };
    if (const auto text = value.asString())
        return bytes(text->GetString(), static_cast<std::size_t>(text->GetLength()) * 2);
    switch (raw.vt) {
    case VT_BLOB:
        return "blob " + bytes(raw.blob.pBlobData, raw.blob.cbSize);
    case VT_CF:
        return "clip " + bytes(&raw.pclipdata->ulClipFmt, 4) +
               bytes(raw.pclipdata->pClipData, raw.pclipdata->cbSize - 4);
    case VT_CLSID:
        return "class " + bytes(raw.puuid, sizeof(CLSID));
    default:
        return std::to_string(raw.vt) + " " + std::to_string(raw.hVal.QuadPart);
    }
}

/// One of each kind.
Properties someProperties() {
    Properties properties;
    properties[title] = PropertyVariant(L"\u0427\u0435\u0440\u0442\u0451\u0436");
    properties[author] = PropertyVariant(L"");
    properties[savedTime] = PropertyVariant(FILETIME{1000, 30'000'000});
    properties[pages] = PropertyVariant(-7);
    properties[100] = PropertyVariant(2.5);
    properties[101] = PropertyVariant(true);
    char narrow[] = "narrow";
    auto* const data = reinterpret_cast<BYTE*>(narrow);
    CLSID id = FMTID_SummaryInformation;
    CLIPDATA clip{10, -1, data};
    const auto add = [&](VARTYPE type, auto PROPVARIANT::*member, auto value) {
        PROPVARIANT raw{};
        raw.vt = type;
        raw.*member = value;
        properties[200 + type] = PropertyVariant(raw);
    };
    add(VT_LPSTR, &PROPVARIANT::pszVal, static_cast<char*>(narrow));
    add(VT_CLSID, &PROPVARIANT::puuid, &id);
    add(VT_BLOB, &PROPVARIANT::blob, BLOB{5, data});
    add(VT_CF, &PROPVARIANT::pclipdata, &clip);
    add(VT_I2, &PROPVARIANT::iVal, SHORT{-2});
    return properties;
}

PropertyVariant readBySystem(const std::wstring& file, PROPID id) {
    constexpr DWORD mode = STGM_READWRITE | STGM_SHARE_EXCLUSIVE;
    ComPtr<IPropertySetStorage> sets;
    ComPtr<IPropertyStorage> set;
    EXPECT_EQ(Support::openCompoundFile(file, mode).As(&sets), S_OK);
    EXPECT_EQ(sets->Open(FMTID_SummaryInformation, mode, &set), S_OK);
    const PROPSPEC which{PRSPEC_PROPID, {id}};
    PropertyVariant read;
    EXPECT_EQ(set->ReadMultiple(1, &which, read.put()), S_OK);
    return read;
}

TEST(PropertySets, ComeBackAsTheyWereWritten) {
    const Support::TempFolder folder;
    const Properties written = someProperties();
    for (const bool package : {true, false}) {
        SCOPED_TRACE(package ? "package" : "compound file");
        const std::wstring file = folder.file(package ? L"package" : L"compound");
        if (!package)
            Support::writeCompoundFile(file, {{L"Note", "note"}});
        {
            StorageRef document;
            ASSERT_EQ(package ? document.create({file, false, false})
                              : document.open({file, false, false}, RootStorageOpenMode::ReadWrite, false),
                      S_OK);
            for (const int type : {VT_VECTOR | VT_I4, int{VT_STREAM}, int{VT_CLSID}, int{VT_I4}}) {
                Properties refused;
                refused[type == VT_I4 ? PID_CODEPAGE : title].put()->vt =
                    static_cast<VARTYPE>(type); // with nothing in it
                EXPECT_EQ(Vexel::WriteProperties(document, FMTID_SummaryInformation, refused),
                          STG_E_INVALIDPARAMETER);
            }
            ASSERT_EQ(Vexel::WriteProperties(document, FMTID_SummaryInformation, written), S_OK);
            ASSERT_EQ(document.commit(), S_OK);
        }
        StorageContainer::Instance().deleteUnusedObjects();
        StorageRef document;
        ASSERT_EQ(document.open({file, false, false}, RootStorageOpenMode::ReadOnly, false), S_OK);
        Properties read;
        ASSERT_EQ(Vexel::ReadProperties(document, FMTID_SummaryInformation, read), S_OK);
        ASSERT_EQ(read.size(), written.size());
        for (const auto& [id, value] : written)
            EXPECT_EQ(describe(read[id]), describe(value)) << id;
        if (package)
            continue;
        document = {}; // Some versions of the system give clipboard data a layout of their own.
        StorageContainer::Instance().deleteUnusedObjects();
        for (const auto& [id, value] : written)
            EXPECT_EQ(describe(value.type() == VT_CF ? value : readBySystem(file, id)), describe(value))
                << id;
    }
}

// The user's own properties stand behind the document's summary.
TEST(PropertySets, ShareAStream) {
    StorageRef document;
    ASSERT_EQ(document.createTemporary(false), S_OK);
    const std::pair<const FMTID*, int> writes[]{{&FMTID_UserDefinedProperties, 1},
                                                {&FMTID_DocSummaryInformation, 2},
                                                {&FMTID_UserDefinedProperties, 3}};
    Properties properties;
    EXPECT_EQ(Vexel::ReadProperties(document, FMTID_UserDefinedProperties, properties), STG_E_FILENOTFOUND);
    for (const auto& [format, value] : writes) {
        properties[pages] = PropertyVariant(value);
        EXPECT_EQ(Vexel::WriteProperties(document, *format, properties), S_OK);
        EXPECT_EQ(Vexel::ReadProperties(document, *format, properties), S_OK);
        EXPECT_EQ(properties[pages].asInteger(), value);
        StreamRef stream;
        ASSERT_EQ(stream.open(L"\5DocumentSummaryInformation", document, true), S_OK);
        FMTID first{};
        stream.Seek(StreamRef::Begin, 28);
        EXPECT_EQ(stream.ReadBytes(&first, sizeof first), sizeof first);
        EXPECT_EQ(first, FMTID_DocSummaryInformation);
    }
    EXPECT_EQ(Vexel::ReadProperties(document, FMTID_DocSummaryInformation, properties), S_OK);
    EXPECT_EQ(properties[pages].asInteger(), 2);
}

TEST(PropertySets, KeepTheNamesOfTheUsersOwnProperties) {
    using namespace std::string_literals;
    const auto number = [](unsigned value) {
        return std::string(reinterpret_cast<const char*>(&value), sizeof value);
    };
    const auto user = [](const FMTID& format) {
        return std::string(reinterpret_cast<const char*>(&format), sizeof format);
    };
    // Names for the properties 3 and 7, in the code page 1252; a value for 3.
    const std::string names =
        number(2) + number(3) + number(6) + "Gr\xF6\xDF" + "e\0"s + number(7) + number(5) + "Gone\0"s + "\0"s;
    const std::string section = number(3) + number(0) + number(32) + number(PID_CODEPAGE) + number(60) +
                                number(3) + number(68) + names + number(VT_I2) + number(1252) +
                                number(VT_I4) + number(5);
    StorageRef document;
    ASSERT_EQ(document.createTemporary(false), S_OK);
    const auto name = L"\5DocumentSummaryInformation";
    StreamRef stream;
    ASSERT_EQ(stream.create(name, document), S_OK);
    const std::string set = number(0xFFFE) + std::string(20, '\0') + number(1) +
                            user(FMTID_UserDefinedProperties) + number(48) + number(76) + section;
    ASSERT_EQ(stream.WriteBytes(set.data(), set.size()), set.size());
    for (const int value : {6, 7}) { // from narrow names, then from wide ones
        Properties properties;
        properties[3] = PropertyVariant(value);
        stream.close();
        ASSERT_EQ(Vexel::WriteProperties(document, FMTID_UserDefinedProperties, properties), S_OK);
        ASSERT_EQ(Vexel::ReadProperties(document, FMTID_UserDefinedProperties, properties), S_OK);
        EXPECT_EQ(properties[3].asInteger(), value);
        ASSERT_EQ(stream.open(name, document, true), S_OK);
        std::string written(static_cast<std::size_t>(stream.size()), '\0');
        stream.ReadBytes(written.data(), written.size());
        EXPECT_NE(written.find(number(1) + number(3) + number(6) + "G\0r\0\xF6\0\xDF\0e\0\0"s),
                  std::string::npos);
    }
}

// Whatever is in the stream: a status, in bounded time.
TEST(PropertySets, DamagedOnesAreRefusedOrRead) {
    const LogCapture quiet;
    const Support::TempFolder folder;
    const std::string sample =
        Support::readElement(Support::samplePath(L"namesdemo.xls"), L"\5SummaryInformation");
    StorageRef document;
    ASSERT_EQ(document.createTemporary(false), S_OK);
    Properties properties;
    const auto read = [&](const std::string& bytes) {
        {
            StreamRef stream;
            EXPECT_EQ(stream.create(L"\5SummaryInformation", document), S_OK);
            EXPECT_EQ(stream.WriteBytes(bytes.data(), bytes.size()), bytes.size());
        }
        return Vexel::ReadProperties(document, FMTID_SummaryInformation, properties);
    };
    std::string cyrillic = sample;
    cyrillic[cyrillic.find("\xE4\x04")] = '\xE3'; // code page 1251
    cyrillic.replace(cyrillic.find("John"), 4, "\xC8\xE2\xE0\xED");
    ASSERT_EQ(read(cyrillic), S_OK);
    EXPECT_STREQ(properties[author].asString().value_or(L"none"), L"\u0418\u0432\u0430\u043D Machin");
    int refused = 0;
    for (std::size_t size = 0; size < 200; ++size)
        refused += FAILED(read(sample.substr(0, size)));
    for (std::size_t at = 0; at < 224; ++at) { // up to the last value
        for (const int mask : {0x01, 0xFF}) {
            std::string bytes = sample;
            bytes[at] = static_cast<char>(bytes[at] ^ mask);
            refused += FAILED(read(bytes));
        }
    }
    EXPECT_GT(refused, 100);
    // A thousand values in the same bytes.
    std::string shared = sample.substr(0, 48);
    const auto add = [&shared](unsigned value) { shared.append(reinterpret_cast<const char*>(&value), 4); };
    constexpr unsigned count = 1000, values = 8 + count * 8, size = 10'000;
    add(values + 8 + size);
    add(count);
    for (unsigned id = 2; id < 2 + count; ++id) {
        add(id);
        add(values);
    }
    add(VT_BLOB);
    add(size);
    EXPECT_EQ(read(shared.append(size, 'x')), STG_E_INVALIDHEADER);
    EXPECT_EQ(read(sample.substr(0, 99)), STG_E_INVALIDHEADER);
    EXPECT_EQ(Vexel::WriteProperties(document, FMTID_SummaryInformation, {}), S_OK);
}

} // namespace
