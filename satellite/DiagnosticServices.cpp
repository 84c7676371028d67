// Diagnostic services: the tail of a file, the configuration, the data folder
// and a deliberate crash.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <new>

#include "files/CFileTools.h"
#include "host/CRegistry.h"
#include "host/SettingsSecrets.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

// The most bytes a tail request returns.
const uint64_t kTailLimit = 5000000;

// A store through a null pointer that the compiler may not remove. The
// undefined-behaviour checker must let it through to the crash handler.
__attribute__((noinline, no_sanitize("undefined"))) void crashMemoryAccessViolation(int value) {
    volatile int* volatile target = nullptr;
    *target = value;
}

}  // namespace

int KivRequestProxySatellite::CabServiceTailLog(const char*, const tagVARIANT& in, tagVARIANT* out) {
    CStdStr path = VUtil::GetStringElement(in, 0);
    long requested = VUtil::GetLongElement(in, 1);
    // A negative count, widened with its sign and seen unsigned, is above the limit too.
    uint64_t count = static_cast<uint64_t>(static_cast<int64_t>(requested));
    if (count > kTailLimit) count = kTailLimit;

    // Only a served regular file: anything else answers as a missing file.
    const int fd = m_served.openForReading(path, "my-KIV_TailLog");
    if (fd < 0) return 404;
    struct stat st;
    const uint64_t size = ::fstat(fd, &st) == 0 ? static_cast<uint64_t>(st.st_size) : 0;
    if (size < count) count = size;

    std::unique_ptr<char[]> text(new (std::nothrow) char[count + 1]);
    if (!text) {
        ::close(fd);
        return 0;
    }
    uint64_t read = 0;
    while (read < count) {
        const ssize_t n = ::pread(fd, text.get() + read, count - read, static_cast<off_t>(size - count + read));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        read += static_cast<uint64_t>(n);
    }
    ::close(fd);
    text[read] = '\0';

    VUtil::CreateArray(*out, VT_VARIANT, 3);
    VUtil::PutElement(*out, 0, static_cast<int>(size));
    VUtil::PutElement(*out, 1, static_cast<int>(count));
    VUtil::PutElement(*out, 2, static_cast<const char*>(text.get()));
    return 0;
}

// Every value under the configuration key, sorted by name; credentials (see
// SettingsSecrets) are shown masked.
int KivRequestProxySatellite::CabServiceGetConfig(const char*, const tagVARIANT&, tagVARIANT* out) {
    std::map<CStdStr, CStdStr> values;
    CRegistry::getInstance()->ReadAllSettingsImpl("Software\\Kiv Foundry\\Kiv\\Config", values);
    VUtil::CreateArray(*out, VT_VARIANT, values.size());
    int i = 0;
    for (const auto& entry : values) {
        CLocalVariant pair;
        VUtil::CreateArray(pair.get(), VT_BSTR, 2);
        VUtil::PutElement(pair.get(), 0, entry.first);
        VUtil::PutElement(pair.get(), 1, SettingsSecrets::Shown(entry.first, entry.second));
        VUtil::PutElement(*out, i++, pair.get());
    }
    return 0;
}

// A data folder that cannot be made throws std::logic_error out of the handler:
// the library answers CAB_E_HANDLER_EXCEPTION with its text.
int KivRequestProxySatellite::CabServiceGetKivDataFolder(const char*, const tagVARIANT&, tagVARIANT* out) {
    CStdStr folder = CFileTools::GetKivDataFolder();
    VariantClear(out);
    out->vt = VT_BSTR;
    out->bstrVal = SysAllocStringLen(folder.data(), static_cast<uint32_t>(folder.size()));
    return 0;
}

int KivRequestProxySatellite::CabServiceGenerateCrash(const char*, const tagVARIANT& in, tagVARIANT*) {
    if (in.vt == VT_I4 && in.lVal != 0) crashMemoryAccessViolation(in.lVal);
    crashMemoryAccessViolation(0);
    return 0;  // not reached
}
