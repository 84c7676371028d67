// "GetFile" through the real proxy: whole files, chunks with each integer
// type, negative counts, offsets past the end, missing files and wrong types.
#include <unistd.h>

#include <cstdio>

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

TEST_F(GetFileTest, WholeFileWithOnlyAPath) {
    std::string got;
    ASSERT_EQ(getFile(path, &got), 0);
    EXPECT_TRUE(got == content) << "got " << got.size() << " bytes";
    // Offset 0 and maximum 0: to the end as well.
    ASSERT_EQ(getFile(path, VT_I4, 0, 0, &got), 0);
    EXPECT_TRUE(got == content);
}

TEST_F(GetFileTest, ChunksWithEachIntegerType) {
    for (VARTYPE vt : {VT_I4, VT_UI4, VT_I8, VT_UI8}) {
        SCOPED_TRACE(testing::Message() << "type " << vt);
        std::string joined, got;
        const long long chunk = 30001;
        for (long long offset = 0; offset < (long long)content.size(); offset += chunk) {
            ASSERT_EQ(getFile(path, vt, offset, chunk, &got), 0);
            ASSERT_EQ(got.size(), std::min<size_t>(chunk, content.size() - offset));
            joined += got;
        }
        EXPECT_TRUE(joined == content);
        // A chunk in the middle and the last few bytes.
        ASSERT_EQ(getFile(path, vt, 12345, 100, &got), 0);
        EXPECT_TRUE(got == content.substr(12345, 100));
        ASSERT_EQ(getFile(path, vt, 99990, 100, &got), 0);
        EXPECT_TRUE(got == content.substr(99990));
    }
}

TEST_F(GetFileTest, NegativeCountsAreZeroAndOffsetsPastTheEndGiveEmptyBlocks) {
    std::string got;
    for (VARTYPE vt : {VT_I4, VT_I8}) {
        SCOPED_TRACE(testing::Message() << "type " << vt);
        ASSERT_EQ(getFile(path, vt, 500, -1, &got), 0);
        EXPECT_TRUE(got == content.substr(500)) << "maximum -1 means the rest";
        ASSERT_EQ(getFile(path, vt, -20, 10, &got), 0);
        EXPECT_TRUE(got == content.substr(0, 10)) << "a negative offset starts at 0";
    }
    ASSERT_EQ(getFile(path, VT_I8, 100000, 10, &got), 0);
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(getFile(path, VT_UI8, 1ull << 40, 0, &got), 0);
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(getFile(path, VT_UI4, 0xFFFFFFFFu, 0xFFFFFFFFu, &got), 0);
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(getFile(media.file("no/such/file"), &got), 0) << "a missing file is an empty block";
    EXPECT_TRUE(got.empty());
    ASSERT_EQ(getFile(media.path(), &got), 0) << "so is a folder";
    EXPECT_TRUE(got.empty());
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

TEST_F(GetFileTest, LogsPathOffsetAndMaximumAsConverted) {
    std::string got;
    ASSERT_EQ(getFile(path, VT_I8, -7, 25, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 0, maxBytes: 25"));
    ASSERT_EQ(getFile(path, VT_UI8, 77, 0, &got), 0);
    EXPECT_TRUE(waitForLog("GetFile " + path + ", offset: 77, maxBytes: 0"));
}

}  // namespace
