#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "host/CRegistry.h"
#include "host/Preferences.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

namespace {

// Each test has its own XDG_CONFIG_HOME, so never sees another's domains.
class SettingsTest : public ::testing::Test {
protected:
    std::string folder() const { return m_dir.path() + "/kivfoundry"; }
    kivtest::TempDir m_dir{"kivsettings"};
    kivtest::ScopedEnv m_env{"XDG_CONFIG_HOME", m_dir.path().c_str()};
    CRegistryImpl r;
};

const char* const kKiv = "Software\\Kiv Foundry\\Kiv";
const char* const kConfig = "Software\\Kiv Foundry\\Kiv\\Config";

unsigned modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 01000000;  // no mode when missing
}

TEST_F(SettingsTest, ValuesOfEveryTypeRoundTrip) {
    int i = -5;
    EXPECT_TRUE(!r.ReadSettingImpl(kKiv, "Missing", i) && i == -5);
    for (int v : {0, 7, -1, 2147483647, -2147483647 - 1}) {
        ASSERT_TRUE(r.WriteSettingImpl(kKiv, "Int", v));
        EXPECT_TRUE(r.ReadSettingImpl(kKiv, "Int", i) && i == v) << v;
    }
    ASSERT_TRUE(r.WriteSettingImpl(kConfig, "cabDirectory.host", CStdStr("10.0.0.1")));
    CStdStr s, asString = "unchanged";
    EXPECT_TRUE(r.ReadSettingImpl("SOFTWARE\\KIV FOUNDRY\\KIV\\CONFIG", "cabDirectory.host", s) && s == "10.0.0.1");
    // Types survive: an int is not read as a string and the other way round.
    EXPECT_TRUE(!r.ReadSettingImpl(kKiv, "Int", asString) && asString == "unchanged");
    // ...but a text holding a decimal number reads as one; other texts and booleans warn once.
    const std::pair<const char*, int> ports[] = {{"37715", 37715}, {" -12 ", -12},
                                                 {"+5", 5},        {"-2147483648", -2147483647 - 1},
                                                 {"", 0},          {"+", 0},
                                                 {"+-1", 0},       {"12abc", 0},
                                                 {"0x10", 0},      {"2147483648", 0},
                                                 {"1 2", 0}};
    for (const auto& [text, number] : ports) {
        ASSERT_TRUE(r.WriteSettingImpl(kConfig, "cabDirectory.port", CStdStr(text)));
        int port = 4222;
        EXPECT_EQ(number != 0, r.ReadSettingImpl(kConfig, "cabDirectory.port", port)) << text;
        EXPECT_EQ(number != 0 ? number : 4222, port) << text;
    }
    ASSERT_TRUE(Preferences::Set(r.createKey(kConfig), "flagged", Preferences::Value::ofBool(true)));
    for (const char* name : {"cabDirectory.host", "flagged"}) {
        testing::internal::CaptureStderr();
        int asInt = 99;
        EXPECT_FALSE(r.ReadSettingImpl(kConfig, name, asInt) || r.ReadSettingImpl(kConfig, name, asInt)) << name;
        EXPECT_EQ(99, asInt) << name;
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string("settings: warning: ") + name +
                      " in com.kiv-foundry.kiv.config is neither a number nor a text of one; the default applies\n");
    }
    // Booleans: the reader takes the key path as the domain as given.
    ASSERT_TRUE(
        Preferences::Set("com.kiv-foundry.kiv.config", "app.fileBrowser.enabled", Preferences::Value::ofBool(true)));
    bool b = false;
    EXPECT_TRUE(r.ReadSettingImpl("com.kiv-foundry.kiv.config", "app.fileBrowser.enabled", b) && b);
    EXPECT_TRUE(!r.ReadSettingImpl(kConfig, "app.fileBrowser.enabled", b) && b);        // untouched
    ASSERT_TRUE(Preferences::Set(kConfig, "flag", Preferences::Value::ofBool(false)));  // backslashes in the domain
    EXPECT_TRUE(r.ReadSettingImpl(kConfig, "flag", b) && !b);
    // Texts are byte strings: any bytes round-trip.
    std::string all;
    for (int k = 0; k < 256; ++k) all += static_cast<char>(k);
    // Latin-1, valid UTF-8, what looks like the escape form, controls, a long text that is not UTF-8.
    int n = 0;
    for (const std::string& c :
         {all, std::string(), std::string("\0", 1), std::string("a\0b\0", 4), std::string("\xff"),
          std::string("caf\xe9"), std::string("\xc3\xa9t\xc3\xa9"), std::string("{\"$bytes\": \"AAAA\"}"),
          std::string("line\nbreak\ttab\\slash\"quote"), std::string(70000, 'x') + "\x80"}) {
        CStdStr name = CStdStr::Formatted("s%d", n++);
        ASSERT_TRUE(r.WriteSettingImpl(kKiv, name, CStdStr(c)));
        CStdStr back = "sentinel";
        EXPECT_TRUE(r.ReadSettingImpl(kKiv, name, back) && c == static_cast<const std::string&>(back)) << n - 1;
    }
    // Key names that are not UTF-8 are refused rather than mangled.
    EXPECT_FALSE(r.WriteSettingImpl(kKiv, "bad\xff", 1));
}

