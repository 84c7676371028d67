// The archive services of the real KivRequestProxy through nats-server, with
// kivctl zip / logs (CreateZip, GetFile, DeleteTempFile) against it.
#include "tests/archives/ArchiveTestSupport.h"
#include "tests/proxy/ProxyFixture.h"

namespace {

class ArchiveProxyTest : public ProxyTest {
protected:
    void SetUp() override {
        ProxyTest::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(setting("archive.diskReserveMB", 0));  // an 8 GiB archive on any machine
        ASSERT_TRUE(startProxy()) << proxyOutput();
    }
    const kivtest::TempDir& dir = data;
};

// An archive still being written when the proxy ends: SIGTERM stops the
// proxy at once and removes it. (What a SIGKILL leaves is removed by the next
// start: ArchivesLeftByAKilledRunAreRemovedAtStart.)
TEST_F(ArchiveProxyTest, ArchivesBeingWrittenAreRemovedAtStop) {
    const std::string huge = dir.file("huge.bin");  // 8 GiB of zeros, sparse: minutes of deflating
    kivtest::writeFile(huge, "");
    ASSERT_EQ(truncate(huge.c_str(), 8LL << 30), 0);
    CLocalVariant in, out;
    createZipInput(in.get(), {huge});
    ASSERT_EQ(call("CreateZip", in.get(), out.ptr()), 0) << proxyOutput();
    const std::string stopped = VUtil::GetStringElement(out.get(), 0);
    EXPECT_TRUE(fs::exists(stopped)) << "still being written after the 5 s wait";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(stopProxy(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(7));
    EXPECT_FALSE(fs::exists(stopped));
    EXPECT_THAT(proxyLog(), HasSubstr("Archive " + stopped + " abandoned; its file was removed"));
}

TEST_F(ArchiveProxyTest, KivctlZipAndLogs) {
    const std::string a = dir.file("m/a.txt"), out = dir.file("out.zip"), logs = dir.file("logs.zip");
    kivtest::writeFile(a, std::string(20000, 'q'));
    std::string text;
    ASSERT_EQ(kivctl("zip " + a + " -o " + out + " --chunk 1K", &text), 0) << text;  // --chunk as for get
    EXPECT_THAT(text, HasSubstr(out));
    EXPECT_FALSE(fs::exists(out + ".part"));
    EXPECT_EQ(zipMethods(out), (Methods{{"a.txt", "Defl:X"}}));
    ASSERT_EQ(kivctl("logs -o " + logs, &text), 0) << text;
    const Methods entries = zipMethods(logs);
    ASSERT_EQ(entries.count("KivRequestProxy.log"), 1u) << text;
    for (const auto& e : entries) EXPECT_EQ(e.second, "Defl:X") << e.first;
    for (const std::string& wrong : {"zip -o " + out, "zip " + a, "logs extra -o " + logs})
        EXPECT_EQ(kivctl(wrong), 64) << wrong;
    EXPECT_EQ(kivctl("zip --help", &text), 0);
    EXPECT_THAT(text, HasSubstr("usage: kivctl zip"));
    // Outside the temporary folders nothing is deleted, and the refusal is logged.
    CLocalVariant none;
    EXPECT_EQ(call("DeleteTempFile", "[\"/tmp/../etc/passwd\"]", none.ptr()), 403);
    EXPECT_EQ(stopProxy(), 0);  // the logger drains its queue
    EXPECT_THAT(proxyLog(), HasSubstr("DeleteTempFile refused /tmp/../etc/passwd"));
    EXPECT_THAT(proxyLog(), HasSubstr("Creating zip of 1 files (20000 -> "));
    EXPECT_THAT(proxyLog(), Not(HasSubstr("VT_EMPTY"))) << "an ordinary CreateZip warns of nothing";
}

}  // namespace
