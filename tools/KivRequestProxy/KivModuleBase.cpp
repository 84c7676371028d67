#include "tools/KivRequestProxy/KivModuleBase.h"

#include <time.h>
#include <unistd.h>

#include <cerrno>

#include <cstdio>
#include <stdexcept>

#include "cab/CabSatellite.h"

KivModuleBase* KivModuleBase::kivModule = nullptr;

namespace {
const int64_t kLogSizeLimit = 524288;

int64_t monotonicMs() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}
}  // namespace

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
    const timespec tick = {m_tickMs / 1000, (m_tickMs % 1000) * 1000000L};
    for (;;) {
        m_lastTurnMs.store(monotonicMs());
        int signal = sigtimedwait(&m_signals, nullptr, &tick);
        if (signal > 0) {
            m_stopSignal = signal;
            return;
        }
        if (errno == EAGAIN || errno == EINTR) continue;
        printf("error waiting signal: %d\n", errno);
        return;
    }
}

bool KivModuleBase::runLoopTurnedWithin(int64_t ms) const {
    const int64_t last = m_lastTurnMs.load();
    return last != 0 && monotonicMs() - last <= ms;
}

void KivModuleBase::abort() { kill(getpid(), SIGTERM); }
