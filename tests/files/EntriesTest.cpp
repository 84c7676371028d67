// One entry and the folders around it: queries and contents of an entry, the path-name helpers, file operations,
// special and temporary folders, the data folder, medium ids and path joins.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <memory>
#include <string>

#include "files/CFileTools.h"
#include "files/CStdPath.h"
#include "host/CRegistry.h"
#include "host/KivFolders.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"

// An entry's queries and contents; a missing entry's fallbacks.
TEST(EntryQueries, DatesSizeContentsAndMissingFileFallbacks) {
    kivtest::TempDir dir;
    CFileTools file(dir.file("data.bin")), missing(dir.file("missing"));
    ASSERT_TRUE(file.writeString("0123456789"));
    kivtest::runCommand("touch -d @1000000000 '" + dir.file("data.bin") + "'");
    EXPECT_TRUE(file.exists() && !file.isFolder() && CFileTools(dir.path()).isFolder());
    EXPECT_EQ(file.getFileSize(), 10u);
    EXPECT_EQ(file.getLastModified(), 1000000000);
    // A missing entry: no size, and the time of the question as its dates.
    const time_t before = time(nullptr);
    EXPECT_FALSE(missing.exists() || missing.isFolder());
    EXPECT_EQ(missing.getFileSize(), 0u);
    EXPECT_GE(missing.getLastModified(), before);
    EXPECT_LE(missing.getLastModified(), time(nullptr));
    EXPECT_FALSE(missing.toString().empty());

    char buf[16] = {};
    unsigned long long count = 0;
    // The bytes read, or "refused"; `count` is what getData left in it.
    auto read = [&](unsigned long long n, long long offset, CFileTools::SeekDirection from) {
        count = n;
        return file.getData(buf, count, static_cast<unsigned long long>(offset), from) ? std::string(buf, count)
                                                                                       : "refused";
    };
    EXPECT_EQ(read(4, 2, CFileTools::begin), "2345");
    EXPECT_EQ(read(2, 1, CFileTools::current), "78");      // position was 6
    EXPECT_EQ(read(3, -3, CFileTools::end), "789");        // the last three bytes
    EXPECT_EQ(read(2, -3, CFileTools::current), "78");     // position was 10
    EXPECT_EQ(read(3, 3, CFileTools::end), "refused");     // a positive offset from the end is past it
    EXPECT_EQ(read(20, -20, CFileTools::end), "refused");  // before the start of the file
    EXPECT_EQ(read(100, 8, CFileTools::begin), "89");      // asks past the end: only what is there
    EXPECT_EQ(read(5, 50, CFileTools::begin), "refused");
    EXPECT_EQ(count, 0u);

    // writeBytes replaces the contents, also while the file was open for reading.
    ASSERT_TRUE(file.writeBytes("ab", 2));
    unsigned long long size = 0;
    std::unique_ptr<char[]> all(file.getData(size));
    EXPECT_EQ(all ? std::string(all.get(), size) : "(null)", "ab");
    unsigned char* bytes = nullptr;
    unsigned long n = 0;
    EXPECT_TRUE(file.readToBytes(&bytes, &n) && std::string(reinterpret_cast<char*>(bytes), n) == "ab");
    delete[] bytes;

    count = 4;
    EXPECT_FALSE(missing.getData(buf, count, 0, CFileTools::begin));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(missing.getData(size), nullptr);
    EXPECT_EQ(size, 0u);
}

TEST(PathNames, ThresholdsOfEachHelperAndJoins) {
    EXPECT_EQ(CFileTools("/x", "given").getDisplayName(), "given");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("/root"), "root");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("plain"), "plain");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("/a/"), "");
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        // path, display name (only "/" as the first character is kept), extension (last "." anywhere), directory
        {"/music/a.MP3", "a.MP3", "MP3", "a.MP3"},
        {"/root", "/root", "/root", "/root"},
        {"plain", "plain", "plain", "plain"},
        {"/music/README", "README", "/music/README", "README"},
        {"/my.music/README", "README", "music/README", "README"},
        {".hidden", ".hidden", ".hidden", ".hidden"},
        {"/music/album/a.mp3", "a.mp3", "mp3", "a.mp3"},
    };
    for (const auto& [path, name, extension, directory] : cases) {
        CFileTools entry(path);
        EXPECT_EQ(entry.getDisplayName(), name) << path;
        EXPECT_EQ(entry.getExtension(), extension) << path;
        EXPECT_EQ(entry.getDirectory(), directory) << path;
    }
    // A join inserts one separator, only where needed.
    const std::tuple<const char*, const char*, const char*> joins[] = {{"/base", "x", "/base/x"},
                                                                       {"/base/", "x", "/base/x"},
                                                                       {"/base", "", "/base"},
                                                                       {"", "x", "x"}};
    for (const auto& [base, part, joined] : joins) EXPECT_EQ(CStdPath(base).AppendPath(part), joined);
}

