// "CreateZip", "ZipLogs" and "DeleteTempFile".
// Not built yet: each answers a clear failure status and says so in the log.
#include "diag/CBBLog.h"
#include "satellite/KivRequestProxySatellite.h"

namespace {
int notAvailable(const char* name) {
    CBBLog::error("%s is not available in this build of KivRequestProxy", name ? name : "service");
    return 501;
}
}  // namespace

int KivRequestProxySatellite::CabServiceCreateZipFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceDeleteTempFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceZipLogs(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
void* KivRequestProxySatellite::createZipThread(void*) { return nullptr; }
void KivRequestProxySatellite::waitForPendingArchive(const CStdStr&, int) {}
