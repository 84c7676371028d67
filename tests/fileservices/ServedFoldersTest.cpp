// What the services read of the served folders, in process, against links, "..", paths outside,
// the settings folder, a credential file and special files: a refused path answers as a
// missing one, logs one WARN per request, and no request blocks.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <boost/make_shared.hpp>
#include <chrono>
#include <filesystem>
#include <future>
#include <sstream>

#include "files/CFileTools.h"
#include "host/Preferences.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/CapturingLog.h"
#include "variant/VUtil.h"

namespace {

namespace fs = std::filesystem;

struct Case {
    std::string path;
    std::string content;  // served: the file's bytes
    std::string refusal;  // refused: part of the logged reason; both empty: missing
};

// The lines of `text` that hold both parts.
int countOf(const std::string& text, const std::string& part, const std::string& other = "") {
    int n = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        n += line.find(part) != std::string::npos && line.find(other) != std::string::npos;
    return n;
}

TEST(ServedFoldersTest, OnlyRegularFilesReachedFromInsideAServedFolder) {
    kivtest::TempDir dir("served");
    const std::string media = dir.file("media"), outside = dir.file("outside");
    kivtest::writeFile(media + "/a.txt", "served");
    kivtest::writeFile(media + "/sub/b.txt", "bee");
    kivtest::writeFile(media + "/nkey.txt", "SUAKEYMATERIAL");
    kivtest::writeFile(outside + "/secret.txt", "secret");
    kivtest::writeFile(media + "-sibling/x.txt", "sibling");  // its name begins with the served folder's
    fs::create_symlink("sub/b.txt", media + "/link-in");
    fs::create_symlink("../outside/secret.txt", media + "/link-out");
    fs::create_symlink(media + "/a.txt", media + "/absolute-link");
    fs::create_symlink("../outside", media + "/folder-out");
    fs::create_symlink(media + "/a.txt", outside + "/link-in");
    fs::create_symlink("/dev/null", media + "/null");
    ASSERT_EQ(mkfifo((media + "/fifo").c_str(), 0600), 0);
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "%s/sock", media.c_str());
    ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << address.sun_path;

    // The settings folder inside a served folder stays private, and so does a credential file.
    const std::string config = getenv("XDG_CONFIG_HOME");
    ASSERT_TRUE(setting("files.roots", CStdStr(media + ":" + config + ":relative/ignored")));
    ASSERT_TRUE(setting("cabDirectory.nkeySeedFile", CStdStr(media + "/nkey.txt")));
    const std::string settings = Preferences::DomainFile("com.kiv-foundry.kiv.config");
    const std::string ownLog = CFileTools::GetLogsDirectory() + "/KivRequestProxy.log";
    kivtest::writeFile(ownLog, "a log line\n");
    const std::string dump = CFileTools::GetKivDataFolder() + "/CrashReports/x.dmp";
    kivtest::writeFile(dump, "memory");
    auto log = boost::make_shared<CapturingLog>();
    CBBLog::setLogger(log);
    KivRequestProxySatellite satellite;

