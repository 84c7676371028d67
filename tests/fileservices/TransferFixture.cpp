#include "tests/fileservices/TransferFixture.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "host/CRegistry.h"
#include "variant/VUtil.h"

void TransferTest::SetUp() {
    ProxyTest::SetUp();
    if (HasFatalFailure()) return;
    if (maxPayload() > 0) {
        ownServer.reset(new kivtest::NatsServer(maxPayload()));
        ASSERT_TRUE(ownServer->start()) << ownServer->error();
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                               "cabDirectory.port", ownServer->port()));
        client.reset(new CabClient);
        ASSERT_EQ(client->Connect(ownServer->hostPort().c_str(), "TransferTestClient"), 0);
    }
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
}

void TransferTest::TearDown() {
    stopCatalog();
    ProxyTest::TearDown();
    ownServer.reset();
}

std::string TransferTest::hostPort() const { return ownServer ? ownServer->hostPort() : server.hostPort(); }

bool TransferTest::startCatalog(const std::string& catalogJson) {
    std::string file = media.file("catalog.json");
    kivtest::writeFile(file, catalogJson);
    int fds[2];
    if (pipe(fds) != 0) return false;
    std::string exe = std::string(KIV_BINARY_DIR) + "/bin/kiv-media-catalog";
    std::string server = hostPort();
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], 1);
        close(fds[0]);
        close(fds[1]);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl(exe.c_str(), exe.c_str(), "--catalog", file.c_str(), "--root", media.path().c_str(), "--server",
              server.c_str(), (char*)nullptr);
        _exit(127);
    }
    close(fds[1]);
    catalogPid = pid;
    catalogOut = fds[0];
    std::string seen;  // until "ready"; the deadline is only a safety net
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (seen.find("ready\n") == std::string::npos) {
        pollfd p{catalogOut, POLLIN, 0};
        if (std::chrono::steady_clock::now() > deadline) return false;
        if (poll(&p, 1, 1000) <= 0) continue;
        char buf[256];
        ssize_t n = read(catalogOut, buf, sizeof buf);
        if (n <= 0) return false;  // it ended without serving
        seen.append(buf, n);
    }
    return true;
}

void TransferTest::stopCatalog() {
    if (catalogPid > 0) {
        kill(catalogPid, SIGTERM);
        waitpid(catalogPid, nullptr, 0);
        catalogPid = -1;
    }
    if (catalogOut >= 0) close(catalogOut);
    catalogOut = -1;
}

int TransferTest::getFile(const std::string& jsonIn, std::string* bytes) {
    CLocalVariant out;
    int status = call("GetFile", jsonIn, out.ptr());
    bytes->clear();
    if (status == 0) {
        EXPECT_EQ(out.vt(), VT_ARRAY | VT_UI1);
        if (out.vt() == (VT_ARRAY | VT_UI1))
            bytes->assign(static_cast<const char*>(out.get().parray->pvData), out.get().parray->rgsabound[0].cElements);
    }
    return status;
}

int TransferTest::getFile(const std::string& path, VARTYPE vt, long long offset, long long max, std::string* bytes) {
    const char* type = vt == VT_I4 ? "I4" : vt == VT_UI4 ? "UI4" : vt == VT_I8 ? "I8" : "UI8";
    auto count = [&](long long v) {  // as the type holds it: the 32-bit ones wrap
        return R"({"$vt": ")" + std::string(type) + R"(", "v": )" +
               (vt == VT_I4    ? std::to_string((int32_t)v)
                : vt == VT_UI4 ? std::to_string((uint32_t)v)
                : vt == VT_UI8 ? std::to_string((uint64_t)v)
                               : std::to_string(v)) +
               "}";
    };
    return getFile("[\"" + path + "\", " + count(offset) + ", " + count(max) + "]", bytes);
}

int TransferTest::queryFileSize(const std::string& medium, const std::vector<std::string>& items, int* count,
                                long long* total) {
    std::string in = "[\"" + medium + "\", [";
    for (size_t i = 0; i < items.size(); ++i) in += (i ? ", \"" : "\"") + items[i] + "\"";
    CLocalVariant out;
    int status = call("QueryFileSize", in + "]]", out.ptr());
    if (status != 0) return status;
    CLocalVariant c, t;
    VUtil::GetElement(out.get(), 0, c.get());
    VUtil::GetElement(out.get(), 1, t.get());
    EXPECT_TRUE(c.vt() == VT_I4 && t.vt() == VT_I8) << json(out.get());
    *count = c.get().lVal;
    *total = t.get().llVal;
    return 0;
}

std::string TransferTest::proxyLog() const {
    // Shared by the binary's tests: it may rotate in the middle of one.
    std::string log = logsFolder() + "/KivRequestProxy.log";
    return kivtest::readFile(log + ".back") + kivtest::readFile(log);
}

std::string patternBytes(size_t size, unsigned pattern) {
    std::string s(size, '\0');
    uint64_t x = 0x9E3779B97F4A7C15ull ^ pattern;
    for (size_t i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 7;
        x ^= x << 17;
        s[i] = static_cast<char>(x);
    }
    return s;
}

bool TransferTest::waitForLog(const std::string& text) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (proxyLog().find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
