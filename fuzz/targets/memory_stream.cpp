// Streams in memory, clones that share their bytes among them, against a model.

#include "fuzz/targets/input.h"

#include <vexel/memory_streams.h>

#include <wrl/client.h>

#include <optional>

using namespace Vexel::Fuzz;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::DynamicBuffer;
using Vexel::Storage::InMemoryIStream;

namespace {

constexpr std::uint64_t kMost = 0x4000;

/// A byte, if it is known: what a gap holds is not said.
using Known = std::optional<std::uint8_t>;

struct Model {
    std::vector<Known> bytes;
    bool isOwned = true;
    std::uint64_t capacity = 0; // of memory that is not owned

    std::uint64_t write(std::uint64_t position, std::span<const std::uint8_t> data) {
        std::uint64_t count = data.size();
        if (!isOwned && position > capacity)
            return 0;
        if (!isOwned) // even one that has no room reaches to its position
            count = (std::min)(count, capacity - position);
        bytes.resize((std::max)(bytes.size(), static_cast<std::size_t>(position + count)));
        for (std::uint64_t i = 0; i < count; ++i)
            bytes[static_cast<std::size_t>(position + i)] = data[static_cast<std::size_t>(i)];
        return count;
    }
};

struct Cursor {
    ComPtr<InMemoryIStream> stream;
    std::uint64_t position = 0;
};

/// Where a move of the COM kind leads; nothing for one that fails.
std::optional<std::uint64_t> moved(std::uint64_t position, std::uint64_t size, std::int64_t by,
                                   std::uint32_t origin) {
    if (origin > 2)
        return std::nullopt;
    const std::uint64_t from = origin == 0 ? 0 : origin == 1 ? position : size;
    if (by < 0 && (origin == 0 || std::uint64_t{0} - static_cast<std::uint64_t>(by) > from))
        return std::nullopt;
    return from + static_cast<std::uint64_t>(by);
}

void compare(const Cursor& cursor, const Model& model, std::span<const std::uint8_t> got) {
    for (std::size_t i = 0; i < got.size(); ++i) {
        const Known& expected = model.bytes[static_cast<std::size_t>(cursor.position) + i];
        REQUIRE(!expected || *expected == got[i]);
    }
}

void read(Cursor& cursor, const Model& model, std::uint64_t count, bool isCom) {
    const std::uint64_t left =
        cursor.position < model.bytes.size() ? model.bytes.size() - cursor.position : 0;
    std::vector<std::uint8_t> buffer(static_cast<std::size_t>(count));
    std::uint64_t done = 0;
    if (isCom) {
        ULONG came = 0;
        REQUIRE(cursor.stream->Read(buffer.data(), static_cast<ULONG>(count), &came) ==
                (count > 0 || buffer.data() ? S_OK : STG_E_INVALIDPOINTER));
        done = came;
    } else {
        done = cursor.stream->read(buffer.data(), count);
    }
    REQUIRE(done == (std::min)(count, left));
    compare(cursor, model, std::span(buffer).first(static_cast<std::size_t>(done)));
    cursor.position += done;
}

void step(std::vector<Cursor>& cursors, Model& model, Input& input) {
    const std::uint8_t action = input.byte();
    Cursor& cursor = cursors[action / 16 % cursors.size()];
    switch (action % 10) {
    case 0:
    case 1:
        read(cursor, model, input.byte(), action % 2 != 0);
        break;
    case 2:
    case 3: {
        const auto data = input.bytes(1 + input.byte());
        if (data.empty() || cursor.position > kMost)
            break;
        const std::uint64_t expected = model.write(cursor.position, data);
        if (action % 2 != 0) {
            ULONG done = 0;
            const HRESULT status = cursor.stream->Write(data.data(), static_cast<ULONG>(data.size()), &done);
            REQUIRE(done == expected && status == (done > 0 ? S_OK : STG_E_INSUFFICIENTMEMORY));
        } else {
            REQUIRE(cursor.stream->write(data.data(), data.size()) == expected);
        }
        cursor.position += expected;
        break;
    }
    case 4: {
        LARGE_INTEGER by;
        by.QuadPart = input.offset();
        const std::uint32_t origin = input.byte() % 4;
        ULARGE_INTEGER reached{};
        const auto expected = moved(cursor.position, model.bytes.size(), by.QuadPart, origin);
        const HRESULT status = cursor.stream->Seek(by, origin, &reached);
        REQUIRE(status == (expected ? S_OK : STG_E_INVALIDFUNCTION));
        if (expected) {
            REQUIRE(reached.QuadPart == *expected);
            cursor.position = *expected;
        }
        break;
    }
    case 5: {
        const auto position =
            cursor.stream->seek(input.offset(), static_cast<InMemoryIStream::SeekOrigin>(input.byte() % 4));
        REQUIRE(position == cursor.stream->position());
        REQUIRE(position <= model.bytes.size() || position == cursor.position);
        cursor.position = position;
        break;
    }
    case 6: {
        const std::uint64_t size = input.number<std::uint16_t>() % kMost;
        const bool isDone = cursor.stream->resize(size);
        REQUIRE(isDone == model.isOwned);
        if (isDone)
            model.bytes.resize(static_cast<std::size_t>(size));
        break;
    }
    case 7: {
        ComPtr<IStream> clone;
        if (cursors.size() > 4 || cursor.stream->Clone(clone.GetAddressOf()) != S_OK)
            break;
        Cursor made{ComPtr<InMemoryIStream>(static_cast<InMemoryIStream*>(clone.Get())), cursor.position};
        cursors.push_back(std::move(made));
        break;
    }
    case 8: // within its own memory
        if (const unsigned char* const own = cursor.stream->data(0);
            own && model.isOwned && cursor.position <= kMost) {
            const std::uint64_t from = input.number<std::uint16_t>() % model.bytes.size();
            const std::uint64_t count = (std::min<std::uint64_t>)(input.byte(), model.bytes.size() - from);
            const std::vector<std::uint8_t> copy(own + from, own + from + count);
            if (copy.empty())
                break;
            const std::uint64_t done = cursor.stream->write(own + from, count);
            REQUIRE(done == count);
            model.write(cursor.position, copy);
            cursor.position += done;
        }
        break;
    default:
        if (action > 200) {
            cursor.stream->freeMemory();
            model.bytes.clear();
            model.capacity = 0; // of memory that is not its own; for good
        } else if (cursors.size() > 1) {
            cursors.erase(cursors.begin() + static_cast<std::ptrdiff_t>(&cursor - cursors.data()));
        }
    }
}

/// Where this one stands may be copied from, if it is not behind the end.
void copy(Cursor& cursor, const Model& model, std::uint64_t count) {
    if (cursor.position > model.bytes.size())
        return;
    ComPtr<InMemoryIStream> target;
    *target.GetAddressOf() = new InMemoryIStream();
    ULARGE_INTEGER size{}, taken{}, written{};
    size.QuadPart = count;
    REQUIRE(cursor.stream->CopyTo(target.Get(), size, &taken, &written) == S_OK);
    const std::uint64_t expected = (std::min<std::uint64_t>)(count, model.bytes.size() - cursor.position);
    REQUIRE(taken.QuadPart == expected && written.QuadPart == expected && target->size() == expected);
    if (expected > 0)
        compare(cursor, model, {target->data(0), static_cast<std::size_t>(expected)});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::uint8_t kind = input.byte();
    Model model;
    std::vector<unsigned char> memory(kind / 3, 0x5A);
    std::vector<Cursor> cursors(1);
    InMemoryIStream* made = nullptr;
    if (kind % 3 == 0) {
        made = new InMemoryIStream(kind / 3);
        model.bytes.resize(kind / 3);
    } else if (kind % 3 == 1) {
        made = new InMemoryIStream();
    } else {
        DynamicBuffer buffer;
        buffer.data = memory.data();
        buffer.size = memory.size() / 2;
        buffer.capacity = memory.size();
        buffer.ownsMemory = false;
        made = new InMemoryIStream(std::move(buffer));
        model = {std::vector<Known>(memory.size() / 2, Known(0x5A)), false, memory.size()};
    }
    *cursors[0].stream.GetAddressOf() = made;
    while (!input.isEmpty()) {
        step(cursors, model, input);
        for (const Cursor& cursor : cursors) {
            REQUIRE(cursor.stream->size() == model.bytes.size() &&
                    cursor.stream->position() == cursor.position);
            REQUIRE(cursor.stream->size() <= cursor.stream->capacity());
            REQUIRE(cursor.stream->numInstances() == static_cast<int>(cursors.size()));
        }
    }
    copy(cursors[0], model, kind);
    return 0;
}
