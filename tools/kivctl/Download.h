// Fetching a temporary file made by the proxy (an archive) and deleting it
// again, for the kivctl subcommands that build archives.
#pragma once

#include <string>

#include "tools/kivctl/ProxyRequest.h"

namespace kivctl {

// Default size of one "GetFile" chunk.
const unsigned long long kDownloadChunk = 4ull << 20;

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
