// CBBLog: the process logger. A log call formats one line on the caller's
// thread, echoes it to standard output and queues it; one writer thread
// appends queued lines to <logs folder>/<file name>. FATAL lines also go at
// once, synchronously, to "errors.log" in the same folder. Before every write
// the file is rotated to a single ".back" copy when it reached the size limit;
// rotation is safe when several processes write the same file.
//
// Levels: FATAL 0, ERROR 1, WARN 2, INFO 3, DEBUG 4. The level comes from the
// integer setting "LogLevel" under "Software\Kiv Foundry\Kiv" (default 1);
// -1 means "not read yet".
//
// The static functions log through the process-wide instance set with
// setLogger and do nothing when there is none.
//
// Files: the logs folder is created with KivFolders::FolderMode() and both
// files get KivFolders::LogFileMode() (0750 and 0640 unless the setting
// "app.sharedFileModes" asks for 0777 and 0666), whatever the umask.
//
// Threads: any thread may log. The queue and the stop flag belong to
// m_queueLock; initialisation and the error log descriptor to m_fileLock; the
// log descriptor to m_logFdLock (held by the writer thread while it writes).
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <deque>

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "common/CStdStr.h"
#include "host/PThread.h"

enum LOGLEVEL : int32_t {
    LOGLEVEL_UNSET = -1,
    LOGLEVEL_FATAL = 0,
    LOGLEVEL_ERROR = 1,
    LOGLEVEL_WARN = 2,
    LOGLEVEL_INFO = 3,
    LOGLEVEL_DEBUG = 4,
};

class CBBLog {
public:
    CBBLog(const CStdStr& fileName, bool includeProcessId, int64_t sizeLimit);
    virtual ~CBBLog();
    CBBLog(const CBBLog&) = delete;
    CBBLog& operator=(const CBBLog&) = delete;

    void initialize();
    static void setLogger(boost::shared_ptr<CBBLog> logger);
    static boost::shared_ptr<CBBLog> getLogger();
    void setLogLevel(LOGLEVEL level);
    LOGLEVEL getLogLevel() const;
    void readLogLevel();
    static CStdStr getLogsDirectory();

    virtual void AddLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    virtual void AddLog(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    virtual void AddRawLog(const char* text);
    virtual void reserved();
    virtual void _AddLog(const boost::format& message, LOGLEVEL level);
    virtual void _AddLog(const char* format, va_list args, LOGLEVEL level);
    virtual void logLineToFile(const CStdStr& line);
    virtual void _FatalError(const CStdStr& line);

    // Member forms: drop every message while the level is still unread.
    void _fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _debug(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Process-wide forms: log when the level is unread (-1) or high enough.
    static void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, va_list args);
    static void fatal(const boost::format& message);
    static void error(const boost::format& message);
    static void warn(const boost::format& message);
    static void info(const boost::format& message);
    static void debug(const boost::format& message);
    static void fatal(boost::shared_ptr<CBBLog> log, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void error(boost::shared_ptr<CBBLog> log, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void warn(boost::shared_ptr<CBBLog> log, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void info(boost::shared_ptr<CBBLog> log, const char* format, ...) __attribute__((format(printf, 2, 3)));
    static void debug(boost::shared_ptr<CBBLog> log, const char* format, ...) __attribute__((format(printf, 2, 3)));

    static bool isWarnEnabled();
    static bool isInfoEnabled();
    static bool isDebugEnabled();

    CStdStr getLogs();
    static CStdStr getTimeString();
    int64_t getFileSize();
    CStdStr getLogFilePath() const;  // empty until initialised

    // Waits until every line queued so far has been written to the log file
    // (timeoutMs < 0: no time limit). Returns false on time-out or when there
    // is no writer thread. Returns true at once before initialisation.
    bool flush(int timeoutMs = -1);

protected:
    // Implementation state; see CBBLog.cpp.
    void* loggerThread(void*);
    CStdStr buildLineHeader(LOGLEVEL level);
    void addQueue(const CStdStr& line);
    void rotateIfNeeded(int& fd, const CStdStr& path);
    bool openFile(int& fd, const CStdStr& path, bool truncate);
    // Reads the level when unset; false when `level` is filtered out or no file is open.
    bool prepare(LOGLEVEL level);
    // Header + message + "\n": queued, and for FATAL written to errors.log.
    void emit(LOGLEVEL level, const CStdStr& message);

    CStdStr m_fileName;
    std::atomic<int32_t> m_level{LOGLEVEL_UNSET};  // read by any thread
    // Set (release) last in initialize(); the fields up to m_programName are
    // written before it under m_fileLock and only read afterwards.
    std::atomic<bool> m_initialized{false};
    bool m_logFileOpen = false;
    bool m_errorLogOpen = false;
    CStdStr m_logFilePath;
    CStdStr m_errorLogPath;
    CStdStr m_programName;
    mode_t m_fileMode = 0640;  // of both files: KivFolders::LogFileMode() at initialisation
    PMutex m_fileLock;         // guards initialisation, m_errorFd and the error-log write
    bool m_includeProcessId;
    int64_t m_sizeLimit;
    uint32_t m_processId;
    PMutex m_logFdLock;  // guards m_logFd
    int m_logFd KIV_GUARDED_BY(m_logFdLock) = -1;
    int m_errorFd KIV_GUARDED_BY(m_fileLock) = -1;
    PThread* m_writer = nullptr;
    PCondMutex m_queueLock;  // guards m_queue and m_stop
    bool m_stop KIV_GUARDED_BY(m_queueLock) = false;
    bool m_writing KIV_GUARDED_BY(m_queueLock) = false;  // the writer holds a line it popped
    std::deque<CStdStr> m_queue KIV_GUARDED_BY(m_queueLock);

    static boost::weak_ptr<CBBLog> s_instance;
};
