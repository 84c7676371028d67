// KivRequestProxyModule: the module "KivRequestProxy". init() starts the
// "VorpaMediaProxy" satellite and succeeds when it registered; close() (and
// the destructor) stop it within the satellite's shutdown grace and delete it,
// or end the process with status 0 when handlers outlive the grace. Calling
// close() twice is harmless.
//
// It reports to the service manager (OperatorJournal, SystemdNotify): READY=1
// once the services listen, STATUS= lines, STOPPING=1 when it stops, and
// WATCHDOG=1 while the run loop turns; and it tells the journal that it
// started, where it connected and why it stopped.
#pragma once

#include <memory>

#include "satellite/KivRequestProxySatellite.h"
#include "tools/KivRequestProxy/KivModuleBase.h"
#include "tools/KivRequestProxy/OperatorJournal.h"

class KivRequestProxyModule : public KivModuleBase {
public:
    KivRequestProxyModule();
    ~KivRequestProxyModule() override;

    bool init(const std::vector<CStdStr>& args) override;
    void close() override;

private:
    KivRequestProxySatellite* m_satellite;
    bool m_serving = false;  // from READY=1 to the start of close()
    std::shared_ptr<OperatorJournal> m_journal;
};
