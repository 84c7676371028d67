// An in-process file manager that asks a real media service: a nats-server,
// a CatalogSatellite registered as "KivMediaV2" and a client satellite that
// the manager sends its requests through. CFileTools' process-wide extension
// map is emptied before and after each test.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "cab/CabSatellite.h"
#include "files/CFileTools.h"
#include "files/CKivFileManager.h"
#include "tests/proxy/JsonVariant.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"
#include "variant/VUtil.h"

typedef std::vector<std::string> Names;

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
        CLocalVariant rows;
        VUtil::GetElement(out, 1, rows.get());
        for (int i = 0; i < VUtil::GetArrayLength(rows.get()); ++i) {
            CLocalVariant row;
            VUtil::GetElement(rows.get(), i, row.get());
            values.push_back(VUtil::GetStringElement(row.get(), column));
        }
        return values;
    }

    kivtest::NatsServer server;
    kivtest::TempDir dir{"kivfm"};
    std::unique_ptr<CatalogSatellite> media;
    CabClient client;
    std::unique_ptr<CKivFileManager> manager;
};
