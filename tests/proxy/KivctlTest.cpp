// kivctl against the running proxy: exit statuses and output of the commands
// that ask the proxy, and the examples of docs/services.md, run as written.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "cab/CabStatus.h"
#include "host/CRegistry.h"
#include "tests/proxy/ProxyFixture.h"
#include "tests/support/TempDir.h"

namespace {

std::string kivctl() { return std::string(KIV_BINARY_DIR) + "/bin/kivctl"; }

void replaceAll(std::string* text, const std::string& from, const std::string& to) {
    if (from.empty()) return;
    for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size()))
        text->replace(at, from.size(), to);
}

// The file-browser medium id form of a path ("/" as "|", "." as ">", ...).
std::string mediumIdPath(std::string path) {
    for (char& c : path) c = c == '/' ? '|' : c == ' ' ? '*' : c == '.' ? '>' : c == '+' ? '<' : c;
    return path;
}

struct Example {
    std::string command, expected;
    bool varies = false;
};

// The "$ kivctl call ..." lines of a reference and the output under each.
std::vector<Example> examplesOf(const std::string& file) {
    std::ifstream in(file);
    std::vector<Example> all;
    std::string line;
    bool inOutput = false;
    while (std::getline(in, line)) {
        if (line.rfind("$ kivctl call ", 0) == 0) {
            all.push_back({line.substr(2), "", line.find("# varies") != std::string::npos});
            inOutput = true;
        } else if (line.rfind("```", 0) == 0) {
            inOutput = false;
        } else if (inOutput) {
            all.back().expected += line + "\n";
        }
    }
    return all;
}

}  // namespace

