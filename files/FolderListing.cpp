// EnumerateFolder: which entries of a folder become CFileTools objects.
// Entries come in the order the directory read gives them.
#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <locale>
#include <set>
#include <utility>

#include <boost/filesystem/path.hpp>

#include "files/CFileTools.h"

namespace fs = boost::filesystem;

namespace {

typedef std::set<std::pair<dev_t, ino_t>> FolderChain;  // folders being listed, to stop link loops

bool equalsLowered(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) return false;
    const std::ctype<char>& ct = std::use_facet<std::ctype<char>>(std::locale::classic());
    for (size_t i = 0; i < a.size(); ++i)
        if (ct.tolower(a[i]) != ct.tolower(b[i])) return false;
    return true;
}

bool extensionWanted(const fs::path& file, const std::vector<CStdStr>& extensions) {
    if (extensions.empty()) return true;
    std::string ext = file.extension().string();
    if (!ext.empty() && ext[0] == '.') ext.erase(0, 1);
    if (ext.empty()) return false;
    for (const CStdStr& wanted : extensions)
        if (equalsLowered(ext, wanted)) return true;
    return false;
}

enum class EntryKind { File, Folder, Other };

// The kind of a folder entry, following links. The type from the directory
// read is used when it is definite; only links and unknown types are stat'ed.
EntryKind kindOf(DIR* dir, const struct dirent* entry) {
    switch (entry->d_type) {
    case DT_REG: return EntryKind::File;
    case DT_DIR: return EntryKind::Folder;
    case DT_LNK:
    case DT_UNKNOWN: break;
    default: return EntryKind::Other;
    }
    struct stat st;
    if (fstatat(dirfd(dir), entry->d_name, &st, 0) != 0) return EntryKind::Other;  // e.g. a dangling link
    if (S_ISREG(st.st_mode)) return EntryKind::File;
    if (S_ISDIR(st.st_mode)) return EntryKind::Folder;
    return EntryKind::Other;
}

bool isDots(const char* name) { return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')); }

// Closes the folder stream on every way out.
struct FolderStream {
    explicit FolderStream(const std::string& path) : dir(opendir(path.c_str())) {}
    ~FolderStream() {
        if (dir) closedir(dir);
    }
    DIR* dir;
};

// True when the folder holds at least one folder. A folder that cannot be read
// counts as holding none; it must not hide its readable siblings.
bool holdsFolder(const std::string& folder) {
    FolderStream stream(folder);
    if (!stream.dir) return false;
    while (const struct dirent* entry = readdir(stream.dir))
        if (!isDots(entry->d_name) && kindOf(stream.dir, entry) == EntryKind::Folder) return true;
    return false;
}

bool listFolder(const std::string& folder, std::vector<CFileTools*>& out, bool includeHidden, bool includeFolders,
                bool includeFiles, bool reserved, const std::vector<CStdStr>& extensions, bool recursive,
                FolderChain& chain) {
    bool complete = true;
    try {
        FolderStream stream(folder);
        if (!stream.dir) return false;
        const std::string prefix = folder.empty() || folder.back() == '/' ? folder : folder + "/";
        for (;;) {
            errno = 0;
            const struct dirent* entry = readdir(stream.dir);
            if (!entry) {
                if (errno != 0) return false;
                break;
            }
            const char* leaf = entry->d_name;
            if (isDots(leaf)) continue;
            if (!includeHidden && leaf[0] == '.') continue;
            EntryKind kind = kindOf(stream.dir, entry);
            if (kind == EntryKind::File) {
                if (includeFiles && extensionWanted(fs::path(leaf), extensions))
                    out.push_back(new CFileTools(prefix + leaf, leaf));
            } else if (kind == EntryKind::Folder) {
                std::string path = prefix + leaf;
                if (!recursive) {
                    if (!includeFolders) continue;
                    CFileTools* item = new CFileTools(path, leaf);
                    item->setHasSubfolders(holdsFolder(path));
                    out.push_back(item);
                    continue;
                }
                struct stat sb;
                if (::stat(path.c_str(), &sb) != 0) continue;
                std::pair<dev_t, ino_t> id(sb.st_dev, sb.st_ino);
                if (!chain.insert(id).second) continue;  // a link back into a folder being listed
                if (!listFolder(path, out, includeHidden, includeFolders, includeFiles, reserved, extensions, true,
                                chain))
                    complete = false;
                chain.erase(id);
            }
        }
    } catch (const std::exception&) {
        return false;
    }
    return complete;
}

}  // namespace

bool CFileTools::EnumerateFolder(CStdStr path, std::vector<CFileTools*>& out, bool includeHidden, bool includeFolders,
                                 bool includeFiles, bool reserved, std::vector<CStdStr> extensions, bool recursive) {
    FolderChain chain;
    if (recursive) {
        struct stat sb;
        if (::stat(path.c_str(), &sb) == 0) chain.insert(std::make_pair(sb.st_dev, sb.st_ino));
    }
    return listFolder(path, out, includeHidden, includeFolders, includeFiles, reserved, extensions, recursive, chain);
}
