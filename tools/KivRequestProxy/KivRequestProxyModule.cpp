#include "tools/KivRequestProxy/KivRequestProxyModule.h"

KivRequestProxyModule::KivRequestProxyModule() : KivModuleBase("KivRequestProxy"), m_satellite(nullptr) {}

KivRequestProxyModule::~KivRequestProxyModule() { close(); }

bool KivRequestProxyModule::init(const std::vector<CStdStr>&) {
    CBBLog::info("Starting");
    m_satellite = new KivRequestProxySatellite;
    int rc = m_satellite->Register();
    CBBLog::info("Register returned 0x%x", static_cast<unsigned>(rc));
    return rc == 0;
}

void KivRequestProxyModule::close() {
    if (!m_satellite) return;
    delete m_satellite;
    m_satellite = nullptr;
}

KivModuleBase* createKivModuleInstance() { return new KivRequestProxyModule; }
