// Adding whole folders to an archive's file tree.
#pragma once

#include "archive/CMyPathTree.h"
#include "common/CStdStr.h"

// Adds every file below `folder` to `tree`, descending into subfolders
// (hidden entries included; "." and ".." are never entries). Returns the
// number of files added; a folder that cannot be read adds what was found.
int AddFolderToTree(const CStdStr& folder, CMyPathTree* tree);
