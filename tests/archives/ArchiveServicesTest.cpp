// The archive services called in process: the deflate/store rule, the
// estimate of an archive held past the wait, ZipLogs, the deletion rules,
// concurrency, and the files AddFolderToTree collects.
#include <thread>

#include "satellite/ArchiveFolders.h"
#include "tests/archives/ArchiveTestSupport.h"

namespace {

TEST_F(ArchiveServicesTest, OneFileIsDeflatedAndSeveralAreStored) {
    const std::string a = dir.file("media/a.txt"), b = dir.file("media/b.txt");
    kivtest::writeFile(a, std::string(200000, 'a'));  // two chunks of the writer; unzip reads them back
    kivtest::writeFile(b, "bee");
    const std::pair<std::vector<std::string>, Methods> cases[] = {
        {{a}, {{"a.txt", "Defl:X"}}}, {{a, b}, {{"a.txt", "Stored"}, {"b.txt", "Stored"}}}};
    for (const auto& [paths, methods] : cases) {
        std::string zip;
        long long size = 0;
        ASSERT_EQ(createZip(paths, &zip, &size), 0);
        EXPECT_EQ(size, (long long)fs::file_size(zip)) << "a quick archive answers its real size";
        EXPECT_EQ(zipMethods(zip), methods);
        EXPECT_TRUE(zipTestsOk(zip));
    }
}

TEST_F(ArchiveServicesTest, FailedLookupAndBadInputMakeNoArchive) {
    // An empty first item: the lookup fails and its status is the answer.
    CLocalVariant out;
    JsonVariant emptyItem(R"(["ctx", ""])"), wrong("[42, null]");
    EXPECT_EQ(satellite.CabServiceCreateZipFile("CreateZip", emptyItem.get(), out.ptr()), 1);
    EXPECT_EQ(out.vt(), VT_EMPTY);
    EXPECT_THROW(satellite.CabServiceCreateZipFile("CreateZip", wrong.get(), out.ptr()), CabException);
    EXPECT_THROW(satellite.CabServiceDeleteTempFile("DeleteTempFile", wrong.get(), out.ptr()), CabException);
}

// Archives held back past the 5-second wait: the answer is the estimate, the
// path is pending, a fetch waits for the finished file, and a deletion while
// pending leaves nothing behind.
TEST_F(ArchiveServicesTest, SlowArchiveAnswersEstimateAndIsFetchedComplete) {
    std::vector<std::string> kept;
    for (int i = 0; i < 3; ++i) {
        kept.push_back(dir.file("kept/k" + std::to_string(i) + ".bin"));
        writeRandomFile(kept.back(), 1 << 20, i);
    }
    const std::vector<std::string> dropped = {dir.file("dropped/d.bin")};
    writeRandomFile(dropped[0], 4096, 7);
    setGate(false);
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
    setGate(true);
    fetcher.join();
    ArchiveThreads::waitForAll(&satellite);
    EXPECT_EQ(fetched.size(), fs::file_size(keptZip)) << "the fetch waited for the finished archive";
    kivtest::writeFile(dir.file("fetched.zip"), fetched);
    EXPECT_TRUE(zipTestsOk(dir.file("fetched.zip")));
    EXPECT_EQ(zipMethods(dir.file("fetched.zip")).size(), 3u);
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
        zips.push_back(out.vt() == VT_BSTR ? out.get().bstrVal : "");
        return zips.back();
    };
    // One log file: deflated, and complete when the answer comes.
    EXPECT_EQ(zipMethods(zipLogs()), (Methods{{"KivRequestProxy.log", "Defl:X"}}));
    kivtest::writeFile(logs + "/KivRequestProxy.log.back", std::string(3000, 'y'));
    kivtest::writeFile(logs + "/KivCrashReporter.log", "z");
    const std::string zip = zipLogs();
    const Methods all = {{"KivRequestProxy.log", "Defl:X"}, {"KivRequestProxy.log.back", "Defl:X"},
                         {"KivCrashReporter.log", "Defl:X"}};
    EXPECT_EQ(zipMethods(zip), all);
    EXPECT_TRUE(zipTestsOk(zip));
    // A missing logs folder is only logged: an empty archive still comes back.
    fs::remove_all(logs);
    const std::string empty = zipLogs();
    EXPECT_TRUE(fs::exists(empty));
    EXPECT_TRUE(zipMethods(empty).empty());
}

