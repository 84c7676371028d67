#include "tests/fileservices/ManagerFixture.h"

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
    VUtil::CreateArray(in.get(), VT_VARIANT, 8);
    VUtil::PutElement(in.get(), 0, "test-context");
    VUtil::PutElement(in.get(), 1, CStdStr(path));
    VUtil::PutElement(in.get(), 2, options);
    VUtil::PutElement(in.get(), 3, CStdStr(extensions));
    VUtil::PutElement(in.get(), 4, CStdStr(fields));
    VUtil::PutElement(in.get(), 5, CStdStr(sort));
    VUtil::PutElement(in.get(), 6, first);
    VUtil::PutElement(in.get(), 7, count);
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
