// kivctl zip PATH... -o OUT.zip: an archive of files on the proxy's machine,
// built by "CreateZip", downloaded and deleted again.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "files/PathMediumId.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/Download.h"
#include "tools/kivctl/Interrupt.h"
#include "tools/kivctl/Progress.h"
#include "tools/kivctl/ProxyRequest.h"
#include "tools/kivctl/RemoteFile.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl zip [OPTIONS] PATH... -o OUT.zip\n"
    "Has the proxy build a zip archive of the files (\"CreateZip\"), downloads it\n"
    "into OUT.zip (\"GetFile\") and deletes the proxy's copy (\"DeleteTempFile\").\n"
    "Relative paths are taken from the current folder. Each file is one entry\n"
    "named by its file name alone (no folders), in the order given; so every\n"
    "PATH must be a file, and no two may have the same name. One file is always\n"
    "deflated; several are stored uncompressed. While the proxy writes the\n"
    "archive and while it downloads, a progress bar shows on a terminal.\n"
    "Any file name travels as it is, also one with | * > < (see \"File-browser\n"
    "medium ids\" in docs/services.md).\n"
    "Exit status: 0 done; 1 a PATH is missing (or outside the folders the proxy\n"
    "serves), a folder or a file the proxy cannot read, or the proxy refused;\n"
    "2 a failure; 64 a usage error (also two files of one name). Nothing is\n"
    "left behind on a failure.\n"
    "Options:\n"
    "  -o, --output FILE    where the archive goes (required)\n"
    "      --chunk SIZE     bytes per download request, with an optional K, M or G\n"
    "                       suffix (default 4M)\n";

const kivctl::Command kZip{"zip", "archive files on the proxy's machine and download the zip", kUsageText, run};

const char* const kWho = "kivctl zip";

// The final size of the archive: "QueryFileSize" waits while the proxy still
// writes it. On a terminal, a thread polls the size written meanwhile.
int finalSize(kivctl::ProxySession& session, const std::string& zip, long long estimate, long long* size) {
    std::atomic<bool> done{false};
    std::thread poller;
    if (kivctl::progressWanted(false)) {
        poller = std::thread([&] {
            kivctl::Progress bar(true, "writing ", 0, estimate);
            long long written = 0;
            while (!done.load()) {
                long long now = -1;
                if (kivctl::sizeOf(session, zip, &now) == 0 && now >= 0) written = now;
                bar.update(static_cast<unsigned long long>(written), false);
                for (int i = 0; i < 5 && !done.load(); ++i) usleep(50 * 1000);
            }
        });
    }
    int rc = kivctl::remoteFileSize(session, zip, size, kWho);
    done.store(true);
    if (poller.joinable()) {
        poller.join();
        fprintf(stderr, "\n");
    }
    return rc;
}

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.value("output", 'o');
    args.value("chunk");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kZip, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().empty()) return kivctl::usageError(kZip, "needs at least one PATH");
    const std::string output = args.get("output");
    if (output.empty()) return kivctl::usageError(kZip, "needs -o OUT.zip");
    unsigned long long chunk = kivctl::kDownloadChunk;
    if (args.has("chunk") && !kivctl::parseSize(args.get("chunk"), &chunk))
        return kivctl::usageError(kZip, "SIZE must be a positive number of bytes below 4 GiB (suffix K, M or G)");

    std::vector<std::string> paths;
    std::map<std::string, std::string> byName;  // entry name -> the path that takes it
    for (const std::string& p : args.positional()) {
        std::string path = kivctl::absolutePath(p);
        std::string name = path.substr(path.find_last_of('/') + 1);
        auto taken = byName.emplace(name, path);
        if (!taken.second)
            return kivctl::usageError(kZip, taken.first->second + " and " + path + " would both be the entry '" + name +
                                                "' (entries are named by file name alone)");
        paths.push_back(path);
    }

    kivctl::handleInterrupts();
    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    int refused = 0;
    for (const std::string& path : paths) {
        kivctl::RemoteKind kind;
        int rc = kivctl::probeRemote(session, path, &kind);
        if (rc != kivctl::kOk) return rc;
        if (kind == kivctl::RemoteKind::File) continue;
        fprintf(stderr, "%s: %s%s\n", kWho, kivctl::remoteProblem(path, kind).c_str(),
                kind == kivctl::RemoteKind::Folder ? "; give its files (FOLDER/*)" : "");
        ++refused;
    }
    if (refused) return kivctl::kStatus;

    // [context, medium id...]: the ids of the paths.
    CLocalVariant in, out;
    VUtil::CreateArray(in.get(), VT_VARIANT, paths.size() + 1);
    VUtil::PutElement(in.get(), 0, "kivctl");
    for (size_t i = 0; i < paths.size(); ++i)
        VUtil::PutElement(in.get(), static_cast<int>(i + 1), PathMediumId::FromPath(CStdStr(paths[i])));
    if (kivctl::progressWanted(false))
        fprintf(stderr, "asking the proxy for an archive of %zu files...\n", paths.size());
    int status = session.request("CreateZip", in.get(), out.ptr());
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "%s: CreateZip answered %d\n", kWho, status);
        return kivctl::exitFor(status);
    }
    std::string remote;
    long long announced = -1;
    try {
        remote = VUtil::GetStringElement(out.get(), 0);
        CLocalVariant size;
        VUtil::GetElement(out.get(), 1, size.get());
        if (size.vt() == VT_I8) announced = size.get().llVal;
    } catch (const std::exception&) {
    }
    if (remote.empty()) {
        fprintf(stderr, "%s: unexpected answer to CreateZip\n", kWho);
        return kivctl::kFailure;
    }

    long long size = -1;
    int rc = finalSize(session, remote, announced, &size);
    unsigned long long bytes = 0;
    if (rc == kivctl::kOk)
        rc = kivctl::downloadFile(session, remote, output, chunk, size, kivctl::progressWanted(false), &bytes, kWho);
    int deleted = kivctl::deleteRemoteTempFile(session, remote, kWho);
    if (rc != kivctl::kOk) return rc;
    printf("%s: %llu bytes, %zu file%s\n", output.c_str(), bytes, paths.size(), paths.size() == 1 ? "" : "s");
    return deleted;
}

}  // namespace

KIVCTL_COMMAND("zip", "archive files on the proxy's machine and download the zip", kUsageText, run);