TEST_F(SettingsTest, ReadAllDumpsStringsAndLowByteOfIntsAndCorruptDomainsAreMovedAside) {
    std::map<CStdStr, CStdStr> values;
    testing::internal::CaptureStdout();
    r.ReadAllSettingsImpl(kConfig, values);
    EXPECT_TRUE("no keys for com.kiv-foundry.kiv.config\n" == testing::internal::GetCapturedStdout() && values.empty());
    ASSERT_TRUE(r.WriteSettingImpl(kConfig, "seven", 7));
    ASSERT_TRUE(r.WriteSettingImpl(kConfig, "letter", 65 + 256));
    ASSERT_TRUE(r.WriteSettingImpl(kConfig, "name", CStdStr("value")));
    ASSERT_TRUE(Preferences::Set("com.kiv-foundry.kiv.config", "on", Preferences::Value::ofBool(true)));
    values["stale"] = "kept";
    r.ReadAllSettingsImpl(kConfig, values);
    EXPECT_EQ((std::map<CStdStr, CStdStr>{{"letter", "A"}, {"name", "value"}, {"seven", "\7"}, {"stale", "kept"}}),
              values);
    // A corrupt domain fails reads until written, and the writer moves it aside.
    std::string file = folder() + "/com.kiv-foundry.kiv.json";
    kivtest::writeFile(file, "{\"LogLevel\": 4,");
    int level = 1;
    EXPECT_TRUE(!r.ReadSettingImpl(kKiv, "LogLevel", level) && level == 1);
    testing::internal::CaptureStdout();
    r.ReadAllSettingsImpl(kKiv, values);
    EXPECT_EQ("synchronization failed for com.kiv-foundry.kiv\n", testing::internal::GetCapturedStdout());
    testing::internal::CaptureStderr();
    ASSERT_TRUE(r.WriteSettingImpl(kKiv, "Version", CStdStr("1.2")));
    EXPECT_NE(std::string::npos, testing::internal::GetCapturedStderr().find(".corrupt"));
    EXPECT_EQ("{\"LogLevel\": 4,", kivtest::readFile(file + ".corrupt"));
    EXPECT_EQ(0600u, modeOf(file + ".corrupt"));  // it may hold credentials
    CStdStr version;
    EXPECT_TRUE(r.ReadSettingImpl(kKiv, "Version", version) && version == "1.2");
    EXPECT_FALSE(r.ReadSettingImpl(kKiv, "LogLevel", level));
    // JSON that is not an object is corrupt too: reads keep the values last read well.
    kivtest::writeFile(file, "[1, 2]");
    version.clear();
    EXPECT_TRUE(r.ReadSettingImpl(kKiv, "Version", version) && version == "1.2");
}

