#include "tools/KivRequestProxy/KivRequestProxyModule.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "cab/CabStatus.h"
#include "satellite/ArchiveThreads.h"

namespace {
const int kLogFlushMs = 1000;  // the log's last lines may wait this long for the writer
}  // namespace

KivRequestProxyModule::KivRequestProxyModule()
    : KivModuleBase("KivRequestProxy"), m_satellite(nullptr), m_journal(std::make_shared<OperatorJournal>()) {
    // The directory library logs through the journal, which picks out the
    // connection's lines for the operator.
    CabSatellite::setLogger(m_journal->libraryLogger());
}

KivRequestProxyModule::~KivRequestProxyModule() { close(); }

bool KivRequestProxyModule::init(const std::vector<CStdStr>&) {
    CBBLog::info("Starting");
    const CStdStr logFile = CBBLog::getLogsDirectory() + "/" + m_name + ".log";
    m_journal->notice(LOGLEVEL_INFO, "KivRequestProxy %s starting (pid %d); log %s at LogLevel %d", KIV_PRODUCT_VERSION,
                      static_cast<int>(getpid()), logFile.c_str(), static_cast<int>(m_logger->getLogLevel()));
    m_satellite = new KivRequestProxySatellite;
    int rc = m_satellite->Register();
    CBBLog::info("Register returned 0x%x", static_cast<unsigned>(rc));
    if (rc != 0) {
        const std::string why = CabGetLastError();
        m_journal->notice(LOGLEVEL_ERROR, "not serving: registering with the directory failed (0x%x%s%s); exiting",
                          static_cast<unsigned>(rc), why.empty() ? "" : ": ", why.c_str());
        m_journal->manager().status("directory unreachable or refused" + (why.empty() ? "" : " (" + why + ")") +
                                    "; exiting, to be started again");
        return false;
    }
    // The run loop wakes at least four times per watchdog period.
    if (uint64_t usec = SystemdNotify::watchdogUsec()) {
        setRunLoopTickMs(static_cast<int>(std::min<uint64_t>(1000, std::max<uint64_t>(1, usec / 4000))));
        m_journal->manager().startWatchdog([this](int64_t maxSilenceMs) { return runLoopTurnedWithin(maxSilenceMs); });
    }
    const std::string serving = m_journal->servingText();
    m_journal->notice(LOGLEVEL_INFO, "%s", serving.c_str());
    m_journal->manager().ready(serving);
    m_serving = true;
    return true;
}

void KivRequestProxyModule::close() {
    if (!m_satellite) return;
    const bool served = m_serving;
    m_serving = false;
    if (served) {
        const char* name = stopSignal() > 0 ? sigabbrev_np(stopSignal()) : nullptr;
        const std::string why = name ? std::string(" (SIG") + name + " received)" : "";
        m_journal->notice(LOGLEVEL_INFO, "stopping%s", why.c_str());
        m_journal->manager().stopping("stopping" + why);
    }
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
        m_journal->notice(LOGLEVEL_WARN, "stopped with %d handlers still running", stuck);
        if (boost::shared_ptr<CBBLog> log = CBBLog::getLogger()) log->flush(kLogFlushMs);
        _exit(0);
    }
    delete m_satellite;
    m_satellite = nullptr;
    if (served) m_journal->notice(LOGLEVEL_INFO, "stopped");
}

KivModuleBase* createKivModuleInstance() { return new KivRequestProxyModule; }
