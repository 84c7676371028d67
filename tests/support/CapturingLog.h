// A logger that keeps each line, with its level, instead of writing it (install with CBBLog::setLogger).
#pragma once

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

#include "diag/CBBLog.h"

struct CapturingLog : CBBLog {
    CapturingLog() : CBBLog("capture.log", false, 1 << 20) { setLogLevel(LOGLEVEL_DEBUG); }
    using CBBLog::_AddLog;
    void _AddLog(const char* format, va_list args, LOGLEVEL level) override {
        CStdStr line;
        line.FormatV(format, args);
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        levels.push_back(level);
    }
    // The lines at `level` or more severe, each ending in a line break.
    std::string linesUpTo(LOGLEVEL level) {
        std::lock_guard<std::mutex> lock(mutex);
        std::string out;
        for (size_t i = 0; i < lines.size(); ++i)
            if (levels[i] <= level) out += lines[i] + "\n";
        return out;
    }
    std::mutex mutex;  // guards the two below (archive threads log too)
    std::vector<CStdStr> lines;
    std::vector<LOGLEVEL> levels;
};