TEST(FileOperations, CreateCopyRenameDelete) {
    kivtest::TempDir dir;
    EXPECT_TRUE(CFileTools::CreateDirectory(dir.file("a/b/c")));  // with its parents (copied below)
    kivtest::writeFile(dir.file("a/one.txt"), "1");
    kivtest::writeFile(dir.file("a/b/two.txt"), "22");
    kivtest::writeFile(dir.file("a/.hidden"), "h");

    EXPECT_TRUE(CFileTools::CopyFile(dir.file("a/one.txt"), dir.file("copy.txt")));
    EXPECT_FALSE(CFileTools::CopyFile(dir.file("a/one.txt"), dir.file("copy.txt")));  // target exists
    EXPECT_TRUE(CFileTools::CopyDirectory(dir.file("a"), dir.file("acopy")));
    for (const std::string copied : {"one.txt", "b/two.txt", ".hidden"})
        EXPECT_EQ(kivtest::readFile(dir.file("acopy/" + copied)), kivtest::readFile(dir.file("a/" + copied))) << copied;
    EXPECT_TRUE(CFileTools(dir.file("acopy/b/c")).isFolder());

    EXPECT_TRUE(CFileTools::Rename(dir.file("copy.txt"), dir.file("moved.txt")));
    EXPECT_FALSE(CFileTools::Rename(dir.file("copy.txt"), dir.file("again.txt")));
    EXPECT_TRUE(CFileTools::DeleteFile(dir.file("moved.txt")));
    EXPECT_FALSE(CFileTools::DeleteFile(dir.file("moved.txt")));
    EXPECT_FALSE(CFileTools::DeleteFile(dir.file("a")));  // not empty

    kivtest::writeFile(dir.file("blocker"), "x");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(CFileTools::CreateDirectory(dir.file("blocker/sub")));
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed.rfind("std::exception in CreateDirectory " + dir.file("blocker/sub") + ": ", 0), 0u) << printed;
}

TEST(SpecialPaths, NamesResolveUnderHomeInAnyCase) {
    const std::string home = CFileTools::GetUserHomeFolder();
    ASSERT_FALSE(home.empty());
    const std::pair<const char*, std::string> cases[] = {{"%mydocuments%", home + "/Documents"},
                                                         {"%MYDOCUMENTS%/x", home + "/Documents"},
                                                         {"before%MyMusic%after", home + "/Music"},
                                                         {"%desktop%", home + "/Desktop"},
                                                         {"%MYPICTURES%", home + "/Pictures"},
                                                         {"%MYVIDEO%", home + "/Videos"},
                                                         {"%MYCOMPUTER%", home + "/"},
                                                         {"%UNKNOWN%", home},
                                                         {"/plain/path", "/plain/path"},
                                                         {"/one%sign", "/one%sign"}};
    for (const auto& [path, resolved] : cases) EXPECT_EQ(CFileTools::resolveSpecialPath(path), resolved);
    EXPECT_EQ(CFileTools::resolveShortcut("/any/path"), "");
    EXPECT_EQ(CFileTools::GetPathFromCSIDL(5), "");
}

TEST(TempFolders, TmpdirThenVarTmpThenTmp) {
    kivtest::TempDir dir;
    {
        kivtest::ScopedEnv env("TMPDIR", dir.path().c_str());
        EXPECT_EQ(CFileTools::getTmpFolder(), dir.path());
        // Trailing and leading separators collapse to one, and the subfolder is created.
        kivtest::ScopedEnv env2("TMPDIR", (dir.path() + "//").c_str());
        CStdStr sub = CFileTools::getTmpFolder(CStdStr("//zips"));
        EXPECT_EQ(sub, dir.path() + "/zips");
        EXPECT_TRUE(CFileTools(sub).isFolder());
    }
    const CStdStr fallback = CFileTools("/var/tmp/").isFolder() ? "/var/tmp/" : "/tmp";
    for (const std::string& tmpdir : {dir.path() + "/missing", std::string()}) {
        kivtest::ScopedEnv env("TMPDIR", tmpdir.empty() ? nullptr : tmpdir.c_str());
        EXPECT_EQ(CFileTools::getTmpFolder(), fallback) << tmpdir;
    }
    // A new empty file in /tmp, named "file" and six characters.
    CStdStr temp = CFileTools::GenerateTempFilePath();
    EXPECT_EQ(kivtest::runCommand("stat -c '%s %n' " + temp + " | grep -x '0 /tmp/file......'"), "0 " + temp + "\n");
    EXPECT_TRUE(CFileTools::DeleteFile(temp));
}

TEST(KivFolders, DataFolderUnderRootOrThrowsAndBinFolderFromInstallDir) {
    CStdStr data = CFileTools::GetKivDataFolder();
    EXPECT_EQ(data, KivFolders::DataFolder());
    EXPECT_EQ(CFileTools::GetKivDataFolder(), data);  // existing: unchanged
    CStdStr sub = CFileTools::GetKivDataSubFolder("Crashes");
    EXPECT_EQ(sub, data + "/Crashes");
    EXPECT_EQ(kivtest::runCommand("stat -c '%F %a' '" + data + "' '" + sub + "'"), "directory 750\ndirectory 750\n");
    EXPECT_EQ(CFileTools::GetLogsDirectory(), KivFolders::LogsDirectory());
    EXPECT_THAT([] { CFileTools::GetKivDataSubFolder("no/such/parent"); },
                testing::ThrowsMessage<std::logic_error>(testing::StartsWith("Failed to create Kiv data subfolder")));
    // The bin folder: the InstallDir setting's, else the executable's.
    EXPECT_EQ(CFileTools::getKivBinFolderPath(), KivFolders::ExecutableFolder());
    EXPECT_EQ(CFileTools::GetProcessBundleFolder(), KivFolders::ExecutableFolder());
    kivtest::TempDir dir;
    EXPECT_FALSE(CFileTools::testKivBinPath(dir.path()));
    kivtest::writeFile(dir.file("KivLauncher"), "");
    EXPECT_TRUE(CFileTools::testKivBinPath(dir.path()));
    ASSERT_TRUE(
        CRegistry::getInstance()->WriteSettingImpl("Software\\Kiv Foundry\\Kiv", "InstallDir", CStdStr("/opt/kiv")));
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
    CFileTools other("/other");
    entry = other;  // a copy carries the other entry's cache (empty), then computes its own
    EXPECT_EQ(entry.getMediumId(), "F*|other");
}
