// CAB1 encoder and decoder.
//
// The encoder describes the encoding as a list of pieces: small fields are
// gathered into one owned buffer, large spans (numeric array storage, long
// strings) are referenced in place. copy() finds the first piece of a window
// by binary search, so the broker can cut a large encoding into messages
// without re-walking it and without an intermediate copy of the payload.
#include "value/Cab1.h"

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "CAB1 is little-endian; array storage is referenced in place");

namespace {

const int kMaxArrayDepth = 64;
const uint32_t kNullString = 0xFFFFFFFFu;
// Spans shorter than this are copied into the owned buffer instead of referenced.
const size_t kMinExternal = 256;

bool isArrayElementType(VARTYPE t) {
    switch (t) {
    case VT_I1:
    case VT_UI1:
    case VT_I2:
    case VT_UI2:
    case VT_I4:
    case VT_UI4:
    case VT_I8:
    case VT_UI8:
    case VT_R4:
    case VT_R8:
    case VT_DATE:
    case VT_BSTR:
    case VT_BOOL:
    case VT_VARIANT: return true;
    default: return false;
    }
}

// Body size of a scalar type; -1 when the type is not a CAB1 scalar (BSTR is variable: 0 here).
int scalarBodySize(VARTYPE t) {
    if (t == VT_EMPTY || t == VT_NULL || t == VT_BSTR) return 0;
    if (t == VT_VARIANT) return -1;  // an element type, not a scalar
    uint32_t size = SafeArrayElementSize(t);
    return size ? (int)size : -1;
}

std::string hex16(uint16_t v) {
    char buf[8];
    snprintf(buf, sizeof buf, "0x%04X", v);
    return buf;
}

}  // namespace

// ---- encoding ----------------------------------------------------------------

struct Cab1Encoding::Impl {
    struct Piece {
        size_t start;  // offset in the encoding
        size_t len;
        const char* ext;  // referenced bytes, or null for owned bytes
        size_t owned;     // offset in `buffer` when ext is null
    };
    std::vector<Piece> pieces;
    std::string buffer;
    size_t size = 0;
    std::string error;

    void putOwned(const void* data, size_t n) {
        if (!n) return;
        if (!pieces.empty() && !pieces.back().ext && pieces.back().owned + pieces.back().len == buffer.size()) {
            pieces.back().len += n;
        } else {
            pieces.push_back({size, n, nullptr, buffer.size()});
        }
        buffer.append(static_cast<const char*>(data), n);
        size += n;
    }
    void putSpan(const void* data, size_t n) {
        if (n < kMinExternal) {
            putOwned(data, n);
            return;
        }
        pieces.push_back({size, n, static_cast<const char*>(data), 0});
        size += n;
    }
    template <class T>
    void put(T value) {
        putOwned(&value, sizeof value);
    }

    bool putString(BSTR s) {
        if (!s) {
            put<uint32_t>(kNullString);
            return true;
        }
        uint32_t n = SysStringLen(s);
        if (n == kNullString) {
            error = "string too long for CAB1";
            return false;
        }
        put<uint32_t>(n);
        putSpan(s, n);
        return true;
    }