// Whatever takes the place of a domain file (a FIFO nobody writes, a folder, a link, a huge
// file), reads answer at once with the values last read, and the refusal is reported once.
TEST_F(SettingsTest, UnreadableFilesAreRefusedAtOnceKeepingTheLastGoodValues) {
    std::string file = folder() + "/com.kiv-foundry.kiv.json", fifo = folder() + "/com.kiv-foundry.kiv.config.json";
    ASSERT_TRUE(r.WriteSettingImpl(kKiv, "LogLevel", 4));
    ASSERT_TRUE(r.WriteSettingImpl(kKiv, "Version", CStdStr("1.2")));
    int level = 0;
    ASSERT_TRUE(r.ReadSettingImpl(kKiv, "LogLevel", level));  // read well once
    kivtest::writeFile(folder() + "/good.json", "{\"LogLevel\": 9}");
    testing::internal::CaptureStderr();
    auto reads = std::async(std::launch::async, [&] {
        std::vector<std::string> wrong;
        auto expectLastGood = [&](const char* what) {
            int l = 0;
            CStdStr v;
            std::map<CStdStr, CStdStr> all;
            r.ReadAllSettingsImpl(kKiv, all);
            if (!r.ReadSettingImpl(kKiv, "LogLevel", l) || l != 4 || !r.ReadSettingImpl(kKiv, "Version", v) ||
                v != "1.2" || all["Version"] != "1.2")
                wrong.push_back(what);
        };
        unlink(file.c_str());
        mkfifo(file.c_str(), 0600);
        expectLastGood("fifo");
        expectLastGood("fifo, again");
        if (r.WriteSettingImpl(kKiv, "Other", 1)) wrong.push_back("a writer replaced the fifo");
        unlink(file.c_str());
        mkdir(file.c_str(), 0700);
        expectLastGood("folder");
        rmdir(file.c_str());
        EXPECT_EQ(0, symlink((folder() + "/good.json").c_str(), file.c_str()));
        expectLastGood("link");
        unlink(file.c_str());
        kivtest::writeFile(file, "{\"LogLevel\": 5, \"pad\": \"" + std::string(1024 * 1024, 'x') + "\"}");
        expectLastGood("over 1 MiB");
        // Never read well: the read fails, at once.
        mkfifo(fifo.c_str(), 0600);
        CStdStr host;
        if (r.ReadSettingImpl(kConfig, "cabDirectory.host", host)) wrong.push_back("fifo never read well");
        return wrong;
    });
    // A read stuck in open() on a FIFO is let go by opening its other end.
    bool blocked = false;
    while (reads.wait_for(std::chrono::seconds(blocked ? 0 : 30)) != std::future_status::ready) {
        blocked = true;
        for (const std::string& f : {file, fifo}) {
            int fd = open(f.c_str(), O_WRONLY | O_NONBLOCK);
            if (fd >= 0) close(fd);
        }
        std::this_thread::yield();
    }
    EXPECT_EQ(std::vector<std::string>(), reads.get()) << "reads that did not keep the last good values";
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_FALSE(blocked) << "a settings read waited on a FIFO";
    // One report line per refusing file, however often it was read.
    auto refusals = [&err](const std::string& f) {
        std::istringstream lines(err);
        int n = 0;
        for (std::string line; std::getline(lines, line);)
            if (line.find(f + " ") != std::string::npos && line.find("; refused, ") != std::string::npos) ++n;
        return n;
    };
    EXPECT_EQ(1, refusals(file)) << "reported once: " << err;
    EXPECT_EQ(1, refusals(fifo)) << err;
    // A good file again is read as it is.
    unlink(file.c_str());
    ASSERT_TRUE(r.WriteSettingImpl(kKiv, "LogLevel", 2));
    EXPECT_TRUE(r.ReadSettingImpl(kKiv, "LogLevel", level) && level == 2);
}

