// Property sets of documents, by the system.

#include "support/compound_file.h"
#include "support/log_capture.h"

#include <vexel/properties.h>

#include <gtest/gtest.h>

#include <string>

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

TEST(PropertySets, ComeBackAsTheyWereWritten) {
    const Support::TempFolder folder;
    for (const bool package : {true, false}) {
        SCOPED_TRACE(package ? "package" : "compound file");
        const std::wstring file = folder.file(package ? L"package" : L"compound");
        if (!package)
            Support::writeCompoundFile(file, {{L"Note", "note"}});
        Properties written;
        written[title] = PropertyVariant(L"\u0427\u0435\u0440\u0442\u0451\u0436");
        written[author] = PropertyVariant(L"me");
        written[savedTime] = PropertyVariant(FILETIME{1000, 30'000'000});
        written[pages] = PropertyVariant(-7);
        {
            StorageRef document;
            ASSERT_EQ(package ? document.create({file, false, false})
                              : document.open({file, false, false}, RootStorageOpenMode::ReadWrite, false),
                      S_OK);
            ASSERT_EQ(Vexel::WriteProperties(document, FMTID_SummaryInformation, written), S_OK);
            ASSERT_EQ(document.commit(), S_OK);
        }
        StorageContainer::Instance().deleteUnusedObjects();
        StorageRef document;
        ASSERT_EQ(document.open({file, false, false}, RootStorageOpenMode::ReadOnly, false), S_OK);
        Properties read;
        ASSERT_EQ(Vexel::ReadProperties(document, FMTID_SummaryInformation, read), S_OK);
        EXPECT_STREQ(read[title].asString().value_or(L"none"), L"\u0427\u0435\u0440\u0442\u0451\u0436");
        EXPECT_STREQ(read[author].asString().value_or(L"none"), L"me");
        EXPECT_EQ(read[pages].asInteger(), -7);
        EXPECT_EQ(read[savedTime].asTime().value_or(FILETIME{}).dwHighDateTime, 30'000'000u);
        EXPECT_EQ(Vexel::ReadProperties(document, FMTID_DocSummaryInformation, read), STG_E_FILENOTFOUND);
        for (const VARTYPE type : {VARTYPE{VT_VECTOR | VT_I4}, VARTYPE{VT_STREAM}}) {
            written[title] = PropertyVariant();
            written[title].put()->vt = type; // with nothing in it
            EXPECT_EQ(Vexel::WriteProperties(document, FMTID_SummaryInformation, written),
                      STG_E_INVALIDPARAMETER);
        }
        EXPECT_TRUE(read.empty());
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
    const auto read = [&](const std::string& bytes) {
        {
            StreamRef stream;
            EXPECT_EQ(stream.create(L"\5SummaryInformation", document), S_OK);
            EXPECT_EQ(stream.WriteBytes(bytes.data(), bytes.size()), bytes.size());
        }
        Properties properties;
        return Vexel::ReadProperties(document, FMTID_SummaryInformation, properties);
    };
    ASSERT_EQ(read(sample), S_OK);
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
}

} // namespace
