// File-browser medium ids: decoding with the name rule, pair lists and the
// four medium handlers.
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
    static void twoStrings(tagVARIANT& in, const char* a, const char* b) {
        VUtil::CreateArray(in, VT_VARIANT, 2);
        VUtil::PutElement(in, 0, a);
        VUtil::PutElement(in, 1, b);
    }
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
    CKivFileManager::MediumInfo none;
    EXPECT_EQ(manager->getMediumInfo("Fx|tmp", none), 404);
    EXPECT_EQ(manager->getMediumInfo("F", none), 404);

    // As a pair list: the present fields, in order.
    CLocalVariant out;
    manager->getMediumIdInfo("F*|m|a*song>mp3", out.get());
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 4);
    const char* names[] = {"mimeType", "mediaType", "Path", "Name"};
    const char* values[] = {"audio/x-unknown", "audio.file", "/m/a song.mp3", "/m/a song"};
    for (int i = 0; i < 4; ++i) {
        CStdStr name, value;
        VUtil::GetPair(out.get(), i, name, value);
        EXPECT_EQ(name, names[i]);
        EXPECT_EQ(value, values[i]);
    }
    CLocalVariant untouched;
    manager->getMediumIdInfo("XY|m", untouched.get());
    EXPECT_EQ(untouched.vt(), VT_EMPTY);
}

TEST_F(MediumInfoTest, MediumFromIdAnswersMimeAndPathOr404) {
    CLocalVariant in, out;
    twoStrings(in.get(), "ctx", "F*|d|x>pdf");
    ASSERT_EQ(manager->CabServiceGetMediumFromId("GetMediumFromId", in.get(), out.ptr()), 0);
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 0), "application/x-download");
    EXPECT_EQ(VUtil::GetStringElement(out.get(), 1), "/d/x.pdf");

    CLocalVariant bad, badOut;
    twoStrings(bad.get(), "ctx", "G-|d|x>pdf");
    EXPECT_EQ(manager->CabServiceGetMediumFromId("GetMediumFromId", bad.get(), badOut.ptr()), 404);
    EXPECT_EQ(badOut.vt(), VT_EMPTY);
}

TEST_F(MediumInfoTest, ListInfoHasOneElementPerIdAndEmptyForForeignIds) {
    CLocalVariant ids, in, out;
    VUtil::CreateArray(ids.get(), VT_VARIANT, 3);
    VUtil::PutElement(ids.get(), 0, "F*|a>mp3");
    VUtil::PutElement(ids.get(), 1, "A1001");
    VUtil::PutElement(ids.get(), 2, "F*|b>png");
    VUtil::CreateArray(in.get(), VT_VARIANT, 2);
    VUtil::PutElement(in.get(), 0, "ctx");
    VUtil::PutElement(in.get(), 1, ids.get());
    ASSERT_EQ(manager->CabServiceGetMediumListInfoFromId("GetMediumListInfoFromId", in.get(), out.ptr()), 0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 3);
    CLocalVariant first, second, third;
    VUtil::GetElement(out.get(), 0, first.get());
    VUtil::GetElement(out.get(), 1, second.get());
    VUtil::GetElement(out.get(), 2, third.get());
    CStdStr path;
    EXPECT_TRUE(VUtil::FindPairNoCase(first.get(), "path", path));
    EXPECT_EQ(path, "/a.mp3");
    EXPECT_EQ(second.vt(), VT_EMPTY);
    EXPECT_TRUE(VUtil::FindPair(third.get(), "mediaType", path));
    EXPECT_EQ(path, "photo.file");

    CLocalVariant infoIn, info;
    twoStrings(infoIn.get(), "ctx", "F*|a>mp3");
    ASSERT_EQ(manager->CabServiceGetMediumInfoFromId("GetMediumInfoFromId", infoIn.get(), info.ptr()), 0);
    EXPECT_EQ(VUtil::GetArrayLength(info.get()), 4);
}

TEST_F(MediumInfoTest, IsMediumSharedAlwaysAnswersOne) {
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 3);
    for (int i = 0; i < 3; ++i) VUtil::PutElement(in.get(), i, "text");
    EXPECT_EQ(manager->CabServiceIsMediumShared("IsMediumShared", in.get(), nullptr), 1);

    VUtil::PutElement(in.get(), 2, 5);
    EXPECT_THROW(manager->CabServiceIsMediumShared("IsMediumShared", in.get(), nullptr),
                 CabInvalidParameterException);
    CLocalVariant shortIn;
    twoStrings(shortIn.get(), "a", "b");
    EXPECT_THROW(manager->CabServiceIsMediumShared("IsMediumShared", shortIn.get(), nullptr),
                 CabInvalidParameterException);
}

}  // namespace
