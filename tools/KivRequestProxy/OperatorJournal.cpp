#include "tools/KivRequestProxy/OperatorJournal.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

bool startsWith(const std::string& text, const char* prefix) { return text.compare(0, strlen(prefix), prefix) == 0; }

// Standard error to the journal: syslog priorities by level.
int priorityOf(LOGLEVEL level) {
    switch (level) {
    case LOGLEVEL_FATAL: return 2;  // crit
    case LOGLEVEL_ERROR: return 3;
    case LOGLEVEL_WARN: return 4;
    default: return 6;  // info
    }
}

// The library's logger: every line to the process logger, and to the journal
// object, which picks out the connection's lines.
class LibraryLog : public CBBLog {
public:
    explicit LibraryLog(std::shared_ptr<OperatorJournal> journal)
        : CBBLog("KivRequestProxy.log", false, 0), m_journal(std::move(journal)) {}
    void AddLog(const char* format, ...) override {
        va_list args;
        va_start(args, format);
        pass(LOGLEVEL_DEBUG, format, args);
        va_end(args);
    }
    void AddLog(LOGLEVEL level, const char* format, ...) override {
        va_list args;
        va_start(args, format);
        pass(level, format, args);
        va_end(args);
    }
    void AddRawLog(const char* text) override {
        if (boost::shared_ptr<CBBLog> log = CBBLog::getLogger()) log->AddRawLog(text);
    }

private:
    void pass(LOGLEVEL level, const char* format, va_list args) {
        char buf[2048];
        vsnprintf(buf, sizeof buf, format, args);
        m_journal->libraryLine(level, buf);
    }
    std::shared_ptr<OperatorJournal> m_journal;
};

}  // namespace

boost::shared_ptr<CBBLog> OperatorJournal::libraryLogger() {
    return boost::shared_ptr<CBBLog>(new LibraryLog(shared_from_this()));
}

void OperatorJournal::write(LOGLEVEL level, const std::string& text) {
    boost::shared_ptr<CBBLog> log = CBBLog::getLogger();
    bool echoed = false;
    if (log) {
        log->AddLog(level, "%s", text.c_str());
        // The log echoes on standard output what it writes to its file.
        const int32_t kept = log->getLogLevel();
        echoed = kept >= 0 && level <= kept && log->getFileSize() >= 0;
    }
    if (echoed) return;
    static const bool journal = getenv("JOURNAL_STREAM") != nullptr;
    if (journal) fprintf(stderr, "<%d>%s\n", priorityOf(level), text.c_str());
    else fprintf(stderr, "%s\n", text.c_str());
    fflush(stderr);
}

void OperatorJournal::notice(LOGLEVEL level, const char* format, ...) {
    char buf[2048];
    va_list args;
    va_start(args, format);
    vsnprintf(buf, sizeof buf, format, args);
    va_end(args);
    write(level, buf);
}

std::string OperatorJournal::servingText() {
    PLockGuard guard(m_lock);
    return "serving " + std::to_string(m_services) + " services on " + (m_url.empty() ? "the directory" : m_url) +
           " as " + (m_name.empty() ? "VorpaMediaProxy" : m_name);
}

void OperatorJournal::libraryLine(LOGLEVEL level, const std::string& text) {
    // The lines about the connection, as the directory library words them.
    static const char kConnected[] = "Connected to the directory at ";
    static const char kRegistered[] = "Registered ";
    static const char kReconnected[] = "reconnected to ";
    static const char* const kOther[] = {
        "Connecting to the directory failed",
        "Connect refused",
        "Registering the services of",
        "Disconnected ",
        "cabDirectory.hostScope",
        "The directory refused a subscription",
    };
    bool connection = false;
    std::string status;
    if (startsWith(text, kConnected)) {
        const std::string rest = text.substr(sizeof kConnected - 1);
        const size_t as = rest.rfind(" as ");
        PLockGuard guard(m_lock);
        m_url = rest.substr(0, as);
        if (as != std::string::npos) m_name = rest.substr(as + 4);
        connection = true;
    } else if (startsWith(text, kRegistered)) {
        PLockGuard guard(m_lock);
        m_services = atoi(text.c_str() + sizeof kRegistered - 1);  // told with "serving"
    } else if (startsWith(text, kReconnected)) {
        {
            PLockGuard guard(m_lock);
            const std::string url = text.substr(sizeof kReconnected - 1);
            if (!url.empty() && url[0] != '(') m_url = url;
        }
        connection = true;
        status = servingText();
    } else if (text.find(": connection to the directory lost") != std::string::npos) {
        connection = true;
        PLockGuard guard(m_lock);
        status = "directory unreachable (was " + m_url + "), reconnecting";
    } else {
        for (const char* prefix : kOther) connection = connection || startsWith(text, prefix);
    }
    if (connection) {
        write(level, text);
    } else if (boost::shared_ptr<CBBLog> log = CBBLog::getLogger()) {
        log->AddLog(level, "%s", text.c_str());
    }
    if (!status.empty()) m_manager.status(status);
}
