// The variant record that every request and answer is made of, its
// one-dimensional arrays and narrow strings, with automation semantics:
// SafeArrayPutElement stores a copy, SafeArrayGetElement returns a copy the
// caller owns, VariantClear frees recursively. Status 0 is success, negative
// is failure. Only one-dimensional arrays exist; others are refused.
#pragma once

#include <cstddef>
#include <cstdint>

typedef uint16_t VARTYPE;
typedef int32_t HRESULT;
typedef int16_t VARIANT_BOOL;
typedef double DATE;
// A narrow string: a pointer to NUL-terminated bytes; its length (which may
// include NUL bytes) is stored in front of it. Null reads as "".
typedef char* BSTR;

enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_BOOL = 11,
    VT_VARIANT = 12,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_ARRAY = 0x2000,
    VT_BYREF = 0x4000,
};

#define VARIANT_TRUE ((VARIANT_BOOL)-1)
#define VARIANT_FALSE ((VARIANT_BOOL)0)

// Status codes of the runtime functions.
#define S_OK ((HRESULT)0)
#define E_INVALIDARG ((HRESULT)0x80070057)
#define E_OUTOFMEMORY ((HRESULT)0x8007000E)
#define DISP_E_BADINDEX ((HRESULT)0x8002000B)
#define DISP_E_BADVARTYPE ((HRESULT)0x80020008)
#define DISP_E_ARRAYISLOCKED ((HRESULT)0x8002000D)
#define E_UNEXPECTED ((HRESULT)0x8000FFFF)

struct SAFEARRAYBOUND {
    uint32_t cElements;
    int32_t lLbound;
};

struct SAFEARRAY {
    uint16_t cDims;  // always 1
    uint16_t fFeatures;
    uint32_t cbElements;  // bytes per element
    uint32_t cLocks;
    VARTYPE vt;  // element type
    void* pvData;
    SAFEARRAYBOUND rgsabound[1];
    // Storage lent by someone else (SafeArrayCreateOver): pfnRelease(pvOwner)
    // is called instead of freeing pvData. Null for ordinary arrays.
    void (*pfnRelease)(void*);
    void* pvOwner;
};

struct tagVARIANT {
    VARTYPE vt;
    uint16_t wReserved1;
    uint16_t wReserved2;
    uint16_t wReserved3;
    union {
        int8_t cVal;
        uint8_t bVal;
        int16_t iVal;
        uint16_t uiVal;
        int32_t lVal;
        uint32_t ulVal;
        int64_t llVal;
        uint64_t ullVal;
        float fltVal;
        double dblVal;
        DATE date;
        VARIANT_BOOL boolVal;
        BSTR bstrVal;
        SAFEARRAY* parray;
    };
};
typedef tagVARIANT VARIANT;

static_assert(sizeof(tagVARIANT) == 16, "tagVARIANT must be 16 bytes");
static_assert(offsetof(tagVARIANT, lVal) == 8, "the value starts at byte 8");

void VariantInit(tagVARIANT* v);
HRESULT VariantClear(tagVARIANT* v);
HRESULT VariantCopy(tagVARIANT* dst, const tagVARIANT* src);  // clears dst first

SAFEARRAY* SafeArrayCreate(VARTYPE vt, uint32_t dims, const SAFEARRAYBOUND* bounds);
HRESULT SafeArrayRedim(SAFEARRAY* psa, const SAFEARRAYBOUND* bound);
HRESULT SafeArrayDestroy(SAFEARRAY* psa);
HRESULT SafeArrayGetLBound(const SAFEARRAY* psa, uint32_t dim, int32_t* out);
HRESULT SafeArrayGetUBound(const SAFEARRAY* psa, uint32_t dim, int32_t* out);
// For a VT_VARIANT array `out` is a tagVARIANT* taken as uninitialised storage
// (overwritten, not cleared); for a VT_BSTR array a BSTR* that gets a new string.
HRESULT SafeArrayGetElement(const SAFEARRAY* psa, const int32_t* index, void* out);
HRESULT SafeArrayPutElement(SAFEARRAY* psa, const int32_t* index, const void* in);
HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** data);
HRESULT SafeArrayUnaccessData(SAFEARRAY* psa);
// Bytes per element of an array element type, 0 when the type is not allowed in arrays.
uint32_t SafeArrayElementSize(VARTYPE vt);
// A deep copy of a one-dimensional array into *out (null on failure).
HRESULT SafeArrayCopy(const SAFEARRAY* psa, SAFEARRAY** out);
// As SafeArrayCreate with one bound; with zero false the storage of numeric
// element types is left uninitialised (for callers that fill it at once).
// String and variant slots always start empty. Null on failure, including
// requests for more storage than one array may hold.
SAFEARRAY* SafeArrayCreateEx(VARTYPE vt, const SAFEARRAYBOUND& bound, bool zero);
// A numeric array over storage that stays owned elsewhere: `data` must hold
// the elements, suitably aligned, until release(owner) is called, which
// happens exactly once: when the array is destroyed or resized onto storage
// of its own. Null (and release not called) when vt is a string or variant
// type or no memory is left; the caller then still owns `data`.
SAFEARRAY* SafeArrayCreateOver(VARTYPE vt, const SAFEARRAYBOUND& bound, void* data, void (*release)(void*),
                               void* owner);

BSTR SysAllocString(const char* text);                   // copies up to the NUL; null gives null
BSTR SysAllocStringLen(const char* data, uint32_t len);  // copies len bytes (data may be null: zeros)
void SysFreeString(BSTR s);
uint32_t SysStringLen(BSTR s);  // 0 for null
