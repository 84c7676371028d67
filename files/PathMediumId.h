// Medium ids that name any path. The file-browser id ("F*" and the path with
// every / blank . + written | * > <) has no escape, so a path that holds | * >
// or < comes back as another path. Such a path gets the escaped id instead:
// "F%" and the path with '%', control bytes and bytes above 0x7E written %XX.
// The proxy's medium lookup ("QueryFileSize", "CreateZip") resolves both forms.
#pragma once

#include "common/CStdStr.h"

namespace PathMediumId {

// The file-browser id when it carries `path` unchanged, else the escaped id.
CStdStr FromPath(const CStdStr& path);
// True when `id` is a well-formed escaped id; *path gets the path it names.
bool EscapedToPath(const CStdStr& id, CStdStr* path);

}  // namespace PathMediumId
