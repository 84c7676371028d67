// CMyPathNode: one file or folder of an archive layout. Its name is the last
// "/" component of its full path ("noname" when the path has no "/"); its
// entry name in the archive is its parent's entry name, "/", and its name.
// Path comparisons split at "/", skip empty components and ignore case.
// The parent is not owned (the tree owns every node).
#pragma once

#include "common/CStdStr.h"

class CMyPathNode {
public:
    explicit CMyPathNode(const CStdStr& fullPath);

    const CStdStr& getName() const { return m_name; }
    const CStdStr& getFullPath() const { return m_fullPath; }
    CMyPathNode* getParent() const { return m_parent; }
    void setParent(CMyPathNode* parent) { m_parent = parent; }

    // The entry name inside the archive; never begins with "/".
    CStdStr GetRelativePath() const;
    // How many leading path components the two full paths share.
    int GetDistance(const CMyPathNode* other) const;
    // "/" followed by the shared leading components joined by "/" ("" when none).
    CStdStr GetCommonFolder(const CMyPathNode* other) const;

private:
    CStdStr m_name;
    CStdStr m_fullPath;
    CMyPathNode* m_parent = nullptr;
};
