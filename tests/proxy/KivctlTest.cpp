// kivctl against the running proxy: exit statuses and output, and the examples of docs/services.md.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

#include <nlohmann/json.hpp>

#include "files/CFileTools.h"
#include "tests/support/ProxyFixture.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

namespace {

const std::string kKivctl = KIV_BINARY_DIR "/bin/kivctl";

void replaceAll(std::string* text, const std::string& from, const std::string& to) {
    for (size_t at = text->find(from); at != std::string::npos; at = text->find(from, at + to.size()))
        text->replace(at, from.size(), to);
}

}  // namespace

TEST_F(ProxyTest, KivctlCommandsAnswerWithTheirExitStatuses) {
    // Unset (as other tests of this program may have set them): the build's version, no index.
    ASSERT_TRUE(setting("Version", CStdStr(), "Software\\Kiv Foundry\\Kiv"));
    ASSERT_TRUE(setting("kiv.streaming.performanceIndex", CStdStr()));
    ASSERT_TRUE(setting("archive.diskReserveMB", 0));  // no machine refuses the archive
    ASSERT_TRUE(startProxy()) << proxyOutput();
    kivtest::writeFile(data.file("a.log"), "first\nsecond\nthird\n");
    // A whole second that the proxy's count of days puts one rounding step off
    // the number its text reads back to: printed as that text all the same.
    long second = 1764000000;
    while (VUtil::TimeToDate(second) == second / 86400.0 + 25569) ++second;
    char date[64];
    snprintf(date, sizeof date, "{\"$vt\":\"DATE\",\"v\":%.17g}", VUtil::TimeToDate(second));
    const std::string when = TimeUtils::FormatTime2(second);
    const std::tuple<std::string, int, std::vector<std::string>> cases[] = {
        // command, exit, shown ("!": not shown)
        // Which name is wrong, and the nearest one; the service's own text kept.
        {"call NoSuchSatellite Echo", 2, {"-1002", "no satellite 'NoSuchSatellite' is running"}},
        {"call VorpaMediaProxi Echo", 2, {"no satellite 'VorpaMediaProxi'; did you mean 'VorpaMediaProxy'?"}},
        {"call VorpaMediaProxy GetFil", 2, {"has no service 'GetFil'; did you mean 'GetFile'?"}},
        {"call VorpaMediaProxy my-KIV_TailLog '[\"f\"]'", 2, {"SafeArrayGetElement", "(element 1) is missing"}},
        {"call VorpaMediaProxy Echo '[1,'", 64, {"column 4", "hint: the text ends early", "!parse_error"}},
        {"call EchoA Echo '" + std::string(date) + "'", 0, {when}},
        {"multi '[[\"EchoA\",\"Echo\"," + std::string(date) + "]]'", 0, {when}},
        // Directory options before the command too (the fixture adds --server after the first word).
        {"--version", 0, {"kivctl 0."}},
        {"--timeout=60000 list VorpaMediaProxy", 0, {"my-KIV_GetVersion", "Inparams: none; Outparams = (string)"}},
        // The build's version; empty fields left out of the table, kept in JSON.
        {"version", 0, {"version:          0.", "platform:         linux", "!placeholder", "!performanceIndex"}},
        {"version --json", 0, {"\"placeholder\": null", "\"performanceIndex\": \"\""}},
        // Integers as numbers, read from the settings the proxy shares here.
        {"config", 0, {"cabDirectory.port = " + std::to_string(server.port()), "!one-character"}},
        // Lines with -n; bytes with -c; a missing file.
        {"tail -n 2 " + data.file("a.log"), 0, {"second\nthird\n", "!first"}},
        {"tail -c 6 " + data.file("a.log"), 0, {"third\n", "!second"}},
        {"tail " + data.file("none.log"), 1, {"no such file"}},
        // A folder is never served: said as for a missing file, with a non-zero exit.
        {"tail " + data.path(), 1, {"no such file"}},
        {"zip --help", 0, {"usage: kivctl zip"}},
        {"zip -o " + data.file("x.zip"), 64, {}},
        {"zip " + data.file("a.log"), 64, {}},
        {"logs extra -o " + data.file("x.zip"), 64, {}},
        // A failing sub-request: named on stderr, the worst status decides the exit.
        {"multi '[[\"EchoA\",\"Echo\",7],[\"VorpaMediaProxy\",\"DeleteTempFile\",[\"/etc/hostname\"]]]'",
         1,
         {"\"out\": 7", "sub-request 2 (VorpaMediaProxy DeleteTempFile) answered 403"}},
        {"multi '[[\"Nobody\",\"X\",1],[\"VorpaMediaProxy\",\"DeleteTempFile\",[\"/etc/hostname\"]]]'",
         2,
         {"-1002", "no such satellite"}},
        {"multi '[[\"VorpaMediaProxy\",\"GetKivConfig\",null]]'", 2, {"-1013", "call it on its own"}},
        // The directory refuses (the later --server wins): the reason once, and what to do.
        {"list --server 127.0.0.1:1", 2, {"No server available", "no directory answers", "!kivctl: CAB_E"}},
    };
    for (const auto& [command, exit, texts] : cases) {
        SCOPED_TRACE(command);
        std::string out;
        EXPECT_EQ(kivctl(command, &out), exit) << out;
        for (const auto& text : texts)
            if (text[0] == '!') EXPECT_THAT(out, Not(HasSubstr(text.substr(1))));
            else EXPECT_THAT(out, HasSubstr(text));
    }
    // Without the proxy's settings at hand, the one-character form is explained.
    std::string out;
    EXPECT_EQ(kivctl("config", &out, "cd / && XDG_CONFIG_HOME=" + data.path() + " "), 0);
    EXPECT_THAT(out, HasSubstr("may be an integer"));

    // tail -f: appended bytes; a truncated file from its new end; a replaced one from its start.
    const std::string followed = data.file("f.log"), capture = data.file("follow.out"), pid = data.file("follow.pid");
    kivtest::writeFile(followed, "old line\n");
    kivctl("tail -f --interval 20 " + followed + " >" + capture + " 2>&1 & echo $! >" + pid);
    const std::pair<const char*, const char*> steps[] = {
        // a command in the folder, what the output then shows
        {"true", "old line\n"},
        {"printf 'added\\n' >> f.log", "added\n"},
        {"printf 'old' > f.log", "truncated"},
        {"printf ' tail\\n' >> f.log", " tail\n"},
        // Rotated: the name now holds a new file (renamed over it, so it never goes missing).
        {"cp f.log f.log.back && printf 'the new file\\n' > f.new && mv f.new f.log", "replaced"},
        {"true", "the new file\n"},
    };
    for (const auto& step : steps) {
        kivtest::runCommand("cd " + data.path() + " && " + step.first);
        if (!kivtest::eventually([&] { return kivtest::readFile(capture).find(step.second) != std::string::npos; },
                                 30000)) {
            ADD_FAILURE() << step.first << "\n" << kivtest::readFile(capture);
            break;
        }
    }
    kivtest::runCommand("kill $(cat " + pid + ")");
    EXPECT_THAT(kivtest::readFile(capture), Not(HasSubstr("old line\nadded\nold"))) << "truncated part again";
    // Read with the request the proxy does not log: following its own log adds nothing to it.
    EXPECT_THAT(proxyLog(), Not(HasSubstr("GetFile " + followed)));

    // kivctl zip and logs (CreateZip, GetFile, DeleteTempFile); DeleteTempFile's refusal logged.
    const size_t logged = proxyLog().size();  // the binary's tests share the log
    const std::string a = data.file("m/a.txt"), zip = data.file("out.zip"), logs = data.file("logs.zip");
    kivtest::writeFile(a, std::string(20000, 'q'));
    ASSERT_EQ(kivctl("zip " + a + " -o " + zip + " --chunk 1K", &out), 0) << out;  // --chunk as for get
    EXPECT_THAT(out, HasSubstr(zip));
    EXPECT_FALSE(fs::exists(zip + ".part"));
    EXPECT_EQ(zipMethods(zip), (Methods{{"a.txt", "Defl:X"}}));
    ASSERT_EQ(kivctl("logs -o " + logs, &out), 0) << out;
    EXPECT_EQ(zipMethods(logs).count("KivRequestProxy.log"), 1u) << out;
    CLocalVariant none;
    EXPECT_EQ(call("DeleteTempFile", "[\"/tmp/../etc/passwd\"]", none.ptr()), 403);
    EXPECT_EQ(stopProxy(), 0);  // the logger drains its queue
    const std::string log = proxyLog(), since = log.size() >= logged ? log.substr(logged) : log;
    EXPECT_THAT(since, HasSubstr("DeleteTempFile refused /tmp/../etc/passwd"));
    EXPECT_THAT(since, HasSubstr("Creating zip of 1 files (20000 -> "));
    EXPECT_THAT(since, Not(HasSubstr("VT_EMPTY"))) << "an ordinary CreateZip warns of nothing";
}

