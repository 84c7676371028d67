// Raw bytes in and out of byte arrays.
#include <cstdlib>
#include <cstring>

#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"
#include "variant/VUtilErrors.h"

using VUtil::detail::throwInvalid;

namespace {

// Element count of dimension 1, read from the descriptor; 0 for no array.
uint32_t elementCount(const tagVARIANT& v) { return v.parray ? v.parray->rgsabound[0].cElements : 0; }

// Copies `len` bytes from `offset` of the array's storage into `dest`.
void copyOut(SAFEARRAY* array, uint32_t offset, uint32_t len, void* dest) {
    if (len == 0) return;
    void* data = nullptr;
    if (SafeArrayAccessData(array, &data) != 0 || !data) throwInvalid("SafeArrayAccessData failed");
    memcpy(dest, static_cast<const unsigned char*>(data) + offset, len);
    SafeArrayUnaccessData(array);
}

// Element `index` of an array of variants into `element`.
void fetchVariant(const tagVARIANT& v, int index, CLocalVariant& element) {
    VUtil::GetElement(v, index, element.get());
}

}  // namespace

namespace VUtil {

void PutBinaryIntoVariant(tagVARIANT* v, const void* data, int len) {
    VariantClear(v);
    v->vt = static_cast<VARTYPE>(VT_ARRAY | VT_UI1);
    SAFEARRAYBOUND bound{static_cast<uint32_t>(len < 0 ? 0 : len), 0};
    v->parray = len < 0 ? nullptr : SafeArrayCreate(VT_UI1, 1, &bound);
    if (!v->parray) throwInvalid("PutBinaryIntoVariant: could not create safe array");
    if (len == 0) return;
    void* dest = nullptr;
    if (SafeArrayAccessData(v->parray, &dest) != 0 || !dest) throwInvalid("SafeArrayAccessData failed");
    if (data) memcpy(dest, data, static_cast<size_t>(len));
    else memset(dest, 0, static_cast<size_t>(len));  // no source: zeros
    SafeArrayUnaccessData(v->parray);
}

int GetByteArray(const tagVARIANT& v, int index, unsigned char** out) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) throwInvalid("Not an array of variant");
    CLocalVariant element;
    fetchVariant(v, index, element);
    if (element.vt() != (VT_ARRAY | VT_UI1)) throwInvalid("Element is not an unsigned char array");
    int size = GetArrayLength(element.get());
    unsigned char* buffer = static_cast<unsigned char*>(malloc(size > 0 ? static_cast<size_t>(size) : 1));
    if (!buffer) throwInvalid("Could not allocate data buffer");
    try {
        copyOut(element.get().parray, 0, static_cast<uint32_t>(size), buffer);
    } catch (...) {
        free(buffer);
        throw;
    }
    *out = buffer;
    return size;
}

int GetBinaryElement(const tagVARIANT& v, void* buffer, int offset, int maxLen) {
    if (v.vt != (VT_ARRAY | VT_I1) && v.vt != (VT_ARRAY | VT_UI1))
        throwInvalid("Element is not an array of (unsigned) char: %d", v.vt);
    uint32_t count = elementCount(v);
    if (offset < 0 || maxLen <= 0 || static_cast<uint32_t>(offset) >= count) return 0;
    uint32_t start = static_cast<uint32_t>(offset);
    uint32_t n = static_cast<uint32_t>(maxLen);
    if (n > count - start) n = count - start;
    copyOut(v.parray, start, n, buffer);
    return static_cast<int>(n);
}

void GetBinaryElement(const tagVARIANT& v, int index, unsigned char*& out, int& len) {
    if (v.vt != (VT_ARRAY | VT_VARIANT)) throwInvalid("Not an array of variant: %d", v.vt);
    CLocalVariant element;
    fetchVariant(v, index, element);
    if (element.vt() != (VT_ARRAY | VT_UI1)) throwInvalid("Element is not an array of unsigned char: %d", element.vt());
    uint32_t count = elementCount(element.get());
    if (count > 0x7FFFFFFFu) throwInvalid("Could not allocate data buffer");
    unsigned char* buffer = new unsigned char[count];
    try {
        copyOut(element.get().parray, 0, count, buffer);
    } catch (...) {
        delete[] buffer;
        throw;
    }
    out = buffer;
    len = static_cast<int>(count);
}

}  // namespace VUtil
