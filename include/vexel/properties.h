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

/// An owning PROPVARIANT. Copying throws std::bad_alloc when memory is exhausted, and CInvalidArgException*
/// for a type that the system cannot copy.
class VEXEL_API PropertyVariant {
public:
    /// Makes a value of type VT_EMPTY.
    PropertyVariant() noexcept;
    /// These make values of the types VT_I4, VT_R8, VT_BOOL, VT_LPWSTR (both) and VT_FILETIME.
    explicit PropertyVariant(int value) noexcept;
    explicit PropertyVariant(double value) noexcept;
    explicit PropertyVariant(bool value) noexcept;
    explicit PropertyVariant(const wchar_t* value);
    explicit PropertyVariant(const CStringW& value);
    explicit PropertyVariant(const FILETIME& value) noexcept;
    /// Makes a copy of `value`.
    explicit PropertyVariant(const PROPVARIANT& value);
    PropertyVariant(const PropertyVariant& other);
    PropertyVariant(PropertyVariant&& other) noexcept;
    PropertyVariant& operator=(const PropertyVariant& other);
    PropertyVariant& operator=(PropertyVariant&& other) noexcept;
    ~PropertyVariant();

    VARTYPE type() const noexcept { return value_.vt; }
    bool isEmpty() const noexcept { return value_.vt == VT_EMPTY || value_.vt == VT_NULL; }
    const PROPVARIANT& get() const noexcept { return value_; }
    /// Empties the value and returns its address, for a function to fill it in.
    PROPVARIANT* put() noexcept;

    // These return the value if its type is one of those named, and no value otherwise.

    /// VT_LPWSTR, VT_BSTR and VT_LPSTR; the last one is in the system's code page.
    std::optional<CStringW> asString() const;
    /// Integers of 1 to 8 bytes, except unsigned ones above the largest `long long`.
    std::optional<long long> asInteger() const noexcept;
    /// VT_R4, VT_R8 and integers.
    std::optional<double> asDouble() const noexcept;
    /// VT_BOOL.
    std::optional<bool> asBool() const noexcept;
    /// VT_FILETIME, in UTC.
    std::optional<FILETIME> asTime() const noexcept;

private:
    PROPVARIANT value_{};
};

using Properties = std::map<PROPID, PropertyVariant>;
using PropertyNames = std::map<PROPID, CStringW>;

/// Reads all properties of a set, such as FMTID_SummaryInformation. On failure `properties` is empty. Strings
/// come as VT_LPWSTR, whatever their code page is, also those in vectors. A property of a type that
/// WriteProperties does not write comes as VT_EMPTY. The set's code page and the names of its properties are
/// not among the properties.
///  - STG_E_FILENOTFOUND: the storage has no such set.
///  - STG_E_INVALIDPARAMETER: the handle is null.
///  - STG_E_INVALIDHEADER: the element that has the set's name is no set, or the set is damaged. A damaged
///    set does not keep the other set in its stream from being read.
///  - Statuses of opening and reading the stream.
VEXEL_API long ReadProperties(const StorageRef& storage, REFFMTID format, Properties& properties);

/// Gives these properties their values; strings become VT_LPWSTR. A set that is not there is made. The
/// storage is not committed.
///
/// Everything else stays as it is, byte for byte: properties that are not named here, and properties whose
/// value is the one that ReadProperties reads, which for a type that it does not know is VT_EMPTY. So
/// properties that were read, changed in places and written change the document in these places only. No
/// property is taken out of a set; one that becomes VT_EMPTY or VT_NULL has no value. The set's format
/// becomes that of version 1 where a type needs it (VT_I1, VT_INT, VT_UINT, VT_DECIMAL).
///
/// The user's own properties (FMTID_UserDefinedProperties) share a stream with the document summary, which is
/// made with them. On failure the storage keeps what it had: a stream that could not be filled is written
/// back as it was, or removed.
///  - STG_E_INVALIDPARAMETER: the handle is null, a number is below PID_FIRST_USABLE or above 0x7FFFFFFF, or
///    a type is not written. The types that are written are integers, VT_R4, VT_R8, VT_CY, VT_DATE,
///    VT_DECIMAL, VT_FILETIME, VT_BOOL, VT_ERROR, strings, VT_CLSID, VT_BLOB, VT_BLOB_OBJECT, VT_CF, VT_EMPTY
///    and VT_NULL, and VT_VECTOR of strings, VT_CLSID, VT_VARIANT (of any of these but vectors) and numbers
///    other than VT_INT, VT_UINT and VT_DECIMAL.
///  - STG_E_INVALIDHEADER: the set, or the one that shares its stream, is damaged, or the stream has other
///    sets. A set that cannot be read is not written over.
///  - STG_E_DOCFILETOOLARGE: the stream would have more than 64 MiB, which ReadProperties does not read.
///  - STG_E_FILEALREADYEXISTS: a storage has the set's name, or a handle has the stream open.
///  - STG_E_WRITEFAULT, and statuses of opening and reading the old stream and of StreamRef::create. There is
///    no failure when the values are there already: then nothing is written.
VEXEL_API long WriteProperties(const StorageRef& storage, REFFMTID format, const Properties& properties);

/// Reads the names that properties of a set have: other programs know a user's own properties by them.
/// `names` is empty on failure, and when no property has a name. The statuses are those of ReadProperties.
VEXEL_API long ReadPropertyNames(const StorageRef& storage, REFFMTID format, PropertyNames& names);

/// Gives these properties names, whether they have a value already or not. Other names stay.
///  - STG_E_INVALIDPARAMETER: the handle is null; WriteProperties refuses a number; a name is empty, or is
///    that of another property (without regard to case), or has a character that the code page of an older
///    set lacks.
///  - The other statuses are those of WriteProperties.
VEXEL_API long WritePropertyNames(const StorageRef& storage, REFFMTID format, const PropertyNames& names);

} // namespace Vexel
