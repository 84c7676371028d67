// Several handler threads hit a file manager whose extension map is still
// empty: each may build it, and the listing reads the shared map meanwhile.
#include <thread>

#include "tests/fileservices/ManagerFixture.h"

TEST_F(ManagerTest, ConcurrentFirstRequestsBuildTheMapSafely) {
    for (int i = 0; i < 20; ++i)
        kivtest::writeFile(dir.file("f/" + std::to_string(i) + (i % 2 ? ".mp3" : ".mkv")), "x");
    std::vector<std::thread> threads;
    std::vector<int> statuses(6, -1);
    std::vector<Names> types(6);
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&, t] {
            CLocalVariant out;
            statuses[t] = folder(dir.file("f"), 2, "", "title,mediaType", "title:asc", 0, 0, out.ptr());
            if (statuses[t] == 0) types[t] = column(out.get(), 1);
        });
    for (auto& th : threads) th.join();
    for (int t = 0; t < 6; ++t) {
        EXPECT_EQ(statuses[t], 0);
        ASSERT_EQ(types[t].size(), 20u);
        EXPECT_THAT(types[t], testing::Each(testing::AnyOf("audio.file", "video.file")));
    }
    EXPECT_EQ(manager->extensionMap().size(), 7u);
}
