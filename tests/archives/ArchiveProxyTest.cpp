// The archive services of the real KivRequestProxy through nats-server, and
// kivctl zip / logs against it.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include "tests/archives/ArchiveTestSupport.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace fs = std::filesystem;

namespace {

class ArchiveProxyTest : public ProxyTest {
protected:
    void SetUp() override {
        ProxyTest::SetUp();
        if (HasFatalFailure()) return;
        startProxy();
        ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    }

    std::string kivctl(const std::string& arguments, int* status) {
        return kivtest::runCommand(std::string(KIV_BINARY_DIR) + "/bin/kivctl " + arguments + " --server " +
                                       server.hostPort() + " 2>&1",
                                   status);
    }

    kivtest::TempDir dir{"archives-proxy"};
};

TEST_F(ArchiveProxyTest, CreateZipFetchAndDelete) {
    const std::string a = dir.file("media/one.bin"), b = dir.file("media/two.txt");
    archivetest::writeRandomFile(a, 300000, 1);  // more than one chunk of the writer
    kivtest::writeFile(b, "second file");

    CLocalVariant in, out;
    archivetest::createZipInput(in.get(), {a, b});
    ASSERT_EQ(call("CreateZip", in.get(), out.ptr()), 0) << proxyOutput();
    const std::string zip = VUtil::GetStringElement(out.get(), 0);
    CLocalVariant size;
    VUtil::GetElement(out.get(), 1, size.get());
    ASSERT_EQ(size.vt(), VT_I8);

    // Fetched in chunks through "GetFile", as a client does.
    std::string data;
    for (;;) {
        CLocalVariant req, chunk;
        VUtil::CreateArray(req.get(), VT_VARIANT, 3);
        VUtil::PutElement(req.get(), 0, CStdStr(zip));
        VUtil::PutElement(req.get(), 1, static_cast<long long>(data.size()));
        VUtil::PutElement(req.get(), 2, 65536LL);
        ASSERT_EQ(call("GetFile", req.get(), chunk.ptr()), 0);
        ASSERT_EQ(chunk.vt(), VT_ARRAY | VT_UI1);
        size_t got = chunk.get().parray->rgsabound[0].cElements;
        data.append(static_cast<const char*>(chunk.get().parray->pvData), got);
        if (got < 65536) break;
    }
    EXPECT_EQ(static_cast<long long>(data.size()), size.get().llVal);
    const std::string copy = dir.file("copy.zip");
    kivtest::writeFile(copy, data);
    EXPECT_TRUE(archivetest::zipTestsOk(copy));
    EXPECT_EQ(archivetest::zipMethods(copy),
              (std::map<std::string, std::string>{{"one.bin", "Stored"}, {"two.txt", "Stored"}}));

    CLocalVariant del, none;
    VUtil::CreateArray(del.get(), VT_VARIANT, 1);
    VUtil::PutElement(del.get(), 0, CStdStr(zip));
    EXPECT_EQ(call("DeleteTempFile", del.get(), none.ptr()), 0);
    EXPECT_FALSE(fs::exists(zip));
    VUtil::PutElement(del.get(), 0, CStdStr("/tmp/../etc/passwd"));
    EXPECT_EQ(call("DeleteTempFile", del.get(), none.ptr()), 403);
    // The logger drains its queue when the proxy stops.
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    std::string log = kivtest::readFile(logsFolder() + "/KivRequestProxy.log");
    EXPECT_NE(log.find("DeleteTempFile refused /tmp/../etc/passwd"), std::string::npos) << "the refusal is logged";
    EXPECT_NE(log.find("Creating zip of 2 files (300011 -> "), std::string::npos);
}

// An archive still being written when the proxy ends: SIGTERM stops the
// proxy at once and removes it. (What a SIGKILL leaves is removed by the next
// start: ArchivesLeftByAKilledRunAreRemovedAtStart.)
TEST_F(ArchiveProxyTest, ArchivesBeingWrittenAreRemovedAtStop) {
    const std::string huge = dir.file("huge.bin");  // 8 GiB of zeros, sparse: minutes of deflating
    kivtest::writeFile(huge, "");
    ASSERT_EQ(truncate(huge.c_str(), 8LL << 30), 0);
    CLocalVariant in, out;
    archivetest::createZipInput(in.get(), {huge});
    ASSERT_EQ(call("CreateZip", in.get(), out.ptr()), 0) << proxyOutput();
    const std::string stopped = VUtil::GetStringElement(out.get(), 0);
    EXPECT_TRUE(fs::exists(stopped)) << "still being written after the 5 s wait";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
    EXPECT_FALSE(fs::exists(stopped));
    std::string log = kivtest::readFile(logsFolder() + "/KivRequestProxy.log");
    EXPECT_NE(log.find("Archive " + stopped + " abandoned; its file was removed"), std::string::npos);
}

TEST_F(ArchiveProxyTest, KivctlZipAndLogs) {
    const std::string a = dir.file("m/a.txt");
    kivtest::writeFile(a, std::string(20000, 'q'));
    const std::string out = dir.file("out.zip");
    int status = -1;
    std::string text = kivctl("zip " + a + " -o " + out, &status);
    ASSERT_EQ(status, 0) << text;
    EXPECT_NE(text.find(out), std::string::npos) << text;
    EXPECT_EQ(archivetest::zipMethods(out), (std::map<std::string, std::string>{{"a.txt", "Defl:X"}}));

    const std::string logs = dir.file("logs.zip");
    text = kivctl("logs -o " + logs, &status);
    ASSERT_EQ(status, 0) << text;
    EXPECT_TRUE(archivetest::zipTestsOk(logs));
    auto entries = archivetest::zipMethods(logs);
    ASSERT_EQ(entries.count("KivRequestProxy.log"), 1u) << text;
    for (const auto& e : entries) EXPECT_EQ(e.second, "Defl:X") << e.first;

    kivctl("zip -o " + out, &status);
    EXPECT_EQ(status, 64);
    kivctl("zip " + a, &status);
    EXPECT_EQ(status, 64);
    kivctl("logs extra -o " + logs, &status);
    EXPECT_EQ(status, 64);
    text = kivctl("zip --help", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(text.find("usage: kivctl zip"), std::string::npos);
}

}  // namespace
