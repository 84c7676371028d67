// The variant runtime: strings, one-dimensional arrays and variants with
// automation copy and clear semantics.
//
// Memory layout:
// - A BSTR points 4 bytes into a malloc'ed block: [uint32 length][bytes][NUL].
// - A SAFEARRAY is one malloc'ed descriptor; its element storage (pvData) is a
//   separate block of count * cbElements bytes (at least 1 byte, so that
//   pvData is never null). BSTR arrays hold BSTR pointers, VARIANT arrays hold
//   tagVARIANT records; empty slots are zero (null string / VT_EMPTY).
//
// An array belongs to one thread at a time; the lock count (cLocks) guards
// against destroying or resizing storage while someone holds a pointer into it,
// not against concurrent use.
#include "value/Variant.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace {

// The most element storage one array may hold. Larger requests fail cleanly
// with a null array instead of asking the allocator for tens of GiB.
const uint64_t kMaxArrayBytes = uint64_t(1) << 32;

const uint16_t FADF_HAVEVARTYPE = 0x0080;
const uint16_t FADF_BSTR = 0x0100;
const uint16_t FADF_VARIANT = 0x0800;

bool isScalarType(VARTYPE vt) {
    switch (vt) {
    case VT_EMPTY:
    case VT_NULL:
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_BOOL:
    case VT_I4:
    case VT_UI4:
    case VT_R4:
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_DATE:
    case VT_BSTR: return true;
    default: return false;
    }
}

// Large storage is first written page by page (a decoded message, a file
// chunk); asking for huge pages turns 512 page faults into one. Linux only;
// a no-op elsewhere or when the kernel declines.
void adviseHugePages(void* p, size_t n) {
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    const size_t kHuge = size_t(2) << 20;
    if (!p || n < 2 * kHuge) return;
    uintptr_t begin = (reinterpret_cast<uintptr_t>(p) + kHuge - 1) & ~(kHuge - 1);
    uintptr_t end = (reinterpret_cast<uintptr_t>(p) + n) & ~(kHuge - 1);
    if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
    (void)p;
    (void)n;
#endif
}

void* allocStorage(uint64_t bytes, bool zero) {
    size_t n = bytes ? size_t(bytes) : 1;
    void* p = zero ? calloc(1, n) : malloc(n);
    if (!zero) adviseHugePages(p, n);
    return p;
}

// Frees the storage, or hands lent storage back to its owner.
void releaseStorage(SAFEARRAY* psa) {
    if (psa->pfnRelease) {
        psa->pfnRelease(psa->pvOwner);
        psa->pfnRelease = nullptr;
        psa->pvOwner = nullptr;
    } else {
        free(psa->pvData);
    }
    psa->pvData = nullptr;
}

void clearElements(SAFEARRAY* psa, uint32_t from, uint32_t to) {
    if (psa->vt == VT_BSTR) {
        BSTR* p = static_cast<BSTR*>(psa->pvData);
        for (uint32_t i = from; i < to; ++i) {
            SysFreeString(p[i]);
            p[i] = nullptr;
        }
    } else if (psa->vt == VT_VARIANT) {
        tagVARIANT* p = static_cast<tagVARIANT*>(psa->pvData);
        for (uint32_t i = from; i < to; ++i) VariantClear(&p[i]);
    }
}

// Offset of *index inside the array, or false when out of range.
bool elementOffset(const SAFEARRAY* psa, const int32_t* index, uint32_t* out) {
    if (!psa || !index || psa->cDims != 1) return false;
    int64_t i = int64_t(*index) - psa->rgsabound[0].lLbound;
    if (i < 0 || i >= int64_t(psa->rgsabound[0].cElements)) return false;
    *out = uint32_t(i);
    return true;
}

}  // namespace

// ---- strings -----------------------------------------------------------------

BSTR SysAllocStringLen(const char* data, uint32_t len) {
    char* block = static_cast<char*>(malloc(size_t(len) + sizeof(uint32_t) + 1));
    if (!block) return nullptr;
    memcpy(block, &len, sizeof len);
    char* s = block + sizeof(uint32_t);
    if (data) memcpy(s, data, len);
    else memset(s, 0, len);
    s[len] = '\0';
    return s;
}

