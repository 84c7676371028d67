#include "tools/kivctl/RemoteFile.h"

#include <unistd.h>

#include <cstdint>

#include "tools/kivctl/Download.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace kivctl {

std::string absolutePath(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return path;
    std::string base = cwd;
    if (path == ".") return base;
    if (path.compare(0, 2, "./") == 0) return base + (base == "/" ? "" : "/") + path.substr(2);
    return base + (base == "/" ? "" : "/") + path;
}

int sizeOf(ProxySession& session, const std::string& path, long long* size) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, 0L);
    int status = session.request("my-KIV_TailLog", in.get(), out.ptr(), CAB_E_PERMISSION_DENIED);
    if (status == 0 && size) {
        try {
            *size = static_cast<uint32_t>(VUtil::GetLongElement(out.get(), 0));
        } catch (const std::exception&) {
            *size = -1;
        }
    }
    return status;
}

int readRemote(ProxySession& session, const std::string& path, unsigned long long offset, unsigned long long length,
               std::string* bytes) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, static_cast<long long>(offset));
    VUtil::PutElement(in.get(), 2, static_cast<long long>(length));
    int status = session.request("GetFile", in.get(), out.ptr());
    bytes->clear();
    if (status == 0 && out.vt() == (VT_ARRAY | VT_UI1) && out.get().parray)
        bytes->assign(static_cast<const char*>(out.get().parray->pvData), out.get().parray->rgsabound[0].cElements);
    return status;
}

namespace {

// Without "my-KIV_TailLog": the size from "QueryFileSize", the first byte from "GetFile".
int probeWithoutTail(ProxySession& session, const std::string& path, RemoteKind* kind, long long* size) {
    long long total = -1;
    std::string first;
    int rc = remoteFileSize(session, path, &total, "kivctl");
    if (rc != kOk) return rc;
    int status = readRemote(session, path, 0, 1, &first);
    if (status != 0) return exitFor(status);
    *kind = !first.empty() ? RemoteKind::File : total > 0 ? RemoteKind::Unreadable : RemoteKind::NoByte;
    if (size) *size = total < 0 ? -1 : (total & 0xFFFFFFFFLL);
    return kOk;
}

}  // namespace

int probeRemote(ProxySession& session, const std::string& path, RemoteKind* kind, long long* size) {
    long long bytes = -1;
    int status = sizeOf(session, path, &bytes);
    if (status == CAB_E_PERMISSION_DENIED) return probeWithoutTail(session, path, kind, size);
    if (status == 404) {
        *kind = RemoteKind::Missing;
        return kOk;
    }
    if (status != 0) return exitFor(status);
    if (size) *size = bytes;
    status = sizeOf(session, path + "/.", nullptr);
    if (status != 0 && status != 404) return exitFor(status);
    *kind = status == 0 ? RemoteKind::Folder : RemoteKind::File;
    // The services answer an unreadable file as an empty one; a file that has
    // bytes but gives none cannot be read.
    std::string first;
    if (*kind == RemoteKind::File && bytes > 0) {
        if ((status = readRemote(session, path, 0, 1, &first)) != 0) return exitFor(status);
        if (first.empty()) *kind = RemoteKind::Unreadable;
    }
    return kOk;
}

std::string remoteProblem(const std::string& path, RemoteKind kind) {
    switch (kind) {
    case RemoteKind::Missing: return path + ": no such file on the proxy's machine, or outside the folders it serves";
    case RemoteKind::Folder: return path + " is a folder on the proxy's machine";
    case RemoteKind::Unreadable: return "the proxy cannot read " + path + " (no permission, or not a plain file)";
    case RemoteKind::NoByte:
        return path +
               ": the proxy gives no byte of it: it is empty, or missing, outside the folders it "
               "serves or a folder (kivctl cannot ask which: the directory does not let this user "
               "call my-KIV_TailLog)";
    case RemoteKind::File: break;
    }
    return path;
}

}  // namespace kivctl
