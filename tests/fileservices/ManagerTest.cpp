// The file manager in process, asking a real media service ("KivMediaV2" on a
// nats-server): folder listings, the extension map, document types, medium ids.
#include <dirent.h>

#include <atomic>
#include <memory>
#include <future>

#include "cab/CabException.h"
#include "files/CFileTools.h"
#include "files/CKivFileManager.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"
#include "variant/VUtil.h"

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::UnorderedElementsAre;

typedef std::vector<std::string> Names;

// CFileTools' process-wide extension map is emptied before and after each test.
class ManagerTest : public testing::Test {
protected:
    void SetUp() override {
        clearSharedMap();
        ASSERT_TRUE(server.start()) << server.error();
        MediaCatalog catalog;  // .mkv is listed under audio, then video
        for (const char* e : {".mp3", ".wav", ".mkv"}) catalog.addExtension("audio", e);
        for (const char* e : {".mkv", ".mp4"}) catalog.addExtension("video", e);
        catalog.addExtension("photo", ".png");
        for (const char* e : {".pdf", ".txt"}) catalog.addExtension("document", e);
        media.reset(new CatalogSatellite(catalog));
        ASSERT_EQ(media->Connect(server.hostPort().c_str(), "KivMediaV2"), 0);
        ASSERT_EQ(client.Connect(server.hostPort().c_str(), "ManagerTestClient"), 0);
        manager.reset(new CKivFileManager(&client));
    }
    void TearDown() override {
        manager.reset();
        client.Disconnect();
        media.reset();
        clearSharedMap();
    }
    static void clearSharedMap() {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        CFileTools::s_extensionMediaTypeMap.clear();
    }

    // GetFolderContent of [context, path, options, extensions, fields, sort, first, count].
    int folder(const std::string& path, long options, const std::string& extensions,
               const std::string& fields, const std::string& sort, long first, long count, tagVARIANT* out) {
        const auto in = nlohmann::json::array({"ctx", path, options, extensions, fields, sort, first, count});
        return manager->CabServiceGetFolderContent("GetFolderContent", JsonVariant(in.dump()).get(), out);
    }
    // Column `column` of every row of a folder answer [names, rows, folders, files].
    static Names column(const tagVARIANT& out, int column) {
        Names values;
        const nlohmann::json answer = nlohmann::json::parse(json(out));
        for (const auto& row : answer[1]) values.push_back(row[column]);
        return values;
    }

    kivtest::NatsServer server;
    kivtest::TempDir dir{"kivfm"};
    std::unique_ptr<CatalogSatellite> media;
    CabClient client;
    std::unique_ptr<CKivFileManager> manager;
};

void setBrowser(const char* enabled) { setting("app.fileBrowser.enabled", CStdStr(enabled)); }

class FolderContentTest : public ManagerTest {
protected:
    void SetUp() override {
        ManagerTest::SetUp();
        for (const auto& [name, size] : std::vector<std::pair<std::string, size_t>>{{"a.txt", 10},
                 {"b.mp3", 30}, {"c.png", 20}, {".hidden.mp3", 5}, {"sub1/deep.mp4", 40}, {"sub2/x.pdf", 50}})
            kivtest::writeFile(root + "/" + name, std::string(size, name[0]));
    }
    void TearDown() override {
        setBrowser("true");
        ManagerTest::TearDown();
    }
    Names titles(long options, const std::string& extensions = "") {
        CLocalVariant out;
        EXPECT_EQ(folder(root, options, extensions, "title", "title:asc", 0, 0, out.ptr()), 0);
        return column(out.get(), 0);
    }
    const std::string root = dir.file("media");
};

TEST_F(FolderContentTest, OptionBitsChooseTheEntries) {
    EXPECT_EQ(titles(1), (Names{"sub1", "sub2"}));
    EXPECT_EQ(titles(2), (Names{"a.txt", "b.mp3", "c.png"}));
    EXPECT_EQ(titles(3), (Names{"sub1", "sub2", "a.txt", "b.mp3", "c.png"}));
    EXPECT_EQ(titles(3 | 4), titles(3)) << "the reserved bit changes nothing";
    EXPECT_EQ(titles(2 | 8), (Names{".hidden.mp3", "a.txt", "b.mp3", "c.png"}));
    EXPECT_THAT(titles(2 | 16), UnorderedElementsAre("a.txt", "b.mp3", "c.png", "deep.mp4", "x.pdf"));
    EXPECT_EQ(titles(2, "mp3,png"), (Names{"b.mp3", "c.png"}));
}

