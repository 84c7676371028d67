#include "satellite/ArchiveTempPath.h"

#include <boost/filesystem.hpp>

#include "files/CFileTools.h"

namespace fs = boost::filesystem;

namespace {

// `path` lies below `folder` (both resolved): every component of the folder
// starts the path, and the path has at least one more.
bool below(const fs::path& path, const fs::path& folder) {
    auto p = path.begin();
    for (auto f = folder.begin(); f != folder.end(); ++f) {
        // A trailing separator shows up as an empty or "." component.
        if (f->empty() || *f == ".") continue;
        if (p == path.end() || *p != *f) return false;
        ++p;
    }
    for (; p != path.end(); ++p)
        if (!p->empty() && *p != ".") return true;
    return false;
}

bool resolve(const CStdStr& text, fs::path* out) {
    boost::system::error_code ec;
    fs::path p = fs::weakly_canonical(fs::path(text.c_str()), ec);
    if (ec || !p.is_absolute()) return false;
    // A ".." that could not be resolved against an existing folder is refused.
    p = p.lexically_normal();
    for (const fs::path& part : p)
        if (part == "..") return false;
    *out = p;
    return true;
}

}  // namespace

bool isDeletableTempPath(const CStdStr& path, CStdStr* resolved) {
    if (resolved) resolved->clear();
    try {
        fs::path target;
        if (path.empty() || !resolve(path, &target)) return false;
        if (resolved) *resolved = CStdStr(target.string());
        fs::path folder;
        if (resolve(CFileTools::getTmpFolder(), &folder) && below(target, folder)) return true;
        return resolve(CStdStr("/tmp"), &folder) && below(target, folder);
    } catch (const std::exception&) {
        return false;
    }
}