TEST_F(ArchiveServicesTest, DeleteTempFileOnlyInsideTheTemporaryFolders) {
    // Made the way archives are made, in "/tmp", and inside the folder of getTmpFolder().
    const std::string made = CFileTools::GenerateTempFilePath();
    const std::string inTmp = CFileTools::getTmpFolder("archives-test-sub") + "/x.zip";
    kivtest::writeFile(inTmp, "zip");
    for (const std::string& path : {made, inTmp}) {
        EXPECT_EQ(deleteTemp(path), 0) << path;
        EXPECT_FALSE(fs::exists(path)) << path;
    }
    fs::remove_all(fs::path(inTmp).parent_path());

    // Outside, directly, through "..", and through a link: refused, kept.
    const std::string outside = outsideFolder("archives-delete-guard");
    if (outside.empty()) GTEST_SKIP() << "no writable folder outside the temporary folders";
    const std::string kept = outside + "/kept.txt", link = dir.file("link-out");
    kivtest::writeFile(kept, "keep me");
    for (const std::string& path : {kept, "/tmp/.." + kept, "/tmp/no-such-folder/../.." + kept,
                                    std::string("/tmp"), std::string(), std::string("/tmpfoo/x.zip"),
                                    std::string("/var/tmpfoo/x.zip")})
        EXPECT_EQ(deleteTemp(path), 403) << path;
    EXPECT_TRUE(fs::exists(kept));
    // A link inside is deleted as a link: its target stays. A link to a
    // folder outside does not lead there.
    fs::create_symlink(kept, link);
    EXPECT_EQ(deleteTemp(link), 0);
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_EQ(kivtest::readFile(kept), "keep me");
    fs::create_symlink(outside, link);
    EXPECT_EQ(deleteTemp(link + "/kept.txt"), 403);
    EXPECT_TRUE(fs::exists(kept));
    fs::remove_all(outside);

    // A folder, empty or not, is refused and kept; a path not there is nothing to do.
    kivtest::writeFile(dir.file("full/x"), "x");
    fs::create_directories(dir.file("empty"));
    EXPECT_EQ(deleteTemp(dir.file("full")), 403);
    EXPECT_EQ(deleteTemp(dir.file("empty")), 403);
    EXPECT_TRUE(fs::exists(dir.file("full/x")));
    EXPECT_TRUE(fs::is_directory(dir.file("empty")));
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
    for (size_t t = 0; t < results.size(); ++t)
        threads.emplace_back([&, t] {
            long long size = 0;
            if (createZip(t % 2 ? files : std::vector<std::string>{files[t % 4]}, &results[t], &size) == 0)
                getFile(results[t]);
        });
    for (auto& t : threads) t.join();
    for (size_t t = 0; t < results.size(); ++t) {
        ASSERT_FALSE(results[t].empty());
        EXPECT_EQ(zipMethods(results[t]).size(), t % 2 ? 4u : 1u);
        EXPECT_EQ(deleteTemp(results[t]), 0);
    }
}

TEST(AddFolderToTreeTest, AddsFilesOfAllSubfoldersButNoFolders) {
    kivtest::TempDir dir("addfolder");
    const std::vector<std::string> files = {dir.file(".hidden"), dir.file("empty/.keep"),
        dir.file("sub/deeper/leaf.mp3"), dir.file("sub/inner.bin"), dir.file("top.txt")};
    for (const std::string& f : files) kivtest::writeFile(f, "x");
    CMyPathTree tree;
    EXPECT_EQ(AddFolderToTree(CStdStr(dir.path()), &tree), 5);
    std::vector<std::string> added;
    for (const CMyPathNode* node : tree.fileNodes()) added.push_back(node->getFullPath());
    std::sort(added.begin(), added.end());
    EXPECT_EQ(added, files);

    CMyPathTree none;
    EXPECT_EQ(AddFolderToTree(CStdStr("/no/such/folder/anywhere"), &none), 0);
    EXPECT_TRUE(none.fileNodes().empty());
    EXPECT_EQ(AddFolderToTree(CStdStr("/tmp"), nullptr), 0);
}

}  // namespace
