// createZip read back with minizip's reader: names, methods, sizes, CRCs, contents.
#include <gtest/gtest.h>
#include <unzip.h>
#include <zlib.h>

#include <string>
#include <vector>

#include "archive/CMyPathTree.h"
#include "tests/support/TempDir.h"

namespace {

struct Entry {
    std::string name;
    int method;
    unsigned long long size;
    unsigned long crc;
    std::string data;
    bool hasTime;
};

std::vector<Entry> readZip(const std::string& path) {
    std::vector<Entry> entries;
    unzFile uf = unzOpen64(path.c_str());
    EXPECT_NE(uf, nullptr) << path;
    if (!uf) return entries;
    for (int rc = unzGoToFirstFile(uf); rc == UNZ_OK; rc = unzGoToNextFile(uf)) {
        unz_file_info64 info;
        char name[1024];
        EXPECT_EQ(unzGetCurrentFileInfo64(uf, &info, name, sizeof name, nullptr, 0, nullptr, 0), UNZ_OK);
        Entry e{name, static_cast<int>(info.compression_method), info.uncompressed_size, info.crc, "",
                info.dosDate != 0};
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

unsigned long crcOf(const std::string& s) {
    return crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(s.data()), static_cast<uInt>(s.size()));
}

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7919) ^ (i >> 9));
    return s;
}

}  // namespace

TEST(ZipWriter, StoredAndDeflatedEntriesReadBackIntact) {
    kivtest::TempDir dir;
    const std::string big = pattern(131073);  // two chunks: 131,072 bytes and 1
    const std::string text(50000, 'a');
    kivtest::writeFile(dir.file("src/big.bin"), big);
    kivtest::writeFile(dir.file("src/text.txt"), text);
    kivtest::writeFile(dir.file("src/empty"), "");
    kivtest::writeFile(dir.file("grp/set\\one.txt"), "one");

    for (bool store : {true, false}) {
        CMyPathTree tree;
        tree.AddFile(dir.file("src/big.bin"));
        tree.AddFile(dir.file("src/text.txt"));
        tree.AddFile(dir.file("src/empty"));
        tree.AddFile(dir.file("grp/set\\one.txt"));
        tree.AddFile(dir.file("src/vanished"));  // missing: an empty entry
        std::string zip = dir.file(store ? "stored.zip" : "deflated.zip");
        tree.createZip(zip.c_str(), store);

        std::vector<Entry> entries = readZip(zip);
        ASSERT_EQ(entries.size(), 5u);
        const int method = store ? 0 : Z_DEFLATED;
        EXPECT_EQ(entries[0].name, "big.bin");
        EXPECT_EQ(entries[1].name, "text.txt");
        EXPECT_EQ(entries[2].name, "empty");
        // The backslash name makes a folder node; the file added after it shares
        // the temporary folder with it and is grouped under that folder's name.
        const std::string top = dir.path().substr(dir.path().rfind('/') + 1);
        EXPECT_EQ(entries[3].name, top + "/grp/set/set\\one.txt");
        EXPECT_EQ(entries[4].name, top + "/src/vanished");
        const std::string contents[] = {big, text, "", "one", ""};
        for (size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ(entries[i].method, method) << entries[i].name;
            EXPECT_EQ(entries[i].size, contents[i].size()) << entries[i].name;
            EXPECT_EQ(entries[i].crc, crcOf(contents[i])) << entries[i].name;
            EXPECT_TRUE(entries[i].data == contents[i]) << entries[i].name;
            EXPECT_FALSE(entries[i].hasTime) << entries[i].name;
        }
    }
}

TEST(ZipWriter, DebianUnzipAgrees) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.txt"), std::string(131073, 'z'));
    CMyPathTree tree;
    tree.AddFile(dir.file("a.txt"));
    std::string zip = dir.file("out.zip");
    tree.createZip(zip.c_str(), false);
    int status = -1;
    std::string listing = kivtest::runCommand("unzip -Z -v '" + zip + "' 2>&1", &status);
    EXPECT_EQ(status, 0) << listing;
    EXPECT_NE(listing.find("compression method:                             deflated"), std::string::npos) << listing;
    EXPECT_NE(listing.find("uncompressed size:                              131073 bytes"), std::string::npos)
        << listing;
    std::string test = kivtest::runCommand("unzip -tq '" + zip + "' 2>&1", &status);
    EXPECT_EQ(status, 0) << test;
}

TEST(ZipWriter, UnwritableTargetLeavesNoArchive) {
    kivtest::TempDir dir;
    kivtest::writeFile(dir.file("a.txt"), "a");
    CMyPathTree tree;
    tree.AddFile(dir.file("a.txt"));
    std::string zip = dir.file("missing/out.zip");
    tree.createZip(zip.c_str(), true);
    EXPECT_EQ(kivtest::readFile(zip), "");
}
