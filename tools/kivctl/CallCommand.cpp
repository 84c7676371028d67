// kivctl call SATELLITE SERVICE [JSON]: one request, answer printed as JSON.
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include <nlohmann/json.hpp>

#include "value/VariantJson.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/DisplayJson.h"
#include "tools/kivctl/Explain.h"
#include "tools/kivctl/JsonArgument.h"
#include "tools/kivctl/SatelliteWatch.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl call [OPTIONS] SATELLITE SERVICE [JSON]\n"
    "Sends one request (no JSON: VT_EMPTY) and prints {\"status\": N, \"out\": ...}\n"
    "(plus \"error\" when there is one) in the JSON form of docs/protocol.md; a DATE\n"
    "that falls on a whole second prints as local time. On a failure stderr says\n"
    "what kivctl can tell besides: the nearest satellite or service name for a\n"
    "misspelt one, a satellite that ended, a user the directory refuses, an\n"
    "argument missing for one of the proxy's services. JSON that does not parse\n"
    "is shown with the place and a hint.\n"
    "Exit status: 0 status 0, 1 another handler status, 2 library failure, 64 usage.\n"
    "Options:\n";

const kivctl::Command kCall{"call", "send one request to a satellite's service", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kCall, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    const auto& pos = args.positional();
    if (pos.size() < 2 || pos.size() > 3) return kivctl::usageError(kCall, "needs SATELLITE SERVICE [JSON]");
    tagVARIANT in, out, codes;
    VariantInit(&in);
    VariantInit(&out);
    VariantInit(&codes);
    if (pos.size() == 3) {
        std::string error;
        if (!kivctl::readJsonArgument(pos[2], &in, &error)) return kivctl::usageError(kCall, "JSON: " + error);
    }
    CabClient client;
    int timeoutMs = 0;
    int rc = kivctl::connect(args, client, &timeoutMs);
    if (rc != kivctl::kOk) {
        VariantClear(&in);
        return rc;
    }
    // A satellite that ends during the request (GenerateCrash does) never
    // answers: once it has left the directory, say so instead of waiting for the time-out.
    const std::string satellite = pos[0].substr(0, pos[0].find('@'));
    std::atomic<bool> said{false};
    auto ended = [&] {
        if (said.exchange(true)) return;
        const std::string text = kivctl::endedText(satellite, pos[1]);
        nlohmann::json j;
        j["status"] = CAB_E_CONNECTION_LOST;
        j["out"] = nullptr;
        j["error"] = std::string("CAB_E_CONNECTION_LOST: ") + text + ": cab." + pos[0] + "." + pos[1];
        printf("%s\n", j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
        fflush(stdout);
        fprintf(stderr, "kivctl call: %s\n", text.c_str());
        _exit(kivctl::kFailure);
    };
    {
        kivctl::SatelliteWatch watch(client, satellite, ended);
        client.Request(pos[0].c_str(), pos[1].c_str(), in, &out, 0, &codes);
        said.store(true);
    }
    int status = CabRetcode(codes);
    nlohmann::json j;
    j["status"] = status;
    j["out"] = kivctl::displayJson(out);
    if (!CabGetLastError().empty()) j["error"] = CabGetLastError();
    printf("%s\n", j.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    // The answer stays as the service gave it; what kivctl knows besides goes to stderr.
    if (CabIsLibraryStatus(status)) {
        std::string why = kivctl::explainFailure(client, pos[0], pos[1], status, kivctl::directoryUser(args));
        if (status == CAB_E_HANDLER_EXCEPTION) why = kivctl::missingArgument(pos[0], pos[1], in);
        if (!why.empty()) fprintf(stderr, "kivctl call: %s\n", why.c_str());
    }
    VariantClear(&in);
    VariantClear(&out);
    VariantClear(&codes);
    client.Disconnect();
    if (status == 0) return kivctl::kOk;
    return CabIsLibraryStatus(status) ? kivctl::kFailure : kivctl::kStatus;
}

}  // namespace

KIVCTL_COMMAND("call", "send one request to a satellite's service", kUsageText, run);
