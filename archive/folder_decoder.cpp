#include "archive/folder_decoder.h"

#include "archive/engine.h"
#include "archive/engine_status.h"
#include "io/com_pointer.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Vexel::Storage::Engine {

using NArchive::N7z::CDbEx;
using NArchive::N7z::CDecoder;

namespace {

// On several threads, each of them holds a block of LZMA2 packed and unpacked: with our dictionary, 4 MiB and
// its packed bytes. Two decode an item of 64 MiB nearly twice as fast as one does, with 1.22 to 1.3 times its
// memory instead of 1.03 times.
constexpr UInt64 kMultiThreadedFrom = 0x100000;
constexpr UInt64 kNoMemoryLimit = ~UInt64{0};
constexpr UInt64 kMostExpansion = 8192;
constexpr UInt64 kExpansionSlack = 0x10000;
// LZMA's properties end with the dictionary's size, whose last byte counts 16 MiB; LZMA2's are a code for it.
constexpr std::size_t kLzmaProperties = 5;
constexpr Byte kLzma2Of16MiB = 24;

/// Decoders that wait for the next small folder.
class DecoderPool {
public:
    std::unique_ptr<CDecoder> take() {
        {
            const std::scoped_lock lock(mutex_);
            if (!idle_.empty()) {
                std::unique_ptr<CDecoder> decoder = std::move(idle_.back());
                idle_.pop_back();
                return decoder;
            }
        }
        return std::make_unique<CDecoder>(threadCount() > 1);
    }

    void giveBack(std::unique_ptr<CDecoder> decoder) {
        const std::scoped_lock lock(mutex_);
        if (idle_.size() < threadCount())
            idle_.push_back(std::move(decoder));
    }

private:
    std::mutex mutex_;
    std::vector<std::unique_ptr<CDecoder>> idle_;
};

/// Whether decoding the folder takes so much, threads and blocks or a dictionary, that it is given back at
/// once.
bool takesMuch(const CDbEx& database, unsigned folder) {
    if (database.GetFolderUnpackSize(folder) >= kMultiThreadedFrom)
        return true;
    NArchive::N7z::CFolder coders;
    database.ParseFolderInfo(folder, coders);
    for (unsigned i = 0; i < coders.Coders.Size(); ++i) {
        const CByteBuffer& properties = coders.Coders[i].Props;
        if (properties.Size() == kLzmaProperties && properties[kLzmaProperties - 1] != 0)
            return true;
        if (properties.Size() == 1 && properties[0] > kLzma2Of16MiB)
            return true;
    }
    return false;
}

// Never destroyed: decoders own threads, which are gone when the process ends.
DecoderPool& decoders() {
    static auto* const pool = new DecoderPool;
    return *pool;
}

HRESULT decode(const CDbEx& database, unsigned folder, IInStream* input, ISequentialOutStream* output,
               bool& dataAfterEnd) {
    const bool isForPool = !takesMuch(database, folder);
    std::unique_ptr<CDecoder> decoder =
        isForPool ? decoders().take() : std::make_unique<CDecoder>(threadCount() > 1);
    const HRESULT status =
        decoder->Decode(input, database.ArcInfo.DataStartPosition, database, folder, nullptr, output, nullptr,
                        nullptr, dataAfterEnd, database.GetFolderUnpackSize(folder) >= kMultiThreadedFrom,
                        threadCount(), kNoMemoryLimit);
    // One that failed may have been left in the middle.
    if (isForPool && status == S_OK && !dataAfterEnd)
        decoders().giveBack(std::move(decoder));
    return status;
}

} // namespace

bool isPlausible(const CDbEx& database, unsigned folder) noexcept {
    const UInt64 packed = database.GetFolderFullPackSize(folder);
    return database.GetFolderUnpackSize(folder) / kMostExpansion <= packed + kExpansionSlack / kMostExpansion;
}

DecodedFolder decodeFolder(const DatabaseStream& source, unsigned folder, ISequentialOutStream* output) {
    DecodedFolder result;
    ComPtr<InStreamBase> input;
    result.status = source.openCursor(input);
    if (result.status != S_OK)
        return result;
    result.isStarted = true;
    result.status = input->failure().orElse(withEngine(
        E_FAIL, [&] { return decode(source.database(), folder, input.Get(), output, result.dataAfterEnd); }));
    return result;
}

DecodedFolder decodeFolder(const DatabaseStream& source, unsigned folder, DynamicBuffer& bytes) {
    const auto output = Detail::adopt(new InMemoryOutStream(bytes));
    DecodedFolder result = decodeFolder(source, folder, output.Get());
    result.crc = output->crc();
    return result;
}

} // namespace Vexel::Storage::Engine
