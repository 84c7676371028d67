#include "host/KivFolders.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "host/CRegistry.h"
#include "host/Preferences.h"

namespace KivFolders {

CStdStr Root() {
    const char* r = getenv("KIV_ROOT");
    CStdStr root(r ? r : "");
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    if (root == "/") root.clear();
    return root;
}

CStdStr WithRoot(const char* path) { return Root() + path; }

CStdStr LogsDirectory() { return WithRoot("/Library/Logs/KivFoundry"); }

CStdStr DataFolder() { return WithRoot("/Library/KivFoundry"); }

bool SharedFileModes() {
    CStdStr domain = CRegistry::getInstance()->createKey("Software\\Kiv Foundry\\Kiv\\Config");
    Preferences::Value v;
    if (!Preferences::Get(domain, "app.sharedFileModes", v)) return false;
    return (v.type == Preferences::Value::Bool && v.b) || (v.type == Preferences::Value::Int && v.i != 0);
}

mode_t FolderMode() { return SharedFileModes() ? 0777 : 0750; }

mode_t LogFileMode() { return SharedFileModes() ? 0666 : 0640; }

bool CreateFolders(const CStdStr& folder) {
    CStdStr path = folder;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) {
        errno = ENOENT;
        return false;
    }
    const mode_t leafMode = FolderMode();
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos < path.size() && path[pos] != '/') continue;
        CStdStr part = path.substr(0, pos);
        mode_t mode = pos == path.size() ? leafMode : 0755;
        if (mkdir(part.c_str(), mode) == 0) {
            // mkdir took the umask off. Set the mode through a descriptor of
            // the folder itself, so a link swapped in meanwhile is not followed.
            int fd = open(part.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (fd >= 0) {
                fchmod(fd, mode);
                close(fd);
            }
        } else if (errno != EEXIST) {
            return false;
        }
    }
    struct stat st;
    if (stat(path.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

CStdStr ExecutableFolder() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return CStdStr();
    CStdStr exe(buf, static_cast<size_t>(n));
    int slash = exe.ReverseFind('/');
    if (slash <= 0) return CStdStr("/");
    return exe.Left(slash);
}

CStdStr BinFolder() {
    CStdStr installDir;
    if (CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir", installDir) &&
        !installDir.empty()) {
        while (installDir.size() > 1 && installDir.back() == '/') installDir.pop_back();
        return installDir + "/bin";
    }
    return ExecutableFolder();
}

}  // namespace KivFolders
