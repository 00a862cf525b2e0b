// A range of a stream, against a model of the base: no byte outside the range is read or written while it is
// in force, and positions are those of the range.

#include "fuzz/targets/input.h"

#include <vexel/memory_streams.h>
#include <vexel/sub_stream.h>

#include <optional>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;
using Vexel::Storage::SubStream;

namespace {

struct Test {
    ComPtr<InMemoryIStream> base;
    ComPtr<SubStream> sub;
    std::vector<std::uint8_t> bytes; // the base's
    std::uint64_t offset = 0, size = 0, position = 0;
    bool isPlaced = false; // whether the base stands where the range's position is
};

void seek(Test& test, std::int64_t by, std::uint32_t origin) {
    LARGE_INTEGER move;
    move.QuadPart = by;
    ULARGE_INTEGER reached{};
    std::optional<std::uint64_t> expected;
    if (origin <= 2) {
        const std::uint64_t from = origin == 0 ? 0 : origin == 1 ? test.position : test.size;
        const auto target =
            static_cast<unsigned __int128>(from) + static_cast<unsigned __int128>(static_cast<__int128>(by));
        // The base knows no place behind the largest signed number.
        if (target <= test.size && target + test.offset <= static_cast<std::uint64_t>(INT64_MAX))
            expected = static_cast<std::uint64_t>(target);
    }
    const HRESULT status = test.sub->Seek(move, origin, &reached);
    REQUIRE(status == (expected ? S_OK : STG_E_INVALIDFUNCTION));
    if (!expected)
        return;
    REQUIRE(reached.QuadPart == *expected);
    test.position = *expected;
    test.isPlaced = test.isPlaced || by != 0 || origin != 1;
}

void readOrWrite(Test& test, Input& input, bool writes) {
    if (!test.isPlaced)
        return;
    const auto data = input.bytes(input.byte());
    if (writes && test.offset + test.position > test.bytes.size()) // what comes to stand between is not said
        return;
    const std::uint64_t room = test.size - test.position;
    ULONG done = 0;
    if (writes) {
        REQUIRE(test.sub->Write(data.data(), static_cast<ULONG>(data.size()), &done) == S_OK);
        REQUIRE(done <= room && done == (std::min<std::uint64_t>)(data.size(), room));
        const std::size_t at = static_cast<std::size_t>(test.offset + test.position);
        if (done > 0 && test.bytes.size() < at + done)
            test.bytes.resize(at + done);
        std::copy_n(data.begin(), done, test.bytes.begin() + static_cast<std::ptrdiff_t>(done > 0 ? at : 0));
    } else {
        std::vector<std::uint8_t> buffer(data.size() + 1);
        REQUIRE(test.sub->Read(buffer.data(), static_cast<ULONG>(data.size()), &done) == S_OK);
        const std::uint64_t at = test.offset + test.position;
        const std::uint64_t left = at < test.bytes.size() ? test.bytes.size() - at : 0;
        REQUIRE(done == (std::min)({static_cast<std::uint64_t>(data.size()), room, left}));
        if (done > 0)
            REQUIRE(std::equal(buffer.begin(), buffer.begin() + done,
                               test.bytes.begin() + static_cast<std::ptrdiff_t>(at)));
    }
    test.position += done;
}

void step(Test& test, Input& input) {
    const std::uint8_t action = input.byte();
    switch (action % 8) {
    case 0:
    case 1:
        readOrWrite(test, input, false);
        break;
    case 2:
        readOrWrite(test, input, true);
        break;
    case 3:
    case 4:
        seek(test, input.offset(), input.byte() % 4);
        break;
    case 5: { // kept where it limits something
        ULARGE_INTEGER size{};
        size.QuadPart =
            action < 32 ? static_cast<std::uint64_t>(input.offset()) : test.position + input.byte();
        if (size.QuadPart < test.position)
            break;
        const HRESULT status = test.sub->SetSize(size);
        REQUIRE(status == (size.QuadPart <= ~0ULL - test.offset ? S_OK : E_INVALIDARG));
        if (status == S_OK)
            test.size = size.QuadPart;
        break;
    }
    case 6: {
        STATSTG stat{};
        REQUIRE(test.sub->Stat(&stat, STATFLAG_NONAME) == S_OK && stat.cbSize.QuadPart == test.size);
        ComPtr<IStream> clone;
        REQUIRE(test.sub->Clone(clone.GetAddressOf()) == S_OK);
        ULARGE_INTEGER reached{};
        REQUIRE(clone->Seek({}, STREAM_SEEK_CUR, &reached) == S_OK && reached.QuadPart == test.position);
        break;
    }
    default: {
        if (!test.isPlaced || test.offset + test.position > test.bytes.size())
            break;
        const ComPtr<InMemoryIStream> target = streamOf({});
        ULARGE_INTEGER count{}, read{}, written{};
        count.QuadPart = input.byte();
        const HRESULT status = test.sub->CopyTo(target.Get(), count, &read, &written);
        const std::uint64_t at = test.offset + test.position;
        const std::uint64_t expected = (std::min)(
            {static_cast<std::uint64_t>(count.QuadPart), test.size - test.position, test.bytes.size() - at});
        REQUIRE(status == S_OK && read.QuadPart == expected && written.QuadPart == expected);
        REQUIRE(target->size() == expected);
        REQUIRE(std::equal(test.bytes.begin() + static_cast<std::ptrdiff_t>(at),
                           test.bytes.begin() + static_cast<std::ptrdiff_t>(at + expected), target->data(0)));
        test.position += expected;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    Test test;
    const auto bytes = input.bytes(input.byte());
    test.bytes.assign(bytes.begin(), bytes.end());
    test.base = streamOf(bytes);
    test.offset = input.byte();
    test.size = input.byte();
    *test.sub.GetAddressOf() = new SubStream(test.base.Get(), test.offset, test.size);
    while (!input.isEmpty())
        step(test, input);
    REQUIRE(test.base->size() == test.bytes.size());
    REQUIRE(std::equal(test.bytes.begin(), test.bytes.end(), test.base->data(0)));
    return 0;
}
