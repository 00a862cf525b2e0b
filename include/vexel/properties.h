#pragma once

/// Property sets: the title, author, dates and so on that documents carry beside their contents, as the
/// system's property storage (MS-OLEPS) keeps them in a stream of a storage; in documents of both formats.
///
/// Threads: a value belongs to one thread at a time; for storages the rules of storage.h hold.

#include <vexel/export.h>
#include <vexel/framework.h>
#include <vexel/storage.h>

#include <windows.h>

#include <objidl.h>
#include <propidl.h>

#include <map>
#include <optional>

namespace Vexel {

/// An owning PROPVARIANT. Copies throw std::bad_alloc.
class VEXEL_API PropertyVariant {
public:
    /// VT_EMPTY.
    PropertyVariant() noexcept;
    /// VT_I4, VT_R8, VT_BOOL, VT_LPWSTR, VT_FILETIME.
    explicit PropertyVariant(int value) noexcept;
    explicit PropertyVariant(double value) noexcept;
    explicit PropertyVariant(bool value) noexcept;
    explicit PropertyVariant(const wchar_t* value);
    explicit PropertyVariant(const CStringW& value);
    explicit PropertyVariant(const FILETIME& value) noexcept;
    /// A copy.
    explicit PropertyVariant(const PROPVARIANT& value);
    PropertyVariant(const PropertyVariant& other);
    PropertyVariant(PropertyVariant&& other) noexcept;
    PropertyVariant& operator=(const PropertyVariant& other);
    PropertyVariant& operator=(PropertyVariant&& other) noexcept;
    ~PropertyVariant();

    VARTYPE type() const noexcept { return value_.vt; }
    bool isEmpty() const noexcept { return value_.vt == VT_EMPTY || value_.vt == VT_NULL; }
    const PROPVARIANT& get() const noexcept { return value_; }
    /// For a function to fill in; empties the value first.
    PROPVARIANT* put() noexcept;

    // The value, where it has that type; no value otherwise.

    /// Of VT_LPWSTR, VT_BSTR and VT_LPSTR; the last by the system's code page.
    std::optional<CStringW> asString() const;
    /// Of integers of 1 to 8 bytes; unsigned ones above the largest `long long` have none.
    std::optional<long long> asInteger() const noexcept;
    /// Of VT_R4, VT_R8 and integers.
    std::optional<double> asDouble() const noexcept;
    std::optional<bool> asBool() const noexcept;
    /// Of VT_FILETIME, in UTC.
    std::optional<FILETIME> asTime() const noexcept;

private:
    PROPVARIANT value_{};
};

using Properties = std::map<PROPID, PropertyVariant>;

/// Reads all properties of a set, such as FMTID_SummaryInformation. `properties` is empty on failure.
/// Strings come as VT_LPWSTR, whatever their code page; vectors, arrays and other types that WriteProperties
/// does not write as VT_EMPTY. The code page and the names of properties are not among them.
///  - STG_E_FILENOTFOUND: the storage has no such set. STG_E_INVALIDPARAMETER: a null handle.
///  - STG_E_INVALIDHEADER: what has the set's name is none. Statuses of opening and reading it.
VEXEL_API long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties);

/// Replaces the set by these properties; strings become VT_LPWSTR. The names that properties had are kept.
/// The user's own properties (FMTID_UserDefinedProperties) and the document summary, which share a stream,
/// leave each other alone. On failure the storage keeps the set that it had, unless it is the storage itself
/// that fails. The storage is not committed.
///  - STG_E_INVALIDPARAMETER: a null handle, a number below PID_FIRST_USABLE or above 0x7FFFFFFF, or a type
///    that is not written. Written are integers, VT_R4, VT_R8, VT_CY, VT_DATE, VT_FILETIME, VT_BOOL,
///    VT_ERROR, strings, VT_CLSID, VT_BLOB, VT_BLOB_OBJECT, VT_CF, VT_EMPTY and VT_NULL.
///  - Statuses of opening and reading the old set, of StreamRef::create and of writing.
VEXEL_API long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties);

} // namespace Vexel
