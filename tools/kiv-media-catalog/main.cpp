// kiv-media-catalog: a small media service for demos and tests. Registers on
// the CAB directory as "KivMediaV2" and answers "GetExtensions" and
// "GetMediumListInfoFromId" from a JSON catalog.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/CRegistry.h"
#include "cab/CabProgram.h"
#include "tools/kiv-media-catalog/CatalogSatellite.h"

static void usage(FILE* to) {
    fprintf(to,
            "usage: kiv-media-catalog --catalog FILE [--root DIR] [--name NAME] [--server HOST[:PORT]] [--token "
            "TOKEN]\n"
            "Serves the media types and media items of the JSON catalog FILE on the CAB\n"
            "directory as satellite NAME (default KivMediaV2) until SIGINT or SIGTERM.\n"
            "Prints \"ready\" once it serves.\n"
            "  --catalog FILE        {\"extensions\": {\"audio\": [\".mp3\"], ...},\n"
            "                         \"media\": {\"ID\": {\"path\": \"...\", \"name\": \"...\", \"artist\": \"...\",\n"
            "                                          \"album\": \"...\", \"duration\": SECONDS}}}\n"
            "  --root DIR            folder against which relative media paths resolve\n"
            "                        (default: the current folder)\n"
            "  --name NAME           satellite name (default KivMediaV2)\n"
            "  --server HOST[:PORT]  the CAB directory (default: settings cabDirectory.host/.port)\n"
            "  --token TOKEN         directory token (default: setting cabDirectory.token)\n");
}

int main(int argc, char** argv) {
    std::string server, name = "KivMediaV2", token, catalogFile, root;
    bool haveToken = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto next = [&](std::string* v) {
            if (i + 1 >= argc) return false;
            *v = argv[++i];
            return true;
        };
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--server" && next(&server)) {
        } else if (a == "--name" && next(&name)) {
        } else if (a == "--token" && next(&token)) {
            haveToken = true;
        } else if (a == "--catalog" && next(&catalogFile)) {
        } else if (a == "--root" && next(&root)) {
        } else {
            fprintf(stderr, "kiv-media-catalog: bad argument '%s'\n", a.c_str());
            usage(stderr);
            return 64;
        }
    }
    if (catalogFile.empty()) {
        fprintf(stderr, "kiv-media-catalog: --catalog FILE is required\n");
        usage(stderr);
        return 64;
    }
    if (root.empty()) {
        char cwd[4096];
        if (getcwd(cwd, sizeof cwd)) root = cwd;
    }
    MediaCatalog catalog;
    std::string error;
    if (!catalog.load(catalogFile, root, &error)) {
        fprintf(stderr, "kiv-media-catalog: %s\n", error.c_str());
        return 2;
    }
    if (server.empty()) {
        CStdStr host;
        if (!CRegistry::getInstance()->ReadSettingImpl("Software\\Kiv Foundry\\Kiv\\Config", "cabDirectory.host", host))
            host = "127.0.0.1";
        server = host;
    }

    CatalogSatellite sat(catalog);
    if (haveToken) sat.setToken(token);
    return CabServeUntilSignal(sat, "kiv-media-catalog", server.c_str(), name.c_str());
}
