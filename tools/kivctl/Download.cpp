#include "tools/kivctl/Download.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <unistd.h>

#include "tools/kivctl/Interrupt.h"
#include "tools/kivctl/Progress.h"

#include "files/PathMediumId.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace kivctl {

int fetchChunks(ProxySession& session, const std::string& remotePath, FILE* file, const std::string& localName,
                unsigned long long chunk, long long expected, unsigned long long* offset,
                const std::function<void(unsigned long long)>& onChunk, const char* who) {
    if (chunk == 0) chunk = kDownloadChunk;
    while (expected < 0 || *offset < static_cast<unsigned long long>(expected)) {
        CLocalVariant in, out;
        VUtil::CreateArray(in.get(), VT_VARIANT, 3);
        VUtil::PutElement(in.get(), 0, CStdStr(remotePath));
        VUtil::PutElement(in.get(), 1, static_cast<long long>(*offset));
        VUtil::PutElement(in.get(), 2, static_cast<long long>(chunk));
        int status = session.request("GetFile", in.get(), out.ptr());
        if (status != 0) {
            if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: GetFile answered %d\n", who, status);
            return exitFor(status);
        }
        if (out.vt() != (VT_ARRAY | VT_UI1) || !out.get().parray) {
            fprintf(stderr, "%s: unexpected answer to GetFile\n", who);
            return kFailure;
        }
        unsigned long long got = out.get().parray->rgsabound[0].cElements;
        if (got > 0 && fwrite(out.get().parray->pvData, 1, got, file) != got) {
            fprintf(stderr, "%s: %s: %s\n", who, localName.c_str(), strerror(errno));
            return kFailure;
        }
        *offset += got;
        if (onChunk) onChunk(*offset);
        if (got < chunk) break;  // a short chunk is the end of the file
    }
    return kOk;
}

std::string partName(const std::string& localPath) { return localPath + ".part"; }

int downloadFile(ProxySession& session, const std::string& remotePath, const std::string& localPath,
                 unsigned long long chunk, long long expected, bool progress, unsigned long long* bytes,
                 const char* who) {
    *bytes = 0;
    const std::string part = partName(localPath);
    FILE* file = fopen(part.c_str(), "wb");
    if (!file) {
        fprintf(stderr, "%s: %s: %s\n", who, part.c_str(), strerror(errno));
        return kFailure;
    }
    // Interrupted (see Interrupt.h), the partial copy goes too.
    struct Partial {
        std::string part, remote;
    } partial{part, remotePath};
    onInterrupt(
        [](void* context) {
            const Partial* p = static_cast<const Partial*>(context);
            unlink(p->part.c_str());
            return "removed " + p->part + "; the proxy keeps " + p->remote + " until \"DeleteTempFile\"";
        },
        &partial);
    Progress bar(progress, "download ", 0, expected);
    int rc = fetchChunks(
        session, remotePath, file, part, chunk, -1, bytes, [&](unsigned long long done) { bar.update(done, false); },
        who);
    if (rc == kOk) bar.update(*bytes, true);
    if (fclose(file) != 0 && rc == kOk) {
        fprintf(stderr, "%s: %s: %s\n", who, part.c_str(), strerror(errno));
        rc = kFailure;
    }
    if (rc == kOk && rename(part.c_str(), localPath.c_str()) != 0) {
        fprintf(stderr, "%s: cannot rename %s to %s: %s\n", who, part.c_str(), localPath.c_str(), strerror(errno));
        rc = kFailure;
    }
    onInterrupt(nullptr, nullptr);
    if (rc != kOk) unlink(part.c_str());
    return rc;
}

int remoteFileSize(ProxySession& session, const std::string& remotePath, long long* size, const char* who) {
    *size = -1;
    CStdStr id = PathMediumId::FromPath(remotePath);
    CLocalVariant in, items, out;
    VUtil::CreateArray(items.get(), VT_VARIANT, 1);
    VUtil::PutElement(items.get(), 0, id);
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, id);
    VUtil::PutElement(in.get(), 1, items.get());
    int status = session.request("QueryFileSize", in.get(), out.ptr());
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: QueryFileSize answered %d\n", who, status);
        return exitFor(status);
    }
    try {
        CLocalVariant count, total;
        VUtil::GetElement(out.get(), 0, count.get());
        VUtil::GetElement(out.get(), 1, total.get());
        if (count.vt() == VT_I4 && count.get().lVal == 1 && total.vt() == VT_I8) *size = total.get().llVal;
    } catch (const std::exception&) {
    }
    return kOk;
}

int deleteRemoteTempFile(ProxySession& session, const std::string& remotePath, const char* who) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, CStdStr(remotePath));
    int status = session.request("DeleteTempFile", in.get(), out.ptr());
    if (status != 0 && !CabIsLibraryStatus(status))
        fprintf(stderr, "%s: DeleteTempFile of %s answered %d\n", who, remotePath.c_str(), status);
    return exitFor(status);
}

}  // namespace kivctl
