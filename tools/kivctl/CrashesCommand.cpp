// kivctl crashes: lists the crash reports that KivCrashReporter filed in the
// data folder's "CrashReports", oldest first, one line each.
#include <algorithm>
#include <cstdlib>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <nlohmann/json.hpp>

#include "host/KivFolders.h"
#include "tools/kivctl/Checkout.h"
#include "tools/kivctl/Command.h"

namespace {

const char kUsage[] =
    "usage: kivctl crashes [--json]\n"
    "\n"
    "Lists the crash reports in <data folder>/CrashReports, oldest first:\n"
    "time, application, signal, fault address, instruction pointer and the\n"
    "dump's path, after a line naming the folder. --json prints the summaries\n"
    "as one JSON array instead. The data folder is $KIV_ROOT/Library/KivFoundry;\n"
    "without KIV_ROOT, inside a checkout that `make run` uses it is\n"
    "var/root/Library/KivFoundry, else /Library/KivFoundry.\n"
    "A summary that cannot be parsed is listed with the reason.\n"
    "Exit status: 0 ok (also when there are no reports), 2 failure, 64 usage error.\n";

const kivctl::Command& self();

std::string text(const nlohmann::json& j, const char* key) {
    auto it = j.find(key);
    if (it == j.end()) return "-";
    return it->is_string() ? it->get<std::string>() : it->dump();
}

int runCrashes(int argc, char** argv) {
    kivctl::Args args;
    args.flag("json");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(self(), args.error());
    if (args.help()) {
        fputs(kUsage, stdout);
        return kivctl::kOk;
    }
    if (!args.positional().empty()) return kivctl::usageError(self(), "unexpected argument " + args.positional()[0]);

    namespace fs = boost::filesystem;
    std::string data = KivFolders::DataFolder();
    const char* root = getenv("KIV_ROOT");
    std::string var = (root && *root) ? std::string() : kivctl::makeRunFolder();
    if (!var.empty()) data = var + "/root/Library/KivFoundry";  // make run's KIV_ROOT
    fs::path folder(data + "/CrashReports");
    boost::system::error_code ec;
    std::vector<std::pair<std::time_t, fs::path>> files;
    if (fs::is_directory(folder, ec)) {
        for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec))
            if (it->path().extension() == ".json") files.emplace_back(fs::last_write_time(it->path(), ec), it->path());
    } else if (ec == boost::system::errc::no_such_file_or_directory) {
        ec.clear();  // no crash was ever filed: an empty list
    }
    if (ec) {
        fprintf(stderr, "kivctl crashes: cannot list %s: %s\n", folder.string().c_str(), ec.message().c_str());
        return kivctl::kFailure;
    }
    std::sort(files.begin(), files.end());
    if (!args.has("json") && !files.empty()) printf("crash reports in %s:\n", folder.string().c_str());
    nlohmann::json all = nlohmann::json::array();
    for (const auto& f : files) {
        std::ifstream in(f.second.string());
        nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
        if (j.is_discarded() || !j.is_object()) {
            if (!args.has("json")) printf("%s: unreadable summary\n", f.second.string().c_str());
            continue;
        }
        if (args.has("json")) {
            all.push_back(j);
            continue;
        }
        printf("%s  %s  %s  fault %s  ip %s  %s\n", text(j, "time").c_str(), text(j, "application").c_str(),
               text(j, "signalName").c_str(), text(j, "faultAddress").c_str(), text(j, "instructionPointer").c_str(),
               text(j, "dump").c_str());
        if (j.contains("error")) printf("    dump unreadable: %s\n", text(j, "error").c_str());
    }
    if (args.has("json")) printf("%s\n", all.dump(2).c_str());
    else if (files.empty()) printf("no crash reports in %s\n", folder.string().c_str());
    return kivctl::kOk;
}

KIVCTL_COMMAND("crashes", "list the crash reports filed by KivCrashReporter", kUsage, runCrashes);

const kivctl::Command& self() { return kivctl::commands().at("crashes"); }

}  // namespace
