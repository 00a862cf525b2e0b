#pragma once

/// The record that holds a property of any type.

#include <objidl.h>

enum VARENUM {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_LPSTR = 30,
    VT_LPWSTR = 31,
    VT_FILETIME = 64,
    VT_BLOB = 65,
    VT_BLOB_OBJECT = 70,
    VT_CF = 71,
    VT_CLSID = 72,
    VT_VECTOR = 0x1000,
    VT_TYPEMASK = 0xFFF
};

typedef struct {
    LONGLONG int64;
} CY;
typedef struct {
    USHORT wReserved;
    BYTE scale;
    BYTE sign;
    ULONG Hi32;
    ULONGLONG Lo64;
} DECIMAL;
typedef struct {
    ULONG cbSize;
    BYTE* pBlobData;
} BLOB;
typedef struct {
    ULONG cbSize;
    LONG ulClipFmt;
    BYTE* pClipData;
} CLIPDATA;
struct tagPROPVARIANT;
template <class Element>
struct CountedArray {
    ULONG cElems;
    Element* pElems;
};

typedef struct tagPROPVARIANT {
    union {
        struct {
            VARTYPE vt;
            WORD wReserved1, wReserved2, wReserved3;
            union {
                CHAR cVal;
                UCHAR bVal;
                SHORT iVal;
                USHORT uiVal;
                LONG lVal;
                ULONG ulVal;
                INT intVal;
                UINT uintVal;
                LARGE_INTEGER hVal;
                ULARGE_INTEGER uhVal;
                FLOAT fltVal;
                DOUBLE dblVal;
                VARIANT_BOOL boolVal;
                SCODE scode;
                CY cyVal;
                DATE date;
                FILETIME filetime;
                CLSID* puuid;
                CLIPDATA* pclipdata;
                BSTR bstrVal;
                BLOB blob;
                LPSTR pszVal;
                LPWSTR pwszVal;
                CountedArray<UCHAR> caub;
                CountedArray<LPSTR> calpstr;
                CountedArray<LPWSTR> calpwstr;
                CountedArray<BSTR> cabstr;
                CountedArray<CLSID> cauuid;
                CountedArray<tagPROPVARIANT> capropvar;
            };
        };
        DECIMAL decVal;
    };
} PROPVARIANT;
typedef PROPVARIANT VARIANT;
typedef VARIANT tagVARIANT;
typedef VARIANT VARIANTARG;
typedef struct {
    LPOLESTR lpwstrName;
    PROPID propid;
    VARTYPE vt;
} STATPROPSTG;

inline void PropVariantInit(PROPVARIANT* value) { memset(value, 0, sizeof *value); }
extern "C" HRESULT PropVariantClear(PROPVARIANT* value);
extern "C" HRESULT PropVariantCopy(PROPVARIANT* target, const PROPVARIANT* source);
HRESULT FmtIdToPropStgName(const FMTID* format, LPOLESTR name);
inline constexpr FMTID FMTID_SummaryInformation{
    0xF29F85E0, 0x4FF9, 0x1068, {0xAB, 0x91, 8, 0, 0x2B, 0x27, 0xB3, 0xD9}};
inline constexpr FMTID FMTID_DocSummaryInformation{
    0xD5CDD502, 0x2E9C, 0x101B, {0x93, 0x97, 8, 0, 0x2B, 0x2C, 0xF9, 0xAE}};
inline constexpr FMTID FMTID_UserDefinedProperties{
    0xD5CDD505, 0x2E9C, 0x101B, {0x93, 0x97, 8, 0, 0x2B, 0x2C, 0xF9, 0xAE}};
