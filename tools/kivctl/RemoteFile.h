// Paths of files on the proxy's machine, as every kivctl command treats them:
// a relative path is resolved on the client, against the client's working
// folder, before it is sent; what a path names is asked of the proxy.
#pragma once

#include <string>

#include "tools/kivctl/ProxyRequest.h"

namespace kivctl {

// `path` made absolute against the current folder ("." and ".." parts are
// kept; the proxy's file system resolves them).
std::string absolutePath(const std::string& path);

enum class RemoteKind { File, Folder, Missing };

// What `path` names on the proxy's machine, asked through "my-KIV_TailLog"
// with a count of 0 (404: missing; "path/." answering: a folder). Returns an
// exit code; a library failure is already printed and gives kFailure.
int probeRemote(ProxySession& session, const std::string& path, RemoteKind* kind, long long* size = nullptr);

}  // namespace kivctl
