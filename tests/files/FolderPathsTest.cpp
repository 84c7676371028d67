// Special folders, temporary folders, the data folder, medium ids and path joins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "files/CFileTools.h"
#include "files/CStdPath.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

using kivtest::ScopedEnv;

TEST(SpecialPaths, NamesResolveUnderHomeInAnyCase) {
    const std::string home = CFileTools::GetUserHomeFolder();
    ASSERT_FALSE(home.empty());
    const std::pair<const char*, std::string> cases[] = {{"%mydocuments%", home + "/Documents"},
        {"%MYDOCUMENTS%/x", home + "/Documents"}, {"before%MyMusic%after", home + "/Music"},
        {"%desktop%", home + "/Desktop"}, {"%MYPICTURES%", home + "/Pictures"}, {"%MYVIDEO%", home + "/Videos"},
        {"%MYCOMPUTER%", home + "/"}, {"%UNKNOWN%", home}, {"/plain/path", "/plain/path"},
        {"/one%sign", "/one%sign"}};
    for (const auto& [path, resolved] : cases) EXPECT_EQ(CFileTools::resolveSpecialPath(path), resolved);
    EXPECT_EQ(CFileTools::resolveShortcut("/any/path"), "");
    EXPECT_EQ(CFileTools::GetPathFromCSIDL(5), "");
}

TEST(TempFolders, TmpdirThenVarTmpThenTmp) {
    kivtest::TempDir dir;
    {
        ScopedEnv env("TMPDIR", dir.path().c_str());
        EXPECT_EQ(CFileTools::getTmpFolder(), dir.path());
        // Trailing and leading separators collapse to one, and the subfolder is created.
        ScopedEnv env2("TMPDIR", (dir.path() + "//").c_str());
        CStdStr sub = CFileTools::getTmpFolder(CStdStr("//zips"));
        EXPECT_EQ(sub, dir.path() + "/zips");
        EXPECT_TRUE(CFileTools(sub).isFolder());
    }
    const CStdStr fallback = CFileTools("/var/tmp/").isFolder() ? "/var/tmp/" : "/tmp";
    for (const std::string& tmpdir : {dir.path() + "/missing", std::string()}) {
        ScopedEnv env("TMPDIR", tmpdir.empty() ? nullptr : tmpdir.c_str());
        EXPECT_EQ(CFileTools::getTmpFolder(), fallback) << tmpdir;
    }
    CStdStr temp = CFileTools::GenerateTempFilePath();
    ASSERT_EQ(temp.Left(9), "/tmp/file");
    EXPECT_EQ(temp.size(), 15u);
    CFileTools tempFile(temp);
    EXPECT_TRUE(tempFile.exists());
    EXPECT_EQ(tempFile.getFileSize(), 0u);
    EXPECT_TRUE(CFileTools::DeleteFile(temp));
}

TEST(DataFolder, CreatedWithParentsAndPrivateModeUnderRootOrThrows) {
    CStdStr data = CFileTools::GetKivDataFolder();
    EXPECT_EQ(data, KivFolders::DataFolder());
    struct stat st;
    ASSERT_EQ(stat(data.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(CFileTools::GetKivDataFolder(), data);  // existing: unchanged

    CStdStr sub = CFileTools::GetKivDataSubFolder("Crashes");
    EXPECT_EQ(sub, data + "/Crashes");
    ASSERT_EQ(stat(sub.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0750u);
    EXPECT_EQ(CFileTools::GetLogsDirectory(), KivFolders::LogsDirectory());
    EXPECT_THAT([] { CFileTools::GetKivDataSubFolder("no/such/parent"); },
                testing::ThrowsMessage<std::logic_error>(
                    testing::StartsWith("Failed to create Kiv data subfolder")));
}

TEST(BinFolder, InstallDirSettingElseExecutableFolder) {
    EXPECT_EQ(CFileTools::getKivBinFolderPath(), KivFolders::ExecutableFolder());
    EXPECT_EQ(CFileTools::GetProcessBundleFolder(), KivFolders::ExecutableFolder());
    kivtest::TempDir dir;
    EXPECT_FALSE(CFileTools::testKivBinPath(dir.path()));
    kivtest::writeFile(dir.file("KivLauncher"), "");
    EXPECT_TRUE(CFileTools::testKivBinPath(dir.path()));
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir", CStdStr("/opt/kiv")));
    EXPECT_EQ(CFileTools::getKivBinFolderPath(), "/opt/kiv/bin");
}

TEST(MediumId, RoundTripAndLossyCharacters) {
    EXPECT_EQ(CFileTools::PathToFileBrowserMediumId("/Users/a b/c.d+e"), "F*|Users|a*b|c>d<e");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("F*|Users|a*b|c>d<e"), "/Users/a b/c.d+e");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("X?|tmp"), "/tmp");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath("F"), "");
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath(""), "");
    // The replacement characters themselves are not escaped.
    EXPECT_EQ(CFileTools::FileBrowserMediumIdToPath(CFileTools::PathToFileBrowserMediumId("/a*b|c")), "/a b/c");

    CFileTools entry("/x/y.z");
    EXPECT_EQ(entry.getMediumId(), "F*|x|y>z");
    EXPECT_EQ(entry.getFieldValue("mediumId"), "F*|x|y>z");
    EXPECT_EQ(entry.getFieldValue("kivMediumId"), "F*|x|y>z");
    CFileTools other("/other");
    entry = other;  // a copy carries the other entry's cache (empty), then computes its own
    EXPECT_EQ(entry.getMediumId(), "F*|other");
}

TEST(StdPath, AppendInsertsOneSeparatorOnlyWhereNeeded) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"/base", "x", "/base/x"}, {"/base/", "x", "/base/x"}, {"/base", "", "/base"}, {"", "x", "x"}};
    for (const auto& [base, part, joined] : cases) EXPECT_EQ(CStdPath(base).AppendPath(part), joined);
}
