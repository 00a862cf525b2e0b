#include "paths/status_guard.h"
#include "storage/element_name.h"
#include "storage/property_set.h"

#include <vexel/diagnostics.h>
#include <vexel/properties.h>

#include <windows.h>

#include <objbase.h>

#include <algorithm>
#include <array>
#include <vector>

namespace Vexel {

using Detail::PropertyNames;
using Detail::PropertySet;
using Detail::withStatus;

namespace {

// No stream of a document comes near it.
constexpr unsigned long long largestStream = 64ULL << 20;

SharedPathName streamOf(REFFMTID format) {
    std::array<wchar_t, CCH_MAX_PROPSTG_NAME + 1> name{};
    FmtIdToPropStgName(&format, name.data());
    return Detail::elementName(name.data());
}

/// The sets of the stream that has the one asked for, if it is there.
HRESULT load(const StorageRef& storage, REFFMTID format, std::vector<PropertySet>& sets) {
    StreamRef stream;
    if (const HRESULT status = stream.open(streamOf(format), storage, true); FAILED(status))
        return status;
    const auto size = stream.size();
    if (size > largestStream)
        return STG_E_INVALIDHEADER;
    std::vector<unsigned char> bytes(static_cast<std::size_t>(size));
    if (stream.ReadBytes(bytes.data(), size) != size)
        return STG_E_READFAULT;
    auto split = Detail::splitPropertySets(bytes);
    if (!split)
        return STG_E_INVALIDHEADER;
    sets = std::move(*split);
    return S_OK;
}

auto find(std::vector<PropertySet>& sets, REFFMTID format) {
    return std::ranges::find_if(sets, [&](const PropertySet& set) { return set.format == format; });
}

HRESULT read(const StorageRef& storage, REFFMTID format, Properties& properties) {
    std::vector<PropertySet> sets;
    if (const HRESULT status = load(storage, format, sets); FAILED(status))
        return status;
    const auto set = find(sets, format);
    if (set == sets.end())
        return STG_E_FILENOTFOUND;
    return Detail::decodeProperties(set->section, properties) ? S_OK : STG_E_INVALIDHEADER;
}

/// Puts the section in, beside the set that it may share the stream with.
void put(std::vector<PropertySet>& sets, REFFMTID format, std::vector<unsigned char>&& section) {
    if (const auto set = find(sets, format); set != sets.end()) {
        set->section = std::move(section);
        return;
    }
    // The set of the user's own properties is always a stream's second one.
    const bool isSecond = format == FMTID_UserDefinedProperties;
    const FMTID& other = isSecond ? FMTID_DocSummaryInformation : FMTID_UserDefinedProperties;
    std::erase_if(sets, [&](const PropertySet& set) { return set.format != other; });
    if (isSecond && sets.empty())
        Detail::encodeProperties({}, {}, sets.emplace_back(PropertySet{other, {}}).section);
    sets.insert(isSecond ? sets.end() : sets.begin(), {format, std::move(section)});
}

} // namespace

long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties) {
    properties.clear();
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        Properties found;
        const HRESULT status = read(storage, format, found);
        if (SUCCEEDED(status))
            properties.swap(found);
        else if (status != STG_E_FILENOTFOUND)
            VxLog_WriteW(VxLog_Minor, L"Failed to read the properties \"%ls|%ls\": 0x%08x",
                         storage.name().asString(), streamOf(format).asString(),
                         static_cast<unsigned>(status));
        return status;
    });
}

long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties) {
    if (storage.null())
        return STG_E_INVALIDPARAMETER;
    return withStatus([&]() -> HRESULT {
        std::vector<PropertySet> sets;
        HRESULT status = load(storage, format, sets);
        if (FAILED(status) && status != STG_E_FILENOTFOUND && status != STG_E_INVALIDHEADER)
            return status;
        const auto old = find(sets, format);
        const auto names = old != sets.end() ? Detail::decodePropertyNames(old->section) : PropertyNames();
        std::vector<unsigned char> section;
        if (!Detail::encodeProperties(properties, names, section))
            return STG_E_INVALIDPARAMETER;
        put(sets, format, std::move(section));
        const auto bytes = Detail::joinPropertySets(sets);
        StreamRef stream;
        status = stream.create(streamOf(format), storage);
        if (FAILED(status))
            return status;
        return stream.WriteBytes(bytes.data(), bytes.size()) == bytes.size() ? S_OK : STG_E_WRITEFAULT;
    });
}

} // namespace Vexel
