// Listings: EnumerateFolder, the field values of listed entries, and SortFiles
// (every key, folders first, byte order of names, key parsing, and agreement
// with the live comparison functors).
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string>

#include "files/CFileTools.h"
#include "files/FileSortFunctors.h"
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

namespace {

class SortFixture : public testing::Test {
protected:
    void SetUp() override {
        // name, size, modification time
        add("b.txt", 30, 300);
        add("A.mp3", 10, 200);
        add("c.wav", 20, 100);
        add("\xc3\xa9t\xc3\xa9.ogg", 5, 400);  // UTF-8 "ete": bytes above 127 sort before ASCII
        folder("zfolder", 50);
        folder("Afolder", 60);
    }
    void TearDown() override {
        for (CFileTools* e : entries) delete e;
    }
    void add(const std::string& name, size_t size, time_t mtime) {
        kivtest::writeFile(dir.file(name), std::string(size, 'x'));
        touch(name, mtime);
        entries.push_back(new CFileTools(dir.file(name), name));
    }
    void folder(const std::string& name, time_t mtime) {
        kivtest::writeFile(dir.file(name + "/inside"), "");
        touch(name, mtime);
        entries.push_back(new CFileTools(dir.file(name), name));
    }
    void touch(const std::string& name, time_t t) {
        struct timeval times[2] = {{t, 0}, {t, 0}};
        ASSERT_EQ(utimes(dir.file(name).c_str(), times), 0);
    }
    std::string order(const char* sortKeys, int expectedResult = 1) {
        EXPECT_EQ(CFileTools::SortFiles(entries, sortKeys), expectedResult) << sortKeys;
        std::string out;
        for (CFileTools* e : entries) out += (out.empty() ? "" : " ") + e->getDisplayName();
        return out;
    }

    kivtest::TempDir dir;
    std::vector<CFileTools*> entries;
};

const char* kEte = "\xc3\xa9t\xc3\xa9.ogg";

}  // namespace

TEST_F(SortFixture, EveryKeyKeepsFoldersFirst) {
    for (std::string key : {"title", "path"}) {
        EXPECT_EQ(order((key + ":asc").c_str()), std::string("Afolder zfolder ") + kEte + " A.mp3 b.txt c.wav");
        EXPECT_EQ(order((key + ":desc").c_str()), std::string("zfolder Afolder c.wav b.txt A.mp3 ") + kEte);
    }
    // The folders' paths hold no ".", so their extension is the whole path.
    EXPECT_EQ(order("path.extension:asc"), "Afolder zfolder A.mp3 " + std::string(kEte) + " b.txt c.wav");
    EXPECT_EQ(order("path.extension:desc"), "zfolder Afolder c.wav b.txt " + std::string(kEte) + " A.mp3");
    // Folders have no size: their order among themselves is open.
    EXPECT_EQ(order("size:asc").substr(16), std::string(kEte) + " A.mp3 c.wav b.txt");
    EXPECT_EQ(order("size:desc").substr(16), std::string("b.txt c.wav A.mp3 ") + kEte);
    for (std::string key : {"lastModified", "creationDate", "lastAccessTime"}) {
        EXPECT_EQ(order((key + ":asc").c_str()), std::string("zfolder Afolder c.wav A.mp3 b.txt ") + kEte);
        EXPECT_EQ(order((key + ":desc").c_str()), std::string("Afolder zfolder ") + kEte + " b.txt A.mp3 c.wav");
    }
}

TEST_F(SortFixture, OnlyTheFirstKeyCountsAndUnknownKeysSortByTitle) {
    EXPECT_EQ(order("title:desc,size:asc"), std::string("zfolder Afolder c.wav b.txt A.mp3 ") + kEte);
    EXPECT_EQ(order(",size:asc", 0), std::string("Afolder zfolder ") + kEte + " A.mp3 b.txt c.wav");
    order("size:desc");
    EXPECT_EQ(order("", 0), std::string("Afolder zfolder ") + kEte + " A.mp3 b.txt c.wav");
    order("size:desc");
    EXPECT_EQ(order("Title:asc", 0), std::string("Afolder zfolder ") + kEte + " A.mp3 b.txt c.wav");
}

TEST(CompareNames, ClassicLoweringAndSignedBytes) {
    EXPECT_EQ(CompareNames("abc", "ABC"), 0);
    EXPECT_GT(CompareNames("abc", "ab"), 0);
    EXPECT_GT(CompareNames("A", "_"), 0);  // lowered "A" is after "_"
    // Each pair in order; no lowering above ASCII.
    for (const auto& [a, b] : std::vector<std::pair<const char*, const char*>>{
             {"ab", "abc"}, {"\xff", "a"}, {"\x80", "\x7f"}, {"Z\xc3\x89", "z\xc3\xa9"}, {"_", "a"}})
        EXPECT_LT(CompareNames(a, b), 0) << a << " " << b;
}

// The keys read once per sort give the same permutation as the functors that
// query the disk in every comparison, duplicates included.
TEST(SortFiles, SameOrderAsLiveFunctors) {
    kivtest::TempDir dir;
    std::vector<CFileTools*> cached, live;
    for (int i = 0; i < 300; ++i) {
        std::string name = "f" + std::to_string((i * 37) % 101) + (i % 3 ? ".a" : ".B");
        std::string path = dir.file(std::to_string(i) + "/" + name);
        if (i % 7 == 0)
            kivtest::writeFile(path + "/x", "");
        else
            kivtest::writeFile(path, std::string((i * 13) % 17, 'x'));
        struct timeval times[2] = {{1000 + (i * 7) % 11, 0}, {1000 + (i * 7) % 11, 0}};
        ASSERT_EQ(utimes(path.c_str(), times), 0);
        cached.push_back(new CFileTools(path));
        live.push_back(new CFileTools(path));
    }
    auto check = [&](const char* sortKeys, auto functor) {
        std::vector<CFileTools*> a = cached, b = live;
        CFileTools::SortFiles(a, sortKeys);
        std::sort(b.begin(), b.end(), functor);
        for (size_t i = 0; i < a.size(); ++i) ASSERT_EQ(a[i]->getPath(), b[i]->getPath()) << sortKeys << " at " << i;
    };
    check("title:asc", SortByTitleAsc());
    check("title:desc", SortByTitleDesc());
    check("path.extension:asc", SortByExtensionAsc());
    check("path.extension:desc", SortByExtensionDesc());
    check("size:asc", SortBySizeAsc());
    check("size:desc", SortBySizeDesc());
    check("creationDate:asc", SortByCreationDateAsc());
    check("creationDate:desc", SortByCreationDateDesc());
    check("lastModified:asc", SortByLastModifiedAsc());
    check("lastModified:desc", SortByLastModifiedDesc());
    check("lastAccessTime:asc", SortByLastAccessedTimeAsc());
    check("lastAccessTime:desc", SortByLastAccessedTimeDesc());
    for (CFileTools* e : cached) delete e;
    for (CFileTools* e : live) delete e;
}
