#include "satellite/ArchiveFolders.h"

#include <vector>

#include "diag/CBBLog.h"
#include "files/CFileTools.h"

int AddFolderToTree(const CStdStr& folder, CMyPathTree* tree) {
    if (!tree) return 0;
    std::vector<CFileTools*> entries;
    if (!CFileTools::EnumerateFolder(folder, entries, true, false, true, false, std::vector<CStdStr>(), true))
        CBBLog::warn("Failed to enumerate %s completely", folder.c_str());
    int added = 0;
    for (CFileTools* entry : entries) {
        if (!entry->isFolder()) {
            tree->AddFile(entry->getPath());
            ++added;
        }
        delete entry;
    }
    return added;
}
