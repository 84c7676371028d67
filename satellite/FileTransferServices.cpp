// "GetFile" and "QueryFileSize", and the medium lookups behind them.
// Not built yet: each answers a clear failure status and says so in the log.
#include "diag/CBBLog.h"
#include "satellite/KivRequestProxySatellite.h"

namespace {
int notAvailable(const char* name) {
    CBBLog::error("%s is not available in this build of KivRequestProxy", name ? name : "service");
    return 501;
}
}  // namespace

int KivRequestProxySatellite::CabServiceQueryFileSize(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::CabServiceGetFile(const char* name, const tagVARIANT&, tagVARIANT*) {
    return notAvailable(name);
}
int KivRequestProxySatellite::GetMediumListPath(const CStdStr&, const tagVARIANT&, std::vector<CStdStr>&) {
    return notAvailable("GetMediumListPath");
}
int KivRequestProxySatellite::CabGetMediumInfoFromId(const char*, const char*, const tagVARIANT&, tagVARIANT*) {
    return notAvailable("CabGetMediumInfoFromId");
}
