// "GetFile" through the real proxy: whole files, chunks with each integer
// type, negative counts, offsets past the end, missing files and wrong types.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "tests/fileservices/TransferFixture.h"
#include "variant/VUtil.h"

namespace {

class GetFileTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        content = patternBytes(100000, 1);
        path = media.file("data/blob.bin");
        kivtest::writeFile(path, content);
    }
    std::string content, path;
};

// Each (offset, maximum) pair with the count types it is given in: the block
// is that slice of the file. A maximum of 0 or below means to the end, a
// negative offset starts at 0, offsets past the end give an empty block, and
// the log line shows the counts as converted.
TEST_F(GetFileTest, SlicesWithEachIntegerType) {
    std::string got;
    ASSERT_EQ(getFile(path, &got), 0);  // only a path: the whole file
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
    for (VARTYPE vt : all) {
        std::string joined;
        const long long chunk = 30001;
        for (long long offset = 0; offset < (long long)content.size(); offset += chunk) {
            ASSERT_EQ(getFile(path, vt, offset, chunk, &got), 0);
            ASSERT_EQ(got.size(), std::min<size_t>(chunk, content.size() - offset)) << vt;
            joined += got;
        }
        EXPECT_TRUE(joined == content) << vt;
    }
    ASSERT_EQ(getFile(media.file("no/such/file"), &got), 0) << "a missing file is an empty block";
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(getFile(media.path(), &got), 0) << "so is a folder";
    EXPECT_TRUE(got.empty());
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
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    VUtil::PutElement(in.get(), 1, "10");
    VUtil::PutElement(in.get(), 2, 10);
    std::string got;
    EXPECT_EQ(getFile(in.get(), &got), CAB_E_HANDLER_EXCEPTION);
    EXPECT_NE(CabGetLastError().find("Invalid offset type"), std::string::npos) << CabGetLastError();

    VUtil::PutElement(in.get(), 1, 10);
    VUtil::PutElement(in.get(), 2, 2.5);
    EXPECT_EQ(getFile(in.get(), &got), CAB_E_HANDLER_EXCEPTION);
    EXPECT_NE(CabGetLastError().find("Invalid maxLength type"), std::string::npos) << CabGetLastError();

    // Short (16-bit) integers are not one of the four types either.
    VUtil::PutElement(in.get(), 1, (short)1);
    EXPECT_EQ(getFile(in.get(), &got), CAB_E_HANDLER_EXCEPTION);

    // The proxy goes on serving.
    ASSERT_EQ(getFile(path, VT_I4, 1, 2, &got), 0);
    EXPECT_TRUE(got == content.substr(1, 2));
}

}  // namespace
