// EnumerateFolder and the field values of listed entries.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <memory>

#include "files/CFileTools.h"
#include "tests/support/TempDir.h"

namespace {

// Owns a listing and gives its entries' display names in sorted order.
struct Listing {
    std::vector<CFileTools*> entries;
    ~Listing() {
        for (CFileTools* e : entries) delete e;
    }
    std::vector<std::string> names() {
        std::vector<std::string> out;
        for (CFileTools* e : entries) out.push_back(e->getDisplayName());
        std::sort(out.begin(), out.end());
        return out;
    }
    CFileTools* find(const std::string& name) {
        for (CFileTools* e : entries)
            if (e->getDisplayName() == name) return e;
        return nullptr;
    }
};

typedef std::vector<std::string> Names;

}  // namespace

TEST(FolderListing, HiddenFoldersFilesAndExtensions) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.mp3"), "a");
    kivtest::writeFile(dir.file("C.Mp3"), "c");
    kivtest::writeFile(dir.file("b"), "b");
    kivtest::writeFile(dir.file(".x"), "x");
    kivtest::writeFile(dir.file("withsub/inner/f"), "f");
    kivtest::writeFile(dir.file("filesonly/g.mp3"), "g");
    ASSERT_EQ(symlink("a.mp3", dir.file("link.mp3").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", dir.file("dangling").c_str()), 0);

    {
        Listing l;
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, false, true, true, false, {}, false));
        EXPECT_EQ(l.names(), (Names{"C.Mp3", "a.mp3", "b", "filesonly", "link.mp3", "withsub"}));
        EXPECT_TRUE(l.find("withsub")->hasSubfolders());
        EXPECT_FALSE(l.find("filesonly")->hasSubfolders());
        EXPECT_FALSE(l.find("a.mp3")->hasSubfolders());
        EXPECT_EQ(l.find("a.mp3")->getPath(), dir.file("a.mp3"));
    }
    {
        Listing l;
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, true, false, true, false, {}, false));
        EXPECT_EQ(l.names(), (Names{".x", "C.Mp3", "a.mp3", "b", "link.mp3"}));
    }
    {
        Listing l;  // the filter matches in any case; files without an extension are left out
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, true, true, true, false, {"MP3"}, false));
        EXPECT_EQ(l.names(), (Names{"C.Mp3", "a.mp3", "filesonly", "link.mp3", "withsub"}));
    }
    {
        Listing l;
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, false, true, false, false, {"txt"}, false));
        EXPECT_EQ(l.names(), (Names{"filesonly", "withsub"}));
    }
    {
        Listing l;  // recursive: files of subfolders instead of the folders
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, false, true, true, false, {}, true));
        EXPECT_EQ(l.names(), (Names{"C.Mp3", "a.mp3", "b", "f", "g.mp3", "link.mp3"}));
    }
    {
        Listing l;
        EXPECT_FALSE(CFileTools::EnumerateFolder(dir.file("missing"), l.entries, true, true, true, false, {}, false));
        EXPECT_TRUE(l.entries.empty());
    }
}

TEST(FolderListing, RecursiveListingSurvivesLinkLoops) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("sub/f"), "f");
    ASSERT_EQ(symlink("..", dir.file("sub/up").c_str()), 0);
    Listing l;
    EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, false, true, true, false, {}, true));
    EXPECT_EQ(l.names(), (Names{"f"}));
}

TEST(FieldValues, TypeSizeDatesAndMonth) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("song.mp3"), "12345");
    struct tm march = {};
    march.tm_year = 2021 - 1900;
    march.tm_mon = 2;
    march.tm_mday = 14;
    march.tm_hour = 9;
    march.tm_min = 8;
    march.tm_sec = 7;
    march.tm_isdst = -1;
    time_t when = mktime(&march);
    struct timeval times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(dir.file("song.mp3").c_str(), times), 0);

    CFileTools song(dir.file("song.mp3"));
    EXPECT_EQ(song.getFieldValue("type"), "file");
    EXPECT_EQ(song.getFieldValue("size"), "5");
    EXPECT_EQ(song.getFieldValue("dateModified"), "2021-03-14 09:08:07");
    EXPECT_EQ(song.getFieldValue("lastModified"), "2021-03-14 09:08:07");
    EXPECT_EQ(song.getFieldValue("lastAccessTime"), "2021-03-14 09:08:07");
    EXPECT_EQ(song.getFieldValue("creationDate"), "2021-03-14 09:08:07");
    EXPECT_EQ(song.getFieldValue("creationDate.year"), "2021");
    EXPECT_EQ(song.getFieldValue("creationDate.month"), "0003");
    EXPECT_EQ(CFileTools(dir.path()).getFieldValue("type"), "folder");
    EXPECT_EQ(CFileTools(dir.file("gone")).getFieldValue("size"), "0");
}

TEST(FieldValues, MediaTypeLooksUpAndRemembersExtensions) {
    {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        CFileTools::s_extensionMediaTypeMap[".mkv"] = "video";
        CFileTools::s_extensionMediaTypeMap.erase(".zzz");
    }
    EXPECT_EQ(CFileTools("/m/Film.MKV").getFieldValue("mediaType"), "video.file");
    EXPECT_EQ(CFileTools("/m/notes.zzz").getFieldValue("mediaType"), "file");
    // A folder follows the same rule on its path.
    EXPECT_EQ(CFileTools("/m/folder.mkv").getFieldValue("mediaType"), "video.file");
    PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
    auto it = CFileTools::s_extensionMediaTypeMap.find(".zzz");
    ASSERT_NE(it, CFileTools::s_extensionMediaTypeMap.end());
    EXPECT_EQ(it->second, "");
}
