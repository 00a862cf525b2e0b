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

/// An owning PROPVARIANT. Copies throw std::bad_alloc without memory, and CInvalidArgException* for a type
/// that the system cannot copy.
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
using PropertyNames = std::map<PROPID, CStringW>;

/// Reads all properties of a set, such as FMTID_SummaryInformation. `properties` is empty on failure.
/// Strings come as VT_LPWSTR, whatever their code page, those in vectors too. A property of a type that
/// WriteProperties does not write comes as VT_EMPTY. The code page and the names of properties are not among
/// them.
///  - STG_E_FILENOTFOUND: the storage has no such set. STG_E_INVALIDPARAMETER: a null handle.
///  - STG_E_INVALIDHEADER: what has the set's name is none, or is damaged. A damaged set does not keep the
///    other one in its stream from being read.
///  - Statuses of opening and reading the stream.
VEXEL_API long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties);

/// Gives these properties their values; strings become VT_LPWSTR. A set that is not there is made. All else
/// stays as it is, byte for byte: properties that are not named here, and those whose value is the one that
/// ReadProperties reads, which for a type that it does not know is VT_EMPTY. So what was read, changed in
/// places and written changes the document in these places only. A property is not taken out of a set: as
/// VT_EMPTY or VT_NULL it has no value. The set's format becomes that of version 1 where a type needs it
/// (VT_I1, VT_INT, VT_UINT, VT_DECIMAL).
/// The user's own properties (FMTID_UserDefinedProperties) share a stream with the document summary, which is
/// made with them. On failure the storage keeps what it had: a stream that could not be filled is written
/// back as it was, or removed. The storage is not committed.
///  - STG_E_INVALIDPARAMETER: a null handle, a number below PID_FIRST_USABLE or above 0x7FFFFFFF, or a type
///    that is not written. Written are integers, VT_R4, VT_R8, VT_CY, VT_DATE, VT_DECIMAL, VT_FILETIME,
///    VT_BOOL, VT_ERROR, strings, VT_CLSID, VT_BLOB, VT_BLOB_OBJECT, VT_CF, VT_EMPTY and VT_NULL, and
///    VT_VECTOR of strings, VT_CLSID, VT_VARIANT (of any of these but vectors) and numbers other than VT_INT,
///    VT_UINT and VT_DECIMAL.
///  - STG_E_INVALIDHEADER: the set, or the one that shares its stream, is damaged, or the stream has other
///    sets. What cannot be read is not written over.
///  - STG_E_DOCFILETOOLARGE: the stream would have more than 64 MiB, which ReadProperties does not read.
///  - STG_E_FILEALREADYEXISTS: a storage has the set's name, or a handle has the stream open.
///  - STG_E_WRITEFAULT, and statuses of opening and reading the old stream and of StreamRef::create. None
///    when the values are there already: then nothing is written.
VEXEL_API long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties);

/// Reads the names that properties of a set have: a user's own properties are known to other programs by
/// them. `names` is empty on failure, and when no property has a name. Statuses as of ReadProperties.
VEXEL_API long ReadPropertyNames(const StorageRef& storage, REFFMTID format, PropertyNames& names);

/// Gives these properties names, whether they have a value already or not; other names stay. Statuses as of
/// WriteProperties, but STG_E_INVALIDPARAMETER: a null handle, a number that WriteProperties refuses, a name
/// that is empty or another property's (without regard to case), or one with a character that the code page
/// of an older set lacks.
VEXEL_API long WritePropertyNames(const StorageRef& storage, REFFMTID format, const PropertyNames& names);

} // namespace Vexel
