// A property set is read whole, changed in memory and written whole. When writing fails in the middle, the
// old bytes are put back, or the next commit would make half a set permanent.

#include "base/status_guard.h"
#include "storage/properties/property_set.h"
#include "storage/tree/element_name.h"

#include <vexel/diagnostics.h>
#include <vexel/properties.h>

#include <windows.h>

#include <objbase.h>

#include <array>
#include <vector>

namespace Vexel {

using Detail::ByteView;
using Detail::PropertySection;
using Detail::PropertyStream;
using Detail::withStatus;

namespace {

// No stream of a document comes near it.
constexpr unsigned long long kLargestStream = 64ULL << 20;

SharedPathName streamOf(REFFMTID format) {
    std::array<wchar_t, CCH_MAX_PROPSTG_NAME + 1> name{};
    FmtIdToPropStgName(&format, name.data());
    return Detail::elementName(name.data());
}

/// The bytes of the stream that the set is in, or would be in.
HRESULT load(const StorageRef& storage, REFFMTID format, std::vector<unsigned char>& bytes) {
    StreamRef stream;
    if (const HRESULT status = stream.open(streamOf(format), storage, true); FAILED(status))
        return status;
    const auto size = stream.size();
    if (size > kLargestStream)
        return STG_E_INVALIDHEADER;
    bytes.resize(static_cast<std::size_t>(size));
    return stream.ReadBytes(bytes.data(), size) == size ? S_OK : STG_E_READFAULT;
}

void logFailure(const wchar_t* what, const StorageRef& storage, REFFMTID format, HRESULT status) {
    VxLog_WriteW(VxLog_Minor, L"Failed to %ls \"%ls|%ls\": 0x%08x", what, storage.name().asString(),
                 streamOf(format).asString(), static_cast<unsigned>(status));
}

/// Has `decode` take what it is for out of the section.
template <class Decode>
HRESULT readSection(const StorageRef& storage, REFFMTID format, const Decode& decode) {
    std::vector<unsigned char> bytes;
    if (const HRESULT status = load(storage, format, bytes); FAILED(status))
        return status;
    if (bytes.empty())
        return STG_E_FILENOTFOUND;
    const auto found = Detail::findSection(bytes, format);
    if (!found)
        return STG_E_INVALIDHEADER;
    if (found->empty())
        return STG_E_FILENOTFOUND;
    PropertySection section;
    return section.split(*found) && decode(section) ? S_OK : STG_E_INVALIDHEADER;
}

template <class Result, class Decode>
long read(const StorageRef& storage, REFFMTID format, Result& result, const Decode& decode) {
    result.clear();
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        Result found;
        const HRESULT status = readSection(
            storage, format, [&](const PropertySection& section) { return decode(section, found); });
        if (status == S_OK)
            result.swap(found);
        else if (status != STG_E_FILENOTFOUND)
            logFailure(L"read the properties", storage, format, status);
        return status;
    });
}

/// Has `change` change the section, and builds the stream anew.
template <class Change>
HRESULT rebuild(ByteView old, REFFMTID format, const Change& change, std::vector<unsigned char>& bytes) {
    PropertyStream stream;
    if (!old.empty() && !stream.split(old))
        return STG_E_INVALIDHEADER;
    PropertySection section;
    const ByteView found = stream.section(format);
    if (!found.empty() && !section.split(found))
        return STG_E_INVALIDHEADER;
    if (!change(section))
        return STG_E_INVALIDPARAMETER;
    if (section.isChanged() && !stream.put(format, section.join()))
        return STG_E_INVALIDHEADER;
    if (section.isNewer())
        stream.makeNewer();
    bytes = stream.join();
    return bytes.size() <= kLargestStream ? S_OK : STG_E_DOCFILETOOLARGE;
}

HRESULT fill(StreamRef& stream, const std::vector<unsigned char>& bytes) {
    return stream.WriteBytes(bytes.data(), bytes.size()) == bytes.size() ? S_OK : STG_E_WRITEFAULT;
}

/// Puts `bytes` in place of the old contents, which come back after a failure; null means that there is no
/// stream yet.
HRESULT replace(const StorageRef& storage, const SharedPathName& name, const std::vector<unsigned char>* old,
                const std::vector<unsigned char>& bytes) {
    StreamRef stream;
    HRESULT status = stream.create(name, storage);
    if (SUCCEEDED(status))
        status = fill(stream, bytes);
    else if (SUCCEEDED(stream.open(name, storage, true)) == (old != nullptr))
        return status; // nothing has happened
    if (SUCCEEDED(status))
        return status;
    stream.close();
    if (!old)
        StorageRef(storage).destroy(name);
    else if (SUCCEEDED(stream.create(name, storage)))
        fill(stream, *old);
    return status;
}

template <class Change>
HRESULT write(const StorageRef& storage, REFFMTID format, const Change& change) {
    const SharedPathName name = streamOf(format);
    std::vector<unsigned char> old;
    HRESULT status = load(storage, format, old);
    const bool isThere = SUCCEEDED(status);
    if (!isThere && status != STG_E_FILENOTFOUND)
        return status;
    // A set can be a storage too, which some formats would replace by the stream.
    if (!isThere && storage.hasChild(name, StorageType::Storage))
        return STG_E_FILEALREADYEXISTS;
    std::vector<unsigned char> bytes;
    status = rebuild(old, format, change, bytes);
    if (FAILED(status) || (isThere && bytes == old))
        return status;
    return replace(storage, name, isThere ? &old : nullptr, bytes);
}

template <class Change>
long change(const StorageRef& storage, REFFMTID format, const Change& change) {
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        const HRESULT status = write(storage, format, change);
        if (FAILED(status))
            logFailure(L"write the properties", storage, format, status);
        return status;
    });
}

} // namespace

long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties) {
    return read(storage, format, properties,
                [](const PropertySection& section, Properties& found) { return section.decode(found); });
}

long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties) {
    return change(storage, format, [&](PropertySection& section) { return section.set(properties); });
}

long ReadPropertyNames(const StorageRef& storage, REFFMTID format, PropertyNames& names) {
    return read(storage, format, names, [](const PropertySection& section, PropertyNames& found) {
        return section.decodeNames(found);
    });
}

long WritePropertyNames(const StorageRef& storage, REFFMTID format, const PropertyNames& names) {
    return change(storage, format, [&](PropertySection& section) { return section.setNames(names); });
}

} // namespace Vexel
