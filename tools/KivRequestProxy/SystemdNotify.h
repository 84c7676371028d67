// SystemdNotify: tells the service manager how the service is doing, through
// the notification socket it names in NOTIFY_SOCKET (libsystemd's sd_notify).
// Without NOTIFY_SOCKET (not started by systemd) every call does nothing.
//
// ready() sends READY=1 with a STATUS= line; status() a STATUS= line;
// stopping() STOPPING=1 with a STATUS= line, and ends the watchdog.
// startWatchdog() starts, when the unit has a watchdog (WATCHDOG_USEC), one
// thread that sends WATCHDOG=1 every half period, but only while `alive`
// returns true: a run loop that stopped turning lets systemd end the process.
// Any thread may call these; the destructor ends the watchdog thread.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

#include "host/PThread.h"

class SystemdNotify {
public:
    SystemdNotify() = default;
    ~SystemdNotify();
    SystemdNotify(const SystemdNotify&) = delete;
    SystemdNotify& operator=(const SystemdNotify&) = delete;

    void ready(const std::string& status);
    void status(const std::string& status);
    void stopping(const std::string& status);

    // `alive` is called on the watchdog thread with the longest time (ms) the
    // run loop may have been silent; it says whether it turned within it.
    void startWatchdog(std::function<bool(int64_t maxSilenceMs)> alive);
    // The watchdog period in microseconds, 0 when the unit has none.
    static uint64_t watchdogUsec();

private:
    void send(const std::string& message);
    void stopWatchdog();

    // The watchdog's pause waits on the steady clock (a PCondMutex waits on
    // CLOCK_REALTIME, and a clock set back would hold the pings back until
    // systemd ends the process): hence a condition_variable_any over the PMutex.
    PMutex m_lock;
    std::condition_variable_any m_wake;
    bool m_stop KIV_GUARDED_BY(m_lock) = false;
    std::thread m_watchdog KIV_GUARDED_BY(m_lock);
};
