// Registration and the service table of the satellite.
#include "cab/CabException.h"
#include "diag/CBBLog.h"
#include "host/CRegistry.h"
#include "satellite/AdminServices.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"

namespace {
const char* kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";
typedef CabSatelliteDelegateMember<KivRequestProxySatellite> Delegate;
}  // namespace

KivRequestProxySatellite::KivRequestProxySatellite()
    : m_served([this](const CStdStr& path, TempEntryId* id) { return m_zipJobs.made(path, id); }),
      m_fileManager(this) {}

KivRequestProxySatellite::~KivRequestProxySatellite() {
    // Archives still being written stop at their next block and are removed.
    abandonArchives();
    // Stop serving before the members the handlers use go away.
    Disconnect();
    // Archive threads remove their own pending entries: let them finish first.
    ArchiveThreads::waitForAll(this);
}

int KivRequestProxySatellite::Register() {
    CStdStr host;
    if (!CRegistry::getInstance()->ReadSettingImpl(kConfigKey, "cabDirectory.host", host)) host = "127.0.0.1";
    // The library connects to the server list of cabDirectory.servers instead, when that is set.
    CStdStr servers;
    if (CRegistry::getInstance()->ReadSettingImpl(kConfigKey, "cabDirectory.servers", servers) && !servers.empty())
        CBBLog::info("Connecting to %s", servers.c_str());
    else CBBLog::info("Connecting to %s", host.c_str());
    int rc = Connect(host.c_str(), "VorpaMediaProxy");
    CBBLog::debug("Register returned %d", rc);
    return rc;
}

int KivRequestProxySatellite::CreateServices() {
    AddService("QueryFileSize", "Get file size",
               new Delegate(this, &KivRequestProxySatellite::CabServiceQueryFileSize));
    AddService("GetFile", "Download a file", new Delegate(this, &KivRequestProxySatellite::CabServiceGetFile));
    AddService("my-KIV_GetVersion", "Get Kiv version",
               new Delegate(this, &KivRequestProxySatellite::CabServiceGetKivVersion));
    AddService("my-KIV_TailLog", "", new Delegate(this, &KivRequestProxySatellite::CabServiceTailLog));
    AddService("MultiRequest", "", new Delegate(this, &KivRequestProxySatellite::CabServiceMultiRequest));
    AddService("CreateZip", "", new Delegate(this, &KivRequestProxySatellite::CabServiceCreateZipFile));
    AddService("DeleteTempFile", "", new Delegate(this, &KivRequestProxySatellite::CabServiceDeleteTempFile));
    AddService("GetKivDataFolder", "", new Delegate(this, &KivRequestProxySatellite::CabServiceGetKivDataFolder));
    AddService("GetKivConfig", "", new Delegate(this, &KivRequestProxySatellite::CabServiceGetConfig));
    AddService("GenerateCrash", "", new Delegate(this, &KivRequestProxySatellite::CabServiceGenerateCrash));
    AddService("ZipLogs", "Inparams: none; Outparams = (string)zipPath",
               new Delegate(this, &KivRequestProxySatellite::CabServiceZipLogs));
    // The support services are for admins; the directory refuses them to
    // everybody else, and the proxy runs none of them on another's behalf.
    for (const char* service : kAdminServices) RestrictToAdmins(service);
    return 0;
}

int KivRequestProxySatellite::CabRequest(char* target, char* service, tagVARIANT& in, tagVARIANT* retcodes,
                                         tagVARIANT* out) {
    return Request(target, service, in, out, 0, retcodes);
}
