// Deleting entries of the temporary folders, for "DeleteTempFile" and for the
// clean-up of archives left behind by an earlier run.
//
// The folder that holds the entry is opened once; where it really is (links
// resolved) is read from that descriptor, and the last name is removed
// relative to the same descriptor. A folder swapped for a link between the
// check and the deletion therefore cannot send the deletion elsewhere.
// The temporary folders are CFileTools::getTmpFolder() and "/tmp" (where
// the archives are made), each with its links resolved; "/" never counts.
#pragma once

#include <sys/types.h>

#include "common/CStdStr.h"

enum class TempDeletion {
    Deleted,   // the entry was removed
    Missing,   // nothing of that name in a temporary folder
    Outside,   // the path's folder is not inside a temporary folder (or cannot be opened)
    Folder,    // the entry is a folder: refused
    Mismatch,  // with `expected`: the entry is not that file
    Failed,    // the system refused the deletion
};

// Which file an entry is: a regular file's device, inode and owner.
struct TempEntryId {
    dev_t device = 0;
    ino_t inode = 0;
    uid_t owner = 0;
};

// Deletes what `path` names when its folder lies inside a temporary folder.
// A link in the last component is deleted as a link, never followed; a folder
// is refused. With `expected`, only a regular file with that identity is
// deleted. `detail` gets a text for the log (the real folder, or the error).
// Never throws.
TempDeletion deleteTempEntry(const CStdStr& path, const TempEntryId* expected, CStdStr* detail);

// The identity of the regular file at `path` (a last link is not followed).
bool tempEntryId(const CStdStr& path, TempEntryId* id);

// Where an open descriptor really is (links resolved, from /proc/self/fd);
// empty when unknown. A deleted file reads as its old path + " (deleted)".
CStdStr descriptorLocation(int fd);
