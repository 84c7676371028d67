// ServedFolders: which files "GetFile", "QueryFileSize", "my-KIV_TailLog" and
// the archives ("CreateZip", "ZipLogs") may read.
//
// Promises:
// - Served: a regular file reached from inside one of the folders named by
//   "files.roots" (absolute folders separated by ":", under the configuration
//   key, read once when the object is made), the log folder or the data
//   folder, without leaving that folder on the way (no ".." and no link out
//   of it; the kernel resolves beneath the folder); and an archive this proxy
//   made, while it is still the file that was made.
// - Never served, whatever "files.roots" says: the settings folder and any
//   settings file of the product, the credential files named by settings
//   (cabDirectory.nkeySeedFile, cabDirectory.tls.key), /etc/kivfoundry, the
//   directory's configuration and password files (by name), crash dumps
//   ("*.dmp", in the data folder too), /proc, /sys, /dev.
// - Only regular files: folders, FIFOs, sockets and devices are refused, and
//   no open can block (O_NONBLOCK, O_NOCTTY; O_PATH for a size).
// - A refusal logs one WARN with the service, the path and why. A file that
//   does not exist is not a refusal; callers answer both alike.
// Immutable once made; any thread may use it.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <functional>
#include <vector>

#include "common/CStdStr.h"
#include "satellite/ArchiveTempPath.h"

class ServedFolders {
public:
    // Whether `path` is an archive this proxy made, and which file it is.
    typedef std::function<bool(const CStdStr& path, TempEntryId* id)> ArchiveLookup;

    explicit ServedFolders(ArchiveLookup archives = ArchiveLookup());

    // A read-only descriptor of the served regular file at `path` (the
    // caller closes it), or -1 when it is missing or refused.
    int openForReading(const CStdStr& path, const char* service) const;
    // The size of the served regular file at `path`, or -1 when it is missing
    // or refused. Opens nothing but a path descriptor.
    long long sizeOf(const CStdStr& path, const char* service) const;

    // The folders served, as configured and then the proxy's own.
    const std::vector<CStdStr>& folders() const { return m_folders; }

private:
    int open(const CStdStr& path, bool forReading, const char* service) const;
    int openInFolders(const CStdStr& path, int flags, CStdStr* why) const;
    bool excluded(int fd, const struct stat& st, CStdStr* why) const;

    ArchiveLookup m_archives;
    std::vector<CStdStr> m_folders;          // served folders, no trailing "/"
    std::vector<CStdStr> m_excludedFolders;  // never served, links resolved
    struct Credential {
        dev_t device;
        ino_t inode;
    };
    std::vector<Credential> m_credentials;  // files named by credential settings
};
