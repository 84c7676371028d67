#include "diag/CBBLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "host/SettingsSecrets.h"

namespace {

const size_t kBufferSize = 20480;

const char* const kLevelNames[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};

const char* levelName(LOGLEVEL level) {
    if (level < LOGLEVEL_FATAL || level > LOGLEVEL_DEBUG) return "";
    return kLevelNames[level];
}

// Guards CBBLog::s_instance: boost::weak_ptr is not safe to assign and copy at once.
PMutex& instanceLock() {
    static PMutex lock;
    return lock;
}

// Creates `folder` and any missing parents (KivFolders::CreateFolders: the
// folder gets the product's folder mode whatever the umask); an existing
// folder is fine. A failure is reported by the open that follows.
void makeFolders(const CStdStr& folder) {
    if (!folder.empty()) KivFolders::CreateFolders(folder);
}

CStdStr parentOf(const CStdStr& path) {
    size_t slash = path.find_last_of('/');
    return slash == CStdStr::npos ? CStdStr() : CStdStr(path.substr(0, slash));
}

bool shouldLog(const boost::shared_ptr<CBBLog>& log, LOGLEVEL level) {
    if (!log) return false;
    LOGLEVEL configured = log->getLogLevel();
    return configured == LOGLEVEL_UNSET || configured >= level;
}

}  // namespace

boost::weak_ptr<CBBLog> CBBLog::s_instance;

CBBLog::CBBLog(const CStdStr& fileName, bool includeProcessId, int64_t sizeLimit)
    : m_fileName(fileName),
      m_includeProcessId(includeProcessId),
      m_sizeLimit(sizeLimit),
      m_processId(static_cast<uint32_t>(getpid())) {}

CBBLog::~CBBLog() {
    m_queueLock.lock();
    m_stop = true;
    m_queueLock.broadcast();
    m_queueLock.unlock();
    if (m_writer) {
        m_writer->join();
        delete m_writer;
        m_writer = nullptr;
    }
    if (m_logFd != -1) close(m_logFd);
    m_logFd = -1;
    if (m_errorFd != -1) close(m_errorFd);
    m_errorFd = -1;
}

void CBBLog::initialize() {
    if (m_initialized.load(std::memory_order_acquire)) return;
    PLockGuard guard(m_fileLock);
    if (m_initialized.load(std::memory_order_relaxed)) return;

    CStdStr folder = getLogsDirectory();
    if (!folder.empty()) {
        m_logFilePath = folder + "/" + m_fileName;
        m_errorLogPath = folder + "/errors.log";
        m_fileMode = KivFolders::LogFileMode();
        makeFolders(folder);
        makeFolders(parentOf(m_logFilePath));  // the file name may hold a folder part
        int fd = -1;
        if (openFile(fd, m_logFilePath, false)) {
            PLockGuard fdGuard(m_logFdLock);  // getFileSize() may read it meanwhile
            m_logFd = fd;
            m_logFileOpen = true;
        } else {
            printf("Error: could not open log file '%s': %d\n", m_logFilePath.c_str(), errno);
        }
        fd = -1;
        if (openFile(fd, m_errorLogPath, false)) {
            m_errorFd = fd;
            m_errorLogOpen = true;
        } else {
            // The log file path is printed here, not the error log path.
            printf("Error: could not open error log file '%s': %d\n", m_logFilePath.c_str(), errno);
        }
        fflush(stdout);
    }

    CStdStr name = m_fileName;
    int dot = name.Find('.');
    if (dot >= 0) name = name.Left(dot);
    size_t slash = name.find_last_of("/\\");
    if (slash != CStdStr::npos) name = name.Mid(static_cast<int>(slash) + 1);
    m_programName = name;

    m_initialized.store(true, std::memory_order_release);
    m_writer = new PThread();
    try {
        m_writer->init(nullptr, new PThreadDelegateMember<CBBLog>(this, &CBBLog::loggerThread), nullptr);
    } catch (...) {
        delete m_writer;
        m_writer = nullptr;
        throw;
    }
}

