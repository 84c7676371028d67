// Construction, copying and the file-system queries of one entry.
#include <unistd.h>

#include <boost/filesystem/operations.hpp>

#include "files/CFileTools.h"

namespace fs = boost::filesystem;

std::map<CStdStr, CStdStr> CFileTools::s_extensionMediaTypeMap;
PMutex CFileTools::s_extensionMediaTypeMapLock;

CFileTools::CFileTools() = default;

CFileTools::CFileTools(const CStdStr& path) : m_path(path) {}

CFileTools::CFileTools(const CStdStr& path, const CStdStr& displayName) : m_path(path), m_displayName(displayName) {}

CFileTools::CFileTools(const CFileTools& other)
    : m_path(other.m_path),
      m_displayName(other.m_displayName),
      m_mediumId(other.m_mediumId),
      m_hasSubfolders(other.m_hasSubfolders),
      m_flag2(other.m_flag2),
      m_flag3(other.m_flag3) {}

CFileTools& CFileTools::operator=(const CFileTools& other) {
    if (this == &other) return *this;
    closeFile();
    m_path = other.m_path;
    m_displayName = other.m_displayName;
    m_mediumId = other.m_mediumId;
    m_hasSubfolders = other.m_hasSubfolders;
    m_flag2 = other.m_flag2;
    m_flag3 = other.m_flag3;
    return *this;
}

CFileTools::~CFileTools() { closeFile(); }

bool CFileTools::exists() const {
    try {
        return fs::exists(fs::path(m_path));
    } catch (...) {
        return false;
    }
}

bool CFileTools::isFolder() const {
    try {
        return fs::is_directory(fs::path(m_path));
    } catch (...) {
        return false;
    }
}

bool CFileTools::isShortcut() const {
    try {
        return fs::is_symlink(fs::path(m_path));
    } catch (...) {
        return false;
    }
}

uint64_t CFileTools::getFileSize() const {
    try {
        return static_cast<uint64_t>(fs::file_size(fs::path(m_path)));
    } catch (...) {
        return 0;
    }
}

time_t CFileTools::getLastModified() const {
    try {
        return fs::last_write_time(fs::path(m_path));
    } catch (...) {
        return time(nullptr);
    }
}

// The platform gives no creation or access time here: both are the last write time.
time_t CFileTools::getDateCreated() const { return getLastModified(); }
time_t CFileTools::getLastAccessed() const { return getLastModified(); }

CStdStr CFileTools::getMediumId() {
    if (m_mediumId.empty()) m_mediumId = PathToFileBrowserMediumId(m_path);
    return m_mediumId;
}

CStdStr CFileTools::toString() const {
    return CStdStr::Formatted("CFileTools[%s, %s, %llu bytes]", m_path.c_str(), isFolder() ? "folder" : "file",
                              static_cast<unsigned long long>(getFileSize()));
}