// Files the store writes are 0600 and its folder 0700 whatever the umask, even over a 0644 file.
TEST_F(SettingsTest, WrittenFilesArePrivateWhateverTheUmask) {
    mode_t oldMask = umask(0);
    std::string file = folder() + "/com.kiv-foundry.kiv.config.json";
    EXPECT_TRUE(r.WriteSettingImpl(kConfig, "cabDirectory.token", CStdStr("secret")));
    EXPECT_EQ(std::make_pair(0700u, 0600u), std::make_pair(modeOf(folder()), modeOf(file)));
    ASSERT_EQ(0, chmod(file.c_str(), 0644));
    EXPECT_TRUE(r.WriteSettingImpl(kConfig, "cabDirectory.host", CStdStr("10.0.0.2")));
    umask(oldMask);
    EXPECT_EQ(0600u, modeOf(file));
    // Only the domain and its lock file remain: no temporary file is left.
    std::string listing = kivtest::runCommand("LC_ALL=C ls -A '" + folder() + "'");
    EXPECT_EQ(".com.kiv-foundry.kiv.config.json.lock\ncom.kiv-foundry.kiv.config.json\n", listing);
}

TEST_F(SettingsTest, DomainsDeleteAndHandEditedEntries) {
    ASSERT_TRUE(Preferences::Set("b.domain", "k", Preferences::Value::ofInt(1)));
    ASSERT_TRUE(Preferences::Set("a/slash", "k", Preferences::Value::ofInt(2)));
    ASSERT_TRUE(Preferences::Set(".hidden", "k", Preferences::Value::ofInt(3)));
    EXPECT_EQ((std::vector<CStdStr>{".hidden", "a/slash", "b.domain"}), Preferences::Domains());
    Preferences::Value v;
    EXPECT_TRUE(Preferences::Get("a/slash", "k", v) && v.i == 2);
    EXPECT_FALSE(Preferences::Set("..", "k", Preferences::Value::ofInt(1)));
    EXPECT_FALSE(Preferences::Set("", "k", Preferences::Value::ofInt(1)));
    bool existed = false;
    EXPECT_TRUE(Preferences::Remove("b.domain", "k", &existed) && existed);
    EXPECT_TRUE(Preferences::Remove("b.domain", "k", &existed) && !existed);
    EXPECT_TRUE(Preferences::RemoveDomain("a/slash", &existed) && existed);
    EXPECT_TRUE(Preferences::RemoveDomain("never", &existed) && !existed);
    EXPECT_EQ((std::vector<CStdStr>{".hidden", "b.domain"}), Preferences::Domains());
    // Entries of other types survive a rewrite but are not read as values.
    kivtest::writeFile(folder() + "/hand.json", "{\"f\": 1.5, \"big\": 4294967296, \"arr\": [1]}");
    ASSERT_TRUE(Preferences::Set("hand", "n", Preferences::Value::ofInt(1)));
    EXPECT_FALSE(Preferences::Get("hand", "f", v) || Preferences::Get("hand", "big", v));
    std::string text = kivtest::readFile(folder() + "/hand.json");
    EXPECT_TRUE(text.find("1.5") != std::string::npos && text.find("4294967296") != std::string::npos) << text;
}

TEST_F(SettingsTest, ConcurrentWritersFromTwoProcessesLoseNothing) {
    const int kWrites = 500;
    pid_t children[2];
    for (int c = 0; c < 2; ++c) {
        children[c] = fork();
        ASSERT_GE(children[c], 0);
        if (children[c] == 0) {
            int failures = 0;
            for (int i = 0; i < kWrites; ++i)
                failures += !r.WriteSettingImpl(kConfig, CStdStr::Formatted("p%d.k%d", c, i), i);
            _exit(failures == 0 ? 0 : 1);
        }
    }
    for (pid_t child : children) {
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    Preferences::Domain all;
    ASSERT_TRUE(Preferences::Load("com.kiv-foundry.kiv.config", all));
    EXPECT_EQ(static_cast<size_t>(2 * kWrites), all.size());
    for (int c = 0; c < 2; ++c)
        for (int i = 0; i < kWrites; ++i) {
            auto it = all.find(CStdStr::Formatted("p%d.k%d", c, i));
            EXPECT_TRUE(it != all.end() && it->second.i == i) << c << " " << i;
        }
}

}  // namespace