void CBBLog::setLogger(boost::shared_ptr<CBBLog> logger) {
    PLockGuard guard(instanceLock());
    s_instance = logger;
}

boost::shared_ptr<CBBLog> CBBLog::getLogger() {
    PLockGuard guard(instanceLock());
    return s_instance.lock();
}

void CBBLog::setLogLevel(LOGLEVEL level) { m_level.store(level); }

LOGLEVEL CBBLog::getLogLevel() const { return static_cast<LOGLEVEL>(m_level.load()); }

void CBBLog::readLogLevel() {
    int value = LOGLEVEL_ERROR;
    if (!CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv", "LogLevel", value))
        value = LOGLEVEL_ERROR;
    m_level.store(value);
}

CStdStr CBBLog::getLogsDirectory() { return KivFolders::LogsDirectory(); }

void CBBLog::AddLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_DEBUG);
    va_end(args);
}

void CBBLog::AddLog(LOGLEVEL level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    _AddLog(format, args, level);
    va_end(args);
}

void CBBLog::AddRawLog(const char* text) { addQueue(CStdStr(text ? text : "")); }

void CBBLog::reserved() {}

void CBBLog::_AddLog(const boost::format& message, LOGLEVEL level) {
    if (!prepare(level)) return;
    CStdStr text;
    try {
        text = message.str();
    } catch (const std::exception& e) {
        text = CStdStr("<bad log format: ") + e.what() + ">";
    }
    if (text.size() >= kBufferSize) text.resize(kBufferSize - 1);
    emit(level, text);
}

void CBBLog::_AddLog(const char* format, va_list args, LOGLEVEL level) {
    if (!prepare(level)) return;
    static thread_local char buffer[kBufferSize];
    buffer[0] = '\0';
    if (format) vsnprintf(buffer, sizeof buffer, format, args);
    emit(level, CStdStr(buffer));
}

bool CBBLog::prepare(LOGLEVEL level) {
    if (m_level.load() == LOGLEVEL_UNSET) readLogLevel();
    if (level > m_level.load()) return false;
    if (!m_initialized.load(std::memory_order_acquire)) initialize();
    return m_logFileOpen || m_errorLogOpen;
}

void CBBLog::emit(LOGLEVEL level, const CStdStr& message) {
    CStdStr line = buildLineHeader(level);
    line += SettingsSecrets::MaskUrlCredentials(message);
    line += "\n";
    if (m_logFileOpen) addQueue(line);
    if (level == LOGLEVEL_FATAL) _FatalError(line);
}

void CBBLog::logLineToFile(const CStdStr& line) {
    PLockGuard guard(m_logFdLock);
    if (m_logFd != -1) rotateIfNeeded(m_logFd, m_logFilePath);
    if (m_logFd == -1) {
        // The folder went away with the file: create both again.
        makeFolders(parentOf(m_logFilePath));
        if (!openFile(m_logFd, m_logFilePath, false)) return;
    }
    ssize_t ignored = write(m_logFd, line.data(), line.size());
    (void)ignored;
}

void CBBLog::_FatalError(const CStdStr& line) {
    if (!m_initialized.load(std::memory_order_acquire)) initialize();
    if (!m_errorLogOpen) return;
    PLockGuard guard(m_fileLock);
    if (m_errorFd != -1) rotateIfNeeded(m_errorFd, m_errorLogPath);
    if (m_errorFd == -1) {
        makeFolders(parentOf(m_errorLogPath));
        if (!openFile(m_errorFd, m_errorLogPath, false)) return;
    }
    ssize_t ignored = write(m_errorFd, line.data(), line.size());
    (void)ignored;
}

void CBBLog::_fatal(const char* format, ...) {
    if (m_level.load() < LOGLEVEL_FATAL) return;
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_FATAL);
    va_end(args);
}

