// Serialised path names in all formats, and what path names say of their text; then the table of names
// against a model: names of one text share an entry as long as any of them lives, and no entry outlives the
// last.

#include "fuzz/targets/byte_source.h"
#include "fuzz/targets/memory.h"
#include "paths/path_name_hash.h"
#include "paths/path_name_table.h"

#include <vexel/path_name.h>

#include <list>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;
using Flags = Vexel::FlagSet<SharedPathName::ReadFlag>;

namespace {

void look(const SharedPathName& name) {
    if (name.empty())
        return;
    const std::wstring_view text = name.asStringView();
    int length = 0;
    const wchar_t* place = name.fileName(&length);
    REQUIRE(place >= text.data() && length >= 0 && place + length == text.data() + text.size());
    place = name.fileExtension(true, &length);
    REQUIRE(place >= text.data() && place <= text.data() + text.size());
    const std::wstring_view directory = name.getDirectory().asStringView();
    REQUIRE(directory.size() <= text.size());
    // Each step up is shorter, or the end.
    SharedPathName up = name;
    for (std::size_t steps = 0; !up.empty(); ++steps) {
        REQUIRE(steps <= text.size() + 1);
        SharedPathName next = up.getDirectoryPathName();
        if (next == up)
            break;
        REQUIRE(next.asStringView().size() <= up.asStringView().size());
        up = next;
    }
    name.isRelative();
    name.isNetwork();
    REQUIRE(name.isSubPath(name) == (text.ends_with(L'\\') || text.ends_with(L'/')));
    REQUIRE(name.isSubPath(SharedPathName()));
}

void serialise(Input input) {
    const unsigned version = input.byte() % 2 != 0 ? 3688 : 3600 + input.byte();
    const Flags flags = Flags(static_cast<SharedPathName::ReadFlag>(input.byte() % 4));
    const auto bytes = input.rest();
    SharedPathName name;
    try {
        ByteSource source(bytes);
        name.read(source, version, SharedPathName::ConvertVersion, flags);
    } catch (CArchiveException* failure) {
        failure->Delete();
    }
    // Nobody else has names meanwhile: one of the same text is the same name, which has one hash.
    const bool isArchiveString = flags.has(SharedPathName::ReadFlag::CArchiveString);
    const ComPtr<InMemoryIStream> stream = streamOf(bytes);
    SharedPathName fromCom;
    fromCom.read(stream.Get(), version, SharedPathName::ConvertVersion, flags);
    REQUIRE(isArchiveString || fromCom == name);

    std::vector<BYTE> copy(bytes.begin(), bytes.end());
    CMemFile file(copy.data(), static_cast<UINT>(copy.size()));
    CArchive archive(&file, CArchive::load);
    try {
        SharedPathName fromArchive;
        fromArchive.read(archive, version, SharedPathName::ConvertVersion, flags);
        const bool isWide = bytes.size() > 3 && bytes[0] == 0xFF && bytes[1] == 0xFE && bytes[2] == 0xFF;
        REQUIRE(!isArchiveString || !isWide || fromArchive == name);
    } catch (CArchiveException* failure) {
        failure->Delete();
    }
    archive.Abort();
    look(name);

    // What is written comes back as the same name, with its hash.
    stream->freeMemory();
    stream->rewind();
    name.write(stream.Get());
    stream->rewind();
    SharedPathName back;
    back.read(stream.Get(), 3688, SharedPathName::ConvertVersion, SharedPathName::ReadFlag::CaseSensitive);
    const std::wstring_view text = name.asStringView();
    if (text.empty() || text.back() != 0) // zeros at the end are not read
        REQUIRE(back == name);
}

/// A name as the model has it: what it was made of, and with which case.
struct Held {
    SharedPathName name;
    std::wstring text;
};

void intern(Input input) {
    static constexpr const wchar_t* kTexts[] = {
        L"a",          L"A",      L"ab",     L"AB",  L"dir\\x.txt",           L"DIR\\X.TXT", L"C:\\d\\e.f",
        L"c:\\D\\E.F", L"\x00C4", L"\x00E4", L"x/y", L"\\\\server\\share\\f", L"."};
    std::list<Held> held;
    for (unsigned step = 0; step < 64 && !input.isEmpty(); ++step) {
        const std::uint8_t action = input.byte();
        const wchar_t* const text = kTexts[input.byte() % std::size(kTexts)];
        switch (action % 8) {
        case 0:
        case 1:
        case 2: {
            const bool caseSensitive = action & 8, caseSensitiveHash = action & 16;
            SharedPathName name(text, caseSensitive, caseSensitiveHash);
            REQUIRE(!name.empty());
            REQUIRE(name == SharedPathName(text, caseSensitive, caseSensitiveHash));
            if (caseSensitive && name.isRelative())
                REQUIRE(name.asStringView() == text);
            REQUIRE(_wcsicmp(name.asString(), SharedPathName(text, true, true).asString()) == 0);
            held.push_back({name, std::wstring(name.asStringView())});
            break;
        }
        case 3:
            if (!held.empty())
                held.erase(std::next(held.begin(), input.byte() % static_cast<int>(held.size())));
            break;
        case 4:
            if (!held.empty())
                held.push_back(held.front());
            break;
        case 5:
            if (!held.empty())
                look(held.back().name);
            break;
        case 6:
            if (!held.empty()) {
                Held& last = held.back();
                last.name.changeExtension(action & 8 ? L".new" : nullptr, action & 16);
                last.name.slashNormalize(action & 32);
                last.text = last.name.asStringView();
            }
            break;
        default:
            if (!held.empty()) {
                held.front().name.addBackslash(action & 8);
                held.front().text = held.front().name.asStringView();
            }
        }
        for (const Held& one : held)
            REQUIRE(one.name.asStringView() == one.text);
    }
    // What is of the same text and made with case is the same name.
    for (const Held& one : held)
        for (const Held& other : held)
            REQUIRE(one.name != other.name || one.text == other.text);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The table keeps the room that it has once had.
    static const auto kRoom = [] {
        std::list<SharedPathName> names;
        for (int i = 0; i < 4096; ++i)
            names.emplace_back(std::to_wstring(i), true, true);
        return names.size();
    }();
    static_cast<void>(kRoom);
    const MemoryWatch memory;
    {
        Input input(data, size);
        if (input.byte() % 2 != 0)
            serialise(input);
        else
            intern(input);
    }
    REQUIRE(memory.left() <= 0); // the leak checker would find an entry that is left over by the table
    return 0;
}
