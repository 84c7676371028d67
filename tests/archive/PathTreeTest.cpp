// Entry names of the archive layout and the header estimate.
#include <gtest/gtest.h>

#include "archive/CMyPathTree.h"
#include "tests/support/Thrown.h"

namespace {

std::vector<std::string> entryNames(const CMyPathTree& tree) {
    std::vector<std::string> names;
    for (const CMyPathNode* n : tree.fileNodes()) names.push_back(n->GetRelativePath());
    return names;
}

typedef std::vector<std::string> Names;

}  // namespace

TEST(PathNode, NamesDistancesAndCommonFolders) {
    CMyPathNode music("/Users/ann/Music/a.mp3"), movie("/users/ANN/Movies/b.mov"), bare("bare");
    EXPECT_EQ(music.getName(), "a.mp3");
    EXPECT_EQ(bare.getName(), "noname");
    EXPECT_EQ(CMyPathNode("/dir/").getName(), "");
    EXPECT_EQ(music.GetDistance(&movie), 2);
    EXPECT_EQ(movie.GetDistance(&music), 2);
    EXPECT_EQ(music.GetCommonFolder(&movie), "/Users/ann");
    CMyPathNode doubled("//Users///ann/Music/x");
    EXPECT_EQ(music.GetDistance(&doubled), 3);
    EXPECT_EQ(music.GetDistance(&bare), 0);
    EXPECT_EQ(music.GetCommonFolder(&bare), "");
    EXPECT_EQ(music.GetRelativePath(), "a.mp3");
}

TEST(PathTree, ParentFolderSplitsAtBackslashOnly) {
    EXPECT_EQ(CMyPathTree::getParentFolder("C:\\a\\b.txt"), "C:\\a");
    for (const char* path : {"/a/b/c.txt", "\\top", "/x"})
        EXPECT_EQ(kivtest::thrownBy([&] { CMyPathTree::getParentFolder(path); }), "no parent folder") << path;
}

TEST(PathTree, SlashPathsAreStoredFlatByName) {
    CMyPathTree tree;
    tree.AddFile("/a/b/c.txt");
    tree.AddFile("/a/b/d.txt");
    tree.AddFile("/a/x.txt");
    tree.AddFile("nofolder");
    EXPECT_EQ(entryNames(tree), (Names{"c.txt", "d.txt", "x.txt", "noname"}));
    EXPECT_TRUE(tree.folderNodes().empty());
    EXPECT_EQ(tree.getZipHeaderSize(), 4u * 102 + 2u * (5 + 5 + 5 + 6));

    CMyPathTree one;
    one.AddFile("/a/b/c.txt");
    EXPECT_EQ(one.getZipHeaderSize(), 112u);
    EXPECT_EQ(CMyPathTree().getZipHeaderSize(), 0u);
}

TEST(PathTree, BackslashParentsGroupFilesAndMixedPathsThrow) {
    CMyPathTree tree;
    tree.AddFile("/base/data/set\\one.txt");   // parent folder node "/base/data/set"
    tree.AddFile("/base/data/set\\two.txt");   // same parent, found directly
    tree.AddFile("/other/four.txt");           // shares nothing: flat
    tree.AddFile("/BASE/DATA/set\\Five.txt");  // case does not matter
    tree.AddFile("/r/x\\y/set\\one.txt");      // parent folder node "/r/x\\y/set"
    tree.AddFile("/r/x\\y/deep\\two.txt");     // shares "/r/x\\y": grouped under it
    EXPECT_EQ(entryNames(tree), (Names{"set/set\\one.txt", "set/set\\two.txt", "four.txt", "set/set\\Five.txt",
                                       "x\\y/set/set\\one.txt", "x\\y/deep\\two.txt"}));
    uint32_t expected = 0;
    for (const std::string& name : entryNames(tree)) expected += 102 + 2 * name.size();
    EXPECT_EQ(tree.getZipHeaderSize(), expected);

    // A file, or a shared folder, to be grouped without a backslash has no parent folder.
    for (const char* mixed : {"/base/data/deep/three.txt", "/base/data/deep\\three.txt"}) {
        CMyPathTree t;
        t.AddFile("/base/data/set\\one.txt");
        EXPECT_EQ(kivtest::thrownBy([&] { t.AddFile(mixed); }), "no parent folder") << mixed;
    }
}

TEST(PathTree, FirstComponentOnlyIsNotAGroup) {
    CMyPathTree tree;
    tree.AddFile("/data/set\\one.txt");
    tree.AddFile("/data2/x.txt");
    tree.AddFile("/data/y.txt");  // distance 1 to "/data/set": not grouped
    EXPECT_EQ(entryNames(tree), (Names{"set/set\\one.txt", "x.txt", "y.txt"}));
}
