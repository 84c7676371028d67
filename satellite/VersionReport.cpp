// "my-KIV_GetVersion": installed version, current time, time-zone name,
// performance index and platform.
#include <ctime>
#include <exception>

#include "diag/CBBLog.h"
#include "host/CRegistry.h"
#include "satellite/KivRequestProxySatellite.h"
#include "satellite/TimeZoneName.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

CStdStr KivRequestProxySatellite::GetKivInstallVersion() {
    CStdStr version;
    CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv", "Version", version);
#ifdef KIV_PRODUCT_VERSION
    // Unset: the version this program was built as.
    if (version.empty()) version = KIV_PRODUCT_VERSION;
#endif
    return version;
}

CStdStr KivRequestProxySatellite::GetPerformanceIndex() {
    CStdStr index;
    CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "kiv.streaming.performanceIndex",
                                              index);
    return index;
}

CStdStr KivRequestProxySatellite::GetPlatform() {
#ifdef __APPLE__
    return "mac";
#else
    return "linux";
#endif
}

int KivRequestProxySatellite::CabServiceGetKivVersion(const char*, const tagVARIANT&, tagVARIANT* out) {
    VUtil::CreateArray(*out, VT_VARIANT, 6);
    // Element 0 stays empty on purpose.
    VUtil::PutElement(*out, 1, GetKivInstallVersion());
    VUtil::PutDateElement(*out, 2, static_cast<long>(time(nullptr)));
    try {
        CStdStr zone = FindTimeZoneName();
        if (!zone.empty()) VUtil::PutElement(*out, 3, zone);
    } catch (const std::exception& e) {
        CBBLog::error("[KivRequestProxySatellite::CabServiceGetKivVersion] threw exception %s", e.what());
    }
    VUtil::PutElement(*out, 4, GetPerformanceIndex());
    VUtil::PutElement(*out, 5, GetPlatform());
    return 0;
}
