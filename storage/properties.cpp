#include "io/com_pointer.h"
#include "paths/status_guard.h"
#include "storage/element_name.h"
#include "storage/property_set_check.h"

#include <vexel/diagnostics.h>
#include <vexel/memory_streams.h>
#include <vexel/properties.h>

#include <windows.h>

#include <objbase.h>
#include <wrl/client.h>

#include <array>
#include <vector>

namespace Vexel {

using Detail::withStatus;
using Microsoft::WRL::ComPtr;
using Vexel::Storage::InMemoryIStream;

namespace {

// No set of a document comes near it.
constexpr unsigned long long largestSet = 64ULL << 20;

SharedPathName streamOf(REFFMTID format) {
    std::array<wchar_t, CCH_MAX_PROPSTG_NAME + 1> name{};
    FmtIdToPropStgName(&format, name.data());
    return Detail::elementName(name.data());
}

/// The stream's bytes on their own: the system keeps writing to the stream it is given.
HRESULT load(StreamRef& stream, ComPtr<InMemoryIStream>& bytes) {
    const auto size = stream.size();
    if (size > largestSet)
        return STG_E_INVALIDHEADER;
    bytes = Detail::make<InMemoryIStream>();
    std::vector<unsigned char> buffer(static_cast<std::size_t>(size));
    if (stream.ReadBytes(buffer.data(), size) != size)
        return STG_E_READFAULT;
    if (!Detail::makeSound(buffer))
        return STG_E_INVALIDHEADER;
    if (bytes->write(buffer.data(), size) != size)
        return STG_E_INSUFFICIENTMEMORY;
    bytes->rewind();
    return S_OK;
}

HRESULT readAll(IPropertyStorage* set, Properties& properties) {
    ComPtr<IEnumSTATPROPSTG> list;
    HRESULT status = set->Enum(&list);
    if (FAILED(status))
        return status;
    STATPROPSTG entry{};
    while ((status = list->Next(1, &entry, nullptr)) == S_OK) {
        CoTaskMemFree(entry.lpwstrName);
        PROPSPEC which{};
        which.ulKind = PRSPEC_PROPID;
        which.propid = entry.propid;
        PropertyVariant value;
        if (const HRESULT read = set->ReadMultiple(1, &which, value.put()); FAILED(read))
            return read;
        properties[entry.propid] = std::move(value);
        entry = {};
    }
    return FAILED(status) ? status : S_OK;
}

HRESULT writeAll(IPropertyStorage* set, const Properties& properties) {
    constexpr VARTYPE severalValues = VT_VECTOR | VT_ARRAY | VT_BYREF;
    for (const auto& [id, value] : properties) {
        if (value.type() & severalValues)
            return STG_E_INVALIDPARAMETER; // some versions of the system end the process instead
        PROPSPEC which{};
        which.ulKind = PRSPEC_PROPID;
        which.propid = id;
        if (const HRESULT status = set->WriteMultiple(1, &which, &value.get(), PID_FIRST_USABLE);
            FAILED(status))
            return status;
    }
    return set->Commit(STGC_DEFAULT);
}

} // namespace

long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties) {
    properties.clear();
    return withStatus([&]() -> HRESULT {
        StreamRef stream;
        HRESULT status = stream.open(streamOf(format), storage, true);
        if (FAILED(status))
            return status;
        ComPtr<InMemoryIStream> bytes;
        status = load(stream, bytes);
        ComPtr<IPropertyStorage> set;
        if (SUCCEEDED(status))
            status =
                StgOpenPropStg(static_cast<::IStream*>(bytes.Get()), format, PROPSETFLAG_DEFAULT, 0, &set);
        Properties read;
        if (SUCCEEDED(status))
            status = readAll(set.Get(), read);
        if (SUCCEEDED(status))
            properties.swap(read);
        else
            VxLog_WriteW(VxLog_Minor, L"Failed to read the properties \"%ls|%ls\": 0x%08x",
                         storage.name().asString(), stream.name().asString(), static_cast<unsigned>(status));
        return status;
    });
}

long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties) {
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        const auto bytes = Detail::make<InMemoryIStream>();
        {
            ComPtr<IPropertyStorage> set;
            HRESULT status = StgCreatePropStg(static_cast<::IStream*>(bytes.Get()), format, nullptr,
                                              PROPSETFLAG_DEFAULT, 0, &set);
            if (SUCCEEDED(status))
                status = writeAll(set.Get(), properties);
            if (FAILED(status))
                return status;
        }
        StreamRef stream;
        const HRESULT status = stream.create(streamOf(format), storage);
        if (FAILED(status))
            return status;
        return stream.WriteBytes(bytes->data(0), bytes->size()) == bytes->size() ? S_OK : STG_E_WRITEFAULT;
    });
}

} // namespace Vexel
