// Queries on one entry, its contents, the path-name helpers and file operations.
#include <gtest/gtest.h>
#include <sys/time.h>

#include <ctime>
#include <string>

#include "files/CFileTools.h"
#include "tests/support/TempDir.h"

TEST(EntryQueries, DatesSizeAndMissingFileFallbacks) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.txt"), "hello");
    struct timeval times[2] = {{1000000000, 0}, {1000000000, 0}};
    ASSERT_EQ(utimes(dir.file("a.txt").c_str(), times), 0);
    CFileTools file(dir.file("a.txt"));
    EXPECT_TRUE(file.exists());
    EXPECT_FALSE(file.isFolder());
    EXPECT_EQ(file.getFileSize(), 5u);
    EXPECT_EQ(file.getLastModified(), 1000000000);
    EXPECT_EQ(file.getDateCreated(), 1000000000);
    EXPECT_EQ(file.getLastAccessed(), 1000000000);
    EXPECT_TRUE(CFileTools(dir.path()).isFolder());

    CFileTools missing(dir.file("nope"));
    time_t before = time(nullptr);
    EXPECT_FALSE(missing.exists());
    EXPECT_FALSE(missing.isFolder());
    EXPECT_EQ(missing.getFileSize(), 0u);
    EXPECT_GE(missing.getLastModified(), before);
    EXPECT_GE(missing.getDateCreated(), before);
    EXPECT_GE(missing.getLastAccessed(), before);
    EXPECT_LE(missing.getLastAccessed(), time(nullptr));
    EXPECT_FALSE(missing.toString().empty());
}

TEST(EntryContents, GetDataFromBeginCurrentAndEnd) {
    kivtest::TempDir dir;
    CFileTools file(dir.file("data.bin"));
    ASSERT_TRUE(file.writeString("0123456789"));
    char buf[16] = {};
    unsigned long long count = 4;
    EXPECT_TRUE(file.getData(buf, count, 2, CFileTools::begin));
    EXPECT_EQ(count, 4u);
    EXPECT_EQ(std::string(buf, 4), "2345");
    count = 2;
    EXPECT_TRUE(file.getData(buf, count, 1, CFileTools::current));  // position was 6
    EXPECT_EQ(std::string(buf, 2), "78");
    const unsigned long long minus3 = static_cast<unsigned long long>(-3LL);
    count = 3;
    EXPECT_TRUE(file.getData(buf, count, minus3, CFileTools::end));  // the last three bytes
    EXPECT_EQ(std::string(buf, 3), "789");
    count = 2;
    EXPECT_TRUE(file.getData(buf, count, minus3, CFileTools::current));  // position was 10
    EXPECT_EQ(std::string(buf, 2), "78");
    count = 3;  // a positive offset from the end is past it
    EXPECT_FALSE(file.getData(buf, count, 3, CFileTools::end));
    count = 20;  // before the start of the file: refused
    EXPECT_FALSE(file.getData(buf, count, static_cast<unsigned long long>(-20LL), CFileTools::end));
    count = 100;  // asks past the end: only what is there
    EXPECT_TRUE(file.getData(buf, count, 8, CFileTools::begin));
    EXPECT_EQ(count, 2u);
    count = 5;
    EXPECT_FALSE(file.getData(buf, count, 50, CFileTools::begin));
    EXPECT_EQ(count, 0u);

    // writeBytes replaces the contents, also while the file was open for reading.
    ASSERT_TRUE(file.writeBytes("ab", 2));
    unsigned long long size = 0;
    char* all = file.getData(size);
    ASSERT_NE(all, nullptr);
    EXPECT_EQ(std::string(all, size), "ab");
    delete[] all;
    unsigned char* bytes = nullptr;
    unsigned long n = 0;
    ASSERT_TRUE(file.readToBytes(&bytes, &n));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), n), "ab");
    delete[] bytes;

    CFileTools missing(dir.file("missing"));
    count = 4;
    EXPECT_FALSE(missing.getData(buf, count, 0, CFileTools::begin));
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(missing.getData(size), nullptr);
    EXPECT_EQ(size, 0u);
}

TEST(EntryContents, LargeReadStraightIntoCallerBuffer) {
    kivtest::TempDir dir;
    std::string content(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 131 + (i >> 12));
    kivtest::writeFile(dir.file("big"), content);
    std::string out(content.size(), 'x');
    unsigned long long count = out.size();
    CFileTools file(dir.file("big"));
    ASSERT_TRUE(file.getData(&out[0], count, 0, CFileTools::begin));
    EXPECT_EQ(count, content.size());
    EXPECT_TRUE(out == content);
}

TEST(PathNames, ThresholdsOfEachHelper) {
    EXPECT_EQ(CFileTools("/music/a.mp3").getDisplayName(), "a.mp3");
    EXPECT_EQ(CFileTools("/root").getDisplayName(), "/root");  // only "/" is the first character
    EXPECT_EQ(CFileTools("plain").getDisplayName(), "plain");
    EXPECT_EQ(CFileTools("/x", "given").getDisplayName(), "given");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("/root"), "root");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("plain"), "plain");
    EXPECT_EQ(CFileTools::GetDisplayNameFromPath("/a/"), "");

    EXPECT_EQ(CFileTools("/music/a.MP3").getExtension(), "MP3");
    EXPECT_EQ(CFileTools("/music/README").getExtension(), "/music/README");
    EXPECT_EQ(CFileTools("/my.music/README").getExtension(), "music/README");  // last "." anywhere
    EXPECT_EQ(CFileTools(".hidden").getExtension(), ".hidden");

    EXPECT_EQ(CFileTools("/music/album/a.mp3").getDirectory(), "a.mp3");
    EXPECT_EQ(CFileTools("/root").getDirectory(), "/root");

    CFileTools entry("/f/Song.Mp3");
    EXPECT_EQ(entry.getFieldValue("title"), "Song.Mp3");
    EXPECT_EQ(entry.getFieldValue("path"), "/f/Song.Mp3");
    EXPECT_EQ(entry.getFieldValue("path.extension"), "Mp3");
    EXPECT_EQ(entry.getFieldValue("path.directory"), "Song.Mp3");
    EXPECT_EQ(entry.getFieldValue("path.filename"), "Song.Mp3");
    EXPECT_EQ(entry.getFieldValue("Title"), "");
    EXPECT_EQ(entry.getFieldValue("nonsense"), "");
}

TEST(FileOperations, CreateCopyRenameDelete) {
    kivtest::TempDir dir;
    EXPECT_TRUE(CFileTools::CreateDirectory(dir.file("a/b/c")));
    EXPECT_TRUE(CFileTools(dir.file("a/b/c")).isFolder());
    kivtest::writeFile(dir.file("a/one.txt"), "1");
    kivtest::writeFile(dir.file("a/b/two.txt"), "22");
    kivtest::writeFile(dir.file("a/.hidden"), "h");

    EXPECT_TRUE(CFileTools::CopyFile(dir.file("a/one.txt"), dir.file("copy.txt")));
    EXPECT_FALSE(CFileTools::CopyFile(dir.file("a/one.txt"), dir.file("copy.txt")));  // target exists
    EXPECT_TRUE(CFileTools::CopyDirectory(dir.file("a"), dir.file("acopy")));
    EXPECT_EQ(kivtest::readFile(dir.file("acopy/one.txt")), "1");
    EXPECT_EQ(kivtest::readFile(dir.file("acopy/b/two.txt")), "22");
    EXPECT_EQ(kivtest::readFile(dir.file("acopy/.hidden")), "h");
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
