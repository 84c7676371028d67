// kivctl get against the real proxy: chunked download, resume with
// --continue, output to stdout and usage errors.
#include <unistd.h>

#include "tests/fileservices/TransferFixture.h"

namespace {

class KivctlGetTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        content = patternBytes(100000, 7);
        path = media.file("remote/clip.bin");
        kivtest::writeFile(path, content);
        target = media.file("local/clip.bin");
        kivtest::writeFile(target, "");
    }
    // Runs kivctl get with `options`; returns its exit status, *output its stdout and stderr.
    int get(const std::string& options, std::string* output = nullptr) {
        std::string cmd = std::string(KIV_BINARY_DIR) + "/bin/kivctl get --server " + hostPort() + " " +
                          options + " 2>&1 </dev/null";
        int status = -1;
        std::string out = kivtest::runCommand(cmd, &status);
        if (output) *output = out;
        return status;
    }
    std::string content, path, target;
};

TEST_F(KivctlGetTest, DownloadsInChunks) {
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --chunk 7K", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_NE(output.find("100000 bytes"), std::string::npos) << output;
    EXPECT_EQ(output.find('\r'), std::string::npos) << "no progress bar when not on a terminal";
    // 100000 bytes in 7168-byte chunks: the last request starts at 13 * 7168.
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 93184, maxBytes: 7168"));
    EXPECT_EQ(proxyLog().find("offset: 100352"), std::string::npos) << "no request past the end";
}

TEST_F(KivctlGetTest, ContinueFetchesOnlyTheRest) {
    kivtest::writeFile(target, content.substr(0, 30000));
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 30000, maxBytes: 4194304"));
    EXPECT_EQ(proxyLog().find("GetFile " + path + ", offset: 0,"), std::string::npos) << "nothing fetched twice";

    // Complete already: nothing to do, still success.
    ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    // Longer than the remote file: refused, the local file is kept.
    kivtest::writeFile(target, content + "extra");
    EXPECT_EQ(get(path + " -o " + target + " --continue", &output), 2) << output;
    EXPECT_EQ(kivtest::readFile(target).size(), content.size() + 5);
}

TEST_F(KivctlGetTest, StandardOutputAndUsageErrors) {
    std::string output;
    ASSERT_EQ(get(path + " -o - --chunk 64K", &output), 0);
    EXPECT_TRUE(output == content) << "stdout holds exactly the file";

    EXPECT_EQ(get(""), 64);
    EXPECT_EQ(get(path + " --chunk 0"), 64);
    EXPECT_EQ(get(path + " --chunk 5X"), 64);
    EXPECT_EQ(get(path + " --chunk 4G"), 64);
    EXPECT_EQ(get(path + " -o - --continue"), 64);
    EXPECT_EQ(get(path + " --bogus"), 64);
    EXPECT_EQ(get("--help", &output), 0);
    EXPECT_NE(output.find("usage: kivctl get"), std::string::npos);
}

}  // namespace
