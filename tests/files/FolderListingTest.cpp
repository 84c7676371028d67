// EnumerateFolder and the field values of listed entries.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>

#include "files/CFileTools.h"
#include "tests/support/TempDir.h"

namespace {

typedef std::vector<std::string> Names;

// Owns a listing and gives its entries' display names in sorted order.
struct Listing {
    std::vector<CFileTools*> entries;
    ~Listing() {
        for (CFileTools* e : entries) delete e;
    }
    Names names() {
        Names out;
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

}  // namespace

TEST(FolderListing, HiddenFoldersFilesExtensionsAndRecursion) {
    kivtest::TempDir dir;
    for (const char* name : {"a.mp3", "C.Mp3", "b", ".x", "withsub/inner/f", "filesonly/g.mp3"})
        kivtest::writeFile(dir.file(name), "x");
    ASSERT_EQ(symlink("a.mp3", dir.file("link.mp3").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", dir.file("dangling").c_str()), 0);
    const struct {
        bool hidden, folders, files;
        std::vector<CStdStr> extensions;
        bool recursive;
        Names names;
    } cases[] = {
        {false, true, true, {}, false, {"C.Mp3", "a.mp3", "b", "filesonly", "link.mp3", "withsub"}},
        {true, false, true, {}, false, {".x", "C.Mp3", "a.mp3", "b", "link.mp3"}},
        // The filter matches in any case; files without an extension are left out.
        {true, true, true, {"MP3"}, false, {"C.Mp3", "a.mp3", "filesonly", "link.mp3", "withsub"}},
        {false, true, false, {"txt"}, false, {"filesonly", "withsub"}},
        // Recursive: files of subfolders instead of the folders.
        {false, true, true, {}, true, {"C.Mp3", "a.mp3", "b", "f", "g.mp3", "link.mp3"}},
    };
    for (const auto& c : cases) {
        Listing l;
        EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, c.hidden, c.folders, c.files, false,
                                                c.extensions, c.recursive));
        EXPECT_EQ(l.names(), c.names);
    }
    Listing l;
    EXPECT_TRUE(CFileTools::EnumerateFolder(dir.path(), l.entries, false, true, true, false, {}, false));
    EXPECT_TRUE(l.find("withsub")->hasSubfolders());
    EXPECT_FALSE(l.find("filesonly")->hasSubfolders());
    EXPECT_FALSE(l.find("a.mp3")->hasSubfolders());
    EXPECT_EQ(l.find("a.mp3")->getPath(), dir.file("a.mp3"));
    Listing missing;
    EXPECT_FALSE(CFileTools::EnumerateFolder(dir.file("missing"), missing.entries, true, true, true, false, {}, false));
    EXPECT_TRUE(missing.entries.empty());
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
    ASSERT_TRUE(strptime("2021-03-14 09:08:07", "%Y-%m-%d %H:%M:%S", &march));  // local time
    march.tm_isdst = -1;
    const time_t when = mktime(&march);
    struct timeval times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimes(dir.file("song.mp3").c_str(), times), 0);

    CFileTools song(dir.file("song.mp3"));
    const std::pair<const char*, const char*> fields[] = {{"type", "file"}, {"size", "5"},
        {"dateModified", "2021-03-14 09:08:07"}, {"lastModified", "2021-03-14 09:08:07"},
        {"lastAccessTime", "2021-03-14 09:08:07"}, {"creationDate", "2021-03-14 09:08:07"},
        {"creationDate.year", "2021"}, {"creationDate.month", "0003"}};
    for (const auto& [field, value] : fields) EXPECT_EQ(song.getFieldValue(field), value) << field;
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
    EXPECT_EQ(CFileTools::s_extensionMediaTypeMap.count(".zzz"), 1u);
    EXPECT_EQ(CFileTools::s_extensionMediaTypeMap[".zzz"], "");
}
