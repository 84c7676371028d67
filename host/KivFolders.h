// The product's fixed folders on this machine. When the environment variable
// KIV_ROOT is set, its value is put in front of every fixed folder, so tests
// and unprivileged runs never touch the real ones.
//
// Modes: what the product creates there is private to its user and group by
// default: folders 0750, log files 0640. The setting "app.sharedFileModes"
// (boolean true, or a non-zero integer, under "Software\Kiv Foundry\Kiv\Config")
// restores the modes every user's processes could write with: folders 0777,
// log files 0666. Minidumps and settings files stay 0600 either way.
#pragma once

#include <sys/types.h>

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
// Whether "app.sharedFileModes" is on (read from the settings on every call).
bool SharedFileModes();
// The mode of a folder the product creates: 0750, or 0777 when shared.
mode_t FolderMode();
// The mode of a log file: 0640, or 0666 when shared.
mode_t LogFileMode();
// Creates `path` and its missing parents. `path` itself, when created, gets
// exactly FolderMode() and each created parent 0755, set with chmod after
// mkdir so the umask does not matter; existing folders are left as they are.
// False, with errno set, when `path` is not a folder afterwards.
bool CreateFolders(const CStdStr& path);

// The folder of the product's executables: the "InstallDir" setting joined
// with "bin" when present, else the executable's folder. Ends without "/".
CStdStr BinFolder();

}  // namespace KivFolders
