// Construction of the file manager and the copy of its extension map into the
// process-wide map that the listing reads.
#include "files/CKivFileManager.h"

#include "files/CFileTools.h"

CKivFileManager::CKivFileManager(CabSatellite* satellite) : m_satellite(satellite), m_prefix("F") {}

CKivFileManager::~CKivFileManager() = default;

void CKivFileManager::ensureExtensionMap(const CStdStr& context) {
    {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        if (!CFileTools::s_extensionMediaTypeMap.empty()) return;
    }
    buildExtensionMap(context);
    std::map<CStdStr, CStdStr> copy;
    {
        PLockGuard lock(m_mapLock);
        copy = m_extensionMap;
    }
    PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
    // Another request may have filled it meanwhile; the content is the same.
    CFileTools::s_extensionMediaTypeMap = copy;
}

std::map<CStdStr, CStdStr> CKivFileManager::extensionMap() {
    PLockGuard lock(m_mapLock);
    return m_extensionMap;
}
