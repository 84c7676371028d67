// The archive services in process: held archives, ZipLogs, the deletion rules, and faults.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <boost/make_shared.hpp>
#include <chrono>
#include <fstream>
#include <thread>

#include "satellite/ArchiveBudget.h"
#include "satellite/ArchiveFolders.h"
#include "satellite/ArchiveLeftovers.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/support/CapturingLog.h"
#include "tests/support/Eventually.h"
#include "tests/support/ProxyFixture.h"
#include "tests/support/Thrown.h"

namespace {

using kivtest::eventually;

// A new folder `name`-PID outside the temporary folders, for files that must survive; "" when none is.
inline std::string outsideFolder(const std::string& name) {
    const std::string tmp = fs::weakly_canonical(CFileTools::getTmpFolder().c_str()).string() + "/";
    for (const char* base : {KIV_BINARY_DIR, KIV_SOURCE_DIR, static_cast<const char*>(getenv("HOME"))}) {
        if (!base || !*base) continue;
        const std::string folder = fs::weakly_canonical(base).string() + "/" + name + "-" + std::to_string(getpid());
        std::error_code ec;
        if (folder.rfind("/tmp/", 0) && folder.rfind("/var/tmp/", 0) && folder.rfind(tmp, 0) &&
            (fs::create_directories(folder, ec), !ec))
            return folder;
    }
    return std::string();
}

using kivtest::thrownBy;
using Clock = std::chrono::steady_clock;

// While the gate is closed, every archive thread waits before it writes.
class ArchiveServicesTest : public testing::Test {
protected:
    void SetUp() override {
        lastPath.clear();  // no archive thread runs between tests
        ArchiveThreads::setBeforeWriteHook(&atGate);
    }
    void TearDown() override {
        setGate(true);
        ArchiveThreads::waitForAll(&satellite);
        ArchiveThreads::setBeforeWriteHook(nullptr);
        for (const std::string& zip : zips) fs::remove(zip);
    }

    static void atGate(const char* zipPath) {
        std::unique_lock<std::mutex> lock(gateMutex);
        ++waiting;
        lastPath = zipPath;
        gateChanged.notify_all();
        gateChanged.wait(lock, [] { return gateOpen; });
        --waiting;
    }
    // While the gate is closed no archive completes, so "CreateZip" need not wait its 5 s for one.
    static void setGate(bool open) {
        std::lock_guard<std::mutex> lock(gateMutex);
        gateOpen = open;
        ArchiveThreads::setCreateZipWaitMs(open ? 5000 : 200);
        gateChanged.notify_all();
    }
    // The zip path of the last archive that reached the gate, and how many wait there.
    static std::pair<std::string, int> atGateNow() {
        std::lock_guard<std::mutex> lock(gateMutex);
        return {lastPath, waiting};
    }

    // "CreateZip" of the files; the status, *zip the path and *size the size answered.
    int createZip(const std::vector<std::string>& paths, std::string* zip = nullptr, long long* size = nullptr) {
        std::string in = "[\"test\"";  // ["test", the file-browser id of each path]
        for (const std::string& p : paths) in += ",\"" + CFileTools::PathToFileBrowserMediumId(p) + "\"";
        CLocalVariant out, sizeValue;
        const int rc = satellite.CabServiceCreateZipFile("CreateZip", JsonVariant(in + "]").get(), out.ptr());
        if (rc != 0) return rc;
        EXPECT_EQ(VUtil::GetArrayLength(out.get()), 2);
        VUtil::GetElement(out.get(), 1, sizeValue.get());
        EXPECT_EQ(sizeValue.vt(), VT_I8);
        if (size) *size = sizeValue.get().llVal;
        std::lock_guard<std::mutex> lock(zipsMutex);
        zips.push_back(VUtil::GetStringElement(out.get(), 0));
        if (zip) *zip = zips.back();
        return rc;
    }
    int deleteTemp(const std::string& path) {
        CLocalVariant out;
        return satellite.CabServiceDeleteTempFile("DeleteTempFile", JsonVariant(listOf(path)).get(), out.ptr());
    }
    std::string getFile(const std::string& path) {
        CLocalVariant out;
        EXPECT_EQ(satellite.CabServiceGetFile("GetFile", JsonVariant(listOf(path)).get(), out.ptr()), 0);
        return bytesOf(out.get());
    }
    static long long estimate(const std::vector<std::string>& paths) {
        CMyPathTree tree;
        long long total = 0;
        for (const std::string& p : paths) {
            tree.AddFile(CStdStr(p));
            total += static_cast<long long>(fs::file_size(p));
        }
        return total + tree.getZipHeaderSize();
    }

