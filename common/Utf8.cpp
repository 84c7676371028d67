#include "common/Utf8.h"

#include <cstdint>

bool IsValidUtf8(const char* s, size_t n) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(s);
    for (size_t i = 0; i < n;) {
        uint8_t c = p[i];
        if (c < 0x80) {
            ++i;
            continue;
        }
        int more;
        uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) {
            more = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            more = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            more = 3;
            cp = c & 0x07;
        } else return false;
        if (n - i <= size_t(more)) return false;
        for (int k = 1; k <= more; ++k) {
            if ((p[i + k] & 0xC0) != 0x80) return false;
            cp = cp << 6 | (p[i + k] & 0x3F);
        }
        if ((more == 2 && cp < 0x800) || (more == 3 && (cp < 0x10000 || cp > 0x10FFFF)) ||
            (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += size_t(more) + 1;
    }
    return true;
}
