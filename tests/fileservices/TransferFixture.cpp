#include "tests/fileservices/TransferFixture.h"

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "files/CFileTools.h"
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
    // Waits for "ready"; the deadline is only a safety net.
    std::string seen;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (seen.find("ready\n") == std::string::npos) {
        int left = (int)std::chrono::duration_cast<std::chrono::milliseconds>(deadline -
                                                                              std::chrono::steady_clock::now())
                       .count();
        if (left <= 0) return false;
        pollfd p{catalogOut, POLLIN, 0};
        if (poll(&p, 1, left) <= 0) continue;
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

int TransferTest::getFile(const tagVARIANT& in, std::string* bytes) {
    CLocalVariant out;
    int status = call("GetFile", in, out.ptr());
    bytes->clear();
    if (status == 0) {
        EXPECT_EQ(out.vt(), VT_ARRAY | VT_UI1);
        if (out.vt() == (VT_ARRAY | VT_UI1))
            bytes->assign(static_cast<const char*>(out.get().parray->pvData), out.get().parray->rgsabound[0].cElements);
    }
    return status;
}

int TransferTest::getFile(const std::string& path, std::string* bytes) {
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    return getFile(in.get(), bytes);
}

int TransferTest::getFile(const std::string& path, VARTYPE vt, long long offset, long long max, std::string* bytes) {
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    for (int i = 1; i <= 2; ++i) {
        long long value = i == 1 ? offset : max;
        tagVARIANT v;
        VariantInit(&v);
        v.vt = vt;
        switch (vt) {
            case VT_I4: v.lVal = (int32_t)value; break;
            case VT_UI4: v.ulVal = (uint32_t)value; break;
            case VT_I8: v.llVal = value; break;
            case VT_UI8: v.ullVal = (uint64_t)value; break;
            default: ADD_FAILURE() << "not a count type";
        }
        VUtil::PutElement(in.get(), i, v);
    }
    return getFile(in.get(), bytes);
}

int TransferTest::queryFileSize(const std::string& medium, const std::vector<std::string>& items, int* count,
                                long long* total) {
    CLocalVariant in, list, out;
    VUtil::CreateArray(list.get(), VT_VARIANT, items.size());
    for (size_t i = 0; i < items.size(); ++i) VUtil::PutElement(list.get(), (int)i, CStdStr(items[i]));
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, CStdStr(medium));
    VUtil::PutElement(in.get(), 1, list.get());
    int status = call("QueryFileSize", in.get(), out.ptr());
    if (status != 0) return status;
    CLocalVariant c, t;
    VUtil::GetElement(out.get(), 0, c.get());
    VUtil::GetElement(out.get(), 1, t.get());
    EXPECT_EQ(c.vt(), VT_I4);
    EXPECT_EQ(t.vt(), VT_I8);
    *count = c.get().lVal;
    *total = t.get().llVal;
    return 0;
}

std::string TransferTest::proxyLog() const {
    // The log is shared by every test of the binary and may rotate in the middle of one.
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
