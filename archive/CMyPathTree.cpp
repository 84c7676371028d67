#include "archive/CMyPathTree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "archive/ZipEntryTime.h"
#include "cab/CabException.h"

namespace {

const unsigned long long kChunk = 0x20000;  // bytes copied per write into the archive
const int kMaxPlacementDepth = 64;          // folder placement recursion never goes deeper in practice

std::vector<CStdStr> components(const CStdStr& path) {
    std::vector<CStdStr> parts;
    for (const CStdStr& p : path.Tokens("/")) parts.push_back(p);
    return parts;
}

}  // namespace

CMyPathTree::~CMyPathTree() {
    for (CMyPathNode* n : m_files) delete n;
    for (CMyPathNode* n : m_folders) delete n;
}

CMyPathNode* CMyPathTree::createNode(const CStdStr& path) { return new CMyPathNode(path); }

CMyPathNode* CMyPathTree::createFileNode(const CStdStr& path) {
    m_files.push_back(createNode(path));
    return m_files.back();
}

CMyPathNode* CMyPathTree::createFolderNode(const CStdStr& path) {
    m_folders.push_back(createNode(path));
    return m_folders.back();
}

CMyPathNode* CMyPathTree::findFolderNode(const CStdStr& path) const {
    for (CMyPathNode* f : m_folders)
        if (f->getFullPath().EqualsNoCase(path)) return f;
    return nullptr;
}

CMyPathNode* CMyPathTree::findClosestNode(const CMyPathNode* node) const {
    CMyPathNode* closest = nullptr;
    int best = 0;
    for (CMyPathNode* f : m_folders) {
        if (f == node) continue;
        int d = f->GetDistance(node);
        if (d > best) {  // strictly closer: ties stay with the earlier folder
            best = d;
            closest = f;
        }
    }
    return closest;
}

CStdStr CMyPathTree::getParentFolder(const CStdStr& path) {
    size_t backslash = path.rfind('\\');
    if (backslash == CStdStr::npos || backslash == 0) throw CabException("no parent folder", 0);
    return path.substr(0, backslash);
}

CMyPathNode* CMyPathTree::findParentNode(const CMyPathNode* node) const {
    return findFolderNode(getParentFolder(node->getFullPath()));
}

void CMyPathTree::link(CMyPathNode* node, CMyPathNode* parent) {
    if (!node || !parent || node == parent) return;
    for (CMyPathNode* up = parent; up; up = up->getParent())
        if (up == node) return;  // would close a loop
    node->setParent(parent);
}

void CMyPathTree::createParentFolder(CMyPathNode* node) {
    try {
        CStdStr parentPath = getParentFolder(node->getFullPath());
        CMyPathNode* parent = findFolderNode(parentPath);
        if (!parent) parent = createFolderNode(parentPath);
        link(node, parent);
    } catch (...) {
        // No parent folder: the node stays at the top of the archive.
    }
}

void CMyPathTree::buildIntermediateFolder(CMyPathNode* top, CMyPathNode* node) {
    std::vector<CStdStr> topParts = components(top->getFullPath());
    std::vector<CStdStr> nodeParts = components(node->getFullPath());
    if (nodeParts.size() <= topParts.size()) return;
    CMyPathNode* above = top;
    CStdStr path;
    for (size_t i = 0; i < topParts.size(); ++i) path += "/" + nodeParts[i];
    for (size_t i = topParts.size(); i + 1 < nodeParts.size(); ++i) {
        path += "/" + nodeParts[i];
        CMyPathNode* folder = findFolderNode(path);
        if (!folder) folder = createFolderNode(path);
        link(folder, above);
        above = folder;
    }
    link(node, above);
}

