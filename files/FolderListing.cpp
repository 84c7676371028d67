// EnumerateFolder: which entries of a folder become CFileTools objects.
#include <sys/stat.h>

#include <locale>
#include <set>
#include <utility>

#include <boost/filesystem/operations.hpp>

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

// True when the folder holds at least one folder. A folder that cannot be read
// counts as holding none; it must not hide its readable siblings.
bool holdsFolder(const fs::path& folder) {
    boost::system::error_code ec;
    fs::directory_iterator it(folder, ec), last;
    while (!ec && it != last) {
        if (fs::is_directory(it->status(ec)) && !ec) return true;
        it.increment(ec);
    }
    return false;
}

bool listFolder(const fs::path& folder, std::vector<CFileTools*>& out, bool includeHidden, bool includeFolders,
                bool includeFiles, bool reserved, const std::vector<CStdStr>& extensions, bool recursive,
                FolderChain& chain) {
    bool complete = true;
    try {
        for (fs::directory_iterator it(folder), last; it != last; ++it) {
            const fs::path& entry = it->path();
            std::string leaf = entry.filename().string();
            if (!includeHidden && !leaf.empty() && leaf[0] == '.') continue;
            fs::file_status st = it->status();
            if (fs::is_regular_file(st)) {
                if (includeFiles && extensionWanted(entry, extensions))
                    out.push_back(new CFileTools(entry.string(), leaf));
            } else if (fs::is_directory(st)) {
                if (!recursive) {
                    if (!includeFolders) continue;
                    CFileTools* item = new CFileTools(entry.string(), leaf);
                    item->setHasSubfolders(holdsFolder(entry));
                    out.push_back(item);
                    continue;
                }
                struct stat sb;
                if (::stat(entry.c_str(), &sb) != 0) continue;
                std::pair<dev_t, ino_t> id(sb.st_dev, sb.st_ino);
                if (!chain.insert(id).second) continue;  // a link back into a folder being listed
                if (!listFolder(entry, out, includeHidden, includeFolders, includeFiles, reserved, extensions, true,
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

bool CFileTools::EnumerateFolder(CStdStr path, std::vector<CFileTools*>& out, bool includeHidden,
                                 bool includeFolders, bool includeFiles, bool reserved,
                                 std::vector<CStdStr> extensions, bool recursive) {
    FolderChain chain;
    if (recursive) {
        struct stat sb;
        if (::stat(path.c_str(), &sb) == 0) chain.insert(std::make_pair(sb.st_dev, sb.st_ino));
    }
    return listFolder(fs::path(path), out, includeHidden, includeFolders, includeFiles, reserved, extensions,
                      recursive, chain);
}