    bool encode(const tagVARIANT& v, int depth) {
        VARTYPE vt = v.vt;
        if (vt & VT_BYREF) {
            error = "by-reference variant (type " + hex16(vt) + ") cannot be encoded";
            return false;
        }
        if (vt & VT_ARRAY) {
            VARTYPE et = VARTYPE(vt & ~VT_ARRAY);
            if (!isArrayElementType(et)) {
                error = "array element type " + hex16(et) + " cannot be encoded";
                return false;
            }
            if (depth + 1 > kMaxArrayDepth) {
                error = "arrays nested deeper than 64";
                return false;
            }
            const SAFEARRAY* psa = v.parray;
            put<uint16_t>(vt);
            if (!psa) {
                // An array variant without storage goes out as an empty array.
                put<int32_t>(0);
                put<uint32_t>(0);
                return true;
            }
            if (psa->cDims != 1) {
                error = "multi-dimensional array cannot be encoded";
                return false;
            }
            if (psa->vt != et) {
                error = "array of type " + hex16(psa->vt) + " held in a variant of type " + hex16(vt);
                return false;
            }
            uint32_t n = psa->rgsabound[0].cElements;
            put<int32_t>(psa->rgsabound[0].lLbound);
            put<uint32_t>(n);
            if (et == VT_VARIANT) {
                const tagVARIANT* e = static_cast<const tagVARIANT*>(psa->pvData);
                for (uint32_t i = 0; i < n; ++i)
                    if (!encode(e[i], depth + 1)) return false;
            } else if (et == VT_BSTR) {
                const BSTR* e = static_cast<const BSTR*>(psa->pvData);
                for (uint32_t i = 0; i < n; ++i)
                    if (!putString(e[i])) return false;
            } else {
                putSpan(psa->pvData, size_t(n) * SafeArrayElementSize(et));
            }
            return true;
        }
        int body = scalarBodySize(vt);
        if (body < 0) {
            error = "type " + std::to_string(vt) + " cannot be encoded";
            return false;
        }
        put<uint16_t>(vt);
        if (vt == VT_BSTR) return putString(v.bstrVal);
        putOwned(&v.llVal, size_t(body));
        return true;
    }
};

Cab1Encoding::Cab1Encoding(const tagVARIANT& v) : m_impl(new Impl) {
    if (!m_impl->encode(v, 0)) {
        m_impl->pieces.clear();
        m_impl->buffer.clear();
        m_impl->size = 0;
    }
}

Cab1Encoding::~Cab1Encoding() { delete m_impl; }

bool Cab1Encoding::ok() const { return m_impl->error.empty(); }
const std::string& Cab1Encoding::error() const { return m_impl->error; }
size_t Cab1Encoding::size() const { return m_impl->size; }

size_t Cab1Encoding::copy(size_t offset, void* dst, size_t len) const {
    const auto& pieces = m_impl->pieces;
    if (offset >= m_impl->size || !len) return 0;
    // The last piece that starts at or before offset.
    auto it = std::upper_bound(pieces.begin(), pieces.end(), offset,
                               [](size_t off, const Impl::Piece& p) { return off < p.start; });
    --it;
    char* out = static_cast<char*>(dst);
    size_t done = 0;
    for (; it != pieces.end() && done < len; ++it) {
        size_t skip = offset + done - it->start;
        size_t n = std::min(it->len - skip, len - done);
        const char* from = it->ext ? it->ext : m_impl->buffer.data() + it->owned;
        memcpy(out + done, from + skip, n);
        done += n;
    }
    return done;
}

const char* Cab1Encoding::span(size_t offset, size_t len) const {
    const auto& pieces = m_impl->pieces;
    if (!len || offset >= m_impl->size || len > m_impl->size - offset) return nullptr;
    auto it = std::upper_bound(pieces.begin(), pieces.end(), offset,
                               [](size_t off, const Impl::Piece& p) { return off < p.start; });
    --it;
    size_t skip = offset - it->start;
    if (len > it->len - skip) return nullptr;
    const char* from = it->ext ? it->ext : m_impl->buffer.data() + it->owned;
    return from + skip;
}

std::string Cab1Encoding::str() const {
    std::string s(m_impl->size, '\0');
    if (!s.empty()) copy(0, &s[0], s.size());
    return s;
}

// ---- decoding ----------------------------------------------------------------

namespace {

// Reads the concatenation of one or more byte ranges as one stream; a field
// that straddles two ranges is gathered, everything else is read in place.
class Reader {
public:
    Reader(const Cab1Piece* pieces, size_t count) : m_pieces(pieces), m_count(count) {
        for (size_t i = 0; i < count; ++i) m_len += pieces[i].len;
        advance();
    }

    size_t pos() const { return m_pos; }
    size_t remaining() const { return m_len - m_pos; }
    const std::string& error() const { return m_error; }

    bool fail(const std::string& what, size_t at) {
        if (m_error.empty()) m_error = what + " at byte offset " + std::to_string(at);
        return false;
    }

