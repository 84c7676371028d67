// KivRequestProxyModule: the module "KivRequestProxy". init() starts the
// "VorpaMediaProxy" satellite and succeeds when it registered; close() (and
// the destructor) stop it within the satellite's shutdown grace and delete it,
// or end the process with status 0 when handlers outlive the grace. Calling
// close() twice is harmless.
#pragma once

#include "satellite/KivRequestProxySatellite.h"
#include "tools/KivRequestProxy/KivModuleBase.h"

class KivRequestProxyModule : public KivModuleBase {
public:
    KivRequestProxyModule();
    ~KivRequestProxyModule() override;

    bool init(const std::vector<CStdStr>& args) override;
    void close() override;

private:
    KivRequestProxySatellite* m_satellite;
};
