// KivModuleBase: the one module of a process. Constructing it installs the
// crash handler, refuses a second module (std::logic_error), creates the
// process logger "<name>.log" (524,288-byte rotation) for the program and the
// broker library, ignores SIGPIPE and blocks SIGINT and SIGTERM so that only
// run() receives them. run() parks the calling thread until one of the two
// arrives; abort() sends SIGTERM to the process to end run(). While it waits,
// run() wakes every runLoopTickMs() to mark the run loop alive, which a
// watchdog can check from another thread (runLoopTurnedWithin).
#pragma once

#include <signal.h>

#include <atomic>
#include <cstdint>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "common/CStdStr.h"
#include "diag/CBBLog.h"
#include "diag/MiniDumper.h"

class KivModuleBase {
public:
    explicit KivModuleBase(const CStdStr& name);
    virtual ~KivModuleBase();
    KivModuleBase(const KivModuleBase&) = delete;
    KivModuleBase& operator=(const KivModuleBase&) = delete;

    virtual bool init(const std::vector<CStdStr>& args) = 0;
    virtual void close() = 0;
    virtual void run();
    virtual void abort();

    const CStdStr& name() const { return m_name; }
    // The signal that ended run(), 0 before (or when waiting failed).
    int stopSignal() const { return m_stopSignal; }
    // True when run() woke within the last `ms` milliseconds.
    bool runLoopTurnedWithin(int64_t ms) const;
    // How often run() wakes (default 1000 ms); set before run().
    void setRunLoopTickMs(int ms) { m_tickMs = ms > 0 ? ms : 1000; }
    boost::shared_ptr<CBBLog> logger() const { return m_logger; }

    // The live module, or null. Written only by the constructor and destructor.
    static KivModuleBase* kivModule;

protected:
    CStdStr m_name;
    boost::shared_ptr<CBBLog> m_logger;
    MiniDumper m_crashHandler;
    sigset_t m_signals;
    int m_stopSignal = 0;
    int m_tickMs = 1000;
    std::atomic<int64_t> m_lastTurnMs{0};  // monotonic, written by run()
};

// The host calls this factory; the caller owns the module.
KivModuleBase* createKivModuleInstance();
// The generic process entry: create, init, run, close, delete. Always 0.
int commonMain(const std::vector<CStdStr>& args);
