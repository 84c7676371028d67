#include "tests/support/NatsServer.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace kivtest {

namespace {

std::string serverBinary() {
    const char* env = getenv("KIV_NATS_SERVER");
    if (env && *env) return env;
    for (const char* p : {"/usr/sbin/nats-server", "/usr/bin/nats-server", "/usr/local/bin/nats-server"})
        if (access(p, X_OK) == 0) return p;
    return "nats-server";
}

}  // namespace

NatsServer::NatsServer(int maxPayload, const std::string& extraConfig)
    : m_dir("kivnats"), m_maxPayload(maxPayload), m_extra(extraConfig) {}

NatsServer::~NatsServer() { stop(); }

std::string NatsServer::hostPort() const { return "127.0.0.1:" + std::to_string(m_port); }
std::string NatsServer::url() const { return "nats://" + hostPort(); }

bool NatsServer::start() {
    if (m_pid > 0) return true;
    const std::string conf = m_dir.file("nats.conf"), ports = m_dir.file("ports"), log = logPath();
    writeFile(conf, "max_payload: " + std::to_string(m_maxPayload) + "\n" + m_extra + "\n");
    std::error_code ec;
    std::filesystem::remove_all(ports, ec);
    std::filesystem::create_directories(ports, ec);
    const std::string bin = serverBinary(), port = m_port ? std::to_string(m_port) : "-1";
    m_pid = fork();
    if (m_pid == 0) {
        const int fd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
        dup2(fd, 1);
        dup2(fd, 2);
        execl(bin.c_str(), bin.c_str(), "-c", conf.c_str(), "-a", "127.0.0.1", "-p", port.c_str(), "--ports_file_dir",
              ports.c_str(), (char*)nullptr);
        _exit(127);
    }
    // The server writes its ports file once it accepts connections: poll it (the deadline is a safety net).
    const std::string portsFile = ports + "/nats-server_" + std::to_string(m_pid) + ".ports";
    for (int i = 0; i < 2000 && m_pid > 0; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        const std::string text = readFile(portsFile);  // {"nats":["nats://127.0.0.1:P"],"cluster":[...]}
        const size_t at = text.find("127.0.0.1:"), cluster = text.find("127.0.0.1:", text.find("\"cluster\""));
        const bool clustered = m_extra.find("cluster {") != std::string::npos;  // then both ports are written
        if (at != std::string::npos && atoi(text.c_str() + at + 10) > 0 &&
            (!clustered || cluster != std::string::npos)) {
            m_port = atoi(text.c_str() + at + 10);
            m_clusterPort = clustered ? atoi(text.c_str() + cluster + 10) : 0;
            return true;
        }
        if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) m_pid = -1;
    }
    m_error = "nats-server did not start listening; log: " + readFile(log);
    stop();
    return false;
}

void NatsServer::stop() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGTERM);
    bool reaped = false;
    for (int i = 0; i < 2000 && !(reaped = waitpid(m_pid, nullptr, WNOHANG) != 0); ++i)  // 10 s, then SIGKILL
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (!reaped && kill(m_pid, SIGKILL) == 0) waitpid(m_pid, nullptr, 0);
    m_pid = -1;
}

bool NatsServer::restart() {
    stop();
    // The old socket may linger briefly: a server that cannot listen exits, and start() is tried again.
    for (int attempt = 0; attempt < 50; ++attempt, std::this_thread::sleep_for(std::chrono::milliseconds(100)))
        if (start()) return true;
    return false;
}

}  // namespace kivtest
