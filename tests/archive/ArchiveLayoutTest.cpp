// The archive layout: entry names, the header estimate, and createZip read back with minizip.
#include <gtest/gtest.h>
#include <unistd.h>
#include <unzip.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "archive/CMyPathTree.h"
#include "tests/support/TempDir.h"
#include "tests/support/Thrown.h"

typedef std::vector<std::string> Names;

// Entry names of files added in order; the header estimate: 102 bytes and twice the name per entry.
TEST(PathTree, EntryNamesAndHeaderEstimate) {
    const std::pair<Names, Names> cases[] = {
        {{}, {}},
        // Slash paths are stored flat by name.
        {{"/a/b/c.txt", "/a/b/d.txt", "/a/x.txt", "nofolder"}, {"c.txt", "d.txt", "x.txt", "noname"}},
        // Backslash parents group files, in any case, under the folder they share past the first.
        {{"/base/data/set\\one.txt", "/base/data/set\\two.txt", "/other/four.txt", "/BASE/DATA/set\\Five.txt",
          "/r/x\\y/set\\one.txt", "/r/x\\y/deep\\two.txt"},
         {"set/set\\one.txt", "set/set\\two.txt", "four.txt", "set/set\\Five.txt", "x\\y/set/set\\one.txt",
          "x\\y/deep\\two.txt"}},
        // Sharing the first folder only is no group.
        {{"/data/set\\one.txt", "/data2/x.txt", "/data/y.txt"}, {"set/set\\one.txt", "x.txt", "y.txt"}},
    };
    for (const auto& [paths, names] : cases) {
        CMyPathTree tree;
        for (const std::string& p : paths) tree.AddFile(p);
        Names got;
        uint32_t expected = 0;
        for (const CMyPathNode* n : tree.fileNodes()) got.push_back(n->GetRelativePath());
        for (const std::string& name : names) expected += 102 + 2 * name.size();
        EXPECT_EQ(got, names);
        EXPECT_EQ(tree.getZipHeaderSize(), expected);
    }
    // The parent folder splits at a backslash only.
    EXPECT_EQ(CMyPathTree::getParentFolder("C:\\a\\b.txt"), "C:\\a");
    for (const char* path : {"/a/b/c.txt", "\\top", "/x"})
        EXPECT_EQ(kivtest::thrownBy([&] { CMyPathTree::getParentFolder(path); }), "no parent folder") << path;
    // A file, or a shared folder, to be grouped without a backslash has no parent folder.
    for (const char* mixed : {"/base/data/deep/three.txt", "/base/data/deep\\three.txt"}) {
        CMyPathTree t;
        t.AddFile("/base/data/set\\one.txt");
        EXPECT_EQ(kivtest::thrownBy([&] { t.AddFile(mixed); }), "no parent folder") << mixed;
    }
}

namespace {

struct Entry {
    std::string name;
    int method;
    unsigned long long size;
    std::string data;
    std::string date;   // the DOS date and time, as minizip reads it
    long long utcTime;  // from the extended timestamp field of the central header; -1 when absent
};

// The modification time of the 0x5455 field in a central header's extra data.
long long extendedTime(const unsigned char* extra, size_t size) {
    for (size_t at = 0; at + 4 <= size;) {
        const unsigned tag = extra[at] | extra[at + 1] << 8, length = extra[at + 2] | extra[at + 3] << 8;
        if (tag == 0x5455 && length >= 5 && at + 4 + length <= size && (extra[at + 4] & 1))
            return static_cast<int32_t>(extra[at + 5] | extra[at + 6] << 8 | extra[at + 7] << 16 |
                                        static_cast<uint32_t>(extra[at + 8]) << 24);
        at += 4 + length;
    }
    return -1;
}

std::vector<Entry> readZip(const std::string& path) {
    std::vector<Entry> entries;
    unzFile uf = unzOpen64(path.c_str());
    EXPECT_NE(uf, nullptr) << path;
    if (!uf) return entries;
    for (int rc = unzGoToFirstFile(uf); rc == UNZ_OK; rc = unzGoToNextFile(uf)) {
        unz_file_info64 info;
        char name[1024];
        unsigned char extra[256];
        EXPECT_EQ(unzGetCurrentFileInfo64(uf, &info, name, sizeof name, extra, sizeof extra, nullptr, 0), UNZ_OK);
        const tm_unz& d = info.tmu_date;
        char date[32];
        snprintf(date, sizeof date, "%04u-%02u-%02u %02u:%02u:%02u", d.tm_year, d.tm_mon + 1, d.tm_mday, d.tm_hour,
                 d.tm_min, d.tm_sec);
        Entry e{name, static_cast<int>(info.compression_method), info.uncompressed_size, "",
                date, extendedTime(extra, info.size_file_extra)};
        EXPECT_EQ(unzOpenCurrentFile(uf), UNZ_OK);
        char buf[65536];
        int n;
        while ((n = unzReadCurrentFile(uf, buf, sizeof buf)) > 0) e.data.append(buf, static_cast<size_t>(n));
        EXPECT_EQ(n, 0);
        EXPECT_EQ(unzCloseCurrentFile(uf), UNZ_OK) << "CRC mismatch in " << name;
        entries.push_back(e);
    }
    unzClose(uf);
    return entries;
}

}  // namespace

