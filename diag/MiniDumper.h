// MiniDumper: turns every crash of the process into a minidump and a run of
// the crash reporter. Constructed once, early, by the module host. On a
// crash it writes <dump folder><uuid>.dmp, runs the reporter
//   <reporter> "<dump path>" "<application>" ["<arg1>" "<arg2>" | -appData "<data>"]
// through the shell, logs "crash of %s. minidump generated as %s (%dkB)" at
// FATAL and ends the process with _exit(0).
// With installHandlers it also turns SIGUSR1 (crash on a new thread), abort()
// and an uncaught C++ exception into a store through a null pointer, so each
// of them leaves exactly one dump as well.
// Destruction removes the crash handler and puts back the SIGUSR1, SIGABRT
// and terminate handlers it replaced.
// Blanks in the reporter path are escaped as "\ " for the shell by
// initialize(); SetCrashReporterPath takes its path as given, so a path set
// after initialisation must already be a shell word.
#pragma once

#include "common/CStdStr.h"

class MinidumpCrashHandler;

class MiniDumper {
public:
    explicit MiniDumper(const char* applicationName);
    // printCrashes: say on standard error when the dump could not be written completely.
    // catchCrashes: install the crash signal handler (which also gives the
    // constructing thread its alternate signal stack); false writes no dumps.
    MiniDumper(const char* applicationName, bool logCrashes, bool launchReporter, bool printCrashes,
               bool installHandlers, bool catchCrashes);
    // Reporter "./KivCrashReporter" with two extra arguments, dumps in dumpDir.
    MiniDumper(const char* applicationName, const char* reporterArg1, const char* reporterArg2, const char* dumpDir);
    ~MiniDumper();
    MiniDumper(const MiniDumper&) = delete;
    MiniDumper& operator=(const MiniDumper&) = delete;

    void initialize(bool installHandlers, bool catchCrashes);
    void SetCrashReporterPath(const CStdStr& path);
    void setAppData(const CStdStr& appData);
    // The folder for new dumps; a missing final "/" is added.
    void setDumpDirectory(const CStdStr& dumpDir);

    const CStdStr& getApplicationName() const { return m_applicationName; }
    const CStdStr& getCrashReporterPath() const { return m_crashReporterPath; }
    const CStdStr& getDumpDirectory() const { return m_dumpDir; }
    const CStdStr& getLastDumpPath() const { return m_lastDumpPath; }
    // The shell command that reports the dump at dumpPath.
    CStdStr commandLine(const CStdStr& dumpPath) const;

    static bool _minidumpCallback(const char* dumpDir, const char* minidumpId, void* context, bool succeeded);
    bool minidumpCallback(const char* dumpDir, const char* minidumpId, void* context, bool succeeded);

    // "a b" -> "a\ b": every blank, also one after a backslash.
    static CStdStr escapeBlanks(const CStdStr& path);

private:
    CStdStr m_applicationName;
    bool m_logCrashes = true;
    bool m_launchReporter = true;
    bool m_printCrashes = true;
    CStdStr m_reporterArg1;
    CStdStr m_reporterArg2;
    CStdStr m_crashReporterPath;
    CStdStr m_dumpDir;
    MinidumpCrashHandler* m_handler = nullptr;
    CStdStr m_lastDumpPath;
    CStdStr m_reserved;  // not used
    CStdStr m_appData;

    // What initialize(installHandlers) replaced; put back by the destructor.
    struct PreviousHandlers;
    PreviousHandlers* m_previous = nullptr;
};

// Crash on request: logs at INFO and stores through null on a new thread.
void usr1Handler(int);
// Stores 1 through a null pointer.
void* generateCrash(void*);
// SIGABRT: prints "abort() was called" and stores through null.
void abortHandler(int);
// std::terminate: logs the uncaught exception at FATAL and stores through null.
void terminateHandler();
