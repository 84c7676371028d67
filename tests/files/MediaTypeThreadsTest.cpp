// The media type field: the process-wide extension map looked up in any case,
// unknown extensions remembered with no type, under concurrent lookups and filling.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "files/CFileTools.h"

TEST(MediaType, LooksUpAndRemembersExtensionsWhileOthersFillTheMap) {
    auto setType = [](const std::string& extension, const char* type) {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        CFileTools::s_extensionMediaTypeMap[extension] = type;
    };
    setType(".mkv", "video");
    EXPECT_EQ(CFileTools("/m/Film.MKV").getFieldValue("mediaType"), "video.file");
    EXPECT_EQ(CFileTools("/m/folder.mkv").getFieldValue("mediaType"), "video.file") << "a folder by its path too";
    EXPECT_EQ(CFileTools("/m/notes.zzz").getFieldValue("mediaType"), "file");
    {
        PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
        EXPECT_EQ(CFileTools::s_extensionMediaTypeMap.count(".zzz"), 1u);
        EXPECT_EQ(CFileTools::s_extensionMediaTypeMap[".zzz"], "");
    }
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 2000; ++i) {
                const CStdStr type = CFileTools("/m/f." + std::to_string((i + t) % 50)).getFieldValue("mediaType");
                EXPECT_TRUE(type == "file" || type == "audio.file") << type;
            }
        });
    threads.emplace_back([&] {
        for (int i = 0; i < 50; ++i) setType("." + std::to_string(i), "audio");
    });
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(CFileTools("/m/x.7").getFieldValue("mediaType"), "audio.file");
}
