// Which paths "DeleteTempFile" may delete.
#pragma once

#include "common/CStdStr.h"

// True when `path`, once ".." and symbolic links are resolved, names an entry
// strictly inside the temporary folder of CFileTools::getTmpFolder() or inside
// "/tmp" (where the archives are made). `resolved` gets the resolved path
// (also when false; empty when the path cannot be resolved). Never throws.
bool isDeletableTempPath(const CStdStr& path, CStdStr* resolved);