TEST_F(FolderContentTest, AnswerLayoutAndCountsOverTheWholeListing) {
    CLocalVariant out;
    ASSERT_EQ(folder(root, 3, "", "title,size,type", "size:asc", 1, 3, out.ptr()), 0);
    // Folders first, then files by size: sub? sub? a(10) c(20) b(30); the page is rows 1-3.
    auto page = [](const std::string& folder) {
        return R"([["title","size","type"],[[")" + folder + R"(","0","folder"],["a.txt","10","file"],)"
               R"(["c.png","20","file"]],2,3])";
    };
    EXPECT_THAT(json(out.get()), AnyOf(page("sub1"), page("sub2")));
}

TEST_F(FolderContentTest, PagingAtTheEdges) {
    const std::string many = dir.file("many");
    for (int i = 0; i < 10; ++i) kivtest::writeFile(many + "/f" + std::to_string(i) + ".txt", "x");
    const std::tuple<long, long, size_t, std::string> cases[] = {  // first, count, rows, the first title
        {8, 5, 2, "f8.txt"}, {8, 0, 2, "f8.txt"}, {8, -1, 2, "f8.txt"}, {0, 3, 3, "f0.txt"},
        {0, 10, 10, "f0.txt"}, {9, 1, 1, "f9.txt"}, {10, 5, 0, ""}, {12, 5, 0, ""}, {12, 0, 0, ""},
    };
    for (const auto& [first, count, size, firstTitle] : cases) {
        SCOPED_TRACE(testing::Message() << "first " << first << " count " << count);
        CLocalVariant out;
        ASSERT_EQ(folder(many, 2, "", "title", "title:asc", first, count, out.ptr()), 0);
        const Names rows = column(out.get(), 0);
        ASSERT_EQ(rows.size(), size);
        EXPECT_EQ(rows.empty() ? "" : rows[0], firstTitle);
        EXPECT_EQ(VUtil::GetIntElement(out.get(), 2), 0);
        EXPECT_EQ(VUtil::GetIntElement(out.get(), 3), 10);
    }
}

TEST_F(FolderContentTest, TitleAloneKeepsTheDirectoryOrder) {
    const std::string many = dir.file("order");
    for (const char* n : {"m", "c", "x", "a", "q", "e", "z", "b"})
        kivtest::writeFile(many + "/" + n + ".txt", n);
    kivtest::writeFile(many + "/k/inner.txt", "k");
    Names readOrder;
    DIR* d = opendir(many.c_str());
    ASSERT_NE(d, nullptr);
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') readOrder.push_back(e->d_name);
    closedir(d);
    CLocalVariant unsorted, sorted;
    ASSERT_EQ(folder(many, 3, "", "title", "title", 0, 0, unsorted.ptr()), 0);
    ASSERT_EQ(folder(many, 3, "", "title", "title:asc", 0, 0, sorted.ptr()), 0);
    EXPECT_EQ(column(unsorted.get(), 0), readOrder);
    EXPECT_EQ(column(sorted.get(), 0),
              (Names{"k", "a.txt", "b.txt", "c.txt", "e.txt", "m.txt", "q.txt", "x.txt", "z.txt"}));
}

TEST_F(FolderContentTest, SwitchedOffOnlyByTheExactTextFalse) {
    setBrowser("false");
    JsonVariant out("7");
    EXPECT_EQ(folder(root, 3, "", "title", "title", 0, 0, out.ptr()), 403);
    EXPECT_EQ(out.vt(), VT_I4) << "refused requests leave out untouched";
    for (const char* value : {"False", "FALSE", "true", "0"}) {
        setBrowser(value);
        CLocalVariant served;
        EXPECT_EQ(folder(root, 3, "", "title", "title", 0, 0, served.ptr()), 0) << value;
    }
}

