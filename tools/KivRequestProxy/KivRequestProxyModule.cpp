#include "tools/KivRequestProxy/KivRequestProxyModule.h"

#include <unistd.h>

#include "satellite/ArchiveThreads.h"

namespace {
const int kLogFlushMs = 1000;  // the log's last lines may wait this long for the writer
}  // namespace

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
    // Archives being written stop at their next block while the handlers get
    // their grace; every request still unanswered after it is cancelled.
    m_satellite->abandonArchives();
    m_satellite->Disconnect();
    int stuck = m_satellite->handlersStillRunning();
    if (stuck > 0) {
        // Those handlers still run on the satellite, so it cannot be
        // destroyed; the process ends here instead, once the abandoned
        // archives have removed their files.
        ArchiveThreads::waitForAll(m_satellite);
        CBBLog::warn("Exiting with %d handlers still running", stuck);
        if (boost::shared_ptr<CBBLog> log = CBBLog::getLogger()) log->flush(kLogFlushMs);
        _exit(0);
    }
    delete m_satellite;
    m_satellite = nullptr;
}

KivModuleBase* createKivModuleInstance() { return new KivRequestProxyModule; }
