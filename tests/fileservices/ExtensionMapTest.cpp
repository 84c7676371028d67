// The extension map from "KivMediaV2", document types and StrSplit.
#include <atomic>

#include "files/CFileTools.h"
#include "tests/fileservices/ManagerFixture.h"
#include "variant/VUtil.h"

namespace {

typedef std::vector<CStdStr> Pieces;

Pieces split(const char* text, const char* separator) {
    Pieces out;
    CKivFileManager::StrSplit(text, separator, out);
    return out;
}

TEST(StrSplitTest, PiecesIncludingEmptyOnes) {
    EXPECT_EQ(split("", ","), Pieces{});
    EXPECT_EQ(split("a", ","), Pieces{"a"});
    EXPECT_EQ(split("a,b", ","), (Pieces{"a", "b"}));
    EXPECT_EQ(split("a,b,", ","), (Pieces{"a", "b", ""}));
    EXPECT_EQ(split(",a", ","), (Pieces{"", "a"}));
    EXPECT_EQ(split("a,,b", ","), (Pieces{"a", "", "b"}));
    EXPECT_EQ(split(",", ","), (Pieces{"", ""}));
    EXPECT_EQ(split("x::y::", "::"), (Pieces{"x", "y", ""}));
}

class ExtensionMapTest : public ManagerTest {
protected:
    std::pair<CStdStr, CStdStr> type(const char* path) {
        std::pair<CStdStr, CStdStr> t;
        manager->GetDocumentType(path, t.first, t.second);
        return t;
    }
    typedef std::pair<CStdStr, CStdStr> Type;
};

TEST_F(ExtensionMapTest, LaterMediaTypeWinsAndTheListingSeesTheSameMap) {
    manager->ensureExtensionMap("ctx");
    std::map<CStdStr, CStdStr> own = manager->extensionMap();
    EXPECT_EQ(own[".mkv"], "video") << ".mkv is listed under audio, then video";
    EXPECT_EQ(own[".mp3"], "audio");
    EXPECT_EQ(own[".pdf"], "document");
    EXPECT_EQ(own.size(), 7u);
    PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
    EXPECT_EQ(CFileTools::s_extensionMediaTypeMap, own);
}

TEST_F(ExtensionMapTest, DocumentTypesOfSingleFiles) {
    manager->buildExtensionMap("ctx");
    EXPECT_EQ(type("/m/A.MP3"), (Type{"audio/x-unknown", "audio.file"}));
    EXPECT_EQ(type("/v/film.mkv"), (Type{"video/x-unknown", "video.file"}));
    EXPECT_EQ(type("/p/x.png"), (Type{"photo/x-unknown", "photo.file"}));
    EXPECT_EQ(type("/d/x.pdf"), (Type{"application/x-download", "document.file"}));
    EXPECT_EQ(type("/d/noext"), (Type{"application/x-download", "file"}));
    EXPECT_EQ(type("/a.mp3/c"), (Type{"application/x-download", "file"})) << "the key is .mp3/c";
    EXPECT_EQ(type("/d/x.unknown"), (Type{"application/x-download", "file"}));
}

TEST_F(ExtensionMapTest, NoMediaServiceLeavesTheMapEmptyAndListingsWork) {
    media.reset();  // nobody answers "KivMediaV2" now
    CLocalVariant out;
    kivtest::writeFile(dir.file("f/a.mp3"), "x");
    ASSERT_EQ(folder(dir.file("f"), 2, "", "title,mediaType", "title", 0, 0, out.ptr()), 0);
    EXPECT_EQ(column(out.get(), 1), (std::vector<std::string>{"file"}));
    EXPECT_TRUE(manager->extensionMap().empty());
}

// A media service whose answer cannot be read: the wrong shape, or a refusal
// (a positive status leaves no answer).
std::atomic<bool> refuseExtensions{false};
int unreadableExtensions(const char*, const tagVARIANT&, tagVARIANT* out) {
    if (refuseExtensions) return 404;
    VUtil::CreateArray(*out, VT_VARIANT, 1);
    VUtil::PutElement(*out, 0, 42);
    return 0;
}

TEST_F(ExtensionMapTest, UnreadableAnswerEndsTheFolderRequestWithStatusOne) {
    media.reset();
    CabSatellite bad;
    bad.AddService("GetExtensions", "", unreadableExtensions);
    ASSERT_EQ(bad.Connect(server.hostPort().c_str(), "KivMediaV2"), 0);
    for (bool refuse : {false, true}) {
        refuseExtensions = refuse;
        CLocalVariant out;
        EXPECT_EQ(folder(dir.path(), 3, "", "title", "title", 0, 0, out.ptr()), 1) << refuse;
        EXPECT_TRUE(manager->extensionMap().empty()) << refuse;
    }
    bad.Disconnect();
}

}  // namespace
