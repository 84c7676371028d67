#include "host/KivFolders.h"

#include <unistd.h>

#include <cstdlib>

#include "host/CRegistry.h"

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
