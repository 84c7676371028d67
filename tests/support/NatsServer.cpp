#include "tests/support/NatsServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

namespace kivtest {

namespace {

using Clock = std::chrono::steady_clock;

std::string serverBinary() {
    const char* env = getenv("KIV_NATS_SERVER");
    if (env && *env) return env;
    for (const char* p : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"})
        if (access(p, X_OK) == 0) return p;
    return "nats-server";
}

bool canConnect(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons((uint16_t)port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, (sockaddr*)&a, sizeof a) == 0;
    close(fd);
    return ok;
}

}  // namespace

NatsServer::NatsServer(int maxPayload, const std::string& extraConfig)
    : m_dir("kivnats"), m_maxPayload(maxPayload), m_extra(extraConfig) {}

NatsServer::~NatsServer() { stop(); }

std::string NatsServer::hostPort() const { return "127.0.0.1:" + std::to_string(m_port); }
std::string NatsServer::url() const { return "nats://" + hostPort(); }

bool NatsServer::start() {
    if (m_pid > 0) return true;
    std::string conf = m_dir.file("nats.conf");
    {
        std::ofstream f(conf);
        f << "max_payload: " << m_maxPayload << "\n" << m_extra << "\n";
    }
    std::string portsDir = m_dir.file("ports");
    std::string cmd = "mkdir -p '" + portsDir + "' && rm -f '" + portsDir + "'/*";
    if (system(cmd.c_str()) != 0) {
        m_error = "cannot prepare " + portsDir;
        return false;
    }
    std::string bin = serverBinary();
    std::string port = m_port ? std::to_string(m_port) : "-1";
    std::string log = m_dir.file("nats.log");
    pid_t pid = fork();
    if (pid < 0) {
        m_error = "fork failed";
        return false;
    }
    if (pid == 0) {
        int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        if (fd >= 0) {
            dup2(fd, 1);
            dup2(fd, 2);
        }
        execl(bin.c_str(), bin.c_str(), "-c", conf.c_str(), "-a", "127.0.0.1", "-p", port.c_str(),
              "--ports_file_dir", portsDir.c_str(), (char*)nullptr);
        _exit(127);
    }
    m_pid = pid;
    if (!m_port && !readPortsFile(20000)) {
        stop();
        return false;
    }
    if (!waitForPort(20000)) {
        m_error = "nats-server does not accept connections on port " + std::to_string(m_port) + "; log: " +
                  readFile(log);
        stop();
        return false;
    }
    return true;
}

bool NatsServer::readPortsFile(int timeoutMs) {
    std::string path = m_dir.file("ports") + "/" + "nats-server_" + std::to_string(m_pid) + ".ports";
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < end) {
        std::string text = readFile(path);
        size_t at = text.find("127.0.0.1:");
        if (at != std::string::npos) {
            m_port = atoi(text.c_str() + at + 10);
            if (m_port > 0) return true;
        }
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            m_error = "nats-server exited: " + readFile(m_dir.file("nats.log"));
            return false;
        }
        // Polling a file the server writes once: no event to wait on.
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    m_error = "no ports file from nats-server";
    return false;
}

bool NatsServer::waitForPort(int timeoutMs) {
    auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < end) {
        if (canConnect(m_port)) return true;
        int status = 0;
        if (m_pid > 0 && waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = -1;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

void NatsServer::stop() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    auto end = Clock::now() + std::chrono::seconds(10);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid || r < 0) break;
        if (Clock::now() > end) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    m_pid = -1;
}

bool NatsServer::restart() {
    stop();
    // The old socket may linger briefly; start() retries until the port accepts.
    for (int attempt = 0; attempt < 50; ++attempt) {
        if (start()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return false;
}

}  // namespace kivtest
