#include "satellite/ServedFolders.h"

#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

#include "diag/CBBLog.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "host/Preferences.h"
#include "host/SettingsSecrets.h"

namespace {

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

// Folders never served, whatever the roots (the settings folder is added).
const char* const kNeverServed[] = {"/etc/kivfoundry", "/proc", "/sys", "/dev"};

// Opens `relative` beneath the folder `folderFd`: no ".." above it, no
// absolute path or link, no /proc magic link. -1 with errno on failure.
int openBeneath(int folderFd, const char* relative, int flags) {
    struct open_how how;
    memset(&how, 0, sizeof how);
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, folderFd, relative, &how, sizeof how));
}

bool endsWith(const CStdStr& text, const char* suffix) {
    const size_t n = strlen(suffix);
    return text.size() >= n && text.compare(text.size() - n, n, suffix) == 0;
}

bool startsWith(const CStdStr& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

bool inside(const CStdStr& path, const CStdStr& folder) {
    if (folder == "/") return !path.empty() && path[0] == '/';
    return path == folder ||
           (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 && path[folder.size()] == '/');
}

// "/a//b/" -> "/a/b/": repeated separators are one.
CStdStr collapsed(const CStdStr& path) {
    CStdStr out;
    for (char c : path)
        if (c != '/' || out.empty() || out.back() != '/') out += c;
    return out;
}

// A folder as compared: absolute, separators collapsed, no trailing "/".
CStdStr folderSpelling(const CStdStr& folder) {
    CStdStr f = collapsed(folder);
    while (f.size() > 1 && f.back() == '/') f.pop_back();
    return f;
}

CStdStr resolved(const CStdStr& path) {
    char buffer[PATH_MAX + 1];
    return ::realpath(path.c_str(), buffer) ? CStdStr(buffer) : CStdStr();
}

// Adds `folder` and, when links make it another, its real spelling.
void addFolder(std::vector<CStdStr>& to, const CStdStr& folder) {
    const CStdStr spelled = folderSpelling(folder);
    to.push_back(spelled);
    const CStdStr real = resolved(spelled);
    if (!real.empty() && real != spelled) to.push_back(real);
}

const char* kindOf(mode_t mode) {
    if (S_ISDIR(mode)) return "a folder";
    if (S_ISFIFO(mode)) return "a FIFO";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    if (S_ISLNK(mode)) return "a link";
    return "not a regular file";
}

// Why openBeneath failed, for the log; empty when the file is simply missing.
CStdStr refusalOf(int error) {
    switch (error) {
    case ENOENT:
    case ENOTDIR: return CStdStr();
    case EXDEV: return "it leads out of the served folder (a link or \"..\")";
    case ELOOP: return "a link that is not followed";
    case ENXIO: return "a socket";
    case ENOSYS: return "this kernel cannot open beneath a folder (openat2)";
    default: return CStdStr::Formatted("cannot open it: %s", strerror(error));
    }
}

// Setting names of files that hold credentials: "...SeedFile", "...passwordFile", "...tls.key".
bool isCredentialFileSetting(const CStdStr& name) {
    if (endsWith(name, ".key")) return true;
    if (!endsWith(name, "File")) return false;
    return SettingsSecrets::IsSecretName(name) || SettingsSecrets::IsSecretName(name.substr(0, name.size() - 4));
}

}  // namespace

ServedFolders::ServedFolders(ArchiveLookup archives) : m_archives(std::move(archives)) {
    CStdStr roots;
    if (CRegistry::getInstance()->ReadSettingImpl(kConfigKey, "files.roots", roots)) {
        size_t start = 0;
        while (start <= roots.size()) {
            size_t end = roots.find(':', start);
            if (end == CStdStr::npos) end = roots.size();
            const CStdStr root = roots.substr(start, end - start);
            if (!root.empty() && root[0] == '/') addFolder(m_folders, root);
            else if (!root.empty()) CBBLog::warn("files.roots: %s is not an absolute folder; ignored", root.c_str());
            start = end + 1;
        }
    }
    CBBLog::info("Serving files from %s and the proxy's own folders",
                 m_folders.empty() ? "no folder of files.roots" : roots.c_str());
    addFolder(m_folders, KivFolders::LogsDirectory());
    addFolder(m_folders, KivFolders::DataFolder());

    addFolder(m_excludedFolders, Preferences::Folder());
    for (const char* folder : kNeverServed) addFolder(m_excludedFolders, folder);
    std::map<CStdStr, CStdStr> settings;
    CRegistry::getInstance()->ReadAllSettingsImpl(kConfigKey, settings);
    for (const auto& setting : settings) {
        struct stat st;
        if (isCredentialFileSetting(setting.first) && !setting.second.empty() &&
            ::stat(setting.second.c_str(), &st) == 0)
            m_credentials.push_back(Credential{st.st_dev, st.st_ino});
    }
}