    static inline std::mutex gateMutex;  // guards the gate's state
    static inline std::condition_variable gateChanged;
    static inline bool gateOpen = true;
    static inline int waiting = 0;
    static inline std::string lastPath;
    kivtest::TempDir dir{"archives"};
    // No disk reserve, so that no machine refuses the tests' archives.
    const bool served = setting("files.roots", CStdStr(dir.path())) && setting("archive.diskReserveMB", 0);
    KivRequestProxySatellite satellite;
    std::mutex zipsMutex;           // guards zips (requests may run on several threads)
    std::vector<std::string> zips;  // archives removed at the end of each test
};

// Archives held back past the wait, side by side: the answer is the estimate, a fetch
// waits for the finished file (several files stored), a deletion while pending leaves nothing.
TEST_F(ArchiveServicesTest, SlowArchiveAnswersEstimateAndIsFetchedComplete) {
    const std::vector<std::string> kept = {dir.file("k0.bin"), dir.file("k1.bin"), dir.file("k2.bin")};
    const std::vector<std::string> dropped = {dir.file("dropped/d.bin")};
    for (int i = 0; i < 3; ++i) kivtest::writeFile(kept[i], patternBytes(1 << 20, i));
    kivtest::writeFile(dropped[0], patternBytes(4096, 7));
    setGate(false);
    std::string keptZip, droppedZip;
    long long keptSize = 0, droppedSize = 0;
    std::thread other([&] { EXPECT_EQ(createZip(dropped, &droppedZip, &droppedSize), 0); });
    ASSERT_EQ(createZip(kept, &keptZip, &keptSize), 0);
    other.join();
    EXPECT_EQ(keptSize, estimate(kept));
    EXPECT_EQ(droppedSize, estimate(dropped));
    // Deleting a pending archive: accepted, and its thread removes it once written.
    EXPECT_EQ(deleteTemp(droppedZip), 0);

    std::string fetched;
    std::thread fetcher([&] { fetched = getFile(keptZip); });
    setGate(true);
    fetcher.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_TRUE(fetched == kivtest::readFile(keptZip)) << "the fetch waited for the finished archive";
    EXPECT_EQ(zipMethods(keptZip), (Methods{{"k0.bin", "Stored"}, {"k1.bin", "Stored"}, {"k2.bin", "Stored"}}));
    EXPECT_FALSE(fs::exists(droppedZip)) << "the archive deleted while pending was removed by its thread";
}

// Every log file deflated, rotated ones too, complete when the answer comes;
// a missing logs folder is only logged: an empty archive still comes back.
TEST_F(ArchiveServicesTest, ZipLogsDeflatesEveryLogFile) {
    const std::string logs = CFileTools::GetLogsDirectory();
    fs::remove_all(logs);
    for (const char* name : {"KivRequestProxy.log", "KivRequestProxy.log.back", "KivCrashReporter.log", "notes.txt"})
        kivtest::writeFile(logs + "/" + name, std::string(5000, name[3]));
    auto zipLogs = [&]() {
        CLocalVariant in, out;
        EXPECT_EQ(satellite.CabServiceZipLogs("ZipLogs", in.get(), out.ptr()), 0);
        zips.push_back(out.vt() == VT_BSTR ? out.get().bstrVal : "");
        return zips.back();
    };
    EXPECT_EQ(zipMethods(zipLogs()), (Methods{{"KivRequestProxy.log", "Defl:X"},
                                              {"KivRequestProxy.log.back", "Defl:X"},
                                              {"KivCrashReporter.log", "Defl:X"}}));
    fs::remove_all(logs);
    const std::string empty = zipLogs();
    EXPECT_TRUE(fs::exists(empty) && zipMethods(empty).empty());
}

TEST_F(ArchiveServicesTest, DeleteTempFileOnlyInsideTheTemporaryFoldersEvenRacedByAFolderSwap) {
    // Made the way archives are made, in "/tmp", and inside the folder of getTmpFolder().
    const std::string made = CFileTools::GenerateTempFilePath();
    const std::string inTmp = CFileTools::getTmpFolder("archives-test-sub") + "/x.zip";
    kivtest::writeFile(inTmp, "zip");
    // A folder, empty or not, is refused and kept; a path not there is nothing to do.
    kivtest::writeFile(dir.file("full/x"), "x");
    fs::create_directories(dir.file("empty"));
    for (const std::string& path : {made, inTmp, std::string("/tmp/archives-test-no-such-file")})
        EXPECT_TRUE(deleteTemp(path) == 0 && !fs::exists(path)) << path;
    fs::remove_all(fs::path(inTmp).parent_path());
    for (const char* folder : {"full", "empty"}) EXPECT_EQ(deleteTemp(dir.file(folder)), 403) << folder;
    EXPECT_TRUE(fs::exists(dir.file("full/x")) && fs::is_directory(dir.file("empty")));
    // A folder whose name only begins like /tmp is outside (where / is writable).
    const std::string sibling = "/tmp-kivtest-" + std::to_string(getpid());
    std::error_code ec;
    if (fs::create_directory(sibling, ec)) {
        kivtest::writeFile(sibling + "/x.zip", "zip");
        EXPECT_EQ(deleteTemp(sibling + "/x.zip"), 403);
        EXPECT_TRUE(fs::exists(sibling + "/x.zip"));
        fs::remove_all(sibling);
    }

    // Outside, directly, through "..", and through a link: refused, kept.
    const std::string outside = outsideFolder("archives-delete-guard");
    if (outside.empty()) GTEST_SKIP() << "no writable folder outside the temporary folders";
    const std::string kept = outside + "/kept.txt", link = dir.file("link-out");
    kivtest::writeFile(kept, "keep me");
    for (const std::string& path : {kept, "/tmp/.." + kept, std::string("/tmp"), std::string()})
        EXPECT_EQ(deleteTemp(path), 403) << path;
    // Through a folder that does not exist nothing has that name: 0, as for a missing file.
    for (const std::string& path : {"/tmp/no-such-folder/../.." + kept, std::string("/tmp/no-such-folder/x.zip")})
        EXPECT_EQ(deleteTemp(path), 0) << path;
    // A link inside is deleted as a link, its target kept; a link to a folder outside does not lead there.
    fs::create_symlink(kept, link);
    EXPECT_EQ(deleteTemp(link), 0);
    EXPECT_FALSE(fs::is_symlink(link));
    fs::create_symlink(outside, link);
    EXPECT_EQ(deleteTemp(link + "/kept.txt"), 403);
    EXPECT_EQ(kivtest::readFile(kept), "keep me");

    // A folder inside swapped again and again with a link outside while a file in it is deleted.
    const std::string victim = outside + "/victim";
    kivtest::writeFile(victim, "outside");
    const std::string folder = dir.file("race/folder");  // swapped with `link`
    kivtest::writeFile(folder + "/victim", "inside");
    const int real = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);  // wherever its name goes
    ASSERT_GE(real, 0);
    if (renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE) != 0)
        GTEST_SKIP() << "renameat2 RENAME_EXCHANGE is not supported here";
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        while (!stop) renameat2(AT_FDCWD, folder.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    });
    int insideDeleted = 0, outsideDeleted = 0, calls = 0;
    // A fixed number of calls (a few hundred race the swap), and at least one that deleted inside.
    for (const auto end = Clock::now() + std::chrono::seconds(60);
         (calls < 40000 || insideDeleted == 0) && Clock::now() < end; ++calls) {
        close(openat(real, "victim", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        struct stat st;
        if (deleteTemp(folder + "/victim") == 0 && fstatat(real, "victim", &st, 0) != 0) ++insideDeleted;
        if (access(victim.c_str(), F_OK) != 0) {
            ++outsideDeleted;
            kivtest::writeFile(victim, "outside");
        }
    }
    stop = true;
    swapper.join();
    close(real);
    EXPECT_EQ(outsideDeleted, 0) << "of " << calls << " calls";
    EXPECT_GT(insideDeleted, 0) << "of " << calls << " calls";
    fs::remove_all(outside);
}

TEST(AddFolderToTreeTest, AddsFilesOfAllSubfoldersButNoFolders) {
    kivtest::TempDir dir("addfolder");
    const std::vector<std::string> files = {dir.file(".hidden"), dir.file("empty/.keep"),
                                            dir.file("sub/deeper/leaf.mp3"), dir.file("sub/inner.bin"),
                                            dir.file("top.txt")};
    for (const std::string& f : files) kivtest::writeFile(f, "x");
    CMyPathTree tree, none;
    EXPECT_EQ(AddFolderToTree(CStdStr(dir.path()), &tree), 5);
    std::vector<std::string> added;
    for (const CMyPathNode* node : tree.fileNodes()) added.push_back(node->getFullPath());
    EXPECT_THAT(added, testing::UnorderedElementsAreArray(files));
    EXPECT_EQ(AddFolderToTree(CStdStr("/no/such/folder/anywhere"), &none), 0);
    EXPECT_TRUE(none.fileNodes().empty());
    EXPECT_EQ(AddFolderToTree(CStdStr("/tmp"), nullptr), 0);
}

// Archives in /tmp, named as GenerateTempFilePath names them.
int archivesInTmp() { return std::stoi(kivtest::runCommand("ls /tmp | grep -cx 'file......'")); }

// Runs in a private mount namespace whose /tmp is a 2 MiB tmpfs (see the
// parent branch): archives, the test folder and the logs all live there.
TEST_F(ArchiveServicesTest, FullDiskEndsTheArchiveAndNothingIsServed) {
    if (!getenv("KIV_ARCHIVE_FULL_DISK_CHILD")) {
        if (geteuid() != 0) GTEST_SKIP() << "a private tmpfs needs root";
        int status = -1;
        kivtest::runCommand("unshare -m -- true 2>&1", &status);
        if (status != 0) GTEST_SKIP() << "unshare -m is not allowed here";
        const std::string self = fs::read_symlink("/proc/self/exe").string();
        // The binary is opened before the mount: it may itself live under /tmp.
        const std::string out = kivtest::runCommand(
            "KIV_ARCHIVE_FULL_DISK_CHILD=1 TMPDIR=/tmp unshare -m -- sh -c 'exec 3<\"$0\" && "
            "mount --make-rprivate / && mount -t tmpfs -o size=2m,mode=1777 kiv-full /tmp || exit 77; "
            "exec /proc/self/fd/3 --gtest_filter=*.FullDiskEndsTheArchiveAndNothingIsServed' '" +
                self + "' 2>&1",
            &status);
        if (status == 77) GTEST_SKIP() << "cannot mount a tmpfs: " << out;
        EXPECT_EQ(status, 0) << out;
        EXPECT_THAT(out, HasSubstr("[  PASSED  ] 1 test"));
        return;
    }
    auto log = boost::make_shared<CapturingLog>();
    CBBLog::setLogger(log);
    const std::string big = dir.file("big.bin"), small = dir.file("small.txt");
    kivtest::writeFile(big, patternBytes(1200 * 1024, 1));  // leaves less than its own size free
    kivtest::writeFile(small, "small");
    std::string zip;
    long long size = 0;
    // Done within the wait: the request itself fails.
    const std::string error = thrownBy([&] { createZip({big}); });
    EXPECT_THAT(error, HasSubstr("No space left on device"));
    EXPECT_EQ(archivesInTmp(), 0) << "the partial archive is removed";

    // Pending: answered with the estimate, then failed; a waiting read and every later one get the reason.
    setGate(false);
    ASSERT_EQ(createZip({big, small}, &zip, &size), 0);
    EXPECT_EQ(size, estimate({big, small}));
    std::string fetchError;
    std::thread fetch([&] { fetchError = thrownBy([&] { getFile(zip); }); });
    setGate(true);
    fetch.join();
    EXPECT_THAT(fetchError, HasSubstr("archive " + zip + " failed: write: No space left on device"));
    CLocalVariant out;
    const std::string sizeError = thrownBy([&] {
        JsonVariant in("[\"ctx\", [\"" + CFileTools::PathToFileBrowserMediumId(zip) + "\"]]");
        satellite.CabServiceQueryFileSize("QueryFileSize", in.get(), out.ptr());
    });
    EXPECT_THAT(sizeError, HasSubstr("No space left on device"));
    EXPECT_FALSE(fs::exists(zip));
    EXPECT_EQ(deleteTemp(zip), 0);

    // "ZipLogs" of more than the space left.
    fs::remove(big);
    kivtest::writeFile(CFileTools::GetLogsDirectory() + "/KivRequestProxy.log", patternBytes(1200 * 1024, 2));
    const std::string logsError = thrownBy(
        [&] { satellite.CabServiceZipLogs("ZipLogs", CLocalVariant().get(), out.ptr()); });
    EXPECT_THAT(logsError, HasSubstr("ZipLogs: archive /tmp/file"));
    EXPECT_THAT(logsError, HasSubstr("No space left on device"));
    EXPECT_EQ(archivesInTmp(), 0);
    EXPECT_FALSE(fs::exists(ArchiveLeftovers::recordPath().c_str())) << "no archive is left pending";
    EXPECT_THAT(log->linesUpTo(LOGLEVEL_ERROR), HasSubstr("No space left on device; the partial file was removed"));
    CBBLog::setLogger(boost::shared_ptr<CBBLog>());
}

TEST_F(ArchiveServicesTest, ArchivesLeftByAKilledRunAreRemovedAtStart) {
    const std::string small = dir.file("small.txt");
    kivtest::writeFile(small, "small");
    // While an archive is being written, the record lists it and is private.
    setGate(false);
    std::thread request([&] { createZip({small}); });
    ASSERT_TRUE(eventually([] { return atGateNow().second == 1; }));
    const std::string writing = atGateNow().first, record = ArchiveLeftovers::recordPath();
    EXPECT_EQ(kivtest::runCommand("stat -c %a " + record), "600\n");
    EXPECT_THAT(kivtest::readFile(record), HasSubstr(" " + writing + "\n"));

    // Lines of a process that is gone: its archive, a file since replaced
    // under the same name, and a file outside the temporary folders.
    const std::string gone = kivtest::runCommand("sh -c 'printf $$'");  // ended
    auto line = [&](const std::string& path, bool sameFile) {
        struct stat file;
        EXPECT_EQ(stat(path.c_str(), &file), 0) << path;
        std::ostringstream text;  // pid, 1, device, inode, owner, path
        text << gone << " 1 " << file.st_dev << " " << file.st_ino + !sameFile << " " << file.st_uid << " ";
        return text.str() + path + "\n";
    };
    const std::string left = CFileTools::GenerateTempFilePath(), replaced = CFileTools::GenerateTempFilePath();
    const std::string outside = outsideFolder("archives-leftovers");
    std::string lines = line(left, true) + line(replaced, false);
    if (!outside.empty()) {
        kivtest::writeFile(outside + "/kept.zip", "kept");
        lines += line(outside + "/kept.zip", true);
    }
    std::ofstream(record, std::ios::app) << lines;  // keeps the file's mode

    { KivRequestProxySatellite restarted; }
    EXPECT_FALSE(fs::exists(left));
    EXPECT_TRUE(fs::exists(replaced));
    EXPECT_TRUE(fs::exists(writing)) << "an archive of a running process is not touched";
    EXPECT_TRUE(outside.empty() || fs::exists(outside + "/kept.zip"));
    EXPECT_THAT(kivtest::readFile(record), Not(HasSubstr(gone + " "))) << "its lines dropped";
    setGate(true);
    request.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_FALSE(fs::exists(record)) << "no archive is left pending";
    fs::remove(replaced);
    if (!outside.empty()) fs::remove_all(outside);
}

// Readers of a pending archive hold at most ArchiveThreads::kMaxWaiters handlers: the others are answered at once as at
// the deadline. The satellite stopping abandons the archive being written at once and ends their wait.
TEST_F(ArchiveServicesTest, FewReadersWaitForAPendingArchiveAndStoppingAbandonsItAtOnce) {
    // 8 GiB of zeros, sparse: deflating it takes far longer than this test.
    const std::string huge = dir.file("huge.bin");
    kivtest::writeFile(huge, "");
    ASSERT_EQ(truncate(huge.c_str(), 8LL << 30), 0);
    ArchiveThreads::setCreateZipWaitMs(200);
    std::string zip;
    ASSERT_EQ(createZip({huge}, &zip), 0);  // pending: still being written
    const int kMax = ArchiveThreads::kMaxWaiters, kReaders = 3 * kMax;
    std::vector<std::string> errors(kReaders);
    std::atomic<int> answered{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i)
        readers.emplace_back([&, i] {
            errors[i] = thrownBy([&] { getFile(zip); });
            ++answered;
        });
    ASSERT_TRUE(eventually([&] {
        std::error_code ec;
        return answered == kReaders - kMax && fs::file_size(zip, ec) > 0 && !ec;
    })) << "turned away while the archive is being written";
    EXPECT_EQ(ArchiveThreads::waiters(), kMax);
    const auto start = Clock::now();
    satellite.abandonArchives();
    for (std::thread& t : readers) t.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(30)) << "deflating 8 GiB takes minutes";
    int turnedAway = 0, abandoned = 0;
    for (const std::string& e : errors) {
        turnedAway += e.find("archive " + zip + " is still being written") != std::string::npos;
        abandoned += e.find("archive " + zip + " failed: abandoned") != std::string::npos;
    }
    EXPECT_EQ(turnedAway, kReaders - kMax);
    EXPECT_EQ(abandoned, kMax);
    EXPECT_FALSE(fs::exists(zip));
    EXPECT_NE(thrownBy([&] { getFile(zip); }), "(no exception)") << "an abandoned archive is not served";
}

