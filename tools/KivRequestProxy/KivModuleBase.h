// KivModuleBase: the one module of a process. Constructing it installs the
// crash handler, refuses a second module (std::logic_error), creates the
// process logger "<name>.log" (524,288-byte rotation) for the program and the
// broker library, ignores SIGPIPE and blocks SIGINT and SIGTERM so that only
// run() receives them. run() parks the calling thread until one of the two
// arrives; abort() sends SIGTERM to the process to end run().
#pragma once

#include <signal.h>

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
    boost::shared_ptr<CBBLog> logger() const { return m_logger; }

    // The live module, or null. Written only by the constructor and destructor.
    static KivModuleBase* kivModule;

protected:
    CStdStr m_name;
    boost::shared_ptr<CBBLog> m_logger;
    MiniDumper m_crashHandler;
    sigset_t m_signals;
};

// The host calls this factory; the caller owns the module.
KivModuleBase* createKivModuleInstance();
// The generic process entry: create, init, run, close, delete. Always 0.
int commonMain(const std::vector<CStdStr>& args);