    const Case cases[] = {
        {media + "/a.txt", "served", ""},
        {media + "/sub/../a.txt", "served", ""},
        {media + "//sub/b.txt", "bee", ""},
        {media + "/link-in", "bee", ""},                           // a link that stays inside
        {ownLog, "a log line\n", ""},                              // the proxy's own log folder
        {dump, "", "a crash dump"},                                // in its data folder, but holds its memory
        {media + "/none.txt", "", ""},                             // missing: no refusal
        {media + "/../outside/secret.txt", "", "leads out"},       // ".."
        {media + "/link-out", "", "leads out"},                    // a link inside to outside
        {media + "/absolute-link", "", "leads out"},               // absolute links are never followed
        {media + "/folder-out/secret.txt", "", "leads out"},       // a link in a parent folder
        {outside + "/link-in", "", "outside the served folders"},  // a link outside to inside
        {outside + "/secret.txt", "", "outside the served folders"},
        {media + "-sibling/x.txt", "", "outside the served folders"},
        {"/etc/passwd", "", "outside the served folders"},
        {"a.txt", "", "not an absolute path"},
        {settings, "", "is never served"},
        {media + "/nkey.txt", "", "a credential file"},
        {media + "/fifo", "", "a FIFO"},
        {media + "/sock", "", "a socket"},
        {media + "/null", "", "leads out"},  // a device, through a link
        {media + "/sub", "", "a folder"},
    };
    // On another thread: one that blocked fails the test (a writer then frees a reader stuck on the FIFO).
    auto run = [&] {
        for (const Case& c : cases) {
            SCOPED_TRACE(c.path);
            CLocalVariant bytes, tail, sizes;
            EXPECT_EQ(satellite.CabServiceGetFile("GetFile", JsonVariant(listOf(c.path)).get(), bytes.ptr()), 0);
            EXPECT_EQ(bytesOf(bytes.get()), c.content);
            const nlohmann::json tailIn = {c.path, 100};
            const int tailStatus = satellite.CabServiceTailLog("my-KIV_TailLog", JsonVariant(tailIn.dump()).get(),
                                                               tail.ptr());
            EXPECT_EQ(tailStatus, c.content.empty() ? 404 : 0);
            if (tailStatus == 0) {
                EXPECT_EQ(VUtil::GetStringElement(tail.get(), 2), c.content);
            }
            const std::string id = CFileTools::PathToFileBrowserMediumId(c.path);
            const nlohmann::json sizeIn = {id, {id}};
            ASSERT_EQ(satellite.CabServiceQueryFileSize("QueryFileSize", JsonVariant(sizeIn.dump()).get(), sizes.ptr()),
                      0);
            EXPECT_EQ(json(sizes.get()), "[1," + typed("I8", c.content.size()) + "]");
            // One WARN line per refused request, with the path and the reason.
            const std::string warnings = log->linesUpTo(LOGLEVEL_WARN);
            const int expected = c.refusal.empty() ? 0 : 3;
            EXPECT_EQ(countOf(warnings, "refused " + c.path + ": ", c.refusal), expected) << warnings;
            EXPECT_EQ(countOf(warnings, c.path + ": "), expected) << warnings;
        }
        // An archive of a served file and two refused ones: those are empty entries.
        CLocalVariant zip;
        JsonVariant zipIn(nlohmann::json::array({"ctx", CFileTools::PathToFileBrowserMediumId(media + "/a.txt"),
                                                 CFileTools::PathToFileBrowserMediumId(media + "/fifo"),
                                                 CFileTools::PathToFileBrowserMediumId(media + "/link-out")})
                              .dump());
        ASSERT_EQ(satellite.CabServiceCreateZipFile("CreateZip", zipIn.get(), zip.ptr()), 0);
        const std::string path = VUtil::GetStringElement(zip.get(), 0);
        for (const auto& [entry, content] :
             {std::pair<std::string, std::string>{"a.txt", "served"}, {"fifo", ""}, {"link-out", ""}})
            EXPECT_EQ(kivtest::runCommand("unzip -p '" + path + "' '" + entry + "'"), content) << entry;
        EXPECT_EQ(countOf(log->linesUpTo(LOGLEVEL_WARN), "CreateZip refused " + media + "/fifo: a FIFO"), 1);
        fs::remove(path);
    };
    std::future<void> done = std::async(std::launch::async, run);
    if (done.wait_for(std::chrono::seconds(120)) != std::future_status::ready) {
        ADD_FAILURE() << "a request blocked";
        close(open((media + "/fifo").c_str(), O_WRONLY | O_NONBLOCK));
    }
    done.get();
    close(sock);
    CBBLog::setLogger(boost::shared_ptr<CBBLog>());
}

}  // namespace