// Refused before anything is written: a failed lookup, bad input, too little disk, too many archives.
TEST_F(ArchiveServicesTest, BadInputAndArchivesBeyondTheBudgetAreRefused) {
    CLocalVariant out;
    JsonVariant emptyItem(R"(["ctx", ""])"), wrong("[42, null]");
    EXPECT_EQ(satellite.CabServiceCreateZipFile("CreateZip", emptyItem.get(), out.ptr()), 1);
    EXPECT_EQ(out.vt(), VT_EMPTY);
    EXPECT_THROW(satellite.CabServiceCreateZipFile("CreateZip", wrong.get(), out.ptr()), CabException);
    EXPECT_THROW(satellite.CabServiceDeleteTempFile("DeleteTempFile", wrong.get(), out.ptr()), CabException);
    const std::string file = dir.file("b.txt");
    kivtest::writeFile(file, "budget");
    ASSERT_TRUE(setting("archive.diskReserveMB", 2000000000));  // more than any disk
    EXPECT_THAT(thrownBy([&] { createZip({file}); }), HasSubstr("CreateZip: archive refused: it needs"));
    EXPECT_THAT(thrownBy([&] { satellite.CabServiceZipLogs("ZipLogs", CLocalVariant().get(), out.ptr()); }),
                HasSubstr("ZipLogs: archive refused: "));
    ASSERT_TRUE(setting("archive.diskReserveMB", 0));
    setGate(false);
    for (int i = 0; i < ArchiveBudget::kMaxAtOnce; ++i) ASSERT_EQ(createZip({file}), 0);
    EXPECT_THAT(thrownBy([&] { createZip({file}); }), HasSubstr("archives are being written already"));
    setGate(true);
    ArchiveThreads::waitForAll(&satellite);
    // Room again once they are done; a quick archive answers its real size, its one file deflated.
    std::string zip;
    long long size = 0;
    ASSERT_EQ(createZip({file}, &zip, &size), 0);
    EXPECT_EQ(size, static_cast<long long>(fs::file_size(zip)));
    EXPECT_EQ(zipMethods(zip), (Methods{{"b.txt", "Defl:X"}}));
}

}  // namespace
