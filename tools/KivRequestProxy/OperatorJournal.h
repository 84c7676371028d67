// OperatorJournal: what the operator of the service sees in the journal,
// whatever LogLevel the log file keeps: that the proxy started, where it
// connected, a connection lost and found again, and why it stopped; and the
// service manager's STATUS= line that goes with each (SystemdNotify).
//
// notice() logs a line at its level; when the log does not echo that line on
// standard output (its level is filtered out, or there is no log file), the
// line goes to standard error instead, with its syslog priority ("<6>") when
// standard error is the journal (JOURNAL_STREAM is set).
//
// libraryLogger() is the logger to give the directory library: it passes every
// line on to the process logger and makes notices of the connection's lines
// (connected, registered, lost, reconnected, refused), from which it also
// learns the directory's address for the STATUS= line.
//
// Any thread may call it.
#pragma once

#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include "diag/CBBLog.h"
#include "host/PThread.h"
#include "tools/KivRequestProxy/SystemdNotify.h"

class OperatorJournal : public std::enable_shared_from_this<OperatorJournal> {
public:
    OperatorJournal() = default;
    OperatorJournal(const OperatorJournal&) = delete;
    OperatorJournal& operator=(const OperatorJournal&) = delete;

    void notice(LOGLEVEL level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // A line of the directory library (see libraryLogger).
    void libraryLine(LOGLEVEL level, const std::string& text);
    boost::shared_ptr<CBBLog> libraryLogger();

    // "serving N services on URL as NAME", from the library's lines.
    std::string servingText();
    SystemdNotify& manager() { return m_manager; }

private:
    void write(LOGLEVEL level, const std::string& text);

    SystemdNotify m_manager;
    PMutex m_lock;                              // guards the three below
    std::string m_url KIV_GUARDED_BY(m_lock);   // where the connection is (or was last)
    std::string m_name KIV_GUARDED_BY(m_lock);  // the satellite's name
    int m_services KIV_GUARDED_BY(m_lock) = 0;
};
