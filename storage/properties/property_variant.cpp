// An owner around the system's record, which the system copies and frees. The conversions read the value and
// never change its type.

#include "base/task_memory.h"
#include "storage/properties/property_values.h"

#include <vexel/properties.h>

#include <windows.h>

#include <climits>
#include <new>
#include <utility>

namespace Vexel {

namespace {

std::optional<CStringW> fromCodePage(const char* text) {
    const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, nullptr, 0);
    if (length <= 0)
        return std::nullopt;
    CStringW wide;
    MultiByteToWideChar(CP_ACP, 0, text, -1, wide.GetBuffer(length), length);
    wide.ReleaseBuffer();
    return wide;
}

} // namespace

PropertyVariant::PropertyVariant() noexcept = default; // all zero is VT_EMPTY

PropertyVariant::PropertyVariant(int value) noexcept : PropertyVariant() {
    value_.vt = VT_I4;
    value_.lVal = value;
}

PropertyVariant::PropertyVariant(double value) noexcept : PropertyVariant() {
    value_.vt = VT_R8;
    value_.dblVal = value;
}

PropertyVariant::PropertyVariant(bool value) noexcept : PropertyVariant() {
    value_.vt = VT_BOOL;
    value_.boolVal = value ? VARIANT_TRUE : VARIANT_FALSE;
}

PropertyVariant::PropertyVariant(const wchar_t* value) : PropertyVariant() {
    value_.pwszVal = Detail::duplicateText(value ? value : L"");
    if (!value_.pwszVal)
        throw std::bad_alloc();
    value_.vt = VT_LPWSTR;
}

PropertyVariant::PropertyVariant(const CStringW& value) : PropertyVariant(value.GetString()) {}

PropertyVariant::PropertyVariant(const FILETIME& value) noexcept : PropertyVariant() {
    value_.vt = VT_FILETIME;
    value_.filetime = value;
}

PropertyVariant::PropertyVariant(const PROPVARIANT& value) : PropertyVariant() {
    const HRESULT status = PropVariantCopy(&value_, &value);
    if (status == S_OK)
        return;
    PropVariantInit(&value_); // some systems leave the half of a copy
    if (status == E_OUTOFMEMORY)
        throw std::bad_alloc();
    AfxThrowInvalidArgException();
}

PropertyVariant::PropertyVariant(const PropertyVariant& other) : PropertyVariant(other.value_) {}

PropertyVariant::PropertyVariant(PropertyVariant&& other) noexcept : value_(other.value_) {
    PropVariantInit(&other.value_);
}

PropertyVariant& PropertyVariant::operator=(const PropertyVariant& other) {
    return *this = PropertyVariant(other);
}

PropertyVariant& PropertyVariant::operator=(PropertyVariant&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
}

PropertyVariant::~PropertyVariant() { PropVariantClear(&value_); }

PROPVARIANT* PropertyVariant::put() noexcept {
    PropVariantClear(&value_);
    PropVariantInit(&value_); // types that the system does not know are left by it
    return &value_;
}

std::optional<CStringW> Detail::textOf(const PROPVARIANT& value) {
    switch (value.vt) {
    case VT_LPWSTR:
        return value.pwszVal ? CStringW(value.pwszVal) : CStringW();
    case VT_BSTR:
        return value.bstrVal ? CStringW(value.bstrVal) : CStringW();
    case VT_LPSTR:
        return value.pszVal ? fromCodePage(value.pszVal) : CStringW();
    default:
        return std::nullopt;
    }
}

std::optional<CStringW> PropertyVariant::asString() const { return Detail::textOf(value_); }

std::optional<long long> PropertyVariant::asInteger() const noexcept {
    switch (value_.vt) {
    case VT_I1:
        return value_.cVal;
    case VT_UI1:
        return value_.bVal;
    case VT_I2:
        return value_.iVal;
    case VT_UI2:
        return value_.uiVal;
    case VT_I4:
    case VT_INT:
        return value_.lVal;
    case VT_UI4:
    case VT_UINT:
        return value_.ulVal;
    case VT_I8:
        return value_.hVal.QuadPart;
    case VT_UI8:
        if (value_.uhVal.QuadPart > LLONG_MAX)
            return std::nullopt;
        return static_cast<long long>(value_.uhVal.QuadPart);
    default:
        return std::nullopt;
    }
}

std::optional<double> PropertyVariant::asDouble() const noexcept {
    if (value_.vt == VT_R8)
        return value_.dblVal;
    if (value_.vt == VT_R4)
        return value_.fltVal;
    const auto integer = asInteger();
    return integer ? std::optional(static_cast<double>(*integer)) : std::nullopt;
}

std::optional<bool> PropertyVariant::asBool() const noexcept {
    return value_.vt == VT_BOOL ? std::optional(value_.boolVal != VARIANT_FALSE) : std::nullopt;
}

std::optional<FILETIME> PropertyVariant::asTime() const noexcept {
    return value_.vt == VT_FILETIME ? std::optional(value_.filetime) : std::nullopt;
}

} // namespace Vexel
