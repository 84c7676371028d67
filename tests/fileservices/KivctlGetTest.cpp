// kivctl get and zip against the real proxy: chunked download, resume with
// --continue, output to stdout, usage errors, and what failures leave behind.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

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
    int get(const std::string& options, std::string* output = nullptr) { return kivctl("get " + options, output); }
    int kivctl(const std::string& command, std::string* output = nullptr, const std::string& cwd = "") {
        std::string cmd = (cwd.empty() ? "" : "cd " + cwd + " && ") + std::string(KIV_BINARY_DIR) + "/bin/kivctl " +
                          command.substr(0, command.find(' ')) + " --server " + hostPort() +
                          command.substr(command.find(' ')) + " 2>&1 </dev/null";
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
    EXPECT_FALSE(std::filesystem::exists(target + ".part"));
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

    EXPECT_EQ(get("", &output), 64) << output;
    EXPECT_EQ(get(path + " --chunk 0"), 64);
    EXPECT_EQ(get(path + " --chunk 5X"), 64);
    EXPECT_EQ(get(path + " --chunk 4G"), 64);
    EXPECT_EQ(get(path + " -o - --continue"), 64);
    EXPECT_EQ(get(path + " --bogus"), 64);
    EXPECT_EQ(get("--help", &output), 0);
    EXPECT_NE(output.find("usage: kivctl get"), std::string::npos);
}

// Run in the source's own folder without -o, get would write over its source;
// it refuses. An interrupted download keeps FILE.part, which --continue resumes.
TEST_F(KivctlGetTest, NeverWritesOverItsSourceAndKeepsAnInterruptedPart) {
    std::string output;
    EXPECT_EQ(kivctl("get " + path, &output, media.file("remote")), 64) << output;
    EXPECT_NE(output.find("refusing to write over"), std::string::npos) << output;
    ASSERT_EQ(symlink(path.c_str(), media.file("local/link.bin").c_str()), 0);
    EXPECT_EQ(get(path + " -o " + media.file("local/link.bin")), 64);
    EXPECT_TRUE(kivtest::readFile(path) == content) << "the source is untouched";

    const std::string big = media.file("remote/big.bin"), out = media.file("local/big.bin");
    const std::string bigContent = patternBytes(16 << 20, 3);
    kivtest::writeFile(big, bigContent);
    const std::string pidFile = media.file("local/pid"), rcFile = media.file("local/rc");
    kivtest::runCommand("sh -c '" + std::string(KIV_BINARY_DIR) + "/bin/kivctl get --server " + hostPort() + " " +
                        big + " -o " + out + " --chunk 4K >" + media.file("local/log") + " 2>&1 & echo $! >" +
                        pidFile + "; wait $!; echo $? >" + rcFile + "' >/dev/null 2>&1 &");
    struct stat st;
    bool started = false;
    for (int i = 0; i < 6000 && !started; ++i) {
        started = stat((out + ".part").c_str(), &st) == 0 && st.st_size > 0 && !kivtest::readFile(pidFile).empty();
        if (!started) usleep(10 * 1000);
    }
    ASSERT_TRUE(started) << kivtest::readFile(media.file("local/log"));
    kill(atoi(kivtest::readFile(pidFile).c_str()), SIGTERM);
    for (int i = 0; i < 6000 && kivtest::readFile(rcFile).empty(); ++i) usleep(10 * 1000);
    EXPECT_EQ(atoi(kivtest::readFile(rcFile).c_str()), 128 + SIGTERM);
    EXPECT_NE(kivtest::readFile(media.file("local/log")).find("resume with: kivctl get --continue"), std::string::npos)
        << kivtest::readFile(media.file("local/log"));
    EXPECT_FALSE(std::filesystem::exists(out)) << "only the part file is left";
    ASSERT_TRUE(std::filesystem::exists(out + ".part"));
    ASSERT_LT(std::filesystem::file_size(out + ".part"), bigContent.size());

    ASSERT_EQ(get(big + " -o " + out + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(out) == bigContent);
    EXPECT_FALSE(std::filesystem::exists(out + ".part"));
}

// Failures exit non-zero and leave no file: missing files, folders, clashing
// names, and a proxy that does not answer.
TEST_F(KivctlGetTest, FailuresExitNonZeroAndLeaveNothing) {
    kivtest::TempDir out("kivout");
    kivtest::writeFile(media.file("remote/sub/clip.bin"), "other");
    const std::string none = media.file("remote/none.bin"), folder = media.file("remote");
    struct Case {
        std::string command;
        int exit;
        std::string says;
    };
    const std::vector<Case> cases = {
        {"get " + none + " -o " + out.file("x"), 1, "no such file"},
        {"get " + folder + " -o " + out.file("x"), 1, "a folder"},
        {"get " + none, 1, "no such file"},
        {"zip " + none + " " + media.file("remote/none2.bin") + " -o " + out.file("z.zip"), 1,
         "none2.bin: no such file"},
        {"zip " + folder + " -o " + out.file("z.zip"), 1, "a folder"},
        {"zip " + path + " " + media.file("remote/sub/clip.bin") + " -o " + out.file("z.zip"), 64, "both be the entry"},
    };
    for (const Case& c : cases) {
        std::string output;
        EXPECT_EQ(kivctl(c.command, &output, out.path()), c.exit) << c.command << "\n" << output;
        EXPECT_NE(output.find(c.says), std::string::npos) << c.command << "\n" << output;
        EXPECT_TRUE(std::filesystem::is_empty(out.path())) << c.command << " left a file";
    }
    // A good archive, with --chunk given as for get.
    std::string output;
    ASSERT_EQ(kivctl("zip " + path + " -o " + out.file("z.zip") + " --chunk 1K", &output), 0) << output;
    EXPECT_FALSE(std::filesystem::exists(out.file("z.zip.part")));
    std::filesystem::remove(out.file("z.zip"));

    // The directory answers, the proxy does not.
    ASSERT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_EQ(kivctl("get " + path + " -o " + out.file("x"), &output, out.path()), 2) << output;
    EXPECT_EQ(kivctl("zip " + path + " -o " + out.file("z.zip"), &output, out.path()), 2) << output;
    EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

}  // namespace
