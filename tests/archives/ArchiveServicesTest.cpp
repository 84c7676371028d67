// The archive services called in process on a satellite that is not
// connected: file-browser ids are resolved locally, so no broker is needed.
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <vector>

#include "archive/CMyPathTree.h"
#include "cab/CabException.h"
#include "files/CFileTools.h"
#include "satellite/ArchiveThreads.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/archives/ArchiveServicesFixture.h"
#include "tests/archives/ArchiveTestSupport.h"
#include "tests/support/TempDir.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace fs = std::filesystem;
using archivetest::createZipInput;
using archivetest::zipMethods;

namespace {

using archivetest::closeGate;
using archivetest::openGate;

TEST_F(ArchiveServicesTest, OneFileIsDeflatedAndSeveralAreStored) {
    const std::string a = dir.file("media/a.txt"), b = dir.file("media/b.txt");
    kivtest::writeFile(a, std::string(200000, 'a'));  // two chunks of the writer; unzip reads it back
    kivtest::writeFile(b, "bee");

    std::string zip;
    long long size = 0;
    ASSERT_EQ(createZip({a}, &zip, &size), 0);
    EXPECT_EQ(size, static_cast<long long>(fs::file_size(zip))) << "a quick archive answers its real size";
    EXPECT_EQ(zipMethods(zip), (std::map<std::string, std::string>{{"a.txt", "Defl:X"}}));
    EXPECT_TRUE(archivetest::zipTestsOk(zip));

    ASSERT_EQ(createZip({a, b}, &zip, &size), 0);
    EXPECT_EQ(size, static_cast<long long>(fs::file_size(zip)));
    EXPECT_EQ(zipMethods(zip), (std::map<std::string, std::string>{{"a.txt", "Stored"}, {"b.txt", "Stored"}}));
    EXPECT_TRUE(archivetest::zipTestsOk(zip));
}

TEST_F(ArchiveServicesTest, FailedLookupAndBadInputMakeNoArchive) {
    // An empty first item: the lookup fails and its status is the answer.
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, "ctx");
    VUtil::PutElement(in.get(), 1, "");
    EXPECT_EQ(satellite.CabServiceCreateZipFile("CreateZip", in.get(), out.ptr()), 1);
    EXPECT_EQ(out.vt(), VT_EMPTY);

    CLocalVariant wrong;
    VUtil::CreateArray(wrong.get(), VT_VARIANT, 2);
    VUtil::PutElement(wrong.get(), 0, 42);
    EXPECT_THROW(satellite.CabServiceCreateZipFile("CreateZip", wrong.get(), out.ptr()), CabException);
    EXPECT_THROW(satellite.CabServiceDeleteTempFile("DeleteTempFile", wrong.get(), out.ptr()), CabException);
}

// Archives held back past the 5-second wait: the answer is the estimate, the
// path is pending, a fetch waits for the finished file, and a deletion while
// pending leaves nothing behind.
TEST_F(ArchiveServicesTest, SlowArchiveAnswersEstimateAndIsFetchedComplete) {
    std::vector<std::string> kept, dropped;
    for (int i = 0; i < 3; ++i) {
        kept.push_back(dir.file("kept/k" + std::to_string(i) + ".bin"));
        archivetest::writeRandomFile(kept.back(), 1 << 20, i);
    }
    dropped.push_back(dir.file("dropped/d.bin"));
    archivetest::writeRandomFile(dropped.back(), 4096, 7);

    closeGate();
    std::string keptZip, droppedZip;
    long long keptSize = 0, droppedSize = 0;
    // Both requests wait out their 5 seconds side by side.
    std::thread other([&] { EXPECT_EQ(createZip(dropped, &droppedZip, &droppedSize), 0); });
    ASSERT_EQ(createZip(kept, &keptZip, &keptSize), 0);
    other.join();
    EXPECT_EQ(keptSize, estimate(kept));
    EXPECT_EQ(droppedSize, estimate(dropped));

    // Deleting a pending archive: accepted, and its thread removes it once written.
    EXPECT_EQ(deleteTemp(droppedZip), 0);

    std::string fetched;
    std::thread fetcher([&] { fetched = getFile(keptZip); });
    openGate();
    fetcher.join();
    ArchiveThreads::waitForAll(&satellite);

    EXPECT_EQ(fetched.size(), fs::file_size(keptZip)) << "the fetch waited for the finished archive";
    const std::string copy = dir.file("fetched.zip");
    kivtest::writeFile(copy, fetched);
    EXPECT_TRUE(archivetest::zipTestsOk(copy));
    EXPECT_EQ(zipMethods(copy).size(), 3u);
    EXPECT_FALSE(fs::exists(droppedZip)) << "the archive deleted while pending was removed by its thread";

    EXPECT_EQ(deleteTemp(keptZip), 0);
    EXPECT_FALSE(fs::exists(keptZip));
}

