#include "diag/MiniDumper.h"

#include <cxxabi.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <typeinfo>

#include "diag/CBBLog.h"
#include "diag/MinidumpCrashHandler.h"
#include "host/KivFolders.h"
#include "host/PThread.h"

namespace {

// The compiler must not see through the pointer, so the store really happens.
int* volatile s_nullPointer = nullptr;

// Deliberate: the undefined-behaviour checker must let this store fault.
__attribute__((noinline, no_sanitize("undefined"))) void storeThroughNull(int value) { *s_nullPointer = value; }

}  // namespace

struct MiniDumper::PreviousHandlers {
    struct sigaction usr1;
    struct sigaction abrt;
    std::terminate_handler terminate;
};

MiniDumper::MiniDumper(const char* applicationName) : m_applicationName(applicationName ? applicationName : "") {
    initialize(true, true);
}

MiniDumper::MiniDumper(const char* applicationName, bool logCrashes, bool launchReporter, bool printCrashes,
                       bool installHandlers, bool catchCrashes)
    : m_applicationName(applicationName ? applicationName : ""),
      m_logCrashes(logCrashes),
      m_launchReporter(launchReporter),
      m_printCrashes(printCrashes) {
    initialize(installHandlers, catchCrashes);
}

MiniDumper::MiniDumper(const char* applicationName, const char* reporterArg1, const char* reporterArg2,
                       const char* dumpDir)
    : m_applicationName(applicationName ? applicationName : ""),
      m_reporterArg1(reporterArg1 ? reporterArg1 : ""),
      m_reporterArg2(reporterArg2 ? reporterArg2 : ""),
      m_crashReporterPath("./KivCrashReporter"),
      m_dumpDir(dumpDir ? dumpDir : "") {
    if (!m_dumpDir.empty() && m_dumpDir.back() != '/') m_dumpDir += "/";
    initialize(true, true);
}

MiniDumper::~MiniDumper() {
    // Ours first: SIGABRT goes back to the crash handler, which then restores its predecessor.
    if (m_previous) {
        std::set_terminate(m_previous->terminate);
        sigaction(SIGUSR1, &m_previous->usr1, nullptr);
        sigaction(SIGABRT, &m_previous->abrt, nullptr);
        delete m_previous;
    }
    delete m_handler;
}

CStdStr MiniDumper::escapeBlanks(const CStdStr& path) {
    CStdStr out;
    for (size_t i = 0; i < path.size(); ++i) {
        if (path[i] == ' ') out += '\\';
        out += path[i];
    }
    return out;
}

void MiniDumper::initialize(bool installHandlers, bool catchCrashes) {
    if (m_applicationName.empty()) m_applicationName = "Unknown";
    if (m_dumpDir.empty()) m_dumpDir = "/tmp/";
    if (m_crashReporterPath.empty()) m_crashReporterPath = KivFolders::BinFolder() + "/KivCrashReporter";
    m_crashReporterPath = escapeBlanks(m_crashReporterPath);

    delete m_handler;
    m_handler = new MinidumpCrashHandler(m_dumpDir.c_str(), _minidumpCallback, this, catchCrashes);
    // Every thread started from now on gets its own signal stack, so that a
    // stack overflow on it is dumped too.
    if (catchCrashes) PThread::setThreadHooks(&MinidumpCrashHandler::enterThread, &MinidumpCrashHandler::leaveThread);

    if (installHandlers) {
        bool first = !m_previous;
        if (first) m_previous = new PreviousHandlers();
        PreviousHandlers ignored;
        PreviousHandlers& keep = first ? *m_previous : ignored;
        struct sigaction sa;
        memset(&sa, 0, sizeof sa);
        sigemptyset(&sa.sa_mask);
        sa.sa_handler = usr1Handler;
        sigaction(SIGUSR1, &sa, &keep.usr1);
        keep.terminate = std::set_terminate(terminateHandler);
        // abort() becomes a null store, which the crash handler dumps: one dump, not two.
        sa.sa_handler = abortHandler;
        sigaction(SIGABRT, &sa, &keep.abrt);
    }
}

