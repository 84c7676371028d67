#include "files/PathMediumId.h"

#include "files/CFileTools.h"

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    return -1;
}

}  // namespace

namespace PathMediumId {

CStdStr FromPath(const CStdStr& path) {
    CStdStr plain = CFileTools::PathToFileBrowserMediumId(path);
    if (CFileTools::FileBrowserMediumIdToPath(plain) == path) return plain;
    static const char kHex[] = "0123456789ABCDEF";
    CStdStr id = "F%";
    for (char c : path) {
        const unsigned char b = static_cast<unsigned char>(c);
        if (b == '%' || b < 0x20 || b > 0x7E) {
            id += '%';
            id += kHex[b >> 4];
            id += kHex[b & 15];
        } else {
            id += c;
        }
    }
    return id;
}

bool EscapedToPath(const CStdStr& id, CStdStr* path) {
    if (id.size() < 3 || id[0] != 'F' || id[1] != '%') return false;
    CStdStr out;
    for (size_t i = 2; i < id.size(); ++i) {
        if (id[i] != '%') {
            out += id[i];
            continue;
        }
        const int high = i + 2 < id.size() ? hexValue(id[i + 1]) : -1;
        const int low = high >= 0 ? hexValue(id[i + 2]) : -1;
        if (low < 0) return false;
        out += static_cast<char>(high * 16 + low);
        i += 2;
    }
    *path = out;
    return true;
}

}  // namespace PathMediumId