TEST_F(ProxyTest, KivctlCommandsAnswerWithTheirExitStatuses) {
    // Unset (as other tests of this program may have set them): the build's version, no index.
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "Version", CStdStr()));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv\\Config",
                                                           "kiv.streaming.performanceIndex", CStdStr()));
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    const std::string k = kivctl() + " ";
    const std::string at = " --server " + server.hostPort();
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.log"), "first\nsecond\nthird\n");
    struct Case {
        std::string command;
        int exit;
        std::vector<std::string> output;  // texts the output holds
        std::vector<std::string> absent;  // texts it must not hold
    };
    const Case cases[] = {
        {"call" + at + " VorpaMediaProxy my-KIV_TailLog '[\"/no/such/file\", 5]'", 1, {"\"status\": 404"}, {}},
        {"call" + at + " NoSuchSatellite Echo", 2, {"-1002"}, {}},
        {"call" + at + " VorpaMediaProxy Echo '[1,'", 64, {}, {}},
        {"list" + at + " VorpaMediaProxy", 0, {"my-KIV_GetVersion", "Inparams: none; Outparams = (string)zipPath"}, {}},
        // The build's version; empty fields left out of the table, kept in JSON.
        {"version" + at, 0, {"version:          0.", "platform:         linux"}, {"placeholder", "performanceIndex"}},
        {"version" + at + " --json", 0, {"\"placeholder\": null", "\"performanceIndex\": \"\""}, {}},
        // Integers as numbers, read from the settings the proxy shares here.
        {"config" + at, 0, {"cabDirectory.port = " + std::to_string(server.port())}, {"one-character"}},
        // Lines by default (10) and with -n; bytes with -c; a missing file.
        {"tail" + at + " -n 2 " + dir.file("a.log"), 0, {"second\nthird\n"}, {"first"}},
        {"tail" + at + " -c 6 " + dir.file("a.log"), 0, {"third\n"}, {"second"}},
        {"tail" + at + " " + dir.file("none.log"), 1, {"no such file"}, {}},
        // A failing sub-request: named on stderr, the worst status decides the exit.
        {"multi" + at + " '[[\"EchoA\",\"Echo\",7],[\"VorpaMediaProxy\",\"my-KIV_TailLog\",[\"/none\",1]]]'", 1,
         {"\"out\": 7", "sub-request 2 (VorpaMediaProxy my-KIV_TailLog) answered 404"}, {}},
        {"multi" + at + " '[[\"EchoA\",\"Echo\",7],[\"Nobody\",\"X\",1]]'", 2, {"-1002", "no such satellite"}, {}},
        // The directory refuses: the reason once, and what to do.
        {"list --server 127.0.0.1:1", 2, {"No server available", "no directory answers"}, {"kivctl: CAB_E"}},
    };
    for (const Case& c : cases) {
        int status = -1;
        std::string out = kivtest::runCommand(k + c.command + " 2>&1", &status);
        EXPECT_EQ(status, c.exit) << c.command << "\n" << out;
        for (const auto& text : c.output) EXPECT_NE(out.find(text), std::string::npos) << c.command << "\n" << out;
        for (const auto& text : c.absent) EXPECT_EQ(out.find(text), std::string::npos) << c.command << "\n" << out;
    }

    // Without the proxy's settings at hand, the one-character form is explained.
    int status = -1;
    std::string out =
        kivtest::runCommand("cd / && XDG_CONFIG_HOME=" + dir.path() + " " + kivctl() + " config" + at, &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find("may be an integer"), std::string::npos) << out;

    // tail -f: appended bytes; a truncated file from its new end; a replaced one from its start.
    const std::string followed = dir.file("f.log");
    kivtest::writeFile(followed, "old line\n");
    const std::string capture = dir.file("follow.out");
    kivtest::runCommand(k + "tail" + at + " -f --interval 20 " + followed + " >" + capture + " 2>&1 & echo $! >" +
                        dir.file("follow.pid"));
    auto waitFor = [&](const std::string& text) {
        for (int i = 0; i < 3000; ++i) {
            if (kivtest::readFile(capture).find(text) != std::string::npos) return true;
            usleep(10 * 1000);
        }
        return false;
    };
    ASSERT_TRUE(waitFor("old line\n")) << kivtest::readFile(capture);
    kivtest::runCommand("printf 'added\\n' >> " + followed);
    EXPECT_TRUE(waitFor("added\n")) << kivtest::readFile(capture);
    kivtest::runCommand("printf 'old' > " + followed);
    EXPECT_TRUE(waitFor("truncated")) << kivtest::readFile(capture);
    kivtest::runCommand("printf ' tail\\n' >> " + followed);
    EXPECT_TRUE(waitFor(" tail\n")) << kivtest::readFile(capture);
    // Rotated: the name now holds a new file (renamed over it, so it never goes missing).
    kivtest::runCommand("cp " + followed + " " + followed + ".back && printf 'the new file\\n' > " + followed +
                        ".new && mv " + followed + ".new " + followed);
    EXPECT_TRUE(waitFor("replaced")) << kivtest::readFile(capture);
    EXPECT_TRUE(waitFor("the new file\n")) << kivtest::readFile(capture);
    kivtest::runCommand("kill $(cat " + dir.file("follow.pid") + ")");
    EXPECT_EQ(kivtest::readFile(capture).find("old line\nadded\nold"), std::string::npos)
        << "the truncated part is not printed again";

    EXPECT_EQ(stopProxy(SIGTERM), 0);
}

