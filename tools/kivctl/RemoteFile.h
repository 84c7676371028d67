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

// The size of `path` (its low 32 bits) from "my-KIV_TailLog" with a count of
// 0, which neither reads the file nor waits for an archive being written:
// the service's status (404: missing), a library failure already printed
// (but for CAB_E_PERMISSION_DENIED, which the caller handles).
int sizeOf(ProxySession& session, const std::string& path, long long* size);

// Unreadable: the proxy sees a file of some bytes but reads none of them.
// NoByte: without "my-KIV_TailLog" (which a directory may keep for admins),
// a path that gives no byte: an empty file, or missing, or a folder.
enum class RemoteKind { File, Folder, Missing, Unreadable, NoByte };

// What `path` names on the proxy's machine, asked through "my-KIV_TailLog"
// with a count of 0 (404: missing; "path/." answering: a folder) and, for a
// file that is not empty, "GetFile" of its first byte; when the directory
// refuses "my-KIV_TailLog", "QueryFileSize" and that byte. Returns an exit code;
// a library failure is already printed and gives kFailure. *size gets the
// size's low 32 bits (all "my-KIV_TailLog" tells).
int probeRemote(ProxySession& session, const std::string& path, RemoteKind* kind, long long* size = nullptr);

// Bytes [offset, offset + length) of `path` through "GetFile" (fewer at the
// end of the file); returns the request's status.
int readRemote(ProxySession& session, const std::string& path, unsigned long long offset, unsigned long long length,
               std::string* bytes);

// What kivctl says of a path that is not a readable file, without the
// "kivctl COMMAND: " prefix. A missing file and one the proxy does not serve
// answer alike, so the text covers both.
std::string remoteProblem(const std::string& path, RemoteKind kind);

}  // namespace kivctl
