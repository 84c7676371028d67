#include "tools/kivctl/Checkout.h"

#include <sys/stat.h>
#include <unistd.h>

namespace kivctl {

std::string makeRunFolder() {
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return "";
    std::string dir = cwd;
    for (;;) {
        struct stat st;
        if (stat((dir + "/scripts/run-local").c_str(), &st) == 0 && stat((dir + "/var/root").c_str(), &st) == 0 &&
            S_ISDIR(st.st_mode))
            return (dir == "/" ? "" : dir) + "/var";
        size_t slash = dir.find_last_of('/');
        if (slash == std::string::npos || dir == "/") return "";
        dir = slash == 0 ? "/" : dir.substr(0, slash);
    }
}

}  // namespace kivctl
