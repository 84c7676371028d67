// GetFolderContent: option bits, extension filter, paging, sort order, the
// file-browser switch and single-file paths.
#include <dirent.h>

#include <algorithm>

#include "host/CRegistry.h"
#include "tests/fileservices/ManagerFixture.h"
#include "variant/VUtil.h"

namespace {

const char* const kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";

class FolderContentTest : public ManagerTest {
protected:
    void SetUp() override {
        ManagerTest::SetUp();
        root = dir.file("media");
        kivtest::writeFile(root + "/a.txt", std::string(10, 'a'));
        kivtest::writeFile(root + "/b.mp3", std::string(30, 'b'));
        kivtest::writeFile(root + "/c.png", std::string(20, 'c'));
        kivtest::writeFile(root + "/.hidden.mp3", std::string(5, 'h'));
        kivtest::writeFile(root + "/sub1/deep.mp4", std::string(40, 'd'));
        kivtest::writeFile(root + "/sub2/x.pdf", std::string(50, 'x'));
    }
    void TearDown() override {
        CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "app.fileBrowser.enabled", CStdStr("true"));
        ManagerTest::TearDown();
    }
    std::vector<std::string> titles(long options, const std::string& extensions = "") {
        CLocalVariant out;
        EXPECT_EQ(folder(root, options, extensions, "title", "title:asc", 0, 0, out.ptr()), 0);
        return column(out.get(), 0);
    }
    std::string root;
};

typedef std::vector<std::string> Names;

TEST_F(FolderContentTest, OptionBitsChooseTheEntries) {
    EXPECT_EQ(titles(1), (Names{"sub1", "sub2"}));
    EXPECT_EQ(titles(2), (Names{"a.txt", "b.mp3", "c.png"}));
    EXPECT_EQ(titles(3), (Names{"sub1", "sub2", "a.txt", "b.mp3", "c.png"}));
    EXPECT_EQ(titles(3 | 4), titles(3)) << "the reserved bit changes nothing";
    EXPECT_EQ(titles(2 | 8), (Names{".hidden.mp3", "a.txt", "b.mp3", "c.png"}));
    Names deep = titles(2 | 16);
    std::sort(deep.begin(), deep.end());
    EXPECT_EQ(deep, (Names{"a.txt", "b.mp3", "c.png", "deep.mp4", "x.pdf"}));
    EXPECT_EQ(titles(2, "mp3,png"), (Names{"b.mp3", "c.png"}));
}

TEST_F(FolderContentTest, AnswerLayoutAndCountsOverTheWholeListing) {
    CLocalVariant out;
    ASSERT_EQ(folder(root, 3, "", "title,size,type", "size:asc", 1, 3, out.ptr()), 0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 4);
    CLocalVariant names;
    VUtil::GetElement(out.get(), 0, names.get());
    ASSERT_EQ(VUtil::GetArrayLength(names.get()), 3);
    EXPECT_EQ(VUtil::GetStringElement(names.get(), 0), "title");
    EXPECT_EQ(VUtil::GetStringElement(names.get(), 2), "type");
    // Folders first, then files by size: sub? sub? a(10) c(20) b(30); the page is rows 1-3.
    Names titles = column(out.get(), 0);
    ASSERT_EQ(titles.size(), 3u);
    EXPECT_TRUE(titles[0] == "sub1" || titles[0] == "sub2");
    EXPECT_EQ(titles[1], "a.txt");
    EXPECT_EQ(titles[2], "c.png");
    EXPECT_EQ(column(out.get(), 1)[2], "20");
    EXPECT_EQ(column(out.get(), 2), (Names{"folder", "file", "file"}));
    EXPECT_EQ(countAt(out.get(), 2), 2);
    EXPECT_EQ(countAt(out.get(), 3), 3);
}

TEST_F(FolderContentTest, PagingAtTheEdges) {
    std::string many = dir.file("many");
    for (int i = 0; i < 10; ++i) kivtest::writeFile(many + "/f" + std::to_string(i) + ".txt", "x");
    struct Case {
        long first, count;
        size_t rows;
        const char* firstTitle;
    } cases[] = {
        {8, 5, 2, "f8.txt"}, {8, 0, 2, "f8.txt"}, {8, -1, 2, "f8.txt"}, {0, 3, 3, "f0.txt"}, {0, 10, 10, "f0.txt"},
        {9, 1, 1, "f9.txt"}, {10, 5, 0, nullptr}, {12, 5, 0, nullptr},  {12, 0, 0, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "first " << c.first << " count " << c.count);
        CLocalVariant out;
        ASSERT_EQ(folder(many, 2, "", "title", "title:asc", c.first, c.count, out.ptr()), 0);
        Names rows = column(out.get(), 0);
        ASSERT_EQ(rows.size(), c.rows);
        if (c.firstTitle) {
            EXPECT_EQ(rows[0], c.firstTitle);
        }
        EXPECT_EQ(countAt(out.get(), 2), 0);
        EXPECT_EQ(countAt(out.get(), 3), 10);
    }
}

TEST_F(FolderContentTest, TitleAloneKeepsTheDirectoryOrder) {
    std::string many = dir.file("order");
    for (const char* n : {"m", "c", "x", "a", "q", "e", "z", "b"}) kivtest::writeFile(many + "/" + n + ".txt", n);
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
    CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "app.fileBrowser.enabled", CStdStr("false"));
    CLocalVariant out;
    out.get().vt = VT_I4;
    out.get().lVal = 77;
    EXPECT_EQ(folder(root, 3, "", "title", "title", 0, 0, out.ptr()), 403);
    EXPECT_EQ(out.vt(), VT_I4) << "refused requests leave out untouched";

    for (const char* value : {"False", "FALSE", "true", "0"}) {
        CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "app.fileBrowser.enabled", CStdStr(value));
        CLocalVariant served;
        EXPECT_EQ(folder(root, 3, "", "title", "title", 0, 0, served.ptr()), 0) << value;
    }
}

TEST_F(FolderContentTest, APathNamingOneFileListsThatFileWhateverTheOptions) {
    CLocalVariant out;
    ASSERT_EQ(folder(root + "/c.png", 1, "mp3", "title,size,mediaType", "title", 0, 0, out.ptr()), 0);
    EXPECT_EQ(column(out.get(), 0), (Names{"c.png"}));
    EXPECT_EQ(column(out.get(), 1), (Names{"20"}));
    EXPECT_EQ(column(out.get(), 2), (Names{"photo.file"})) << "the listing sees the media service's types";
    EXPECT_EQ(countAt(out.get(), 2), 0);
    EXPECT_EQ(countAt(out.get(), 3), 1);
}

TEST_F(FolderContentTest, MissingFolderAndBadArguments) {
    CLocalVariant out;
    ASSERT_EQ(folder(root + "/nothing-here", 3, "", "title", "title", 0, 0, out.ptr()), 0);
    EXPECT_TRUE(column(out.get(), 0).empty());
    EXPECT_EQ(countAt(out.get(), 2) + countAt(out.get(), 3), 0);

    // Too few elements: caught and answered with status 1.
    CLocalVariant shortIn, shortOut;
    VUtil::CreateArray(shortIn.get(), VT_VARIANT, 3);
    VUtil::PutElement(shortIn.get(), 0, "ctx");
    VUtil::PutElement(shortIn.get(), 1, CStdStr(root));
    VUtil::PutElement(shortIn.get(), 2, 3L);
    EXPECT_EQ(manager->CabServiceGetFolderContent("GetFolderContent", shortIn.get(), shortOut.ptr()), 1);
}

}  // namespace