void CBBLog::_error(const char* format, ...) {
    if (m_level.load() < LOGLEVEL_ERROR) return;
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_ERROR);
    va_end(args);
}

void CBBLog::_warn(const char* format, ...) {
    if (m_level.load() < LOGLEVEL_WARN) return;
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_WARN);
    va_end(args);
}

void CBBLog::_info(const char* format, ...) {
    if (m_level.load() < LOGLEVEL_INFO) return;
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_INFO);
    va_end(args);
}

void CBBLog::_debug(const char* format, ...) {
    if (m_level.load() < LOGLEVEL_DEBUG) return;
    va_list args;
    va_start(args, format);
    _AddLog(format, args, LOGLEVEL_DEBUG);
    va_end(args);
}

#define KIV_STATIC_LOG(name, lvl)                                               \
    void CBBLog::name(const char* format, ...) {                                \
        boost::shared_ptr<CBBLog> log = getLogger();                            \
        if (!shouldLog(log, lvl)) return;                                       \
        va_list args;                                                           \
        va_start(args, format);                                                 \
        log->_AddLog(format, args, lvl);                                        \
        va_end(args);                                                           \
    }                                                                           \
    void CBBLog::name(const boost::format& message) {                           \
        boost::shared_ptr<CBBLog> log = getLogger();                            \
        if (!shouldLog(log, lvl)) return;                                       \
        log->_AddLog(message, lvl);                                             \
    }                                                                           \
    void CBBLog::name(boost::shared_ptr<CBBLog> log, const char* format, ...) { \
        if (!shouldLog(log, lvl)) return;                                       \
        va_list args;                                                           \
        va_start(args, format);                                                 \
        log->_AddLog(format, args, lvl);                                        \
        va_end(args);                                                           \
    }

KIV_STATIC_LOG(fatal, LOGLEVEL_FATAL)
KIV_STATIC_LOG(error, LOGLEVEL_ERROR)
KIV_STATIC_LOG(warn, LOGLEVEL_WARN)
KIV_STATIC_LOG(info, LOGLEVEL_INFO)
KIV_STATIC_LOG(debug, LOGLEVEL_DEBUG)

#undef KIV_STATIC_LOG

void CBBLog::debug(const char* format, va_list args) {
    boost::shared_ptr<CBBLog> log = getLogger();
    if (!shouldLog(log, LOGLEVEL_DEBUG)) return;
    log->_AddLog(format, args, LOGLEVEL_DEBUG);
}

bool CBBLog::isWarnEnabled() {
    boost::shared_ptr<CBBLog> log = getLogger();
    return log && (log->getLogLevel() == LOGLEVEL_UNSET || log->getLogLevel() > 1);
}

bool CBBLog::isInfoEnabled() {
    boost::shared_ptr<CBBLog> log = getLogger();
    return log && (log->getLogLevel() == LOGLEVEL_UNSET || log->getLogLevel() > 2);
}

bool CBBLog::isDebugEnabled() {
    boost::shared_ptr<CBBLog> log = getLogger();
    return log && (log->getLogLevel() == LOGLEVEL_UNSET || log->getLogLevel() > 3);
}

CStdStr CBBLog::getLogs() {
    PLockGuard guard(m_queueLock);
    CStdStr all;
    for (const CStdStr& line : m_queue) all += line;
    return all;
}

CStdStr CBBLog::getTimeString() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm t;
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &t);
    return CStdStr::Formatted("%04d/%02d/%02d %02d:%02d:%02d.%03d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
                              t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(tv.tv_usec / 1000));
}

int64_t CBBLog::getFileSize() {
    PLockGuard guard(m_logFdLock);
    if (m_logFd == -1) return -1;
    struct stat st;
    if (fstat(m_logFd, &st) != 0) return -1;
    return static_cast<int64_t>(st.st_size);
}

CStdStr CBBLog::getLogFilePath() const {
    if (!m_initialized.load(std::memory_order_acquire)) return CStdStr();
    return m_logFilePath;
}

