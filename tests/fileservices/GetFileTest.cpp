// "GetFile" through the real proxy: slices with each integer type, offsets past 4 GiB, wrong types.
#include <unistd.h>

#include <cstdio>

#include "tests/fileservices/TransferFixture.h"

namespace {

class GetFileTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(path, content);
    }
    std::string content = patternBytes(100000, 1), path = media.file("data/blob.bin");
};

// A maximum of 0 or below means to the end, a negative offset starts at 0, offsets past the end
// give an empty block, and the log line shows the counts as converted.
TEST_F(GetFileTest, SlicesWithEachIntegerType) {
    std::string got;
    ASSERT_EQ(getFile("[\"" + path + "\"]", &got), 0);  // only a path: the whole file
    EXPECT_TRUE(got == content) << "got " << got.size() << " bytes";
    const std::vector<VARTYPE> all = {VT_I4, VT_UI4, VT_I8, VT_UI8}, signedOnes = {VT_I4, VT_I8};
    const struct {
        std::vector<VARTYPE> types;
        long long offset, max;
        size_t from, length;
    } cases[] = {
        {all, 0, 0, 0, 100000},           {all, 12345, 100, 12345, 100},
        {all, 99990, 100, 99990, 10},     {signedOnes, 500, -1, 500, 99500},
        {signedOnes, -20, 10, 0, 10},     {{VT_I8}, 100000, 10, 0, 0},
        {{VT_UI8}, 1ll << 40, 0, 0, 0},   {{VT_UI4}, 0xFFFFFFFFll, 0xFFFFFFFFll, 0, 0},
    };
    for (const auto& c : cases)
        for (VARTYPE vt : c.types) {
            ASSERT_EQ(getFile(path, vt, c.offset, c.max, &got), 0) << vt << " " << c.offset << " " << c.max;
            EXPECT_TRUE(got == content.substr(c.from, c.length)) << vt << " " << c.offset << " " << c.max;
        }
    for (const std::string& none : {media.file("no/such/file"), media.path()}) {
        ASSERT_EQ(getFile("[\"" + none + "\"]", &got), 0) << "a missing file or a folder is an empty block";
        EXPECT_TRUE(got.empty()) << none;
    }
    ASSERT_EQ(getFile(path, VT_I8, -7, 25, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 0, maxBytes: 25"));
    ASSERT_EQ(getFile(path, VT_UI8, 77, 0, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 77, maxBytes: 0"));
}

TEST_F(GetFileTest, OffsetsBeyondFourGiB) {
    // A sparse 4 GiB + 64 file with 16 known bytes past the 32-bit range.
    std::string sparse = media.file("sparse.bin");
    FILE* f = fopen(sparse.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    const long long at = (4ll << 30) + 32;
    ASSERT_EQ(fseeko(f, at, SEEK_SET), 0);
    ASSERT_EQ(fwrite("0123456789abcdef", 1, 16, f), 16u);
    ASSERT_EQ(ftruncate(fileno(f), (4ll << 30) + 64), 0);
    fclose(f);
    std::string got;
    for (VARTYPE vt : {VT_I8, VT_UI8}) {
        ASSERT_EQ(getFile(sparse, vt, at, 16, &got), 0);
        EXPECT_EQ(got, "0123456789abcdef");
        ASSERT_EQ(getFile(sparse, vt, at + 8, 0, &got), 0);
        EXPECT_EQ(got, std::string("89abcdef") + std::string(16, '\0'));
    }
    // A 32-bit offset of the same value wraps to 32: another place entirely.
    ASSERT_EQ(getFile(sparse, VT_UI4, at, 16, &got), 0);
    EXPECT_EQ(got, std::string(16, '\0'));
    remove(sparse.c_str());
}

TEST_F(GetFileTest, WrongCountTypesFailWithTheirText) {
    const struct {
        const char *counts, *says;
    } cases[] = {
        {R"("10", 10)", "Invalid offset type"},
        {R"(10, 2.5)", "Invalid maxLength type"},
        {R"({"$vt": "I2", "v": 1}, 10)", "Invalid offset type"},  // 16-bit is not one of the four
    };
    for (const auto& c : cases) {
        CLocalVariant out;
        EXPECT_EQ(call("GetFile", "[\"" + path + "\", " + c.counts + "]", out.ptr()), CAB_E_HANDLER_EXCEPTION);
        EXPECT_NE(CabGetLastError().find(c.says), std::string::npos) << CabGetLastError();
    }
    std::string got;  // the proxy goes on serving
    ASSERT_EQ(getFile(path, VT_I4, 1, 2, &got), 0);
    EXPECT_TRUE(got == content.substr(1, 2));
}

}  // namespace