    template <class T>
    bool read(T* out, const char* what) {
        if (remaining() < sizeof(T))
            return fail(std::string("truncated ") + what + " (needs " + std::to_string(sizeof(T)) + " bytes, " +
                            std::to_string(remaining()) + " left)",
                        m_pos);
        take(out, sizeof(T));
        return true;
    }

    bool bytes(void* out, size_t n, const char* what) {
        if (remaining() < n)
            return fail(std::string("truncated ") + what + " (needs " + std::to_string(n) + " bytes, " +
                            std::to_string(remaining()) + " left)",
                        m_pos);
        take(out, n);
        return true;
    }

    bool string(BSTR* out) {
        size_t at = m_pos;
        uint32_t n;
        if (!read(&n, "string length")) return false;
        if (n == kNullString) {
            *out = nullptr;
            return true;
        }
        if (remaining() < n)
            return fail("truncated string (length " + std::to_string(n) + ", " + std::to_string(remaining()) +
                            " bytes left)",
                        at);
        BSTR s;
        if (n <= m_curLeft) {
            s = SysAllocStringLen(reinterpret_cast<const char*>(m_cur), n);
            if (s) skip(n);
        } else {
            s = SysAllocStringLen(nullptr, n);
            if (s) take(s, n);
        }
        if (!s) return fail("out of memory for a string of " + std::to_string(n) + " bytes", at);
        *out = s;
        return true;
    }

    // Decodes one variant into *out, which must be empty; on failure *out stays empty.
    bool variant(tagVARIANT* out, int depth) {
        size_t at = m_pos;
        uint16_t vt = 0;
        if (!read(&vt, "type code")) return false;
        if (vt & VT_BYREF) return fail("by-reference flag in type code " + hex16(vt), at);
        if (vt & VT_ARRAY) return array(out, vt, depth, at);
        int body = scalarBodySize(vt);
        if (body < 0) return fail("unknown type code " + hex16(vt), at);
        if (vt == VT_BSTR) {
            BSTR s;
            if (!string(&s)) return false;
            out->bstrVal = s;
        } else if (!bytes(&out->llVal, size_t(body), "value")) {
            return false;
        }
        out->vt = vt;
        return true;
    }

private:
    bool array(tagVARIANT* out, uint16_t vt, int depth, size_t at) {
        VARTYPE et = VARTYPE(vt & ~VT_ARRAY);
        if (!isArrayElementType(et)) return fail("bad array element type in type code " + hex16(vt), at);
        if (depth + 1 > kMaxArrayDepth) return fail("arrays nested deeper than 64", at);
        SAFEARRAYBOUND bound;
        size_t countAt = m_pos + 4;
        if (!read(&bound.lLbound, "array lower bound") || !read(&bound.cElements, "array count")) return false;
        // Every element needs at least this many bytes, so a count the rest of
        // the message cannot hold is refused before anything is allocated.
        size_t minBytes = et == VT_VARIANT ? 2 : et == VT_BSTR ? 4 : SafeArrayElementSize(et);
        if (bound.cElements > remaining() / minBytes)
            return fail("array count " + std::to_string(bound.cElements) + " needs at least " +
                            std::to_string(uint64_t(bound.cElements) * minBytes) + " bytes but only " +
                            std::to_string(remaining()) + " remain",
                        countAt);
        bool numeric = et != VT_VARIANT && et != VT_BSTR;
        SAFEARRAY* psa = SafeArrayCreateEx(et, bound, !numeric);
        if (!psa) return fail("out of memory for an array of " + std::to_string(bound.cElements) + " elements", at);
        bool good = true;
        if (numeric) {
            good = bytes(psa->pvData, size_t(bound.cElements) * psa->cbElements, "array data");
        } else if (et == VT_BSTR) {
            BSTR* e = static_cast<BSTR*>(psa->pvData);
            for (uint32_t i = 0; good && i < bound.cElements; ++i) good = string(&e[i]);
        } else {
            tagVARIANT* e = static_cast<tagVARIANT*>(psa->pvData);
            for (uint32_t i = 0; good && i < bound.cElements; ++i) good = variant(&e[i], depth + 1);
        }
        if (!good) {
            SafeArrayDestroy(psa);
            return false;
        }
        out->vt = vt;
        out->parray = psa;
        return true;
    }