bool CBBLog::flush(int timeoutMs) {
    if (!m_initialized.load(std::memory_order_acquire)) return true;
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    if (timeoutMs >= 0) {
        deadline.tv_sec += timeoutMs / 1000;
        deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1000000L;
        if (deadline.tv_nsec >= 1000000000L) {
            deadline.tv_sec += 1;
            deadline.tv_nsec -= 1000000000L;
        }
    }
    PLockGuard guard(m_queueLock);
    while (!m_queue.empty() || m_writing) {
        if (!m_writer) return false;
        if (timeoutMs < 0) {
            m_queueLock.wait();
        } else if (!m_queueLock.waitUntil(deadline)) {
            return m_queue.empty() && !m_writing;
        }
    }
    return true;
}

void* CBBLog::loggerThread(void*) {
    m_queueLock.lock();
    for (;;) {
        while (!m_stop && m_queue.empty()) m_queueLock.wait();
        while (!m_queue.empty()) {
            CStdStr line = m_queue.front();
            m_queue.pop_front();
            m_writing = true;
            m_queueLock.unlock();
            logLineToFile(line);
            m_queueLock.lock();
            m_writing = false;
        }
        // Wake anyone waiting in flush().
        m_queueLock.broadcast();
        if (m_stop) break;
    }
    m_queueLock.unlock();
    return nullptr;
}

CStdStr CBBLog::buildLineHeader(LOGLEVEL level) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm t;
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &t);
    char buffer[kBufferSize];
    if (m_includeProcessId) {
        snprintf(buffer, sizeof buffer, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] %u - ", t.tm_year + 1900,
                 t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(tv.tv_usec / 1000),
                 levelName(level), m_processId);
    } else {
        snprintf(buffer, sizeof buffer, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] - ", t.tm_year + 1900,
                 t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(tv.tv_usec / 1000),
                 levelName(level));
    }
    CStdStr header(buffer);
    if (level == LOGLEVEL_FATAL) {
        header += m_programName;
        header += " - ";
    }
    return header;
}

void CBBLog::addQueue(const CStdStr& line) {
    m_queueLock.lock();
    m_queue.push_back(line);
    printf("%s", line.c_str());
    fflush(stdout);
    m_queueLock.unlock();
    m_queueLock.broadcast();
}

void CBBLog::rotateIfNeeded(int& fd, const CStdStr& path) {
    struct stat open;
    if (fstat(fd, &open) != 0) return;
    struct stat named;
    bool reopen = false;
    if (open.st_nlink == 0) {
        // Deleted (its folder with it, say): whatever the path says now, never
        // write on into a file nobody can read.
        reopen = true;
    } else if (stat(path.c_str(), &named) != 0) {
        if (errno != ENOENT) return;
        reopen = true;  // removed or moved away
    } else if (named.st_ino != open.st_ino || named.st_dev != open.st_dev) {
        reopen = true;  // another process already rotated it
    } else {
        if (static_cast<int64_t>(open.st_size) < m_sizeLimit) return;
        if (flock(fd, LOCK_EX) != 0) return;
        struct stat again;
        if (stat(path.c_str(), &again) == 0 && again.st_ino == open.st_ino && again.st_dev == open.st_dev) {
            CStdStr backup = path + ".back";
            if (rename(path.c_str(), backup.c_str()) != 0) {
                // Ignored: the next write tries again.
            }
        }
        reopen = true;
    }
    if (reopen) {
        close(fd);  // releases the lock too
        fd = -1;
        openFile(fd, path, false);
    }
}

bool CBBLog::openFile(int& fd, const CStdStr& path, bool truncate) {
    int flags = O_RDWR | O_APPEND | O_CREAT;
    if (truncate) flags |= O_TRUNC;
    fd = open(path.c_str(), flags, m_fileMode);
    if (fd == -1) return false;
    // Exact whatever the umask, and a file left looser by an earlier run is
    // brought back (when this process owns it).
    fchmod(fd, m_fileMode);
    return true;
}
