#include "tools/kivctl/RemoteFile.h"

#include <unistd.h>

#include <cstdint>

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

namespace {

// "my-KIV_TailLog" of 0 bytes: the service's status; *size gets the size.
int sizeOf(ProxySession& session, const std::string& path, long long* size) {
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, 0L);
    int status = session.request("my-KIV_TailLog", in.get(), out.ptr());
    if (status == 0 && size) {
        try {
            *size = static_cast<uint32_t>(VUtil::GetLongElement(out.get(), 0));
        } catch (const std::exception&) {
            *size = -1;
        }
    }
    return status;
}

}  // namespace

int probeRemote(ProxySession& session, const std::string& path, RemoteKind* kind, long long* size) {
    long long bytes = -1;
    int status = sizeOf(session, path, &bytes);
    if (status == 404) {
        *kind = RemoteKind::Missing;
        return kOk;
    }
    if (status != 0) return exitFor(status);
    status = sizeOf(session, path + "/.", nullptr);
    if (status != 0 && status != 404) return exitFor(status);
    *kind = status == 0 ? RemoteKind::Folder : RemoteKind::File;
    if (size) *size = bytes;
    return kOk;
}

}  // namespace kivctl
