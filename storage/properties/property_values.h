#pragma once

#include "storage/properties/property_bytes.h"

#include <vexel/properties.h>

#include <optional>
#include <vector>

/// The values of properties as bytes. A value is its type (4 bytes) and then the value itself, padded to a
/// multiple of four. All functions throw std::bad_alloc.
namespace Vexel::Detail {

inline constexpr UINT kWideCodePage = 1200; ///< says that the strings of a section are wide

/// Text up to its first zero.
CStringW decodeText(ByteView bytes, UINT codePage);

/// Decodes the value at the begin of the bytes. False when it leads out of them. Types that are not known,
/// and vectors of which nobody can tell where their elements are, leave the property empty.
bool decodeValue(ByteView bytes, UINT codePage, PropertyVariant& property);

/// Appends the value; strings become wide ones. False for a type that is not written, or when it holds less
/// than it says.
bool encodeValue(const PROPVARIANT& value, std::vector<unsigned char>& bytes);

/// The text of a VT_LPWSTR, VT_BSTR or VT_LPSTR; a null pointer is an empty one. Nothing for other types.
std::optional<CStringW> textOf(const PROPVARIANT& value);

/// Whether readers of the first version of the format do not know the type.
bool isNewerValue(const PROPVARIANT& value) noexcept;

} // namespace Vexel::Detail
