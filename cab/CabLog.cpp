#include "cab/internal/CabLog.h"

#include <cstdarg>
#include <cstdio>
#include <string>

#include "host/PThread.h"
#include "host/SettingsSecrets.h"

namespace cablog {

namespace {
PMutex g_lock;  // guards g_logger
boost::shared_ptr<CBBLog> g_logger KIV_GUARDED_BY(g_lock);

boost::shared_ptr<CBBLog> current() {
    PLockGuard guard(g_lock);
    if (g_logger) return g_logger;
    return CBBLog::getLogger();
}
}  // namespace

void setLogger(const boost::shared_ptr<CBBLog>& logger) {
    PLockGuard guard(g_lock);
    g_logger = logger;
}

void log(LOGLEVEL level, const char* format, ...) {
    char buf[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    boost::shared_ptr<CBBLog> logger = current();
    if (logger) {
        logger->AddLog(level, "%s", buf);
    } else if (level <= LOGLEVEL_WARN) {
        fprintf(stderr, "cab: %s\n", SettingsSecrets::MaskUrlCredentials(buf).c_str());
    }
}

}  // namespace cablog
