#include "tests/support/ProxyProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "cab/CabSatellite.h"
#include "variant/CLocalVariant.h"

namespace kivtest {

bool ProxyProcess::start(const std::map<std::string, std::string>& env, const std::string& outputPath) {
    const std::string exe = KIV_BINARY_DIR "/bin/KivRequestProxy", out = outputPath.empty() ? "/dev/null" : outputPath;
    pid_t pid = fork();
    if (pid < 0) return false;
    if (pid == 0) {
        for (const auto& [name, value] : env)
            value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
        if (!freopen(out.c_str(), "w", stdout)) _exit(126);
        dup2(fileno(stdout), 2);
        // The caller may have signals blocked; the proxy must start clean.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(exe.c_str(), exe.c_str(), (char*)nullptr);
        _exit(127);
    }
    m_pid = pid;
    return true;
}

bool ProxyProcess::waitUntilServing(CabSatellite& client) {
    // The directory answers "no responders" at once until the proxy has
    // subscribed, so each try is quick; the deadline is only a safety net.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < deadline) {
        CLocalVariant in, out, rc;
        client.Request("VorpaMediaProxy", "GetKivConfig", in.get(), out.ptr(), 0, rc.ptr());
        // A time-out means the request went astray (say, to a proxy that was leaving): ask again.
        if (CabRetcode(rc.get()) != CAB_E_NO_SUCH_SERVICE && CabRetcode(rc.get()) != CAB_E_TIMEOUT) return true;
        int exitStatus = 0;
        if (m_pid > 0 && waitpid(m_pid, &exitStatus, WNOHANG) == m_pid) {
            m_pid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

int ProxyProcess::wait() {
    int status = 0;
    const pid_t pid = std::exchange(m_pid, -1);
    if (pid <= 0 || waitpid(pid, &status, 0) != pid) return -2;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int ProxyProcess::stop(int signal) {
    if (m_pid <= 0) return -2;
    kill(m_pid, signal);
    return wait();
}

}  // namespace kivtest
