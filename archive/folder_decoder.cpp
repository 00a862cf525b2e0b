// A folder is decoded in one go into memory that has room for it. The limits keep a header that promises much
// from taking memory, and several threads from taking more than they are worth.

#include "archive/folder_decoder.h"

#include "archive/engine.h"
#include "archive/engine_outputs.h"
#include "archive/engine_status.h"
#include "archive/folder_coders.h"
#include "base/com_pointer.h"

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

// On several threads, each of them holds a block of LZMA2 packed and unpacked: with our dictionary, 4 MiB
// and its packed bytes. Two decode an item of 64 MiB nearly twice as fast as one does, with 1.22 to 1.3
// times its memory instead of 1.03 times.
constexpr UInt64 kMultiThreadedFrom = 0x100000;
constexpr UInt64 kNoMemoryLimit = ~UInt64{0};
/// What is unpacked from each packed byte at most: LZMA reaches about 7,100. A few bytes are not counted.
constexpr UInt64 kMostExpansion = 8192;
constexpr UInt64 kUncountedBytes = 8;
/// With a dictionary above this, a decoder is given back at once.
constexpr UInt32 kSmallDictionary = 0x1000000;

/// Decoders that wait for the next small folder.
class DecoderPool {
public:
    std::unique_ptr<CDecoder> acquire() {
        {
            const auto lock = lockUnlessEnding(mutex_);
            if (lock && !idle_.empty()) {
                std::unique_ptr<CDecoder> decoder = std::move(idle_.back());
                idle_.pop_back();
                return decoder;
            }
        }
        return std::make_unique<CDecoder>(threadCount() > 1);
    }

    void release(std::unique_ptr<CDecoder> decoder) {
        const auto lock = lockUnlessEnding(mutex_);
        if (lock && idle_.size() < threadCount())
            idle_.push_back(std::move(decoder));
    }

private:
    std::mutex mutex_;
    std::vector<std::unique_ptr<CDecoder>> idle_;
};

// Never destroyed: decoders own threads, which are gone when the process ends.
DecoderPool& decoders() {
    static auto* const kPool = new DecoderPool;
    return *kPool;
}

HRESULT decode(const NArchive::N7z::CFolders& folders, unsigned folder, UInt64 dataStart, bool takesMuch,
               IInStream* input, ISequentialOutStream* output, bool& dataAfterEnd) {
    std::unique_ptr<CDecoder> decoder =
        takesMuch ? std::make_unique<CDecoder>(threadCount() > 1) : decoders().acquire();
    const HRESULT status = decoder->Decode(
        input, dataStart, folders, folder, nullptr, output, nullptr, nullptr, dataAfterEnd,
        folders.GetFolderUnpackSize(folder) >= kMultiThreadedFrom, threadCount(), kNoMemoryLimit);
    // One that failed may have been left in the middle.
    if (!takesMuch && status == S_OK && !dataAfterEnd)
        decoders().release(std::move(decoder));
    return status;
}

HRESULT decode(const CDbEx& database, unsigned folder, IInStream* input, ISequentialOutStream* output,
               bool& dataAfterEnd) {
    const FolderCoders coders(database, folder);
    const UInt64 dataStart = database.ArcInfo.DataStartPosition;
    // Threads and blocks or a dictionary: what takes so much is given back at once.
    const bool takesMuch = coders.largest() >= kMultiThreadedFrom || coders.dictionary() > kSmallDictionary;
    if (!coders.isExcessive())
        return decode(database, folder, dataStart, takesMuch, input, output, dataAfterEnd);
    NArchive::N7z::CFolders alone;
    coders.copyTo(alone);
    return decode(alone, 0, dataStart, takesMuch, input, output, dataAfterEnd);
}

} // namespace

HRESULT checkFolder(const CDbEx& database, unsigned folder) {
    if (folder == NArchive::N7z::kNumNoIndex)
        return STG_E_READFAULT;
    const FolderCoders coders(database, folder);
    if (!coders.isKnown())
        return E_NOTIMPL;
    const UInt64 needed = coders.largest() / kMostExpansion;
    return needed <= database.GetFolderFullPackSize(folder) + kUncountedBytes ? S_OK : STG_E_READFAULT;
}

DecodedFolder decodeFolder(const CDbEx& database, unsigned folder, InStreamBase& input,
                           ISequentialOutStream* output) {
    DecodedFolder result;
    const HRESULT status =
        withEngine(E_FAIL, [&] { return decode(database, folder, &input, output, result.dataAfterEnd); });
    result.status = input.failure().orElse(status);
    return result;
}

DecodedFolder decodeFolder(const CDbEx& database, unsigned folder, InStreamBase& input,
                           DynamicBuffer& bytes) {
    const auto output = Detail::adopt(new InMemoryOutStream(bytes));
    DecodedFolder result = decodeFolder(database, folder, input, output.Get());
    result.crc = output->crc();
    return result;
}

} // namespace Vexel::Storage::Engine
