// The product's fixed folders on this machine. When the environment variable
// KIV_ROOT is set, its value is put in front of every fixed folder, so tests
// and unprivileged runs never touch the real ones.
#pragma once

#include "common/CStdStr.h"

namespace KivFolders {

// KIV_ROOT, or "" when unset.
CStdStr Root();
// KIV_ROOT + path (path is absolute, e.g. "/Library/KivFoundry").
CStdStr WithRoot(const char* path);
// "/Library/Logs/KivFoundry" under KIV_ROOT.
CStdStr LogsDirectory();
// "/Library/KivFoundry" under KIV_ROOT (not created here).
CStdStr DataFolder();
// The folder that holds the running executable (from /proc/self/exe), without
// a trailing "/". Empty when it cannot be read.
CStdStr ExecutableFolder();
// The folder of the product's executables: the "InstallDir" setting joined
// with "bin" when present, else the executable's folder. Ends without "/".
CStdStr BinFolder();

}  // namespace KivFolders