BSTR SysAllocString(const char* text) {
    if (!text) return nullptr;
    size_t n = strlen(text);
    if (n > std::numeric_limits<uint32_t>::max()) return nullptr;
    return SysAllocStringLen(text, uint32_t(n));
}

void SysFreeString(BSTR s) {
    if (s) free(s - sizeof(uint32_t));
}

uint32_t SysStringLen(BSTR s) {
    if (!s) return 0;
    uint32_t len;
    memcpy(&len, s - sizeof(uint32_t), sizeof len);
    return len;
}

// ---- arrays ------------------------------------------------------------------

uint32_t SafeArrayElementSize(VARTYPE vt) {
    switch (vt) {
    case VT_I1:
    case VT_UI1: return 1;
    case VT_I2:
    case VT_UI2:
    case VT_BOOL: return 2;
    case VT_I4:
    case VT_UI4:
    case VT_R4: return 4;
    case VT_I8:
    case VT_UI8:
    case VT_R8:
    case VT_DATE: return 8;
    case VT_BSTR: return sizeof(BSTR);
    case VT_VARIANT: return sizeof(tagVARIANT);
    default: return 0;
    }
}

SAFEARRAY* SafeArrayCreateEx(VARTYPE vt, const SAFEARRAYBOUND& bound, bool zero) {
    uint32_t cb = SafeArrayElementSize(vt);
    if (!cb) return nullptr;
    uint64_t bytes = uint64_t(bound.cElements) * cb;
    if (bytes > kMaxArrayBytes) return nullptr;
    // Element slots of strings and variants must start out empty.
    if (vt == VT_BSTR || vt == VT_VARIANT) zero = true;
    SAFEARRAY* psa = static_cast<SAFEARRAY*>(calloc(1, sizeof(SAFEARRAY)));
    if (!psa) return nullptr;
    psa->pvData = allocStorage(bytes, zero);
    if (!psa->pvData) {
        free(psa);
        return nullptr;
    }
    psa->cDims = 1;
    psa->fFeatures = FADF_HAVEVARTYPE | (vt == VT_BSTR ? FADF_BSTR : 0) | (vt == VT_VARIANT ? FADF_VARIANT : 0);
    psa->cbElements = cb;
    psa->vt = vt;
    psa->rgsabound[0] = bound;
    return psa;
}

SAFEARRAY* SafeArrayCreateOver(VARTYPE vt, const SAFEARRAYBOUND& bound, void* data, void (*release)(void*),
                               void* owner) {
    uint32_t cb = SafeArrayElementSize(vt);
    if (!cb || vt == VT_BSTR || vt == VT_VARIANT || !data || !release) return nullptr;
    if (uint64_t(bound.cElements) * cb > kMaxArrayBytes) return nullptr;
    SAFEARRAY* psa = static_cast<SAFEARRAY*>(calloc(1, sizeof(SAFEARRAY)));
    if (!psa) return nullptr;
    psa->pvData = data;
    psa->pfnRelease = release;
    psa->pvOwner = owner;
    psa->cDims = 1;
    psa->fFeatures = FADF_HAVEVARTYPE;
    psa->cbElements = cb;
    psa->vt = vt;
    psa->rgsabound[0] = bound;
    return psa;
}

SAFEARRAY* SafeArrayCreate(VARTYPE vt, uint32_t dims, const SAFEARRAYBOUND* bounds) {
    if (dims != 1 || !bounds) return nullptr;
    return SafeArrayCreateEx(vt, bounds[0], true);
}

HRESULT SafeArrayDestroy(SAFEARRAY* psa) {
    if (!psa) return S_OK;
    if (psa->cLocks) return DISP_E_ARRAYISLOCKED;
    if (psa->cDims == 1) clearElements(psa, 0, psa->rgsabound[0].cElements);
    releaseStorage(psa);
    free(psa);
    return S_OK;
}