TEST_F(FolderContentTest, SingleFilesMissingFoldersAndBadArguments) {
    // A path naming one file lists that file, whatever the options, with the media service's types.
    CLocalVariant out, missing, shortOut;
    ASSERT_EQ(folder(root + "/c.png", 1, "mp3", "title,size,mediaType", "title", 0, 0, out.ptr()), 0);
    EXPECT_EQ(json(out.get()), R"([["title","size","mediaType"],[["c.png","20","photo.file"]],0,1])");
    ASSERT_EQ(folder(root + "/nothing-here", 3, "", "title", "title", 0, 0, missing.ptr()), 0);
    EXPECT_EQ(json(missing.get()), R"([["title"],[],0,0])");
    // Too few elements: caught and answered with status 1.
    JsonVariant tooShort("[\"ctx\", \"" + root + "\", 3]");
    EXPECT_EQ(manager->CabServiceGetFolderContent("GetFolderContent", tooShort.get(), shortOut.ptr()), 1);
}

TEST(StrSplitTest, PiecesIncludingEmptyOnes) {
    const std::vector<std::pair<const char*, std::vector<CStdStr>>> cases = {
        {"", {}}, {"a", {"a"}}, {"a,b", {"a", "b"}}, {"a,b,", {"a", "b", ""}}, {",a", {"", "a"}},
        {"a,,b", {"a", "", "b"}}, {",", {"", ""}}, {"x::y::", {"x", "y", ""}},
    };
    for (const auto& [text, pieces] : cases) {
        std::vector<CStdStr> out;
        CKivFileManager::StrSplit(text, text[0] == 'x' ? "::" : ",", out);
        EXPECT_EQ(out, pieces) << text;
    }
}

// .mkv is listed under audio, then video: the later type wins.
TEST_F(ManagerTest, DocumentTypesFromTheMapTheListingSharesToo) {
    manager->ensureExtensionMap("ctx");
    EXPECT_EQ(manager->extensionMap().size(), 7u);
    {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        EXPECT_EQ(CFileTools::s_extensionMediaTypeMap, manager->extensionMap());
    }
    const std::vector<std::vector<CStdStr>> cases = {  // path, mime type, media type
        {"/m/A.MP3", "audio/x-unknown", "audio.file"}, {"/v/film.mkv", "video/x-unknown", "video.file"},
        {"/p/x.png", "photo/x-unknown", "photo.file"}, {"/d/noext", "application/x-download", "file"},
        {"/d/x.pdf", "application/x-download", "document.file"}, {"/d/x.z", "application/x-download", "file"},
        {"/a.mp3/c", "application/x-download", "file"},  // the key is .mp3/c
    };
    for (const auto& c : cases) {
        std::vector<CStdStr> got = {c[0], "", ""};
        manager->GetDocumentType(c[0], got[1], got[2]);
        EXPECT_EQ(got, c);
    }
}

TEST_F(ManagerTest, NoMediaServiceLeavesTheMapEmptyAndListingsWork) {
    media.reset();  // nobody answers "KivMediaV2" now
    CLocalVariant out;
    kivtest::writeFile(dir.file("f/a.mp3"), "x");
    ASSERT_EQ(folder(dir.file("f"), 2, "", "title,mediaType", "title", 0, 0, out.ptr()), 0);
    EXPECT_EQ(column(out.get(), 1), (Names{"file"}));
    EXPECT_TRUE(manager->extensionMap().empty());
}

// A media service whose answer cannot be read: the wrong shape, or a refusal
// (a positive status leaves no answer).
std::atomic<bool> refuseExtensions{false};

TEST_F(ManagerTest, UnreadableAnswerEndsTheFolderRequestWithStatusOne) {
    media.reset();
    CabSatellite bad;
    bad.AddService("GetExtensions", "", +[](const char*, const tagVARIANT&, tagVARIANT* out) {
        if (refuseExtensions) return 404;
        VUtil::CreateArray(*out, VT_VARIANT, 1);
        VUtil::PutElement(*out, 0, 42);
        return 0;
    });
    ASSERT_EQ(bad.Connect(server.hostPort().c_str(), "KivMediaV2"), 0);
    for (bool refuse : {false, true}) {
        refuseExtensions = refuse;
        CLocalVariant out;
        EXPECT_EQ(folder(dir.path(), 3, "", "title", "title", 0, 0, out.ptr()), 1) << refuse;
        EXPECT_TRUE(manager->extensionMap().empty()) << refuse;
    }
    bad.Disconnect();
}

