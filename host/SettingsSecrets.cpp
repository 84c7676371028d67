#include "host/SettingsSecrets.h"

#include <strings.h>

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

CStdStr Shown(const CStdStr& name, const CStdStr& value) { return IsSecretName(name) ? CStdStr(kMask) : value; }

}  // namespace SettingsSecrets