void MiniDumper::SetCrashReporterPath(const CStdStr& path) { m_crashReporterPath = path; }

void MiniDumper::setAppData(const CStdStr& appData) { m_appData = appData; }

void MiniDumper::setDumpDirectory(const CStdStr& dumpDir) {
    m_dumpDir = dumpDir.empty() ? CStdStr("/tmp/") : dumpDir;
    if (m_dumpDir.back() != '/') m_dumpDir += "/";
    if (m_handler) m_handler->setDumpDirectory(m_dumpDir.c_str());
}

CStdStr MiniDumper::commandLine(const CStdStr& dumpPath) const {
    CStdStr cmd;
    if (!m_reporterArg1.empty()) {
        cmd.Format("%s \"%s\" \"%s\" \"%s\" \"%s\"", m_crashReporterPath.c_str(), dumpPath.c_str(),
                   m_applicationName.c_str(), m_reporterArg1.c_str(), m_reporterArg2.c_str());
    } else {
        cmd.Format("%s \"%s\" \"%s\"", m_crashReporterPath.c_str(), dumpPath.c_str(), m_applicationName.c_str());
        if (!m_appData.empty()) cmd.AppendFormat(" -appData \"%s\"", m_appData.c_str());
    }
    return cmd;
}

bool MiniDumper::_minidumpCallback(const char* dumpDir, const char* minidumpId, void* context, bool succeeded) {
    MiniDumper* self = static_cast<MiniDumper*>(context);
    return self ? self->minidumpCallback(dumpDir, minidumpId, context, succeeded) : false;
}

bool MiniDumper::minidumpCallback(const char* dumpDir, const char* minidumpId, void* context, bool succeeded) {
    m_lastDumpPath = CStdStr(dumpDir) + minidumpId + ".dmp";
    struct stat st;
    long long size = stat(m_lastDumpPath.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : 0;
    CStdStr cmd = commandLine(m_lastDumpPath);
    if (m_launchReporter && !m_crashReporterPath.empty()) {
        int rc = system(cmd.c_str());
        (void)rc;  // a missing or failing reporter is not our concern here
    }
    if (m_logCrashes) {
        CBBLog::fatal("crash of %s. minidump generated as %s (%dkB)", m_applicationName.c_str(), m_lastDumpPath.c_str(),
                      static_cast<int>(size / 1024));
        // The line is in errors.log already; give the writer a moment for the main log.
        boost::shared_ptr<CBBLog> log = CBBLog::getLogger();
        if (log) log->flush(2000);
    }
    if (m_printCrashes && !succeeded) {
        const char msg[] = "minidump could not be written completely\n";
        ssize_t w = write(STDERR_FILENO, msg, sizeof msg - 1);
        (void)w;
    }
    _exit(0);
}

void* generateCrash(void*) {
    storeThroughNull(1);
    return nullptr;
}

void usr1Handler(int) {
    if (CBBLog::isInfoEnabled()) CBBLog::info("USR1 signal received, generating crash");
    PThread thread;
    thread.init(nullptr, new PThreadDelegateFunction(generateCrash), nullptr);
}

void abortHandler(int) {
    const char msg[] = "abort() was called";
    ssize_t w = write(STDOUT_FILENO, msg, sizeof msg - 1);
    (void)w;
    storeThroughNull(1);
}

void terminateHandler() {
    try {
        std::exception_ptr current = std::current_exception();
        if (current) std::rethrow_exception(current);
        CBBLog::fatal("uncaught unknown c++ exception");
    } catch (const std::exception& e) {
        int status = 0;
        char* name = abi::__cxa_demangle(typeid(e).name(), nullptr, nullptr, &status);
        CBBLog::fatal("uncaught %s c++ exception: %s", name && status == 0 ? name : typeid(e).name(), e.what());
        free(name);
    } catch (...) {
        CBBLog::fatal("uncaught unknown c++ exception");
    }
    storeThroughNull(1);
}
