// getFieldValue: the text of one named field of an entry.
#include <ctime>

#include "files/CFileTools.h"

namespace {

struct tm localParts(time_t t) {
    struct tm parts = {};
    localtime_r(&t, &parts);
    return parts;
}

CStdStr formatDate(time_t t) {
    struct tm p = localParts(t);
    return CStdStr::Formatted("%04d-%02d-%02d %02d:%02d:%02d", p.tm_year + 1900, p.tm_mon + 1, p.tm_mday, p.tm_hour,
                              p.tm_min, p.tm_sec);
}

}  // namespace

CStdStr CFileTools::getFieldValue(const CStdStr& name) {
    if (name == "title") return getDisplayName();
    if (name == "mediumId" || name == "kivMediumId") return getMediumId();
    if (name == "path") return m_path;
    if (name == "path.extension") return getExtension();
    if (name == "path.directory") return getDirectory();
    if (name == "path.filename") return getDisplayName();
    if (name == "type") return isFolder() ? "folder" : "file";
    if (name == "mediaType") {
        CStdStr key = "." + getExtension().ToLower();
        CStdStr type;
        {
            PLockGuard lock(s_extensionMediaTypeMapLock);
            type = s_extensionMediaTypeMap[key];  // unknown extensions are remembered with no type
        }
        return type.empty() ? CStdStr("file") : type + ".file";
    }
    if (name == "size") return CStdStr::Formatted("%lld", static_cast<long long>(getFileSize()));
    if (name == "dateModified" || name == "lastModified") return formatDate(getLastModified());
    if (name == "lastAccessTime") return formatDate(getLastAccessed());
    if (name == "creationDate") return formatDate(getDateCreated());
    if (name == "creationDate.year") return CStdStr::Formatted("%04d", localParts(getDateCreated()).tm_year + 1900);
    if (name == "creationDate.month") return CStdStr::Formatted("%04d", localParts(getDateCreated()).tm_mon + 1);
    return CStdStr();
}
