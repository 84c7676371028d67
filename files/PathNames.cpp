// Names derived from the path text alone: display name, extension, directory.
#include "files/CFileTools.h"

CStdStr CFileTools::getDisplayName() {
    if (m_displayName.empty()) {
        size_t slash = m_path.rfind('/');
        if (slash == CStdStr::npos || slash == 0) m_displayName = m_path;
        else m_displayName = m_path.substr(slash + 1);
    }
    return m_displayName;
}

CStdStr CFileTools::GetDisplayNameFromPath(const CStdStr& path) {
    size_t slash = path.rfind('/');
    if (slash == CStdStr::npos) return path;
    return path.substr(slash + 1);
}

CStdStr CFileTools::getExtension() const {
    size_t dot = m_path.rfind('.');
    if (dot == CStdStr::npos || dot == 0) return m_path;
    return m_path.substr(dot + 1);
}

CStdStr CFileTools::getDirectory() const {
    size_t slash = m_path.rfind('/');
    if (slash == CStdStr::npos || slash == 0) return m_path;
    CStdStr rest = m_path.substr(slash + 1);
    size_t again = rest.rfind('/');
    if (again != CStdStr::npos && again > 0) return rest.substr(again + 1);
    return rest;
}
