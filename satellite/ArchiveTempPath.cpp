#include "satellite/ArchiveTempPath.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "files/CFileTools.h"

namespace {

// Each platform call behind one small function.

int openFolder(const CStdStr& path) { return ::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC); }

bool entryAt(int fd, const CStdStr& name, struct stat* st) {
    return ::fstatat(fd, name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
}

// 0, or the errno of the refusal. Without AT_REMOVEDIR a folder is never removed.
int removeAt(int fd, const CStdStr& name) { return ::unlinkat(fd, name.c_str(), 0) == 0 ? 0 : errno; }

CStdStr realFolder(const CStdStr& path) {
    char resolved[PATH_MAX + 1];
    if (!::realpath(path.c_str(), resolved)) return CStdStr();
    return CStdStr(resolved);
}

bool inside(const CStdStr& folder, const CStdStr& root) {
    if (root.empty() || root == "/") return false;
    return folder == root ||
           (folder.size() > root.size() && folder.compare(0, root.size(), root) == 0 && folder[root.size()] == '/');
}

bool insideTemporaryFolders(const CStdStr& folder) {
    return inside(folder, realFolder(CFileTools::getTmpFolder())) || inside(folder, realFolder("/tmp"));
}

// True when the nearest folder of `path` that exists (itself or an
// ancestor) lies inside one of the temporary folders.
bool nearestFolderInsideTemporaryFolders(CStdStr path) {
    for (;;) {
        const size_t slash = path.rfind('/');
        if (slash == CStdStr::npos || slash == 0) return false;
        path = CStdStr(path.substr(0, slash));
        const CStdStr real = realFolder(path);
        if (!real.empty()) return insideTemporaryFolders(real);
        if (errno != ENOENT) return false;
    }
}

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    ~Descriptor() {
        if (m_fd >= 0) ::close(m_fd);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace

CStdStr descriptorLocation(int fd) {
    char link[64], target[PATH_MAX + 1];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = ::readlink(link, target, PATH_MAX);
    if (n <= 0 || target[0] != '/') return CStdStr();
    return CStdStr(target, static_cast<size_t>(n));
}

TempDeletion deleteTempEntry(const CStdStr& path, const TempEntryId* expected, CStdStr* detail) {
    CStdStr unused;
    if (!detail) detail = &unused;
    detail->clear();
    const size_t slash = path.rfind('/');
    const CStdStr name = slash == CStdStr::npos ? path : CStdStr(path.substr(slash + 1));
    if (path.empty() || name.empty() || name == "." || name == "..") {
        *detail = "no entry name";
        return TempDeletion::Outside;
    }
    const CStdStr parent = slash == CStdStr::npos ? CStdStr(".")
                           : slash == 0           ? CStdStr("/")
                                                  : CStdStr(path.substr(0, slash));
    Descriptor folder(openFolder(parent));
    if (folder.get() < 0) {
        *detail = CStdStr::Formatted("cannot open %s: %s", parent.c_str(), strerror(errno));
        // A folder that does not exist holds nothing: inside the temporary
        // folder that is a name nothing has, as for a missing file.
        if (errno == ENOENT && nearestFolderInsideTemporaryFolders(parent)) return TempDeletion::Missing;
        return TempDeletion::Outside;
    }
    const CStdStr location = descriptorLocation(folder.get());
    *detail = location.empty() ? CStdStr("unknown folder") : location;
    if (location.empty() || !insideTemporaryFolders(location)) return TempDeletion::Outside;

    struct stat st;
    if (!entryAt(folder.get(), name, &st)) {
        if (errno == ENOENT) return TempDeletion::Missing;
        *detail = strerror(errno);
        return TempDeletion::Failed;
    }
    if (S_ISDIR(st.st_mode)) return TempDeletion::Folder;
    if (expected && (!S_ISREG(st.st_mode) || st.st_dev != expected->device || st.st_ino != expected->inode ||
                     st.st_uid != expected->owner))
        return TempDeletion::Mismatch;
    const int error = removeAt(folder.get(), name);
    if (error == 0) return TempDeletion::Deleted;
    if (error == ENOENT) return TempDeletion::Missing;
    // Replaced by a folder since it was looked at: still never removed.
    if (error == EISDIR) return TempDeletion::Folder;
    *detail = strerror(error);
    return TempDeletion::Failed;
}

bool tempEntryId(const CStdStr& path, TempEntryId* id) {
    struct stat st;
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    id->device = st.st_dev;
    id->inode = st.st_ino;
    id->owner = st.st_uid;
    return true;
}
