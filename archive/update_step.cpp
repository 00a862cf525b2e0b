// The call of the engine that writes an archive.

#include "archive/update_step.h"

#include "archive/engine_status.h"
#include "archive/header_layout.h"
#include "archive/pack_ahead.h"
#include "archive/packing_coder.h"
#include "archive/packing_order.h"
#include "archive/packing_settings.h"
#include "archive/update_callback.h"
#include "base/com_pointer.h"
#include "base/status.h"

#include <vexel/diagnostics.h>

#include <algorithm>
#include <new>

namespace Vexel::Storage::Engine {

using NArchive::N7z::CCompressionMethodMode;
using NArchive::N7z::CMethodFull;
using NArchive::N7z::CUpdateItem;

namespace {

constexpr UInt32 kLzmaThreads = 2;

constexpr auto* kUpdateFailure = L"Failed to create or update archive \"%ls\": 0x%08x";
constexpr auto* kHeaderFailure = L"Failed to write archive header to \"%ls\": 0x%08x";

struct UpdateInterfaces : IArchiveUpdateCallback, IArchiveUpdateCallbackFile {};

/// Hands the engine the contents of the items that have new data, and tells the packing which are next.
class UpdateCallback final : public UpdateCallbackBase<UpdateInterfaces> {
public:
    /// `isAtHeader` becomes true when all contents are written and the header comes next.
    UpdateCallback(const std::vector<UpdateEntry>& entries, PackAhead& packing, bool& isAtHeader) noexcept
        : entries_(entries), packing_(packing), isAtHeader_(isAtHeader) {}

    HRESULT STDMETHODCALLTYPE QueryInterface(const GUID& iid, void** ppv) noexcept override;
    HRESULT STDMETHODCALLTYPE GetStream(UInt32 index, ISequentialInStream** stream) noexcept override;

