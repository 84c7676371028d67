// "QueryFileSize" through the real proxy, for file-browser ids (resolved by
// the proxy) and for catalog ids (resolved by kiv-media-catalog).
#include <atomic>

#include "files/CFileTools.h"
#include "tests/fileservices/TransferFixture.h"
#include "variant/VUtil.h"

namespace {

class QueryFileSizeTest : public TransferTest {
protected:
    void SetUp() override {
        TransferTest::SetUp();
        kivtest::writeFile(media.file("music/a song.mp3"), std::string(1000, 'a'));
        kivtest::writeFile(media.file("photos/b.png"), std::string(234, 'b'));
        kivtest::writeFile(media.file("docs/c+d.txt"), std::string(56, 'c'));
    }
    std::string id(const std::string& name) { return CFileTools::PathToFileBrowserMediumId(media.file(name)); }
};

TEST_F(QueryFileSizeTest, CatalogIds) {
    ASSERT_TRUE(startCatalog(R"({"extensions": {"audio": [".mp3"]},
        "media": {"M1": {"path": "music/a song.mp3", "name": "A song"},
                  "M2": {"path": ")" + media.file("photos/b.png") + R"("}}})"));
    int count = -1;
    long long total = -1;
    ASSERT_EQ(queryFileSize("M1", {"M1", "M2"}, &count, &total), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(total, 1234);
    // An id the catalog does not know resolves to nothing, with a warning.
    ASSERT_EQ(queryFileSize("M1", {"M2", "nope"}, &count, &total), 0);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(total, 234);
    EXPECT_TRUE(waitForLog("GetMediumListPath: got a VT_EMPTY in the list of paths"));
    EXPECT_TRUE(waitForLog("Request GetMediumFromId returned in "));
    // The first id decides: with a catalog id first, file-browser ids go to the catalog too.
    ASSERT_EQ(queryFileSize("M1", {"M1", id("docs/c+d.txt")}, &count, &total), 0);
    EXPECT_EQ(count, 1);
}

std::atomic<int> refusedLookups{0};
int refuseLookup(const char*, const tagVARIANT&, tagVARIANT*) {
    ++refusedLookups;
    return 404;
}

TEST_F(QueryFileSizeTest, FileBrowserIdsUnresolvableItemsAndWrongShapes) {
    int count = -1;
    long long total = -1;
    ASSERT_EQ(queryFileSize(id("music/a song.mp3"), {id("music/a song.mp3"), id("docs/c+d.txt")}, &count, &total),
              0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(total, 1056);
    // A missing file still counts, with size 0.
    ASSERT_EQ(queryFileSize(id("x"), {id("photos/b.png"), id("gone.bin")}, &count, &total), 0);
    EXPECT_EQ(count, 2);
    EXPECT_EQ(total, 234);
    count = -1;
    EXPECT_EQ(queryFileSize("x", {}, &count, &total), 1) << "no first item";
    EXPECT_EQ(queryFileSize("x", {""}, &count, &total), 1);
    // No media service: the lookup fails.
    EXPECT_EQ(queryFileSize("M1", {"M1"}, &count, &total), -1);
    EXPECT_EQ(count, -1);
    EXPECT_TRUE(waitForLog("GetMediumListPath: "));
    // A media service that refuses (404) leaves no answer to read: the lookup fails the same way.
    {
        CabSatellite refusing;
        refusing.AddService("GetMediumListInfoFromId", "", refuseLookup);
        ASSERT_EQ(refusing.Connect(hostPort().c_str(), "KivMediaV2"), 0);
        EXPECT_EQ(queryFileSize("M1", {"M1"}, &count, &total), -1);
        EXPECT_EQ(refusedLookups, 1);
        refusing.Disconnect();
    }

    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, "x");
    EXPECT_EQ(call("QueryFileSize", in.get(), out.ptr()), CAB_E_HANDLER_EXCEPTION);
    CLocalVariant notList;
    VUtil::CreateArray(notList.get(), VT_VARIANT, 2);
    VUtil::PutElement(notList.get(), 0, "x");
    VUtil::PutElement(notList.get(), 1, "y");
    EXPECT_EQ(call("QueryFileSize", notList.get(), out.ptr()), CAB_E_HANDLER_EXCEPTION);
    CLocalVariant notText;
    VUtil::CreateArray(notText.get(), VT_VARIANT, 2);
    VUtil::PutElement(notText.get(), 0, 5);
    VUtil::PutElement(notText.get(), 1, in.get());
    EXPECT_EQ(call("QueryFileSize", notText.get(), out.ptr()), CAB_E_HANDLER_EXCEPTION);
}

}  // namespace
