#include "tools/KivRequestProxy/KivModuleBase.h"

#include <unistd.h>

#include <cstdio>
#include <stdexcept>

#include "cab/CabSatellite.h"

KivModuleBase* KivModuleBase::kivModule = nullptr;

namespace {
const int64_t kLogSizeLimit = 524288;
}

KivModuleBase::KivModuleBase(const CStdStr& name) : m_name(name), m_crashHandler(name.c_str()) {
    if (kivModule) {
        CBBLog::error("KivModuleBase %s trying to create multiple instances", m_name.c_str());
        throw std::logic_error("Can't have more than one instance of KivModuleBase per module!");
    }
    kivModule = this;

    m_logger.reset(new CBBLog(m_name + ".log", false, kLogSizeLimit));
    CBBLog::setLogger(m_logger);
    CabSatellite::setLogger(m_logger);

    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    ignore.sa_flags = 0;
    sigaction(SIGPIPE, &ignore, nullptr);

    // Blocked here, on the main thread, before any other thread exists: every
    // later thread inherits the mask, so only run() receives these two.
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGINT);
    sigaddset(&m_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);

    CBBLog::debug("KivModuleBase %s", m_name.c_str());
}

KivModuleBase::~KivModuleBase() {
    if (kivModule == this) kivModule = nullptr;
    CBBLog::debug("~KivModuleBase %s", m_name.c_str());
}

void KivModuleBase::run() {
    int signal = 0;
    int rc = sigwait(&m_signals, &signal);
    if (rc != 0) printf("error waiting signal: %d\n", rc);
}

void KivModuleBase::abort() { kill(getpid(), SIGTERM); }
