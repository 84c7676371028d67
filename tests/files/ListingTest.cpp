// Listings: EnumerateFolder, the field values of listed entries, and SortFiles.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <memory>
#include <string>

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
    ASSERT_EQ(symlink("..", dir.file("withsub/up").c_str()), 0);  // a loop the recursion survives
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

// Every field of a file; those that look at the disk for a folder and a missing file.
TEST(FieldValues, EveryFieldOfAnEntry) {
    kivtest::TempDir dir;
    const std::string song = dir.file("Song.Mp3");
    kivtest::writeFile(song, "12345");
    kivtest::runCommand("touch -d '2021-03-14 09:08:07' '" + song + "'");  // local time
    CFileTools entry(song);
    const std::pair<const char*, std::string> fields[] = {{"title", "Song.Mp3"},
                                                          {"path", song},
                                                          {"path.extension", "Mp3"},
                                                          {"path.directory", "Song.Mp3"},
                                                          {"path.filename", "Song.Mp3"},
                                                          {"mediumId", CFileTools::PathToFileBrowserMediumId(song)},
                                                          {"kivMediumId", entry.getMediumId()},
                                                          {"type", "file"},
                                                          {"size", "5"},
                                                          {"creationDate.year", "2021"},
                                                          {"creationDate.month", "0003"},
                                                          {"Title", ""},
                                                          {"nonsense", ""}};
    for (const auto& [field, value] : fields) EXPECT_EQ(entry.getFieldValue(field), value) << field;
    for (const char* date : {"dateModified", "lastModified", "lastAccessTime", "creationDate"})
        EXPECT_EQ(entry.getFieldValue(date), "2021-03-14 09:08:07") << date;
    EXPECT_EQ(CFileTools(dir.path()).getFieldValue("type"), "folder");
    EXPECT_EQ(CFileTools(dir.file("gone")).getFieldValue("size"), "0");
}

// Four files and two folders by every key, folders first ("?" is either folder: they have no size). Only the first key
// counts; an unknown key sorts by title and answers 0. Bytes above 127 ("ete" in UTF-8) sort before ASCII.
TEST(SortFiles, EveryKeyKeepsFoldersFirst) {
    kivtest::TempDir dir;
    std::vector<std::unique_ptr<CFileTools>> owned;
    std::vector<CFileTools*> entries;
    const std::string ete = "\xc3\xa9t\xc3\xa9.ogg";
    const std::tuple<std::string, int, time_t> made[] = {// name, size (-1: a folder), modified
                                                         {"b.txt", 30, 300}, {"A.mp3", 10, 200},  {"c.wav", 20, 100},
                                                         {ete, 5, 400},      {"zfolder", -1, 50}, {"Afolder", -1, 60}};
    for (const auto& [name, size, modified] : made) {
        kivtest::writeFile(dir.file(size < 0 ? name + "/inside" : name), std::string(std::max(size, 0), 'x'));
        kivtest::runCommand("touch -d @" + std::to_string(modified) + " '" + dir.file(name) + "'");
        owned.emplace_back(new CFileTools(dir.file(name), name));
        entries.push_back(owned.back().get());
    }
    const std::string byTitle = "Afolder zfolder ETE A.mp3 b.txt c.wav";
    const std::tuple<std::vector<std::string>, int, std::string> cases[] =
        {// keys (each alone), answer, order
         {{"title:asc", "path:asc"}, 1, byTitle},
         {{"title:desc", "path:desc", "title:desc,size:asc"}, 1, "zfolder Afolder c.wav b.txt A.mp3 ETE"},
         // The folders' paths hold no ".", so their extension is the whole path.
         {{"path.extension:asc"}, 1, "Afolder zfolder A.mp3 ETE b.txt c.wav"},
         {{"path.extension:desc"}, 1, "zfolder Afolder c.wav b.txt ETE A.mp3"},
         {{"size:asc"}, 1, "? ? ETE A.mp3 c.wav b.txt"},
         {{"size:desc"}, 1, "? ? b.txt c.wav A.mp3 ETE"},
         {{"lastModified:asc", "creationDate:asc", "lastAccessTime:asc"}, 1, "zfolder Afolder c.wav A.mp3 b.txt ETE"},
         {{"lastModified:desc", "creationDate:desc", "lastAccessTime:desc"},
          1,
          "Afolder zfolder ETE b.txt A.mp3 c.wav"},
         {{",size:asc", "", "Title:asc"}, 0, byTitle}};
    for (const auto& [keyList, answer, expected] : cases)
        for (const std::string& keys : keyList) {
            CFileTools::SortFiles(entries, "size:desc");  // a different order before each
            EXPECT_EQ(CFileTools::SortFiles(entries, keys), answer) << keys;
            std::string got;
            for (CFileTools* e : entries) {
                const std::string name = e->getDisplayName();
                got += (got.empty() ? "" : " ") + (name == ete                           ? "ETE"
                                                   : expected[0] == '?' && e->isFolder() ? std::string("?")
                                                                                         : name);
            }
            EXPECT_EQ(got, expected) << keys;
        }
}