int ServedFolders::openForReading(const CStdStr& path, const char* service) const { return open(path, true, service); }

long long ServedFolders::sizeOf(const CStdStr& path, const char* service) const {
    const int fd = open(path, false, service);
    if (fd < 0) return -1;
    struct stat st;
    const long long size = ::fstat(fd, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
    ::close(fd);
    return size;
}

int ServedFolders::open(const CStdStr& path, bool forReading, const char* service) const {
    const int flags = forReading ? O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC : O_PATH | O_CLOEXEC;
    CStdStr why;
    int fd = -1;
    TempEntryId archive;
    if (m_archives && m_archives(path, &archive)) {
        // Made here: served by its exact path while it is still that file.
        fd = ::open(path.c_str(), flags | O_NOFOLLOW);
        struct stat st;
        if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_dev != archive.device ||
                        st.st_ino != archive.inode)) {
            ::close(fd);
            fd = -1;
            why = "no longer the archive this proxy made";
        }
    } else if (path.empty() || path[0] != '/') {
        why = "not an absolute path";
    } else {
        fd = openInFolders(path, flags, &why);
    }
    if (fd >= 0) {
        struct stat st;
        if (::fstat(fd, &st) != 0) {
            why = CStdStr::Formatted("cannot read what it is: %s", strerror(errno));
        } else if (!S_ISREG(st.st_mode)) {
            why = kindOf(st.st_mode);
        } else if (!excluded(fd, st, &why)) {
            return fd;
        }
        ::close(fd);
        fd = -1;
    }
    if (!why.empty()) CBBLog::warn("%s refused %s: %s", service, path.c_str(), why.c_str());
    return -1;
}

int ServedFolders::openInFolders(const CStdStr& path, int flags, CStdStr* why) const {
    const CStdStr wanted = collapsed(path);
    bool matched = false;
    for (const CStdStr& folder : m_folders) {
        if (!inside(wanted, folder)) continue;
        matched = true;
        CStdStr relative = wanted.substr(folder == "/" ? 1 : folder.size());
        while (!relative.empty() && relative[0] == '/') relative.erase(0, 1);
        if (relative.empty()) relative = ".";
        const int base = ::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (base < 0) continue;  // a served folder that is not there holds nothing
        const int fd = openBeneath(base, relative.c_str(), flags);
        const int error = errno;
        ::close(base);
        if (fd >= 0) {
            why->clear();
            return fd;
        }
        // A nested folder may refuse what an enclosing one serves: try them all.
        if (why->empty()) *why = refusalOf(error);
    }
    if (!matched) *why = "outside the served folders (files.roots)";
    return -1;
}

bool ServedFolders::excluded(int fd, const struct stat& st, CStdStr* why) const {
    for (const Credential& c : m_credentials)
        if (c.device == st.st_dev && c.inode == st.st_ino) {
            *why = "a credential file named by the settings";
            return true;
        }
    const CStdStr location = descriptorLocation(fd);
    if (location.empty()) {
        *why = "where it is cannot be read";
        return true;
    }
    for (const CStdStr& folder : m_excludedFolders)
        if (inside(location, folder)) {
            *why = CStdStr::Formatted("%s is never served", folder.c_str());
            return true;
        }
    const size_t slash = location.rfind('/');
    const CStdStr name = location.substr(slash + 1);
    if (startsWith(name, KIV_APP_IDENTIFIER) || (startsWith(name, "cab-directory") && endsWith(name, ".conf")) ||
        endsWith(name, ".credentials") || endsWith(name, ".password")) {
        *why = "a settings, directory configuration or password file";
        return true;
    }
    // A minidump holds the memory of a process, credentials included.
    if (endsWith(name, ".dmp")) {
        *why = "a crash dump";
        return true;
    }
    return false;
}
