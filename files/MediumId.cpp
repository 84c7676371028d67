// Medium ids of file-browser entries: "F*" and the path with / blank . +
// replaced by | * > <. No escaping: those four replacement characters in a
// path do not survive the round trip.
#include "files/CFileTools.h"

CStdStr CFileTools::PathToFileBrowserMediumId(const CStdStr& path) {
    CStdStr id = "F*" + path;
    id.Replace('/', '|');
    id.Replace(' ', '*');
    id.Replace('.', '>');
    id.Replace('+', '<');
    // The prefix holds none of the four characters, so it is unchanged.
    return id;
}

CStdStr CFileTools::FileBrowserMediumIdToPath(const CStdStr& id) {
    if (id.size() < 2) return CStdStr();
    CStdStr path = id.substr(2);
    path.Replace('|', '/');
    path.Replace('*', ' ');
    path.Replace('>', '.');
    path.Replace('<', '+');
    return path;
}