// A medium id as a pair list: the present fields, in order; the name is the
// path without its extension, cut at the last dot even in a folder name.
TEST_F(ManagerTest, MediumIdsDecodeWithTheNameRuleIntoPairs) {
    manager->ensureExtensionMap("ctx");
    CKivFileManager::MediumInfo other, none;
    ASSERT_EQ(manager->getMediumInfo(CFileTools::PathToFileBrowserMediumId("/a.b/c d+e"), other), 0);
    EXPECT_EQ(other.path, "/a.b/c d+e");
    EXPECT_EQ(other.name, "/a");
    EXPECT_EQ(manager->getMediumInfo("Fx|tmp", none), 404);
    EXPECT_EQ(manager->getMediumInfo("F", none), 404);
    CLocalVariant pairs, untouched;
    manager->getMediumIdInfo("F*|m|a*song>mp3", pairs.get());
    EXPECT_EQ(json(pairs.get()), R"([["mimeType","audio/x-unknown"],["mediaType","audio.file"],)"
                                 R"(["Path","/m/a song.mp3"],["Name","/m/a song"]])");
    manager->getMediumIdInfo("XY|m", untouched.get());
    EXPECT_EQ(untouched.vt(), VT_EMPTY) << "a foreign id leaves out untouched";
}

TEST_F(ManagerTest, MediumHandlersAnswerPerIdAndEmptyForForeignIds) {
    JsonVariant pdf(R"(["ctx", "F*|d|x>pdf"])"), foreign(R"(["ctx", "G-|d|x>pdf"])");
    JsonVariant mp3(R"(["ctx", "F*|a>mp3"])"), ids(R"(["ctx", ["F*|a>mp3", "A1001", "F*|b>png"]])");
    CLocalVariant out, bad, list, info;
    CKivFileManager& m = *manager;
    ASSERT_EQ(m.CabServiceGetMediumFromId("", pdf.get(), out.ptr()), 0);
    EXPECT_EQ(json(out.get()), R"(["application/x-download","/d/x.pdf"])");
    EXPECT_EQ(m.CabServiceGetMediumFromId("", foreign.get(), bad.ptr()), 404);
    EXPECT_EQ(bad.vt(), VT_EMPTY);
    ASSERT_EQ(m.CabServiceGetMediumListInfoFromId("", ids.get(), list.ptr()), 0);
    ASSERT_EQ(m.CabServiceGetMediumInfoFromId("", mp3.get(), info.ptr()), 0);
    const std::string a = R"([["mimeType","audio/x-unknown"],["mediaType","audio.file"],["Path","/a.mp3"],)"
                          R"(["Name","/a"]])";
    EXPECT_EQ(json(info.get()), a);
    EXPECT_EQ(json(list.get()), "[" + a + R"(,null,[["mimeType","photo/x-unknown"],)"
                                    R"(["mediaType","photo.file"],["Path","/b.png"],["Name","/b"]]])");

    // IsMediumShared answers 1 to three texts, and throws on anything else.
    JsonVariant texts(R"(["a", "b", "c"])"), number(R"(["a", "b", 5])"), two(R"(["a", "b"])");
    EXPECT_EQ(m.CabServiceIsMediumShared("", texts.get(), nullptr), 1);
    EXPECT_THROW(m.CabServiceIsMediumShared("", number.get(), nullptr), CabInvalidParameterException);
    EXPECT_THROW(m.CabServiceIsMediumShared("", two.get(), nullptr), CabInvalidParameterException);
}

// Several handler threads hit a manager whose extension map is still empty:
// each may build it, and the listing reads the shared map meanwhile.
TEST_F(ManagerTest, ConcurrentFirstRequestsBuildTheMapSafely) {
    for (int i = 0; i < 20; ++i)
        kivtest::writeFile(dir.file("f/" + std::to_string(i) + (i % 2 ? ".mp3" : ".mkv")), "x");
    std::vector<std::future<Names>> types;  // each request's media types
    for (int t = 0; t < 6; ++t)
        types.push_back(std::async(std::launch::async, [&] {
            CLocalVariant out;
            const int status = folder(dir.file("f"), 2, "", "title,mediaType", "title:asc", 0, 0, out.ptr());
            return status == 0 ? column(out.get(), 1) : Names{"status " + std::to_string(status)};
        }));
    for (auto& t : types)
        EXPECT_THAT(t.get(), AllOf(testing::SizeIs(20), testing::Each(AnyOf("audio.file", "video.file"))));
    EXPECT_EQ(manager->extensionMap().size(), 7u);
}

}  // namespace