    HRESULT STDMETHODCALLTYPE GetStream2(UInt32 index, ISequentialInStream** stream,
                                         UInt32 /*operation*/) noexcept override {
        return GetStream(index, stream);
    }
    HRESULT STDMETHODCALLTYPE ReportOperation(UInt32 /*indexType*/, UInt32 /*index*/,
                                              UInt32 operation) noexcept override {
        isAtHeader_ = operation == NUpdateNotifyOp::kHeader;
        return S_OK;
    }

private:
    const std::vector<UpdateEntry>& entries_;
    PackAhead& packing_;
    bool& isAtHeader_;
};

HRESULT UpdateCallback::QueryInterface(const GUID& iid, void** ppv) noexcept {
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (iid == IID_IArchiveUpdateCallbackFile)
        *ppv = static_cast<IArchiveUpdateCallbackFile*>(this);
    else if (iid == IID_IArchiveUpdateCallback || iid == IID_IProgress || iid == __uuidof(IUnknown))
        *ppv = static_cast<IArchiveUpdateCallback*>(this);
    else
        return E_NOINTERFACE;
    AddRef();
    return S_OK;
}

HRESULT UpdateCallback::GetStream(UInt32 index, ISequentialInStream** stream) noexcept {
    *stream = nullptr;
    if (index >= entries_.size() || !entries_[index].contents)
        return STG_E_INVALIDPARAMETER;
    packing_.reach(index);
    const ComPtr<::IStream>& contents = entries_[index].contents;
    if (const HRESULT status = Detail::asStatus(contents->Seek({}, STREAM_SEEK_SET, nullptr)); status != S_OK)
        return status;
    *stream = new (std::nothrow) IStreamInStream(contents);
    return *stream ? S_OK : STG_E_INSUFFICIENTMEMORY;
}

UInt64 toNumber(const FILETIME& time) noexcept {
    return (static_cast<UInt64>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

void fill(CUpdateItem& item, const UpdateEntry& entry, unsigned index) {
    item.IndexInArchive = entry.databaseIndex;
    item.IndexInClient = index;
    item.Name.SetFrom(entry.name.GetString(), static_cast<unsigned>(entry.name.GetLength()));
    item.Size = entry.size;
    item.CTime = toNumber(entry.creation);
    item.CTimeDefined = item.CTime != 0;
    item.MTime = toNumber(entry.modification);
    item.MTimeDefined = item.MTime != 0;
    item.ATime = 0;
    item.AttribDefined = entry.attributes.has_value();
    item.Attrib = entry.attributes.value_or(0);
    item.IsDir = entry.isDirectory;
    item.IsAnti = entry.isAnti;
    item.NewProps = true;
    item.NewData = entry.hasNewData;
}

CCompressionMethodMode methodFor(CMethodId id, UInt32 threads, PackAhead* packing = nullptr) {
    CCompressionMethodMode mode;
    // Made in place: a copy of the engine's lists in which memory ends leaks what was copied until then.
    CMethodFull& method = mode.Methods.AddNew();
    method.Id = id;
    method.NumStreams = 1;
    method.AddProp32(NCoderPropID::kDictionarySize, kDictionary);
    method.AddProp32(NCoderPropID::kAlgorithm, kFastMode);
    method.AddProp32(NCoderPropID::kNumFastBytes, kFastBytes);
    method.AddProp_Ascii(NCoderPropID::kMatchFinder, kMatchFinder);
    method.AddProp32(NCoderPropID::kNumThreads, threads);
    if (packing) {
        method.AddProp32(NCoderPropID::kBlockSize, kBlock);
        CProp& property = method.Props.AddNew();
        property.Id = kPackAheadProperty;
        property.Value = static_cast<UInt64>(reinterpret_cast<std::uintptr_t>(packing));
    }
    mode.NumThreads = threads;
    return mode;
}

/// What a header of these entries takes, about.
std::uint64_t headerSize(const std::vector<UpdateEntry>& entries) noexcept {
    constexpr std::uint64_t kFolderAndTimes = 32;
    std::uint64_t size = 0;
    for (const UpdateEntry& entry : entries)
        size += kFolderAndTimes + sizeof(wchar_t) * static_cast<std::uint64_t>(entry.name.GetLength());
    return size;
}

/// Packing a header makes small files slow to save, for it sets an encoder up, and files with many items slow
/// to save and to open. A header that is small, by itself or beside the contents, stays as it is.
bool isHeaderWorthPacking(const std::vector<UpdateEntry>& entries, const DatabaseStream* old) noexcept {
    constexpr std::uint64_t kSmall = 0x1000;
    constexpr std::uint64_t kSmallPart = 32;
    std::uint64_t contents = 0;
    for (const UpdateEntry& entry : entries) {
        if (entry.hasNewData)
            contents += entry.size;
        else if (old && entry.databaseIndex >= 0)
            contents += old->packedSize(static_cast<unsigned>(entry.databaseIndex));
    }
    const std::uint64_t header = headerSize(entries);
    return header > kSmall && header > contents / kSmallPart;
}

// The engine's update does not take an empty list.
HRESULT writeEmpty(IOutStream* output) {
    NArchive::N7z::COutArchive archive;
    if (const HRESULT status = archive.Create_and_WriteStartPrefix(output); status != S_OK)
        return status;
    return archive.WriteDatabase({}, nullptr, {});
}

CObjectVector<CUpdateItem> itemsOf(const std::vector<UpdateEntry>& entries) {
    CObjectVector<CUpdateItem> items;
    items.ClearAndReserve(static_cast<unsigned>(entries.size()));
    for (const UpdateEntry& entry : entries)
        fill(items.AddNewInReserved(), entry, items.Size() - 1);
    return items;
}

/// The items that the engine will pack, in the order in which it does; none where packing ahead does not pay.
std::vector<PackAhead::Item> itemsToPack(const CObjectVector<CUpdateItem>& list,
                                         const std::vector<UpdateEntry>& entries, unsigned threads) {
    std::vector<PackAhead::Item> items;
    for (unsigned i = 0; i < list.Size(); ++i)
        if (list[i].NewData && list[i].HasStream())
            items.push_back({.index = i, .contents = entries[i].contents.Get(), .size = list[i].Size});
    if (PackAhead::usefulWorkers(items, threads) == 0)
        return {};
    putIntoPackingOrder(items, list);
    return items;
}

HRESULT engineStatus(HRESULT result) noexcept {
    return result == E_OUTOFMEMORY ? STG_E_INSUFFICIENTMEMORY : Detail::asStatus(result);
}

bool copiesPackedData(const std::vector<UpdateEntry>& entries) noexcept {
    return std::any_of(entries.begin(), entries.end(),
                       [](const UpdateEntry& entry) { return entry.databaseIndex >= 0; });
}

HRESULT update(const std::vector<UpdateEntry>& entries, const DatabaseStream* old, IOutStream* output,
               unsigned threads, bool& isAtHeader) {
    ComPtr<InStreamBase> input;
    if (!copiesPackedData(entries))
        old = nullptr;
    else if (const HRESULT status = old->openCursor(input); status != S_OK)
        return status;

    CObjectVector<CUpdateItem> items = itemsOf(entries);
    PackAhead packing(itemsToPack(items, entries, threads), threads);
    const auto callback = Detail::adopt(new UpdateCallback(entries, packing, isAtHeader));
    const CCompressionMethodMode method = methodFor(MethodId::kLzma2, threads, &packing);
    const CCompressionMethodMode headerMethod = methodFor(MethodId::kLzma, kLzmaThreads);
    NArchive::N7z::CUpdateOptions options;
    options.Method = &method;
    if (isHeaderWorthPacking(entries, old))
        options.HeaderMethod = &headerMethod;
    options.MultiThreadMixer = threads > 1;
    // Contents are read back item by item, so no two share a folder.
    options.NumSolidFiles = 1;
    options.AnalysisLevel = 0;
    const HRESULT status = engineStatus(NArchive::N7z::Update(input.Get(), old ? &old->database() : nullptr,
                                                              items, output, callback.Get(), options));
    return input ? input->failure().orElse(status) : status;
}

} // namespace

HRESULT writeArchive(const std::vector<UpdateEntry>& entries, const DatabaseStream* old, OutStream* output,
                     const wchar_t* archiveName, unsigned threads) {
    bool isAtHeader = entries.empty();
    const HRESULT result = withEngine(E_FAIL, [&] {
        if (entries.empty())
            return engineStatus(writeEmpty(output));
        return update(entries, old, output, threads, isAtHeader);
    });
    const HRESULT status = output->failure().orElse(result);
    if (status != S_OK)
        VxLog_WriteW(VxLog_Error, isAtHeader ? kHeaderFailure : kUpdateFailure, archiveName,
                     static_cast<unsigned>(status));
    return status;
}

} // namespace Vexel::Storage::Engine