    // Moves to the next range that is not empty (or to the end).
    void advance() {
        m_cur = nullptr;
        m_curLeft = 0;
        while (m_next < m_count && m_curLeft == 0) {
            m_cur = static_cast<const uint8_t*>(m_pieces[m_next].data);
            m_curLeft = m_pieces[m_next].len;
            ++m_next;
        }
    }
    // Copies n bytes (the caller checked that they remain) and moves past them.
    void take(void* out, size_t n) {
        m_pos += n;
        if (n <= m_curLeft) {
            if (n) memcpy(out, m_cur, n);
            m_cur += n;
            m_curLeft -= n;
            if (!m_curLeft) advance();
            return;
        }
        char* dst = static_cast<char*>(out);
        while (n) {
            size_t k = std::min(n, m_curLeft);
            memcpy(dst, m_cur, k);
            dst += k;
            n -= k;
            m_cur += k;
            m_curLeft -= k;
            if (!m_curLeft) advance();
        }
    }
    void skip(size_t n) {
        m_pos += n;
        m_cur += n;
        m_curLeft -= n;
        if (!m_curLeft) advance();
    }

    const Cab1Piece* m_pieces;
    size_t m_count;
    size_t m_next = 0;  // index of the range after the current one
    const uint8_t* m_cur = nullptr;
    size_t m_curLeft = 0;  // bytes left in the current range
    size_t m_len = 0;
    size_t m_pos = 0;
    std::string m_error;
};

}  // namespace

bool Cab1Decode(const void* data, size_t len, tagVARIANT* out, std::string* error) {
    Cab1Piece piece{data, len};
    return Cab1DecodePieces(&piece, 1, out, error);
}

bool Cab1DecodeLending(void* data, size_t len, void (*release)(void*), void* owner, tagVARIANT* out, bool* lent,
                       std::string* error) {
    *lent = false;
    const size_t head = 2 + 4 + 4;  // type code, lower bound, count
    if (data && len >= head + kCab1LendMin) {
        const char* p = static_cast<const char*>(data);
        uint16_t vt;
        SAFEARRAYBOUND bound;
        memcpy(&vt, p, 2);
        memcpy(&bound.lLbound, p + 2, 4);
        memcpy(&bound.cElements, p + 6, 4);
        VARTYPE et = VARTYPE(vt & ~VT_ARRAY);
        uint32_t cb = SafeArrayElementSize(et);
        void* elements = static_cast<char*>(data) + head;
        if ((vt & VT_ARRAY) && !(vt & VT_BYREF) && isArrayElementType(et) && et != VT_BSTR && et != VT_VARIANT &&
            uint64_t(bound.cElements) * cb == len - head && reinterpret_cast<uintptr_t>(elements) % cb == 0) {
            SAFEARRAY* psa = SafeArrayCreateOver(et, bound, elements, release, owner);
            if (psa) {
                VariantInit(out);
                out->vt = vt;
                out->parray = psa;
                *lent = true;
                return true;
            }
        }
    }
    return Cab1Decode(data, len, out, error);
}

bool Cab1DecodePieces(const Cab1Piece* pieces, size_t count, tagVARIANT* out, std::string* error) {
    VariantInit(out);
    for (size_t i = 0; i < count; ++i)
        if (pieces[i].len && !pieces[i].data) {
            if (error) *error = "CAB1: no data";
            return false;
        }
    Reader r(pieces, count);
    if (r.remaining() == 0) return true;
    tagVARIANT v;
    VariantInit(&v);
    bool good = r.variant(&v, 0);
    if (good && r.remaining()) {
        good = r.fail(std::to_string(r.remaining()) + " trailing bytes", r.pos());
        VariantClear(&v);
    }
    if (!good) {
        if (error) *error = "CAB1: " + r.error();
        return false;
    }
    *out = v;
    return true;
}
