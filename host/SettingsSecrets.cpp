#include "host/SettingsSecrets.h"

#include <strings.h>

#include <string>

namespace SettingsSecrets {

const char* const kMask = "********";

namespace {

bool endsWithIgnoringCase(const CStdStr& name, const char* suffix, size_t length) {
    return name.size() >= length && strncasecmp(name.c_str() + name.size() - length, suffix, length) == 0;
}

}  // namespace

bool IsSecretName(const CStdStr& name) {
    static const char kKeyFile[] = "SeedFile";
    const size_t keyFileLength = sizeof kKeyFile - 1;
    const size_t nkeyLength = keyFileLength - 4;  // the same without "File"
    return endsWithIgnoringCase(name, "token", 5) || endsWithIgnoringCase(name, "password", 8) ||
           endsWithIgnoringCase(name, kKeyFile, keyFileLength) || endsWithIgnoringCase(name, kKeyFile, nkeyLength);
}

CStdStr Shown(const CStdStr& name, const CStdStr& value) {
    return IsSecretName(name) ? CStdStr(kMask) : MaskUrlCredentials(value);
}

CStdStr MaskUrlCredentials(const CStdStr& text) {
    const std::string& s = text;
    size_t scheme = s.find("://");
    if (scheme == std::string::npos) return text;  // the common case: nothing to do
    std::string out;
    size_t copied = 0;
    for (; scheme != std::string::npos; scheme = s.find("://", scheme + 3)) {
        // The authority runs to the next '/', blank, comma or quote; user
        // information is what comes before its last '@'.
        const size_t start = scheme + 3;
        const size_t end = s.find_first_of("/ \t\n,\"'?#", start);
        const size_t at = s.rfind('@', end == std::string::npos ? std::string::npos : end - 1);
        if (at == std::string::npos || at < start || (end != std::string::npos && at > end)) continue;
        const size_t colon = s.find(':', start);
        const size_t secret = colon != std::string::npos && colon < at ? colon + 1 : start;
        out.append(s, copied, secret - copied);
        out += kMask;
        copied = at;
    }
    out.append(s, copied, std::string::npos);
    return CStdStr(out);
}

}  // namespace SettingsSecrets
