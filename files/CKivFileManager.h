// CKivFileManager: the file-browser component of the satellite. It answers
// folder listings (fields, sorting, paging), classifies files by extension
// with the lists of the media service "KivMediaV2", and describes file-browser
// media by id. Its handlers have the service-handler shape but are not
// published; the satellite and tests call them directly. The extension map is
// filled on first use, under its own mutex.
#pragma once

#include <map>
#include <vector>

#include "cab/CabSatellite.h"
#include "common/CStdStr.h"
#include "host/PThread.h"

class CKivFileManager {
public:
    // One medium; fields left empty that file-browser media do not have.
    struct MediumInfo {
        CStdStr first;
        CStdStr mimeType;
        CStdStr mediaType;
        CStdStr path;
        CStdStr name;
        CStdStr artist;
        CStdStr album;
        int duration = 0;
    };
    typedef int SHARE_STATUS;  // 0 shared, 1 not found, other values unknown

    // `satellite` sends the requests to the media service; not owned.
    explicit CKivFileManager(CabSatellite* satellite);
    ~CKivFileManager();
    CKivFileManager(const CKivFileManager&) = delete;
    CKivFileManager& operator=(const CKivFileManager&) = delete;

    int CabServiceGetFolderContent(const char* name, const tagVARIANT& in, tagVARIANT* out);
    int CabServiceGetMediumFromId(const char* name, tagVARIANT in, tagVARIANT* out);
    int CabServiceGetMediumInfoFromId(const char* name, tagVARIANT in, tagVARIANT* out);
    int CabServiceGetMediumListInfoFromId(const char* name, tagVARIANT in, tagVARIANT* out);
    int CabServiceIsMediumShared(const char* name, tagVARIANT in, tagVARIANT* out);

    // 0, or the request's negative result when it was not answered; an
    // answer that refused (404) or has the wrong shape throws CabException.
    int getKivMediaExtension(const CStdStr& context, const CStdStr& mediaType, std::vector<CStdStr>& out);
    void buildExtensionMap(const CStdStr& context);
    void GetDocumentType(const CStdStr& path, CStdStr& mimeType, CStdStr& mediaType);
    static void StrSplit(const CStdStr& text, const CStdStr& separator, std::vector<CStdStr>& out);

    int getMediumInfo(const CStdStr& id, MediumInfo& info);
    void getMediumIdInfo(const CStdStr& id, tagVARIANT& out);
    int isMediumShared(SHARE_STATUS& status);

    // Builds the extension map when CFileTools' map is empty and copies it there.
    void ensureExtensionMap(const CStdStr& context);
    // A copy of the manager's own map.
    std::map<CStdStr, CStdStr> extensionMap();

private:
    CabSatellite* m_satellite;                                            // set once; its Request is thread-safe
    PMutex m_mapLock;                                                     // guards m_extensionMap
    std::map<CStdStr, CStdStr> m_extensionMap KIV_GUARDED_BY(m_mapLock);  // ".ext" -> media type
    const CStdStr m_prefix;  // "F": opens file-browser medium ids (constant)
};
