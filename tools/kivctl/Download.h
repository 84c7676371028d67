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

// The name a download is written under until it is complete: FILE.part,
// beside FILE, so a rename puts it in place and `get --continue` finds it.
std::string partName(const std::string& localPath);

// Copies `remotePath` into `localPath` through "GetFile" in chunks of `chunk`
// bytes: written to partName(localPath), renamed over `localPath` only when
// complete; on any failure, and on an interrupt (Interrupt.h, which the
// caller set up), the part file is removed, so nothing is left.
// `expected` (< 0: unknown) sizes the progress bar shown when `progress`.
// *bytes gets the count written. Returns an exit code (kOk, kStatus,
// kFailure); the reason is already printed, prefixed with `who` ("kivctl zip").
int downloadFile(ProxySession& session, const std::string& remotePath, const std::string& localPath,
                 unsigned long long chunk, long long expected, bool progress, unsigned long long* bytes,
                 const char* who);

// The size of `remotePath` by "QueryFileSize" of its medium id
// (files/PathMediumId.h); *size is -1 when the answer does not say. Returns the exit code of the request;
// a refusal is already printed, prefixed with `who`.
int remoteFileSize(ProxySession& session, const std::string& remotePath, long long* size, const char* who);

// "DeleteTempFile" of `remotePath`; prints a warning and returns the exit
// code when the proxy refuses.
int deleteRemoteTempFile(ProxySession& session, const std::string& remotePath, const char* who);

}  // namespace kivctl
