// Fetching a temporary file made by the proxy (an archive) and deleting it
// again, for the kivctl subcommands that build archives.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

#include "tools/kivctl/ProxyRequest.h"

namespace kivctl {

// Default size of one "GetFile" chunk.
const unsigned long long kDownloadChunk = 4ull << 20;

// Appends `remotePath` from byte *offset on to `file` through "GetFile" in
// chunks of `chunk` bytes, until a short chunk or, when `expected` >= 0, until
// *offset reaches it. *offset advances by what was written; `onChunk` (may be
// empty) runs after each chunk with the new offset. Returns an exit code; the
// reason is already printed, prefixed with `who`; `localName` names the file
// in messages.
int fetchChunks(ProxySession& session, const std::string& remotePath, FILE* file, const std::string& localName,
                unsigned long long chunk, long long expected, unsigned long long* offset,
                const std::function<void(unsigned long long)>& onChunk, const char* who);

// Copies `remotePath` into the new local file `localPath` through "GetFile"
// in chunks of `chunk` bytes; *bytes gets the count written. Returns an exit
// code (kOk, kStatus, kFailure); the reason is already printed, prefixed with
// `who` ("kivctl zip").
int downloadFile(ProxySession& session, const std::string& remotePath, const std::string& localPath,
                 unsigned long long chunk, unsigned long long* bytes, const char* who);

// "DeleteTempFile" of `remotePath`; prints a warning and returns the exit
// code when the proxy refuses.
int deleteRemoteTempFile(ProxySession& session, const std::string& remotePath, const char* who);

}  // namespace kivctl
