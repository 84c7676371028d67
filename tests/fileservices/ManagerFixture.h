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
#include "files/CKivFileManager.h"
#include "tests/support/NatsServer.h"
#include "tests/support/TempDir.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"
#include "variant/CLocalVariant.h"

class ManagerTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The catalog the media service answers from; override to change it.
    virtual MediaCatalog catalog();
    static void clearSharedMap();

    // GetFolderContent with the in-array built from the arguments.
    int folder(const std::string& path, long options, const std::string& extensions, const std::string& fields,
               const std::string& sort, long first, long count, tagVARIANT* out);
    // Column `column` of every row of a folder answer.
    static std::vector<std::string> column(const tagVARIANT& out, int column);
    static int countAt(const tagVARIANT& out, int index);

    kivtest::NatsServer server;
    kivtest::TempDir dir{"kivfm"};
    std::unique_ptr<CatalogSatellite> media;
    std::unique_ptr<CabClient> client;
    std::unique_ptr<CKivFileManager> manager;
};