// Crash reports: found under KIV_ROOT, or in the var/root of a checkout that
// make run uses, and the folder is named.
TEST(KivctlCrashes, LooksWhereMakeRunFilesThem) {
    kivtest::TempDir checkout;
    kivtest::writeFile(checkout.file("scripts/run-local"), "");
    kivtest::writeFile(checkout.file("var/root/Library/KivFoundry/CrashReports/a.json"),
                       "{\"time\":\"T\",\"application\":\"KivRequestProxy\",\"signalName\":\"SIGSEGV\"}");
    int status = -1;
    std::string out = kivtest::runCommand("cd " + checkout.file("var/root") + " && env -u KIV_ROOT " + kivctl() +
                                              " crashes 2>&1",
                                          &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find(checkout.file("var/root/Library/KivFoundry/CrashReports")), std::string::npos) << out;
    EXPECT_NE(out.find("KivRequestProxy  SIGSEGV"), std::string::npos) << out;
    out = kivtest::runCommand("cd " + checkout.path() + " && " + kivctl() + " crashes 2>&1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(out.find(std::string(getenv("KIV_ROOT")) + "/Library/KivFoundry/CrashReports"), std::string::npos)
        << out;
}

// A directory that refuses the credential: the reason once, and where kivctl
// takes its credential from.
TEST(KivctlConnection, ExplainsARefusedCredential) {
    kivtest::NatsServer guarded(64 * 1024, "authorization {\n  user: someone\n  password: secret\n}\n");
    ASSERT_TRUE(guarded.start()) << guarded.error();
    int status = -1;
    std::string out = kivtest::runCommand(kivctl() + " list --server " + guarded.hostPort() + " 2>&1", &status);
    EXPECT_EQ(status, 2) << out;
    EXPECT_NE(out.find("Violation"), std::string::npos) << out;
    EXPECT_EQ(out.find("Violation"), out.rfind("Violation")) << "said once\n" << out;
    EXPECT_NE(out.find("--password-file"), std::string::npos) << out;
    EXPECT_NE(out.find("var/kivctl"), std::string::npos) << out;
}

// Every "kivctl call" example of docs/services.md, run against the proxy with
// the two files the reference describes: the same status, and the same answer
// unless the example says it varies (then the same kind of answer).
TEST_F(ProxyTest, ServiceReferenceExamplesHold) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    kivtest::TempDir files("kivdoc");
    kivtest::writeFile(files.file("hello.txt"), "hello, world\n");
    kivtest::writeFile(files.file("two.txt"), "a second file\n");
    const std::string root = getenv("KIV_ROOT");
    const std::vector<Example> examples = examplesOf(std::string(KIV_SOURCE_DIR) + "/docs/services.md");
    ASSERT_GE(examples.size(), 11u);
    std::vector<Example> ordered;  // the crash last
    for (const auto& e : examples)
        if (e.command.find("GenerateCrash") == std::string::npos) ordered.push_back(e);
    for (const auto& e : examples)
        if (e.command.find("GenerateCrash") != std::string::npos) ordered.push_back(e);

    for (const Example& e : ordered) {
        std::string command = e.command;
        replaceAll(&command, "kivctl call", kivctl() + " call --server " + server.hostPort());
        replaceAll(&command, "/tmp/kivdoc", files.path());
        replaceAll(&command, "|tmp|kivdoc", mediumIdPath(files.path()));
        int exit = -1;
        std::string out = kivtest::runCommand(command + " 2>/dev/null", &exit);
        replaceAll(&out, root, "");
        nlohmann::json got = nlohmann::json::parse(out, nullptr, false);
        nlohmann::json want = nlohmann::json::parse(e.expected, nullptr, false);
        ASSERT_FALSE(want.is_discarded()) << "the reference's output of " << e.command;
        ASSERT_FALSE(got.is_discarded()) << e.command << "\n" << out;
        const int status = want["status"].get<int>();
        EXPECT_EQ(exit, status == 0 ? 0 : CabIsLibraryStatus(status) ? 2 : 1) << e.command;
        // Archives the examples made are removed again.
        const nlohmann::json& made = got["out"].is_array() && !got["out"].empty() ? got["out"][0] : got["out"];
        if (made.is_string() && made.get<std::string>().rfind("/tmp/file", 0) == 0)
            std::remove(made.get<std::string>().c_str());
        if (e.varies) {
            if (CabIsLibraryStatus(status)) EXPECT_TRUE(CabIsLibraryStatus(got["status"].get<int>())) << out;
            else EXPECT_EQ(got["status"], want["status"]) << e.command << "\n" << out;
            EXPECT_EQ(got["out"].type(), want["out"].type()) << e.command << "\n" << out;
        } else {
            EXPECT_EQ(got, want) << e.command;
        }
    }
}
