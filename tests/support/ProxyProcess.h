// The real KivRequestProxy executable (build/bin) as a child process, for tests and benchmarks: started with
// environment changes and its output in a file, waited for until it serves, stopped with a signal.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <map>
#include <string>

class CabSatellite;

namespace kivtest {

class ProxyProcess {
public:
    ProxyProcess() = default;
    ~ProxyProcess() { stop(SIGKILL); }  // kills a proxy still running
    ProxyProcess(const ProxyProcess&) = delete;
    ProxyProcess& operator=(const ProxyProcess&) = delete;

    // Starts the proxy; `env` values replace variables (an empty value unsets one); standard output and error go to
    // `outputPath` (replaced), or to /dev/null when it is empty. False when it could not be started.
    bool start(const std::map<std::string, std::string>& env = {}, const std::string& outputPath = "");
    // Waits until "VorpaMediaProxy" answers through `client`; false when the process ended or after the safety net.
    bool waitUntilServing(CabSatellite& client);
    // Sends `signal` and waits; the exit status, -1 when a signal ended it, -2 when none runs.
    int stop(int signal);
    // Waits for the proxy to end by itself; statuses as stop().
    int wait();
    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

}  // namespace kivtest
