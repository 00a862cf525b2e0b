// The engine sorts what it packs, by tables that it keeps to itself. So it is asked, by a rehearsal: an
// update that packs all these items into one folder. For that it opens one after the other before it packs
// anything, is given none, and is stopped at the last. Items that are copied have no part in it, for they
// need the old archive.

#include "archive/packing_order.h"

#include "archive/engine_outputs.h"
#include "archive/header_layout.h"
#include "archive/update_callback.h"
#include "base/com_pointer.h"

#include <vexel/com.h>
#include <vexel/memory_streams.h>

namespace Vexel::Storage::Engine {

using NArchive::N7z::CMethodFull;
using NArchive::N7z::CUpdateItem;

namespace {

class Rehearsal final : public UpdateCallbackBase<> {
public:
    explicit Rehearsal(const std::vector<PackAhead::Item>& items) : items_(items) {
        ordered_.reserve(items.size());
    }

    HRESULT STDMETHODCALLTYPE GetStream(UInt32 index, ISequentialInStream** stream) noexcept override {
        *stream = nullptr;
        if (index >= items_.size() || isOver())
            return E_FAIL;
        ordered_.push_back(items_[index]);
        return isOver() ? E_ABORT : S_FALSE;
    }

    std::vector<PackAhead::Item>& ordered() noexcept { return ordered_; }

private:
    bool isOver() const noexcept { return ordered_.size() == items_.size(); }

    const std::vector<PackAhead::Item>& items_;
    std::vector<PackAhead::Item> ordered_;
};

} // namespace

void putIntoPackingOrder(std::vector<PackAhead::Item>& items, const CObjectVector<CUpdateItem>& list) {
    CObjectVector<CUpdateItem> part;
    part.ClearAndReserve(static_cast<unsigned>(items.size()));
    for (const PackAhead::Item& item : items)
        part.AddNewInReserved() = list[item.index];

    CMethodFull method;
    method.Id = MethodId::kCopy;
    method.NumStreams = 1;
    NArchive::N7z::CCompressionMethodMode mode;
    mode.Methods.Add(method);
    NArchive::N7z::CUpdateOptions options;
    options.Method = &mode;
    options.AnalysisLevel = 0;
    options.MultiThreadMixer = false;
    const auto callback = Detail::make<Rehearsal>(items);
    const auto bytes = Detail::make<InMemoryIStream>();
    const auto output = Detail::make<PassThroughOutStream>(bytes.Get());
    const HRESULT status =
        NArchive::N7z::Update(nullptr, nullptr, part, output.Get(), callback.Get(), options);
    if (status != E_ABORT)
        callback->ordered().clear();
    items.swap(callback->ordered());
}

} // namespace Vexel::Storage::Engine
