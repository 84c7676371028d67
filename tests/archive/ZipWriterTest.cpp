// createZip read back with minizip's reader: names, methods, sizes, CRCs, contents.
#include <gtest/gtest.h>
#include <unzip.h>
#include <zlib.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
    tm_unz date;        // the DOS date and time, as minizip reads it
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
        Entry e{name, static_cast<int>(info.compression_method), info.uncompressed_size, info.crc, "",
                info.tmu_date, extendedTime(extra, info.size_file_extra)};
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

void setModified(const std::string& path, time_t when) {
    struct timespec times[2] = {{when, 0}, {when, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// The local date and time the entry of a file modified at `when` must carry
// (seconds rounded down to even, the DOS resolution).
std::string localDate(time_t when) {
    struct tm t;
    localtime_r(&when, &t);
    char text[80];
    snprintf(text, sizeof text, "%04d-%02d-%02d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1, t.tm_mday,
             t.tm_hour, t.tm_min, t.tm_sec / 2 * 2);
    return text;
}

std::string entryDate(const tm_unz& d) {
    char text[80];
    snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", d.tm_year, d.tm_mon + 1, d.tm_mday, d.tm_hour,
             d.tm_min, d.tm_sec);
    return text;
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
    const time_t modified[] = {1614834368, 1700000001, 0, 1234567890};  // 2021, 2023, 1970, 2009
    setModified(dir.file("src/big.bin"), modified[0]);
    setModified(dir.file("src/text.txt"), modified[1]);
    setModified(dir.file("src/empty"), modified[2]);
    setModified(dir.file("grp/set\\one.txt"), modified[3]);

    for (bool store : {true, false}) {
        CMyPathTree tree;
        tree.AddFile(dir.file("src/big.bin"));
        tree.AddFile(dir.file("src/text.txt"));
        tree.AddFile(dir.file("src/empty"));
        tree.AddFile(dir.file("grp/set\\one.txt"));
        tree.AddFile(dir.file("grp/set\\vanished"));  // missing: an empty entry
        std::string zip = dir.file(store ? "stored.zip" : "deflated.zip");
        CStdStr error;
        EXPECT_TRUE(tree.createZip(zip.c_str(), store, &error)) << error;

        std::vector<Entry> entries = readZip(zip);
        ASSERT_EQ(entries.size(), 5u);
        const int method = store ? 0 : Z_DEFLATED;
        EXPECT_EQ(entries[0].name, "big.bin");
        EXPECT_EQ(entries[1].name, "text.txt");
        EXPECT_EQ(entries[2].name, "empty");
        // The backslash name makes a folder node; the file added after it has the same parent.
        EXPECT_EQ(entries[3].name, "set/set\\one.txt");
        EXPECT_EQ(entries[4].name, "set/set\\vanished");
        const std::string contents[] = {big, text, "", "one", ""};
        for (size_t i = 0; i < entries.size(); ++i) {
            EXPECT_EQ(entries[i].method, method) << entries[i].name;
            EXPECT_EQ(entries[i].size, contents[i].size()) << entries[i].name;
            EXPECT_EQ(entries[i].crc, crcOf(contents[i])) << entries[i].name;
            EXPECT_TRUE(entries[i].data == contents[i]) << entries[i].name;
            if (i < 4) {
                // Before 1980 a DOS date cannot say it: the earliest one is used.
                EXPECT_EQ(entryDate(entries[i].date), i == 2 ? "1980-01-01 00:00:00" : localDate(modified[i]))
                    << entries[i].name;
                EXPECT_EQ(entries[i].utcTime, static_cast<long long>(modified[i])) << entries[i].name;
            }
        }
    }
}

TEST(ZipWriter, FailedOrAbandonedWriteReportsFalse) {
    kivtest::TempDir dir;
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
