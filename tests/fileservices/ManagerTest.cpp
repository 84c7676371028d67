// The file manager in process, with a real media service: folder listings and medium ids.
#include <dirent.h>

#include <memory>

#include "files/CFileTools.h"
#include "files/CKivFileManager.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/NatsServer.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"
#include "variant/VUtil.h"

namespace {

typedef std::vector<std::string> Names;

// CFileTools' process-wide extension map is emptied before and after each test.
class ManagerTest : public testing::Test {
protected:
    void SetUp() override {
        clearSharedMap();
        ASSERT_TRUE(server.start()) << server.error();
        MediaCatalog catalog;
        for (const char* e : {".mp3", ".wav"}) catalog.addExtension("audio", e);
        catalog.addExtension("photo", ".png");
        for (const char* e : {".pdf", ".txt"}) catalog.addExtension("document", e);
        media.reset(new CatalogSatellite(catalog));
        ASSERT_EQ(media->Connect(server.hostPort().c_str(), "KivMediaV2"), 0);
        ASSERT_EQ(client.Connect(server.hostPort().c_str(), "ManagerTestClient"), 0);
        manager.reset(new CKivFileManager(&client));
        for (const char* name : {"a.txt", "c.png", "sub/x.pdf"}) kivtest::writeFile(root + "/" + name, "0123456789");
    }
    void TearDown() override {
        setBrowser("true");
        manager.reset();
        client.Disconnect();
        media.reset();
        clearSharedMap();
    }
    static void clearSharedMap() {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        CFileTools::s_extensionMediaTypeMap.clear();
    }
    static void setBrowser(const char* enabled) { setting("app.fileBrowser.enabled", CStdStr(enabled)); }

    // GetFolderContent of [context, path, options, extensions, fields, sort, first, count].
    int folder(const std::string& path, long options, const std::string& extensions, const std::string& fields,
               const std::string& sort, long first, long count, tagVARIANT* out) {
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
    const std::string root = dir.file("media");
    std::unique_ptr<CatalogSatellite> media;
    CabClient client;
    std::unique_ptr<CKivFileManager> manager;
};

// Rows [first, first + count) (a count below 1: to the end) with the whole listing's counts;
// "title" alone keeps the folder's own order, other keys sort with folders first.
TEST_F(ManagerTest, PagesOfTheWholeListingInTheOrderAsked) {
    const std::string many = dir.file("many");
    for (int i = 0; i < 10; ++i) kivtest::writeFile(many + "/f" + std::to_string(i) + ".txt", "x");
    const std::tuple<long, long, size_t, std::string> cases[] = {
        // first, count, rows, the first title
        {8, 5, 2, "f8.txt"}, {8, 0, 2, "f8.txt"}, {8, -1, 2, "f8.txt"}, {0, 3, 3, "f0.txt"}, {0, 10, 10, "f0.txt"},
        {9, 1, 1, "f9.txt"}, {10, 5, 0, ""},      {12, 5, 0, ""},       {12, 0, 0, ""},
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
    kivtest::writeFile(many + "/k/inner.txt", "k");
    Names readOrder;
    DIR* d = opendir(many.c_str());
    ASSERT_NE(d, nullptr);
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') readOrder.push_back(e->d_name);
    closedir(d);
    CLocalVariant unsorted, sorted;
    ASSERT_EQ(folder(many, 3, "", "title", "title", 0, 0, unsorted.ptr()), 0);
    ASSERT_EQ(folder(many, 3, "", "title", "title:desc", 0, 2, sorted.ptr()), 0);
    EXPECT_EQ(column(unsorted.get(), 0), readOrder);
    EXPECT_EQ(column(sorted.get(), 0), (Names{"k", "f9.txt"}));
}

// The file browser is switched off only by the exact text "false".
TEST_F(ManagerTest, SingleFilesMissingFoldersBadArgumentsAndSwitchedOff) {
    for (const char* value : {"false", "False", "FALSE", "true", "0"}) {
        setBrowser(value);
        JsonVariant out("7");
        EXPECT_EQ(folder(root, 3, "", "title", "title", 0, 0, out.ptr()), value[0] == 'f' ? 403 : 0) << value;
        EXPECT_TRUE(value[0] != 'f' || out.vt() == VT_I4) << "refused requests leave out untouched";
    }
    setBrowser("true");
    // A path naming one file lists that file, whatever the options, with the media service's types.
    CLocalVariant out, missing, shortOut;
    ASSERT_EQ(folder(root + "/c.png", 1, "mp3", "title,size,mediaType", "title", 0, 0, out.ptr()), 0);
    EXPECT_EQ(json(out.get()), R"([["title","size","mediaType"],[["c.png","10","photo.file"]],0,1])");
    ASSERT_EQ(folder(root + "/nothing-here", 3, "", "title", "title", 0, 0, missing.ptr()), 0);
    EXPECT_EQ(json(missing.get()), R"([["title"],[],0,0])");
    // Too few elements: caught and answered with status 1.
    JsonVariant tooShort("[\"ctx\", \"" + root + "\", 3]");
    EXPECT_EQ(manager->CabServiceGetFolderContent("GetFolderContent", tooShort.get(), shortOut.ptr()), 1);
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
    EXPECT_EQ(json(list.get()), "[" + a +
                                    R"(,null,[["mimeType","photo/x-unknown"],)"
                                    R"(["mediaType","photo.file"],["Path","/b.png"],["Name","/b"]]])");
}

}  // namespace
