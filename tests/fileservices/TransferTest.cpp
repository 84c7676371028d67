// "GetFile" and "QueryFileSize" through the real proxy: slices with each
// integer type, offsets past the end and beyond 4 GiB, wrong types, a large
// file whole and in chunks, and sizes of file-browser and catalog ids.
#include <atomic>
#include <cstring>

#include "files/CFileTools.h"
#include "tests/fileservices/TransferFixture.h"
#include "tests/support/Sanitizers.h"

namespace {

class GetFileTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(path, content);
    }
    const std::string content = patternBytes(100000, 1), path = media.file("data/blob.bin");
};

// Each (offset, maximum) pair with the count types it is given in: the block
// is that slice of the file. A maximum of 0 or below means to the end, a
// negative offset starts at 0, offsets past the end give an empty block, and
// the log line shows the counts as converted. Other count types are refused.
TEST_F(GetFileTest, SlicesWithEachIntegerTypeAndNoOtherType) {
    std::string got;
    ASSERT_EQ(getFile("[\"" + path + "\"]", &got), 0);  // only a path: the whole file
    EXPECT_TRUE(got == content) << "got " << got.size() << " bytes";
    const std::vector<std::string> all = {"I4", "UI4", "I8", "UI8"}, signedOnes = {"I4", "I8"};
    const struct {
        std::vector<std::string> types;
        long long offset, max;
        size_t from, length;
    } cases[] = {
        {all, 0, 0, 0, 100000},           {all, 12345, 100, 12345, 100},
        {all, 99990, 100, 99990, 10},     {signedOnes, 500, -1, 500, 99500},
        {signedOnes, -20, 10, 0, 10},     {{"I8"}, 100000, 10, 0, 0},
        {{"UI8"}, 1ll << 40, 0, 0, 0},    {{"UI4"}, 0xFFFFFFFFll, 0xFFFFFFFFll, 0, 0},
    };
    for (const auto& c : cases)
        for (const std::string& type : c.types) {
            SCOPED_TRACE(type + " " + std::to_string(c.offset) + " " + std::to_string(c.max));
            ASSERT_EQ(getFile(path, type, c.offset, c.max, &got), 0);
            EXPECT_TRUE(got == content.substr(c.from, c.length)) << got.size() << " bytes";
        }
    for (const std::string& empty : {media.file("no/such/file"), media.path()}) {  // a missing file, a folder
        ASSERT_EQ(getFile("[\"" + empty + "\"]", &got), 0) << empty;
        EXPECT_TRUE(got.empty()) << empty;
    }
    ASSERT_EQ(getFile(path, "I8", -7, 25, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 0, maxBytes: 25"));
    ASSERT_EQ(getFile(path, "UI8", 77, 0, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 77, maxBytes: 0"));

    const std::pair<std::string, std::string> wrong[] = {{"\"10\", 10", "Invalid offset type"},
        {"10, 2.5", "Invalid maxLength type"}, {typed("I2", 1) + ", 10", "Invalid offset type"}};
    for (const auto& [counts, text] : wrong) {
        EXPECT_EQ(getFile("[\"" + path + "\", " + counts + "]", &got), CAB_E_HANDLER_EXCEPTION) << counts;
        EXPECT_THAT(CabGetLastError(), HasSubstr(text));
    }
    ASSERT_EQ(getFile(path, "I4", 1, 2, &got), 0) << "the proxy goes on serving";
    EXPECT_TRUE(got == content.substr(1, 2));
}

TEST_F(GetFileTest, OffsetsBeyondFourGiB) {
    // A sparse 4 GiB + 64 file with 16 known bytes past the 32-bit range.
    const std::string sparse = media.file("sparse.bin");
    const long long at = (4ll << 30) + 32;
    kivtest::writeFile(sparse, "");
    ASSERT_EQ(truncate(sparse.c_str(), (4ll << 30) + 64), 0);
    kivtest::runCommand("printf 0123456789abcdef | dd of=" + sparse + " bs=1 seek=" + std::to_string(at) +
                        " conv=notrunc 2>/dev/null");
    std::string got;
    for (const char* type : {"I8", "UI8"}) {
        ASSERT_EQ(getFile(sparse, type, at, 16, &got), 0);
        EXPECT_EQ(got, "0123456789abcdef");
        ASSERT_EQ(getFile(sparse, type, at + 8, 0, &got), 0);
        EXPECT_EQ(got, std::string("89abcdef") + std::string(16, '\0'));
    }
    remove(sparse.c_str());
}

// 1 GiB whole and in 4 MiB chunks (64 MiB under the sanitizers, which make
// every byte many times slower), compared with what was written.
class LargeFileTest : public TransferTest {
protected:
    int maxPayload() const override { return 8 << 20; }
    void TearDown() override {
        remove(path.c_str());
        TransferTest::TearDown();
    }
    const std::string path = media.file("large.bin");
};

TEST_F(LargeFileTest, FetchedWholeAndInChunks) {
#ifdef KIV_SANITIZED
    const long long kSize = 64ll << 20;
#else
    const long long kSize = 1ll << 30;
#endif
    const long long kChunk = 4ll << 20;
    const std::string block = patternBytes(kChunk + 4096, 5);
    FILE* f = fopen(path.c_str(), "wb");  // chunk i is the block from byte i % 4096 on
    ASSERT_NE(f, nullptr);
    for (long long i = 0; i < kSize / kChunk; ++i)
        ASSERT_EQ(fwrite(&block[i % 4096], 1, kChunk, f), (size_t)kChunk);
    fclose(f);
    // Compares each 4 MiB of an answer that starts at `offset` with what was written.
    auto matches = [&](const CLocalVariant& out, long long offset, long long size) {
        if (out.vt() != (VT_ARRAY | VT_UI1) || out.get().parray->rgsabound[0].cElements != size) return false;
        const char* data = static_cast<const char*>(out.get().parray->pvData);
        for (long long at = 0; at < size; at += kChunk)
            if (memcmp(data + at, &block[(offset + at) / kChunk % 4096], kChunk) != 0) return false;
        return true;
    };
    CLocalVariant whole;
    ASSERT_EQ(call("GetFile", listOf(path), whole.ptr()), 0);
    EXPECT_TRUE(matches(whole, 0, kSize));
    for (long long offset = 0; offset < kSize; offset += kChunk) {
        CLocalVariant part;
        const std::string in = "[\"" + path + "\"," + typed("I8", offset) + "," + typed("I8", kChunk) + "]";
        ASSERT_EQ(call("GetFile", in, part.ptr()), 0);
        ASSERT_TRUE(matches(part, offset, kChunk)) << "at " << offset;
    }
}

class QueryFileSizeTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(media.file("music/a song.mp3"), std::string(1000, 'a'));
        kivtest::writeFile(media.file("photos/b.png"), std::string(234, 'b'));
        kivtest::writeFile(media.file("docs/c+d.txt"), std::string(56, 'c'));
    }
    std::string id(const std::string& name) {
        return CFileTools::PathToFileBrowserMediumId(media.file(name));
    }
    // The answer [count, total] with its types.
    static std::string sizes(int count, long long total) {
        return "[" + std::to_string(count) + "," + typed("I8", total) + "]";
    }
};

TEST_F(QueryFileSizeTest, CatalogIds) {
    ASSERT_TRUE(startCatalog(R"({"extensions": {"audio": [".mp3"]},
        "media": {"M1": {"path": "music/a song.mp3", "name": "A song"},
                  "M2": {"path": ")" + media.file("photos/b.png") + R"("}}})"));
    EXPECT_EQ(querySizes("M1", {"M1", "M2"}), sizes(2, 1234));
    // An id the catalog does not know resolves to nothing, with a warning.
    EXPECT_EQ(querySizes("M1", {"M2", "nope"}), sizes(1, 234));
    EXPECT_TRUE(waitForLog("GetMediumListPath: got a VT_EMPTY in the list of paths"));
    EXPECT_TRUE(waitForLog("Request GetMediumFromId returned in "));
    // The first id decides: with a catalog id first, file-browser ids go to the catalog too.
    EXPECT_EQ(querySizes("M1", {"M1", id("docs/c+d.txt")}), sizes(1, 1000));
}

std::atomic<int> refusedLookups{0};
int refuseLookup(const char*, const tagVARIANT&, tagVARIANT*) {
    ++refusedLookups;
    return 404;
}

TEST_F(QueryFileSizeTest, FileBrowserIdsUnresolvableItemsAndWrongShapes) {
    const std::string song = id("music/a song.mp3");
    EXPECT_EQ(querySizes(song, {song, id("docs/c+d.txt")}), sizes(2, 1056));
    // A missing file still counts, with size 0.
    EXPECT_EQ(querySizes(id("x"), {id("photos/b.png"), id("gone.bin")}), sizes(2, 234));
    EXPECT_EQ(querySizes("x", {}), "status 1") << "no first item";
    EXPECT_EQ(querySizes("x", {""}), "status 1");
    // No media service: the lookup fails.
    EXPECT_EQ(querySizes("M1", {"M1"}), "status -1");
    EXPECT_TRUE(waitForLog("GetMediumListPath: "));
    // A media service that refuses (404) leaves no answer to read: the lookup fails the same way.
    CabSatellite refusing;
    refusing.AddService("GetMediumListInfoFromId", "", refuseLookup);
    ASSERT_EQ(refusing.Connect(hostPort().c_str(), "KivMediaV2"), 0);
    EXPECT_EQ(querySizes("M1", {"M1"}), "status -1");
    EXPECT_EQ(refusedLookups, 1);
    refusing.Disconnect();
    for (const char* in : {R"(["x"])", R"(["x", "y"])", R"([5, ["x"]])"}) {
        CLocalVariant out;
        EXPECT_EQ(call("QueryFileSize", in, out.ptr()), CAB_E_HANDLER_EXCEPTION) << in;
    }
}

}  // namespace