void CMyPathTree::addNode(CMyPathNode* node, int depth) {
    CMyPathNode* closest = findClosestNode(node);
    if (closest && closest->GetDistance(node) >= 2 && depth < kMaxPlacementDepth) {
        // A path without a backslash has no parent folder: its "no parent
        // folder" exception ends the placement and reaches the caller.
        CMyPathNode* parent = findParentNode(node);
        if (parent && parent != node) {
            link(node, parent);
            return;
        }
        CStdStr common = closest->GetCommonFolder(node);
        CMyPathNode* commonNode = findFolderNode(common);
        if (!commonNode) {
            commonNode = createFolderNode(common);
            addNode(commonNode, depth + 1);
        }
        buildIntermediateFolder(commonNode, closest);
        buildIntermediateFolder(commonNode, node);
        return;
    }
    createParentFolder(node);
}

void CMyPathTree::AddFile(const CStdStr& path) { addNode(createFileNode(path)); }

uint32_t CMyPathTree::getZipHeaderSize() const {
    uint32_t total = 0;
    for (const CMyPathNode* n : m_files) total += 102 + 2 * static_cast<uint32_t>(n->GetRelativePath().size());
    return total;
}

namespace {

// The reason of a failed minizip call: the system's error when it set one.
CStdStr failure(const char* step, int savedErrno) {
    if (savedErrno != 0) return CStdStr::Formatted("%s: %s", step, strerror(savedErrno));
    return CStdStr::Formatted("%s failed", step);
}

}  // namespace

int CMyPathTree::openRegularFile(const CStdStr& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat st;
    if (fd >= 0 && (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool CMyPathTree::createZip(const char* zipPath, bool store, CStdStr* error, const std::function<bool()>& abandoned,
                            const InputOpener& openInput) {
    CStdStr reason;
    auto fail = [&](const char* step) {
        if (reason.empty()) reason = failure(step, errno);
    };
    errno = 0;
    zipFile zf = zipOpen64(zipPath, APPEND_STATUS_CREATE);
    if (!zf) {
        fail("cannot create the archive");
        if (error) *error = reason;
        return false;
    }
    const int method = store ? 0 : Z_DEFLATED;
    const int level = store ? 0 : 9;
    std::vector<char> buffer(kChunk);
    for (const CMyPathNode* node : m_files) {
        const int fd = openInput ? openInput(node->getFullPath()) : openRegularFile(node->getFullPath());
        struct stat st;
        const bool readable = fd >= 0 && ::fstat(fd, &st) == 0;
        const unsigned long long size = readable ? static_cast<unsigned long long>(st.st_size) : 0;
        const ZipEntryTime date(readable ? st.st_mtime : time(nullptr));
        const CStdStr name = node->GetRelativePath();
        errno = 0;
        if (zipOpenNewFileInZip64(zf, name.c_str(), &date.info, date.extra, ZipEntryTime::kExtraSize, date.extra,
                                  ZipEntryTime::kExtraSize, nullptr, method, level,
                                  size >= 0xffffffffULL ? 1 : 0) != ZIP_OK) {
            fail("write");
            if (fd >= 0) ::close(fd);
            break;
        }
        unsigned long long offset = 0;
        while (offset < size) {
            if (abandoned && abandoned()) {
                reason = "abandoned";
                break;
            }
            const size_t want = static_cast<size_t>(size - offset < kChunk ? size - offset : kChunk);
            ssize_t count = ::pread(fd, buffer.data(), want, static_cast<off_t>(offset));
            if (count < 0 && errno == EINTR) continue;
            if (count <= 0) break;  // unreadable, or shorter than it was: the entry ends here
            errno = 0;
            if (zipWriteInFileInZip(zf, buffer.data(), static_cast<unsigned>(count)) != ZIP_OK) {
                fail("write");
                break;
            }
            offset += static_cast<unsigned long long>(count);
        }
        if (fd >= 0) ::close(fd);
        errno = 0;
        if (zipCloseFileInZip(zf) != ZIP_OK) fail("write");
        if (!reason.empty()) break;
    }
    errno = 0;
    if (zipClose(zf, nullptr) != ZIP_OK) fail("write");
    if (error) *error = reason;
    return reason.empty();
}