TEST(ZipWriter, StoredAndDeflatedEntriesReadBackIntactAndFailedWritesReportFalse) {
    kivtest::TempDir dir;
    const std::string big = kivtest::patternBytes(131073, 1);  // two chunks: 131,072 bytes and 1
    const std::string text(50000, 'a');
    // path, contents, modified (2021, 2023, 1970, 2009); the last is missing: an empty entry.
    const std::tuple<std::string, std::string, time_t> files[] = {{"src/big.bin", big, 1614834368},
                                                                  {"src/text.txt", text, 1700000001},
                                                                  {"src/empty", "", 0},
                                                                  {"grp/set\\one.txt", "one", 1234567890},
                                                                  {"grp/set\\vanished", "", -1}};
    for (const auto& [name, content, modified] : files) {
        if (modified < 0) continue;
        kivtest::writeFile(dir.file(name), content);
        kivtest::runCommand("touch -d @" + std::to_string(modified) + " '" + dir.file(name) + "'");
    }
    for (bool store : {true, false}) {
        CMyPathTree tree;
        for (const auto& file : files) tree.AddFile(dir.file(std::get<0>(file)));
        std::string zip = dir.file(store ? "stored.zip" : "deflated.zip");
        CStdStr error;
        EXPECT_TRUE(tree.createZip(zip.c_str(), store, &error)) << error;

        std::vector<Entry> entries = readZip(zip);
        ASSERT_EQ(entries.size(), 5u);
        // The backslash name makes a folder node; the file added after it has the same parent.
        const char* names[] = {"big.bin", "text.txt", "empty", "set/set\\one.txt", "set/set\\vanished"};
        for (size_t i = 0; i < entries.size(); ++i) {
            const auto& [path, content, modified] = files[i];
            SCOPED_TRACE(path);
            EXPECT_EQ(entries[i].name, names[i]);
            EXPECT_EQ(entries[i].method, store ? 0 : Z_DEFLATED);
            EXPECT_EQ(entries[i].size, content.size());
            EXPECT_TRUE(entries[i].data == content);  // and the CRC checked when the entry closed
            if (modified < 0) continue;
            // The local time in the DOS date, seconds rounded down to even; before 1980 the earliest date.
            struct tm t;
            localtime_r(&modified, &t);
            t.tm_sec = t.tm_sec / 2 * 2;
            char local[32];
            strftime(local, sizeof local, "%Y-%m-%d %H:%M:%S", &t);
            EXPECT_EQ(entries[i].date, modified == 0 ? "1980-01-01 00:00:00" : local);
            EXPECT_EQ(entries[i].utcTime, static_cast<long long>(modified));
        }
    }

    // A write that fails or is abandoned reports false.
    kivtest::writeFile(dir.file("a.txt"), std::string(5 * 131072 + 1, 'a'));
    CMyPathTree tree;
    tree.AddFile(dir.file("a.txt"));
    CStdStr error;
    EXPECT_FALSE(tree.createZip(dir.file("missing/out.zip").c_str(), true, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_EQ(kivtest::readFile(dir.file("missing/out.zip")), "");

    // Asked before each block: stopping at the third leaves two blocks written.
    int asked = 0;
    const std::string zip = dir.file("abandoned.zip");
    EXPECT_FALSE(tree.createZip(zip.c_str(), true, &error, [&] { return ++asked == 3; }));
    EXPECT_EQ(error, "abandoned");
    EXPECT_EQ(asked, 3);
    EXPECT_LT(kivtest::readFile(zip).size(), 3u * 131072);

    // /dev/full fails every write.
    if (access("/dev/full", W_OK) == 0) {
        EXPECT_FALSE(tree.createZip("/dev/full", true, &error));
        EXPECT_NE(error.find("No space left on device"), std::string::npos) << error;
    }
}
