// AddFolderToTree: every file below a folder, subfolders included.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "archive/CMyPathTree.h"
#include "satellite/ArchiveFolders.h"
#include "tests/support/TempDir.h"

namespace {

std::vector<std::string> filePaths(const CMyPathTree& tree) {
    std::vector<std::string> out;
    for (const CMyPathNode* node : tree.fileNodes()) out.push_back(node->getFullPath());
    std::sort(out.begin(), out.end());
    return out;
}

TEST(AddFolderToTreeTest, AddsFilesOfAllSubfoldersButNoFolders) {
    kivtest::TempDir dir("addfolder");
    kivtest::writeFile(dir.file("top.txt"), "1");
    kivtest::writeFile(dir.file(".hidden"), "2");
    kivtest::writeFile(dir.file("sub/inner.bin"), "3");
    kivtest::writeFile(dir.file("sub/deeper/leaf.mp3"), "4");
    kivtest::writeFile(dir.file("empty/.keep"), "");

    CMyPathTree tree;
    EXPECT_EQ(AddFolderToTree(CStdStr(dir.path()), &tree), 5);
    EXPECT_EQ(filePaths(tree),
              (std::vector<std::string>{dir.file(".hidden"), dir.file("empty/.keep"), dir.file("sub/deeper/leaf.mp3"),
                                        dir.file("sub/inner.bin"), dir.file("top.txt")}));
}

TEST(AddFolderToTreeTest, MissingFolderOrTreeAddsNothing) {
    CMyPathTree tree;
    EXPECT_EQ(AddFolderToTree(CStdStr("/no/such/folder/anywhere"), &tree), 0);
    EXPECT_TRUE(tree.fileNodes().empty());
    EXPECT_EQ(AddFolderToTree(CStdStr("/tmp"), nullptr), 0);
}

}  // namespace
