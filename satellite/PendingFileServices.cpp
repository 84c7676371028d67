// File transfer and archive services that this build does not carry yet:
// each answers a clear failure status and says so in the log.
#include "diag/CBBLog.h"
#include "satellite/KivRequestProxySatellite.h"

namespace {
const int kNotAvailable = 501;
int notAvailable(const char* name) {
    CBBLog::error("%s is not available in this build of KivRequestProxy", name ? name : "service");
    return kNotAvailable;
}
}  // namespace

int KivRequestProxySatellite::CabServiceQueryFileSize(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceGetFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceCreateZipFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceDeleteTempFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceZipLogs(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
