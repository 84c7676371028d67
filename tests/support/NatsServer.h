// NatsServer: a real nats-server for one test, on a free loopback port, with a small max payload (so big answers travel
// in parts). start() returns once the server accepts connections; stop() ends it (SIGTERM, then SIGKILL) and reaps it;
// restart() brings it back on the same port. The destructor stops it.
#pragma once

#include <sys/types.h>

#include <string>

#include "tests/support/TempDir.h"

namespace kivtest {

class NatsServer {
public:
    // maxPayload in bytes; extraConfig is appended to the server's config file.
    explicit NatsServer(int maxPayload = 64 * 1024, const std::string& extraConfig = "");
    ~NatsServer();
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;

    void setMaxPayload(int bytes) { m_maxPayload = bytes; }  // for the next start()
    bool start();
    void stop();
    bool restart();

    int port() const { return m_port; }
    int clusterPort() const { return m_clusterPort; }  // of a "cluster { listen: 127.0.0.1:-1 }" block; else 0
    pid_t pid() const { return m_pid; }
    std::string hostPort() const;  // "127.0.0.1:PORT"
    std::string url() const;       // "nats://127.0.0.1:PORT"
    const std::string& error() const { return m_error; }
    // The server's standard output and error.
    std::string logPath() const { return m_dir.file("nats.log"); }

private:
    TempDir m_dir;
    int m_maxPayload;
    std::string m_extra;
    int m_port = 0;  // 0 until the first start picked one
    int m_clusterPort = 0;
    pid_t m_pid = -1;
    std::string m_error;
};

}  // namespace kivtest