// Crash reports: found under KIV_ROOT, or in the var/root of a checkout that make run uses, and the folder is named.
TEST(KivctlCrashes, LooksWhereMakeRunFilesThem) {
    kivtest::TempDir checkout;
    kivtest::writeFile(checkout.file("scripts/run-local"), "");
    const std::string reports = checkout.file("var/root/Library/KivFoundry/CrashReports");
    kivtest::writeFile(reports + "/a.json", R"({"time":"T","application":"KivRequestProxy","signalName":"SIGSEGV"})");
    int status = -1;
    std::string out = kivtest::runCommand("cd " + checkout.file("var/root") + " && env -u KIV_ROOT " + kKivctl +
                                              " crashes 2>&1",
                                          &status);
    EXPECT_EQ(status, 0) << out;
    EXPECT_THAT(out, testing::AllOf(HasSubstr(reports), HasSubstr("KivRequestProxy  SIGSEGV")));
    out = kivtest::runCommand("cd " + checkout.path() + " && " + kKivctl + " crashes 2>&1", &status);
    EXPECT_EQ(status, 0);
    EXPECT_THAT(out, HasSubstr(std::string(getenv("KIV_ROOT")) + "/Library/KivFoundry/CrashReports"));
}

// A directory that refuses the credential: the reason once, and where kivctl
// takes its credential from; one that refuses a service: who may not call what.
TEST(KivctlConnection, ExplainsWhatTheDirectoryRefuses) {
    kivtest::NatsServer
        guarded(64 * 1024,
                "authorization { users = [{user: proxy, password: p},\n"
                "  {user: someone, password: secret, permissions: {publish: {deny: [\"cab.*.GenerateCrash.*\",\n"
                "  \"cab.*.my-KIV_TailLog.*\"]}}}] }\n");
    ASSERT_TRUE(guarded.start()) << guarded.error();
    int status = -1;
    const std::string out = kivtest::runCommand(kKivctl + " list --server " + guarded.hostPort() + " 2>&1", &status);
    EXPECT_EQ(status, 2) << out;
    EXPECT_THAT(out, testing::AllOf(HasSubstr("Violation"), HasSubstr("--password-file"), HasSubstr("var/kivctl")));
    EXPECT_EQ(out.find("Violation"), out.rfind("Violation")) << "said once\n" << out;

    // A proxy of its own settings; a user who may not call GenerateCrash nor my-KIV_TailLog.
    kivtest::TempDir dir;
    for (const std::string& value :
         {"cabDirectory.port -int " + std::to_string(guarded.port()), std::string("cabDirectory.user -string proxy"),
          std::string("cabDirectory.password -string p"), "files.roots -string " + dir.path()})
        kivtest::runCommand("XDG_CONFIG_HOME=" + dir.file("settings") + " " + kKivctl +
                            " defaults write 'Software\\Kiv Foundry\\Kiv\\Config' " + value);
    kivtest::ProxyProcess proxy;
    CabClient client;
    client.setUser("someone", "secret");
    ASSERT_EQ(client.Connect(guarded.hostPort().c_str(), "KivctlTestClient"), 0);
    ASSERT_TRUE(proxy.start({{"XDG_CONFIG_HOME", dir.file("settings")}}, dir.file("proxy.out")) &&
                proxy.waitUntilServing(client))
        << kivtest::readFile(dir.file("proxy.out"));
    kivtest::writeFile(dir.file("password"), "secret\n");
    kivtest::writeFile(dir.file("a.txt"), "abc");
    const std::string as = kKivctl + " --server " + guarded.hostPort() + " --user someone --password-file " +
                           dir.file("password") + " ";
    // Without my-KIV_TailLog a file still comes; a path that gives no byte is refused, saying why.
    const std::tuple<std::string, int, std::string> cases[] = {
        // command, exit status, output
        {"call VorpaMediaProxy GenerateCrash", 2,
         "does not let user 'someone' call GenerateCrash of VorpaMediaProxy (an admin"},
        {"get " + dir.file("a.txt") + " -o " + dir.file("b.txt"), 0, "3 bytes"},
        {"get " + dir.file("none") + " -o " + dir.file("b.txt"), 1, "cannot ask which"},
    };
    for (const auto& [command, exit, says] : cases) {
        const std::string said = kivtest::runCommand(as + command + " 2>&1", &status);
        EXPECT_EQ(status, exit) << said;
        EXPECT_THAT(said, HasSubstr(says));
    }
}