HRESULT SafeArrayRedim(SAFEARRAY* psa, const SAFEARRAYBOUND* bound) {
    if (!psa || !bound || psa->cDims != 1) return E_INVALIDARG;
    if (psa->cLocks) return DISP_E_ARRAYISLOCKED;
    uint32_t oldCount = psa->rgsabound[0].cElements;
    uint32_t newCount = bound->cElements;
    uint64_t bytes = uint64_t(newCount) * psa->cbElements;
    if (bytes > kMaxArrayBytes) return E_OUTOFMEMORY;
    if (newCount == oldCount) {
        psa->rgsabound[0].lLbound = bound->lLbound;
        return S_OK;
    }
    if (psa->pfnRelease) {
        // Lent storage cannot be resized: move onto storage of our own.
        void* own = allocStorage(bytes, true);
        if (!own) return E_OUTOFMEMORY;
        memcpy(own, psa->pvData, size_t(std::min(oldCount, newCount)) * psa->cbElements);
        releaseStorage(psa);
        psa->pvData = own;
    } else if (newCount > oldCount) {
        void* grown = realloc(psa->pvData, bytes ? size_t(bytes) : 1);
        if (!grown) return E_OUTOFMEMORY;
        psa->pvData = grown;
        memset(static_cast<char*>(grown) + size_t(oldCount) * psa->cbElements, 0,
               size_t(newCount - oldCount) * psa->cbElements);
    } else {
        clearElements(psa, newCount, oldCount);
        // Shrinking in place cannot fail; a failed realloc keeps the larger block.
        void* shrunk = realloc(psa->pvData, bytes ? size_t(bytes) : 1);
        if (shrunk) psa->pvData = shrunk;
    }
    psa->rgsabound[0] = *bound;
    return S_OK;
}

HRESULT SafeArrayGetLBound(const SAFEARRAY* psa, uint32_t dim, int32_t* out) {
    if (!psa || !out) return E_INVALIDARG;
    if (dim != 1 || psa->cDims != 1) return DISP_E_BADINDEX;
    *out = psa->rgsabound[0].lLbound;
    return S_OK;
}

HRESULT SafeArrayGetUBound(const SAFEARRAY* psa, uint32_t dim, int32_t* out) {
    if (!psa || !out) return E_INVALIDARG;
    if (dim != 1 || psa->cDims != 1) return DISP_E_BADINDEX;
    *out = int32_t(int64_t(psa->rgsabound[0].lLbound) + int64_t(psa->rgsabound[0].cElements) - 1);
    return S_OK;
}

HRESULT SafeArrayGetElement(const SAFEARRAY* psa, const int32_t* index, void* out) {
    if (!psa || !index || !out) return E_INVALIDARG;
    uint32_t i;
    if (!elementOffset(psa, index, &i)) return DISP_E_BADINDEX;
    const char* slot = static_cast<const char*>(psa->pvData) + size_t(i) * psa->cbElements;
    if (psa->vt == VT_BSTR) {
        BSTR s = *reinterpret_cast<const BSTR*>(slot);
        BSTR copy = nullptr;
        if (s) {
            copy = SysAllocStringLen(s, SysStringLen(s));
            if (!copy) return E_OUTOFMEMORY;
        }
        *static_cast<BSTR*>(out) = copy;
        return S_OK;
    }
    if (psa->vt == VT_VARIANT) {
        // `out` is taken as uninitialised storage: it is overwritten, not cleared.
        tagVARIANT* dst = static_cast<tagVARIANT*>(out);
        VariantInit(dst);
        return VariantCopy(dst, reinterpret_cast<const tagVARIANT*>(slot));
    }
    memcpy(out, slot, psa->cbElements);
    return S_OK;
}

HRESULT SafeArrayPutElement(SAFEARRAY* psa, const int32_t* index, const void* in) {
    if (!psa || !index) return E_INVALIDARG;
    uint32_t i;
    if (!elementOffset(psa, index, &i)) return DISP_E_BADINDEX;
    char* slot = static_cast<char*>(psa->pvData) + size_t(i) * psa->cbElements;
    if (psa->vt == VT_BSTR) {
        BSTR s = static_cast<BSTR>(const_cast<void*>(in));
        BSTR copy = nullptr;
        if (s) {
            copy = SysAllocStringLen(s, SysStringLen(s));
            if (!copy) return E_OUTOFMEMORY;
        }
        BSTR* target = reinterpret_cast<BSTR*>(slot);
        SysFreeString(*target);
        *target = copy;
        return S_OK;
    }
    if (!in) return E_INVALIDARG;
    if (psa->vt == VT_VARIANT) {
        const tagVARIANT* src = static_cast<const tagVARIANT*>(in);
        tagVARIANT* target = reinterpret_cast<tagVARIANT*>(slot);
        if (src == target) return S_OK;
        // Copy first, so that a failed copy leaves the element as it was.
        tagVARIANT copy;
        VariantInit(&copy);
        HRESULT hr = VariantCopy(&copy, src);
        if (hr != S_OK) return hr;
        VariantClear(target);
        *target = copy;
        return S_OK;
    }
    memcpy(slot, in, psa->cbElements);
    return S_OK;
}

