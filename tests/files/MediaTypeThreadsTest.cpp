// The process-wide extension map under concurrent field lookups and filling.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "files/CFileTools.h"

TEST(MediaTypeThreads, LookupsAndFillingShareTheMapSafely) {
    const int kThreads = 4, kRounds = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kRounds; ++i) {
                CFileTools entry("/m/f." + std::to_string((i + t) % 50));
                CStdStr type = entry.getFieldValue("mediaType");
                EXPECT_TRUE(type == "file" || type == "audio.file") << type;
            }
        });
    }
    threads.emplace_back([] {
        for (int i = 0; i < 50; ++i) {
            PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
            CFileTools::s_extensionMediaTypeMap["." + std::to_string(i)] = "audio";
        }
    });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(CFileTools("/m/x.7").getFieldValue("mediaType"), "audio.file");
}
