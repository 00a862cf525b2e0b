// Property sets: what is read, what is changed in it, and that everything else stays.

#include "fuzz/targets/input.h"
#include "fuzz/targets/memory.h"
#include "storage/properties/property_set.h"
#include "storage/properties/property_values.h"

using namespace Vexel::Fuzz;
using namespace Vexel::Detail;
using Vexel::Properties;
using Vexel::PropertyNames;
using Vexel::PropertyVariant;

namespace {

using Encoded = std::map<PROPID, std::vector<unsigned char>>;

Encoded encoded(const Properties& properties) {
    Encoded all;
    for (const auto& [id, value] : properties) {
        REQUIRE(encodeValue(value.get(), all[id]));
        value.asString();
        value.asInteger();
        value.asDouble();
        value.asTime();
    }
    return all;
}

/// Of the text where a set is, and of one of another kind.
PropertyVariant valueFrom(Input& input) {
    switch (input.byte() % 6) {
    case 0:
        return PropertyVariant(input.number<int>());
    case 1:
        return PropertyVariant(input.number<double>());
    case 2:
        return PropertyVariant(input.byte() % 2 != 0);
    case 3:
        return PropertyVariant(FILETIME{input.number<DWORD>(), input.number<DWORD>()});
    default: {
        std::vector<wchar_t> text = input.text(input.byte() % 32);
        text.push_back(0);
        return PropertyVariant(text.data());
    }
    }
}

/// About twice what a byte comes to in a section of nothing but empty properties.
constexpr std::size_t kMostForAByte = 32;

/// All that can be read of a set takes memory for what is there, whatever its counts say.
void read(ByteView bytes) {
    const MemoryWatch memory;
    PropertySection section;
    if (!section.split(bytes))
        return;
    Properties properties;
    PropertyNames names;
    if (section.decode(properties))
        encoded(properties);
    section.decodeNames(names);
    REQUIRE(memory.most() <= 0x1000 + kMostForAByte * bytes.size());
}

/// Gives one property a value and a name, and looks whether the others are as they were.
void change(ByteView bytes, Input& input) {
    PropertySection section;
    if (!section.split(bytes) || !section.isSound())
        return;
    Properties before;
    PropertyNames namesBefore;
    REQUIRE(section.decode(before) && section.decodeNames(namesBefore));
    REQUIRE(section.set(before));
    REQUIRE(!section.isChanged());
    Properties changed;
    const PROPID id = 2 + input.byte() % 16;
    changed.emplace(id, valueFrom(input));
    REQUIRE(section.set(changed));
    PropertyNames names;
    names[id] = CStringW(static_cast<wchar_t>(L'A' + input.byte() % 4), 1 + input.byte() % 3);
    if (!section.setNames(names)) // what is refused is not written either
        return;
    const std::vector<unsigned char> joined = section.join();

    PropertySection again;
    REQUIRE(again.split(joined) && again.isSound());
    Properties after;
    PropertyNames namesAfter;
    REQUIRE(again.decode(after) && again.decodeNames(namesAfter));
    Encoded expected = encoded(before);
    expected[id] = encoded(changed)[id];
    REQUIRE(encoded(after) == expected);
    namesBefore[id] = names[id];
    REQUIRE(namesAfter == namesBefore);

    PropertyStream stream;
    if (!stream.split(joined))
        REQUIRE(stream.join().size() >= 28);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const auto choices = input.bytes((std::min)(input.byte() % 64, static_cast<int>(size)));
    Input changes(choices.data(), choices.size());
    const ByteView bytes = input.rest();
    for (const FMTID& format :
         {FMTID_SummaryInformation, FMTID_DocSummaryInformation, FMTID_UserDefinedProperties}) {
        const auto found = findSection(bytes, format);
        if (!found || found->empty())
            continue;
        read(*found);
        change(*found, changes);
    }
    PropertyStream stream;
    if (!stream.split(bytes))
        return 0;
    REQUIRE(stream.join().size() >= 28);
    // With a set put into it, it is sound again, and has that set.
    const FMTID& format = changes.byte() % 2 != 0 ? FMTID_DocSummaryInformation : FMTID_UserDefinedProperties;
    PropertySection made;
    Properties properties;
    properties.emplace(PROPID{2}, valueFrom(changes));
    REQUIRE(made.set(properties));
    const std::vector<unsigned char> section = made.join();
    if (!stream.put(format, std::vector(section)))
        return 0;
    const std::vector<unsigned char> joined = stream.join();
    PropertyStream again;
    REQUIRE(again.split(joined));
    const ByteView back = again.section(format);
    REQUIRE(std::equal(back.begin(), back.end(), section.begin(), section.end()));
    return 0;
}
