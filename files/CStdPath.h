// CStdPath: a path string that can have parts appended to it. AppendPath joins
// like the file-system path library does: a "/" is put between the two only
// where neither side already has one; an empty part leaves the path unchanged.
#pragma once

#include "common/CStdStr.h"

class CStdPath : public CStdStr {
public:
    CStdPath() = default;
    CStdPath(const char* s) : CStdStr(s) {}
    CStdPath(const std::string& s) : CStdStr(s) {}

    // Appends `part` to this path and stores the result back; returns *this.
    CStdPath& AppendPath(const CStdStr& part);
};