HRESULT SafeArrayAccessData(SAFEARRAY* psa, void** data) {
    if (!psa || !data) return E_INVALIDARG;
    ++psa->cLocks;
    *data = psa->pvData;
    return S_OK;
}

HRESULT SafeArrayUnaccessData(SAFEARRAY* psa) {
    if (!psa) return E_INVALIDARG;
    if (psa->cLocks == 0) return E_UNEXPECTED;
    --psa->cLocks;
    return S_OK;
}

HRESULT SafeArrayCopy(const SAFEARRAY* psa, SAFEARRAY** out) {
    if (!psa || !out) return E_INVALIDARG;
    *out = nullptr;
    if (psa->cDims != 1) return DISP_E_BADVARTYPE;
    SAFEARRAY* copy = SafeArrayCreateEx(psa->vt, psa->rgsabound[0], false);
    if (!copy) return E_OUTOFMEMORY;
    uint32_t n = psa->rgsabound[0].cElements;
    if (psa->vt == VT_BSTR) {
        const BSTR* from = static_cast<const BSTR*>(psa->pvData);
        BSTR* to = static_cast<BSTR*>(copy->pvData);
        for (uint32_t i = 0; i < n; ++i) {
            if (!from[i]) continue;
            to[i] = SysAllocStringLen(from[i], SysStringLen(from[i]));
            if (!to[i]) {
                SafeArrayDestroy(copy);
                return E_OUTOFMEMORY;
            }
        }
    } else if (psa->vt == VT_VARIANT) {
        const tagVARIANT* from = static_cast<const tagVARIANT*>(psa->pvData);
        tagVARIANT* to = static_cast<tagVARIANT*>(copy->pvData);
        for (uint32_t i = 0; i < n; ++i) {
            HRESULT hr = VariantCopy(&to[i], &from[i]);
            if (hr != S_OK) {
                SafeArrayDestroy(copy);
                return hr;
            }
        }
    } else {
        memcpy(copy->pvData, psa->pvData, size_t(n) * psa->cbElements);
    }
    *out = copy;
    return S_OK;
}

// ---- variants ----------------------------------------------------------------

void VariantInit(tagVARIANT* v) {
    if (!v) return;
    memset(v, 0, sizeof *v);
    v->vt = VT_EMPTY;
}

HRESULT VariantClear(tagVARIANT* v) {
    if (!v) return E_INVALIDARG;
    if (!(v->vt & VT_BYREF)) {
        if (v->vt & VT_ARRAY) {
            HRESULT hr = SafeArrayDestroy(v->parray);
            if (hr != S_OK) return hr;
        } else if (v->vt == VT_BSTR) {
            SysFreeString(v->bstrVal);
        }
    }
    v->vt = VT_EMPTY;
    v->ullVal = 0;
    return S_OK;
}

HRESULT VariantCopy(tagVARIANT* dst, const tagVARIANT* src) {
    if (!dst || !src) return E_INVALIDARG;
    if (dst == src) return S_OK;
    VARTYPE vt = src->vt;
    if (vt & VT_BYREF) return DISP_E_BADVARTYPE;
    if (vt & VT_ARRAY) {
        if (vt & ~(VT_ARRAY | 0x0FFF) || !SafeArrayElementSize(VARTYPE(vt & ~VT_ARRAY))) return DISP_E_BADVARTYPE;
    } else if (!isScalarType(vt)) {
        return DISP_E_BADVARTYPE;
    }
    HRESULT hr = VariantClear(dst);
    if (hr != S_OK) return hr;
    tagVARIANT copy = *src;
    if (vt & VT_ARRAY) {
        copy.parray = nullptr;
        if (src->parray) {
            hr = SafeArrayCopy(src->parray, &copy.parray);
            if (hr != S_OK) return hr;
        }
    } else if (vt == VT_BSTR && src->bstrVal) {
        copy.bstrVal = SysAllocStringLen(src->bstrVal, SysStringLen(src->bstrVal));
        if (!copy.bstrVal) return E_OUTOFMEMORY;
    }
    *dst = copy;
    return S_OK;
}
