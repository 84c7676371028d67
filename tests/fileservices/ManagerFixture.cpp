#include "tests/fileservices/ManagerFixture.h"

#include <nlohmann/json.hpp>

#include "cab/VariantJson.h"
#include "files/CFileTools.h"
#include "variant/VUtil.h"

void ManagerTest::SetUp() {
    clearSharedMap();
    ASSERT_TRUE(server.start()) << server.error();
    media.reset(new CatalogSatellite(catalog()));
    ASSERT_EQ(media->Connect(server.hostPort().c_str(), "KivMediaV2"), 0);
    client.reset(new CabClient);
    ASSERT_EQ(client->Connect(server.hostPort().c_str(), "ManagerTestClient"), 0);
    manager.reset(new CKivFileManager(client.get()));
}

void ManagerTest::TearDown() {
    manager.reset();
    client.reset();
    media.reset();
    clearSharedMap();
}

MediaCatalog ManagerTest::catalog() {
    MediaCatalog c;
    for (const char* e : {".mp3", ".wav", ".mkv"}) c.addExtension("audio", e);
    for (const char* e : {".mkv", ".mp4"}) c.addExtension("video", e);
    c.addExtension("photo", ".png");
    for (const char* e : {".pdf", ".txt"}) c.addExtension("document", e);
    return c;
}

void ManagerTest::clearSharedMap() {
    PLockGuard lock(CFileTools::s_extensionMediaTypeMapLock);
    CFileTools::s_extensionMediaTypeMap.clear();
}

int ManagerTest::folder(const std::string& path, long options, const std::string& extensions,
                        const std::string& fields, const std::string& sort, long first, long count,
                        tagVARIANT* out) {
    CLocalVariant in;
    fromJson(nlohmann::json{"test-context", path, options, extensions, fields, sort, first, count}.dump(), &in);
    return manager->CabServiceGetFolderContent("GetFolderContent", in.get(), out);
}

std::vector<std::string> ManagerTest::column(const tagVARIANT& out, int column) {
    std::vector<std::string> values;
    CLocalVariant rows;
    VUtil::GetElement(out, 1, rows.get());
    int n = VUtil::GetArrayLength(rows.get());
    for (int i = 0; i < n; ++i) {
        CLocalVariant row;
        VUtil::GetElement(rows.get(), i, row.get());
        values.push_back(VUtil::GetStringElement(row.get(), column));
    }
    return values;
}

int ManagerTest::countAt(const tagVARIANT& out, int index) { return VUtil::GetIntElement(out, index); }

tagVARIANT* ManagerTest::fromJson(const std::string& text, CLocalVariant* v) {
    std::string error;
    VariantClear(v->ptr());
    EXPECT_TRUE(VariantFromJson(text, v->ptr(), &error)) << error;
    return v->ptr();
}

std::string ManagerTest::json(const tagVARIANT& v) { return VariantToJson(v); }
