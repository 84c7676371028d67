// "GetFile" and "QueryFileSize": file contents in chunks and the size of a
// set of media items. Only served files are read (ServedFolders); a refused
// path answers as a missing one: an empty block, a size of 0.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>

#include "cab/CabException.h"
#include "cab/CabMemoryBudget.h"
#include "diag/CBBLog.h"
#include "host/CRegistry.h"
#include "satellite/KivRequestProxySatellite.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

// How long a read waits for an archive still being written: the request time-out.
int pendingArchiveWaitMs() {
    static const int ms = [] {
        int value = 0;
        if (!CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                       "cabDirectory.requestTimeoutMs", value) ||
            value <= 0)
            value = 300000;
        return value;
    }();
    return ms;
}

// Element `index` of `in` as a byte count: the four integer types, negative as 0.
bool readCount(const tagVARIANT& in, int index, unsigned long long& value) {
    CLocalVariant v;
    VUtil::GetElement(in, index, v.get());
    switch (v.vt()) {
    case VT_I4: value = v.get().lVal < 0 ? 0 : static_cast<unsigned long long>(v.get().lVal); return true;
    case VT_UI4: value = v.get().ulVal; return true;
    case VT_I8: value = v.get().llVal < 0 ? 0 : static_cast<unsigned long long>(v.get().llVal); return true;
    case VT_UI8: value = v.get().ullVal; return true;
    default: return false;
    }
}

}  // namespace

int KivRequestProxySatellite::CabServiceGetFile(const char* name, const tagVARIANT& in, tagVARIANT* out) {
    CStdStr path = VUtil::GetStringElement(in, 0);
    int elements = VUtil::GetArrayLength(in);
    unsigned long long offset = 0, maxBytes = 0;
    if (elements > 1 && !readCount(in, 1, offset)) throw CabInvalidParameterException("Invalid offset type");
    if (elements > 2 && !readCount(in, 2, maxBytes)) throw CabInvalidParameterException("Invalid maxLength type");
    CBBLog::info("GetFile %s, offset: %lld, maxBytes: %lld", path.c_str(), static_cast<long long>(offset),
                 static_cast<long long>(maxBytes));

    if (CStdStr refused = waitForPendingArchive(path, pendingArchiveWaitMs()); !refused.empty())
        throw CabException(refused.c_str(), 1);
    // Size and bytes come from one open descriptor, so they describe the same file.
    int fd = m_served.openForReading(path, "GetFile");
    struct stat st;
    const unsigned long long size = fd >= 0 && ::fstat(fd, &st) == 0 ? static_cast<unsigned long long>(st.st_size) : 0;
    const unsigned long long start = offset < size ? offset : size;
    const unsigned long long remaining = size - start;
    unsigned long long length = maxBytes == 0 ? remaining : (maxBytes < remaining ? maxBytes : remaining);
    if (length > 0xFFFFFFFFull) length = 0xFFFFFFFFull;

    // Served to the directory, the chunk is read from the file part by part
    // while it is sent: however long it is, it never sits in memory whole.
    if (length > 0 && CabSatellite::AnswerWithFileRange(fd, start, length)) return 0;

    // Otherwise the chunk is read straight into the array that goes out,
    // once the answer's memory budget has room for it (and its framing).
    std::string refused;
    if (!CabReserveAnswerMemory(length + 64, &refused)) {
        if (fd >= 0) ::close(fd);
        CBBLog::warn("GetFile %s refused: %s", path.c_str(), refused.c_str());
        return CAB_E_BUSY;
    }
    SAFEARRAYBOUND bound{static_cast<uint32_t>(length), 0};
    SAFEARRAY* bytes = SafeArrayCreateEx(VT_UI1, bound, false);
    if (!bytes) {
        if (fd >= 0) ::close(fd);
        CBBLog::error("Ran out of memory!");
        return 8;
    }
    unsigned long long got = 0;
    if (length > 0) {
        void* data = nullptr;
        SafeArrayAccessData(bytes, &data);
        while (got < length) {
            ssize_t n = ::pread(fd, static_cast<char*>(data) + got, length - got, static_cast<off_t>(start + got));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;
            got += static_cast<unsigned long long>(n);
        }
        SafeArrayUnaccessData(bytes);
        if (got < length) {
            SAFEARRAYBOUND shorter{static_cast<uint32_t>(got), 0};
            SafeArrayRedim(bytes, &shorter);
        }
    }
    if (fd >= 0) ::close(fd);
    VariantClear(out);
    out->vt = VT_ARRAY | VT_UI1;
    out->parray = bytes;
    return 0;
}

int KivRequestProxySatellite::CabServiceQueryFileSize(const char* name, const tagVARIANT& in, tagVARIANT* out) {
    VUtil::CheckArrayType(in, VT_VARIANT, 2, true, "QueryFileSize");
    CLocalVariant medium, items;
    VUtil::GetElement(in, 0, medium.get());
    VUtil::CheckType(medium.get(), VT_BSTR, "QueryFileSize medium");
    VUtil::GetElement(in, 1, items.get());
    VUtil::CheckArrayType(items.get(), VT_VARIANT, 0, true, "QueryFileSize items");
    CStdStr mediumId = medium.get().bstrVal ? CStdStr(medium.get().bstrVal) : CStdStr();

    std::vector<CStdStr> paths;
    int rc = GetMediumListPath(mediumId, items.get(), paths);
    if (rc != 0) return rc;
    long long total = 0;
    for (const CStdStr& path : paths) {
        if (CStdStr refused = waitForPendingArchive(path, pendingArchiveWaitMs()); !refused.empty())
            throw CabException(refused.c_str(), 1);
        const long long size = m_served.sizeOf(path, "QueryFileSize");
        if (size > 0) total += size;
    }
    VariantClear(out);
    VUtil::CreateArray(*out, VT_VARIANT, 2);
    VUtil::PutElement(*out, 0, static_cast<int>(paths.size()));
    VUtil::PutElement(*out, 1, total);
    return 0;
}
