// kivctl get and zip against the real proxy: chunked download, resume with
// --continue, output to stdout, usage errors, and what failures leave behind.
#include <sys/stat.h>

#include "tests/fileservices/TransferFixture.h"

namespace {

class KivctlGetTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(path, content);
        kivtest::writeFile(target, "");
    }
    int get(const std::string& options, std::string* out = nullptr) { return kivctl("get " + options, out); }
    const std::string content = patternBytes(100000, 7), path = media.file("remote/clip.bin");
    const std::string target = media.file("local/clip.bin");
};

TEST_F(KivctlGetTest, DownloadsInChunksAndToStandardOutputAndRefusesBadUsage) {
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --chunk 7K", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_THAT(output, HasSubstr("100000 bytes"));
    EXPECT_THAT(output, Not(HasSubstr("\r"))) << "no progress bar when not on a terminal";
    // 100000 bytes in 7168-byte chunks: the last request starts at 13 * 7168.
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 93184, maxBytes: 7168"));
    EXPECT_THAT(proxyLog(), Not(HasSubstr("offset: 100352"))) << "no request past the end";
    ASSERT_EQ(get(path + " -o - --chunk 64K", &output), 0);
    EXPECT_TRUE(output == content) << "stdout holds exactly the file";
    for (const std::string& options : {path + " --chunk 0", path + " --chunk 5X", path + " --chunk 4G",
                                       path + " -o - --continue", path + " --bogus", std::string()})
        EXPECT_EQ(get(options), 64) << options;
    EXPECT_EQ(get("--help", &output), 0);
    EXPECT_THAT(output, HasSubstr("usage: kivctl get"));
}

TEST_F(KivctlGetTest, ContinueFetchesOnlyTheRest) {
    kivtest::writeFile(target, content.substr(0, 30000));
    std::string output;
    ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    EXPECT_FALSE(std::filesystem::exists(target + ".part"));
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 30000, maxBytes: 4194304"));
    EXPECT_THAT(proxyLog(), Not(HasSubstr("GetFile " + path + ", offset: 0,"))) << "nothing fetched twice";
    // Complete already: nothing to do, still success.
    ASSERT_EQ(get(path + " -o " + target + " --continue", &output), 0) << output;
    EXPECT_TRUE(kivtest::readFile(target) == content);
    // Longer than the remote file: refused, the local file is kept.
    kivtest::writeFile(target, content + "extra");
    EXPECT_EQ(get(path + " -o " + target + " --continue", &output), 2) << output;
    EXPECT_EQ(kivtest::readFile(target).size(), content.size() + 5);
}

// Run in the source's own folder without -o, get would write over its source;
// it refuses. An interrupted download keeps FILE.part, which --continue resumes.
TEST_F(KivctlGetTest, NeverWritesOverItsSourceAndKeepsAnInterruptedPart) {
    std::string output;
    EXPECT_EQ(kivctl("get " + path, &output, "cd " + media.file("remote") + " && "), 64) << output;
    EXPECT_THAT(output, HasSubstr("refusing to write over"));
    ASSERT_EQ(symlink(path.c_str(), media.file("local/link.bin").c_str()), 0);
    EXPECT_EQ(get(path + " -o " + media.file("local/link.bin")), 64);
    EXPECT_TRUE(kivtest::readFile(path) == content) << "the source is untouched";

    const std::string big = media.file("remote/big.bin"), out = media.file("local/big.bin");
    const std::string bigContent = patternBytes(16 << 20, 3), log = media.file("local/log");
    const std::string pidFile = media.file("local/pid"), rcFile = media.file("local/rc");
    kivtest::writeFile(big, bigContent);
    kivtest::runCommand("sh -c '" KIV_BINARY_DIR "/bin/kivctl get --server " + hostPort() + " " + big +
                        " -o " + out + " --chunk 4K >" + log + " 2>&1 & echo $! >" + pidFile + "; wait $!; " +
                        "echo $? >" + rcFile + "' >/dev/null 2>&1 &");
    struct stat st;
    auto started = [&] {
        return stat((out + ".part").c_str(), &st) == 0 && st.st_size > 0 && kivtest::readFile(pidFile) != "";
    };
    for (int i = 0; i < 6000 && !started(); ++i) usleep(10 * 1000);
    ASSERT_TRUE(started()) << kivtest::readFile(log);
    kill(atoi(kivtest::readFile(pidFile).c_str()), SIGTERM);
    for (int i = 0; i < 6000 && kivtest::readFile(rcFile).empty(); ++i) usleep(10 * 1000);
    EXPECT_EQ(atoi(kivtest::readFile(rcFile).c_str()), 128 + SIGTERM);
    EXPECT_THAT(kivtest::readFile(log), HasSubstr("resume with: kivctl get --continue"));
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
    const std::string here = "cd " + out.path() + " && ";
    kivtest::writeFile(media.file("remote/sub/clip.bin"), "other");
    const std::string none = media.file("remote/none.bin"), folder = media.file("remote");
    const std::string x = " -o " + out.file("x"), zip = " -o " + out.file("z.zip");
    const std::tuple<std::string, int, std::string> cases[] = {  // command, exit status, output
        {"get " + none + x, 1, "no such file"},
        {"get " + folder + x, 1, "a folder"},
        {"get " + none, 1, "no such file"},
        {"zip " + none + " " + media.file("remote/none2.bin") + zip, 1, "none2.bin: no such file"},
        {"zip " + folder + zip, 1, "a folder"},
        {"zip " + path + " " + media.file("remote/sub/clip.bin") + zip, 64, "both be the entry"},
    };
    for (const auto& [command, exit, says] : cases) {
        SCOPED_TRACE(command);
        std::string output;
        EXPECT_EQ(kivctl(command, &output, here), exit) << output;
        EXPECT_THAT(output, HasSubstr(says));
        EXPECT_TRUE(std::filesystem::is_empty(out.path())) << "a file is left";
    }
    // A good archive, with --chunk given as for get.
    std::string output;
    ASSERT_EQ(kivctl("zip " + path + zip + " --chunk 1K", &output), 0) << output;
    EXPECT_FALSE(std::filesystem::exists(out.file("z.zip.part")));
    std::filesystem::remove(out.file("z.zip"));
    // The directory answers, the proxy does not.
    ASSERT_EQ(stopProxy(), 0);
    EXPECT_EQ(kivctl("get " + path + x, &output, here), 2) << output;
    EXPECT_EQ(kivctl("zip " + path + zip, &output, here), 2) << output;
    EXPECT_TRUE(std::filesystem::is_empty(out.path()));
}

}  // namespace