// Every "kivctl call" example of docs/services.md, with the files it describes: the same
// status, and the same answer unless the example says it varies (then the same kind).
TEST_F(ProxyTest, ServiceReferenceExamplesHold) {
    ASSERT_TRUE(startProxy()) << proxyOutput();
    kivtest::writeFile(data.file("hello.txt"), "hello, world\n");
    kivtest::writeFile(data.file("two.txt"), "a second file\n");
    // The "$ kivctl call ..." lines and the output under each; the crash last.
    std::vector<std::pair<std::string, std::string>> examples;
    std::ifstream doc(KIV_SOURCE_DIR "/docs/services.md");
    bool inOutput = false;
    for (std::string line; std::getline(doc, line);) {
        const bool call = line.rfind("$ kivctl call ", 0) == 0;
        if (call) examples.push_back({line.substr(2), ""});
        else if (line.rfind("```", 0) == 0) inOutput = false;
        else if (inOutput) examples.back().second += line + "\n";
        inOutput = inOutput || call;
    }
    std::stable_partition(examples.begin(), examples.end(),
                          [](const auto& e) { return e.first.find("GenerateCrash") == std::string::npos; });
    ASSERT_GE(examples.size(), 11u);
    for (const auto& [example, expected] : examples) {
        SCOPED_TRACE(example);
        std::string command = example.substr(0, example.find("  #"));
        replaceAll(&command, "kivctl call", kKivctl + " call --server " + server.hostPort());
        replaceAll(&command, "/tmp/kivdoc", data.path());
        replaceAll(&command, "|tmp|kivdoc", CFileTools::PathToFileBrowserMediumId(data.path()).substr(2));
        int exit = -1;
        const std::string errors = data.file("stderr");
        std::string out = kivtest::runCommand(command + " 2>" + errors, &exit);
        if (example.find("GenerateCrash") != std::string::npos) {  // said as soon as the proxy is gone
            EXPECT_THAT(kivtest::readFile(errors), HasSubstr("VorpaMediaProxy ended during the request"));
        }
        replaceAll(&out, root, "");
        const nlohmann::json got = nlohmann::json::parse(out, nullptr, false);
        const nlohmann::json want = nlohmann::json::parse(expected, nullptr, false);
        ASSERT_FALSE(want.is_discarded()) << "the reference's output";
        ASSERT_FALSE(got.is_discarded()) << out;
        const int status = want["status"].get<int>();
        EXPECT_EQ(exit, status == 0 ? 0 : CabIsLibraryStatus(status) ? 2 : 1);
        const nlohmann::json& made = got["out"].is_array() && !got["out"].empty() ? got["out"][0] : got["out"];
        if (made.is_string() && made.get<std::string>().rfind("/tmp/file", 0) == 0)
            std::remove(made.get<std::string>().c_str());
        if (example.find("# varies") == std::string::npos) {
            EXPECT_EQ(got, want);
        } else {  // the same kind of status and answer
            const int gotStatus = got["status"].get<int>();
            EXPECT_TRUE(CabIsLibraryStatus(status) ? CabIsLibraryStatus(gotStatus) : gotStatus == status);
            EXPECT_EQ(got["out"].type(), want["out"].type()) << out;
        }
    }
    // The crash ended the proxy through its crash handler, with status 0; the
    // reporter beside the executable filed the dump with a summary naming it.
    EXPECT_EQ(proxy.wait(), 0) << proxyOutput();
    EXPECT_THAT(kivtest::readFile(root + "/Library/Logs/KivFoundry/errors.log"),
                HasSubstr("crash of KivRequestProxy. minidump generated as "));
    const std::string reports = "cd " + root + "/Library/KivFoundry/CrashReports && ";
    EXPECT_EQ(kivtest::runCommand(reports + "ls | sed 's/.*[.]//'"), "dmp\njson\n");
    EXPECT_EQ(kivtest::runCommand(reports + "grep -l KivRequestProxy *.json | wc -l"), "1\n");
}
