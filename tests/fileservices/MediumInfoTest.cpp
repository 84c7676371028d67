// File-browser medium ids: decoding with the name rule, pair lists and the four medium handlers.
#include "cab/CabException.h"
#include "files/CFileTools.h"
#include "tests/fileservices/ManagerFixture.h"
#include "variant/VUtil.h"

namespace {

class MediumInfoTest : public ManagerTest {
protected:
    void SetUp() override {
        ManagerTest::SetUp();
        if (!HasFatalFailure()) manager->ensureExtensionMap("ctx");
    }
    CLocalVariant in, out;
};

TEST_F(MediumInfoTest, DecodesTheIdWithTheNameRuleIntoFieldsAndPairs) {
    CKivFileManager::MediumInfo info;
    ASSERT_EQ(manager->getMediumInfo("F*|m|a*song>mp3", info), 0);
    EXPECT_EQ(info.path, "/m/a song.mp3");
    EXPECT_EQ(info.name, "/m/a song") << "the full path without its extension";
    EXPECT_EQ(info.mimeType, "audio/x-unknown");
    EXPECT_EQ(info.mediaType, "audio.file");
    EXPECT_TRUE(info.artist.empty() && info.album.empty() && info.first.empty());
    EXPECT_EQ(info.duration, 0);

    CKivFileManager::MediumInfo other;
    ASSERT_EQ(manager->getMediumInfo(CFileTools::PathToFileBrowserMediumId("/a.b/c d+e"), other), 0);
    EXPECT_EQ(other.path, "/a.b/c d+e");
    EXPECT_EQ(other.name, "/a") << "cut at the last dot, even in a folder name";
    EXPECT_EQ(manager->getMediumInfo("Fx|tmp", other), 404);
    EXPECT_EQ(manager->getMediumInfo("F", other), 404);

    // As a pair list: the present fields, in order.
    manager->getMediumIdInfo("F*|m|a*song>mp3", out.get());
    EXPECT_EQ(json(out.get()), R"([["mimeType","audio/x-unknown"],["mediaType","audio.file"],)"
                               R"(["Path","/m/a song.mp3"],["Name","/m/a song"]])");
    CLocalVariant untouched;
    manager->getMediumIdInfo("XY|m", untouched.get());
    EXPECT_EQ(untouched.vt(), VT_EMPTY);
}

TEST_F(MediumInfoTest, TheHandlersAnswerPerIdAnd404ForForeignOnes) {
    ASSERT_EQ(manager->CabServiceGetMediumFromId("", *fromJson(R"(["ctx", "F*|d|x>pdf"])", &in), out.ptr()), 0);
    EXPECT_EQ(json(out.get()), R"(["application/x-download","/d/x.pdf"])");
    CLocalVariant bad, badOut;
    EXPECT_EQ(manager->CabServiceGetMediumFromId("", *fromJson(R"(["ctx", "G-|d|x>pdf"])", &bad), badOut.ptr()), 404);
    EXPECT_EQ(badOut.vt(), VT_EMPTY);

    // One element per id, empty for a foreign one.
    CLocalVariant list, listOut;
    fromJson(R"(["ctx", ["F*|a>mp3", "A1001", "F*|b>png"]])", &list);
    ASSERT_EQ(manager->CabServiceGetMediumListInfoFromId("", list.get(), listOut.ptr()), 0);
    EXPECT_EQ(json(listOut.get()), R"([[["mimeType","audio/x-unknown"],["mediaType","audio.file"],)"
                                   R"(["Path","/a.mp3"],["Name","/a"]],null,[["mimeType","photo/x-unknown"],)"
                                   R"(["mediaType","photo.file"],["Path","/b.png"],["Name","/b"]]])");
    CLocalVariant info;
    ASSERT_EQ(manager->CabServiceGetMediumInfoFromId("", *fromJson(R"(["ctx", "F*|a>mp3"])", &in), info.ptr()), 0);
    EXPECT_EQ(VUtil::GetArrayLength(info.get()), 4);

    // IsMediumShared answers 1 to three texts and refuses anything else.
    EXPECT_EQ(manager->CabServiceIsMediumShared("", *fromJson(R"(["a", "b", "c"])", &in), nullptr), 1);
    for (const char* wrong : {R"(["a", "b", 5])", R"(["a", "b"])"}) {
        CLocalVariant w;
        EXPECT_THROW(manager->CabServiceIsMediumShared("", *fromJson(wrong, &w), nullptr),
                     CabInvalidParameterException) << wrong;
    }
}

}  // namespace