TEST_F(ArchiveServicesTest, ZipLogsDeflatesEveryLogFile) {
    const std::string logs = CFileTools::GetLogsDirectory();
    fs::remove_all(logs);
    kivtest::writeFile(logs + "/KivRequestProxy.log", std::string(5000, 'x'));
    kivtest::writeFile(logs + "/notes.txt", "not a log");

    auto zipLogs = [&]() {
        CLocalVariant in, out;
        EXPECT_EQ(satellite.CabServiceZipLogs("ZipLogs", in.get(), out.ptr()), 0);
        EXPECT_EQ(out.vt(), VT_BSTR);
        std::string zip = out.vt() == VT_BSTR ? out.get().bstrVal : "";
        zips.push_back(zip);
        return zip;
    };
    // One log file: deflated, and complete when the answer comes.
    std::string zip = zipLogs();
    EXPECT_EQ(zipMethods(zip), (std::map<std::string, std::string>{{"KivRequestProxy.log", "Defl:X"}}));

    kivtest::writeFile(logs + "/KivRequestProxy.log.back", std::string(3000, 'y'));
    kivtest::writeFile(logs + "/KivCrashReporter.log", "z");
    zip = zipLogs();
    EXPECT_EQ(zipMethods(zip), (std::map<std::string, std::string>{{"KivRequestProxy.log", "Defl:X"},
                                                                  {"KivRequestProxy.log.back", "Defl:X"},
                                                                  {"KivCrashReporter.log", "Defl:X"}}));
    EXPECT_TRUE(archivetest::zipTestsOk(zip));

    // A missing logs folder is only logged: an empty archive still comes back.
    fs::remove_all(logs);
    zip = zipLogs();
    EXPECT_TRUE(fs::exists(zip));
    EXPECT_TRUE(zipMethods(zip).empty());
}

TEST_F(ArchiveServicesTest, DeleteTempFileOnlyInsideTheTemporaryFolders) {
    // Made the way archives are made, in "/tmp".
    std::string made = CFileTools::GenerateTempFilePath();
    ASSERT_FALSE(made.empty());
    EXPECT_EQ(deleteTemp(made), 0);
    EXPECT_FALSE(fs::exists(made));

    // Inside the folder of getTmpFolder().
    std::string inTmp = CFileTools::getTmpFolder("archives-test-sub") + "/x.zip";
    kivtest::writeFile(inTmp, "zip");
    EXPECT_EQ(deleteTemp(inTmp), 0);
    EXPECT_FALSE(fs::exists(inTmp));
    fs::remove_all(fs::path(inTmp).parent_path());

    // Outside, directly, through "..", and through a link: refused, kept.
    const std::string outsideFolder = archivetest::outsideFolder("archives-delete-guard");
    if (outsideFolder.empty()) GTEST_SKIP() << "no writable folder outside the temporary folders";
    const std::string outside = outsideFolder + "/kept.txt";
    kivtest::writeFile(outside, "keep me");
    EXPECT_EQ(deleteTemp(outside), 403);
    EXPECT_EQ(deleteTemp("/tmp/.." + outside), 403);
    EXPECT_EQ(deleteTemp("/tmp/no-such-folder/../.." + outside), 403);
    EXPECT_EQ(deleteTemp("/tmp"), 403);
    EXPECT_EQ(deleteTemp(""), 403);
    EXPECT_EQ(deleteTemp("/tmpfoo/x.zip"), 403);
    EXPECT_EQ(deleteTemp("/var/tmpfoo/x.zip"), 403);
    EXPECT_TRUE(fs::exists(outside));

    // A link inside is deleted as a link: its target stays. A link to a
    // folder outside does not lead there.
    const std::string link = dir.file("link-out");
    fs::create_symlink(outside, link);
    EXPECT_EQ(deleteTemp(link), 0);
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_EQ(kivtest::readFile(outside), "keep me");
    fs::create_symlink(outsideFolder, link);
    EXPECT_EQ(deleteTemp(link + "/" + fs::path(outside).filename().string()), 403);
    EXPECT_TRUE(fs::exists(outside));
    fs::remove_all(outsideFolder);

    // A folder, empty or not, is refused and kept.
    kivtest::writeFile(dir.file("full/x"), "x");
    fs::create_directories(dir.file("empty"));
    EXPECT_EQ(deleteTemp(dir.file("full")), 403);
    EXPECT_EQ(deleteTemp(dir.file("empty")), 403);
    EXPECT_TRUE(fs::exists(dir.file("full/x")));
    EXPECT_TRUE(fs::is_directory(dir.file("empty")));

    // A path not there: nothing to do, not an error.
    EXPECT_EQ(deleteTemp("/tmp/archives-test-no-such-file"), 0);
}

TEST_F(ArchiveServicesTest, ConcurrentRequestsEachGetTheirArchive) {
    std::vector<std::string> files;
    for (int i = 0; i < 4; ++i) {
        files.push_back(dir.file("c/f" + std::to_string(i) + ".txt"));
        kivtest::writeFile(files.back(), std::string(1000 + i, 'a' + i));
    }
    std::vector<std::string> results(6);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < results.size(); ++t) {
        threads.emplace_back([&, t] {
            CLocalVariant in, out;
            createZipInput(in.get(), t % 2 ? files : std::vector<std::string>{files[t % files.size()]});
            if (satellite.CabServiceCreateZipFile("CreateZip", in.get(), out.ptr()) != 0) return;
            results[t] = VUtil::GetStringElement(out.get(), 0);
            std::string unused = getFile(results[t]);
        });
    }
    for (auto& t : threads) t.join();
    for (size_t t = 0; t < results.size(); ++t) {
        ASSERT_FALSE(results[t].empty());
        zips.push_back(results[t]);
        EXPECT_EQ(zipMethods(results[t]).size(), t % 2 ? 4u : 1u);
        EXPECT_EQ(deleteTemp(results[t]), 0);
    }
}

}  // namespace
