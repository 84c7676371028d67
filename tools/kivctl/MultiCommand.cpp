// kivctl multi [JSON | -]: one "MultiRequest" of several sub-requests.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

#include <nlohmann/json.hpp>

#include "cab/CabStatus.h"
#include "value/VariantJson.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/DisplayJson.h"
#include "tools/kivctl/JsonArgument.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl multi [OPTIONS] [JSON | -]\n"
    "Sends the sub-requests [[SATELLITE, SERVICE, INPUT], ...] (JSON form; \"-\" or\n"
    "nothing reads them from standard input) as one \"MultiRequest\" to the proxy,\n"
    "which runs them in parallel, and prints one {\"status\", \"out\"} per\n"
    "sub-request, in order (a DATE that falls on a whole second as local time, as\n"
    "call prints it). A sub-request that failed is also named on stderr.\n"
    "Exit status: 0 every sub-request answered 0; 1 one answered another status\n"
    "(or the proxy refused the group); 2 one failed in the library (no such\n"
    "satellite, time-out, ...) or the group did; 64 a usage error.\n"
    "Options:\n";

const kivctl::Command kMulti{"multi", "send several requests at once through the proxy", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kMulti, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (args.positional().size() > 1) return kivctl::usageError(kMulti, "takes at most one JSON argument");
    std::string text;
    if (args.positional().empty() || args.positional()[0] == "-")
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
    else text = args.positional()[0];
    CLocalVariant in, out;
    std::string error;
    if (!kivctl::readJsonArgument(text, in.ptr(), &error)) return kivctl::usageError(kMulti, "JSON: " + error);

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    int status = session.request("MultiRequest", in.get(), out.ptr());
    if (status != 0) {
        if (status > 0) fprintf(stderr, "kivctl multi: the proxy answered status %d\n", status);
        return kivctl::exitFor(status);
    }
    nlohmann::json answers = nlohmann::json::array();
    nlohmann::json all = kivctl::displayJson(out.get());
    nlohmann::json sent = VariantToJsonValue(in.get());
    int rc = kivctl::kOk;
    for (size_t i = 0; i < all.size(); ++i) {
        const nlohmann::json& pair = all[i];
        nlohmann::json one;
        nlohmann::json codes = pair.is_array() && !pair.empty() ? pair[0] : nlohmann::json();
        one["status"] = codes.is_array() && !codes.empty() ? codes[0] : nullptr;
        one["out"] = pair.is_array() && pair.size() > 1 ? pair[1] : nullptr;
        answers.push_back(one);
        const int sub = one["status"].is_number_integer() ? one["status"].get<int>() : CAB_E_MALFORMED;
        if (sub == 0) continue;
        std::string what = "?", why;
        if (i < sent.size() && sent[i].is_array() && sent[i].size() >= 2 && sent[i][0].is_string() &&
            sent[i][1].is_string()) {
            what = sent[i][0].get<std::string>() + " " + sent[i][1].get<std::string>();
            if (sub == CAB_E_NO_SUCH_SERVICE) why = session.explain(sent[i][0], sent[i][1], sub);
            // A group runs as the proxy's own user, and never runs a service kept for admins.
            if (sub == CAB_E_PERMISSION_DENIED)
                why = "a grouped request does not get " + sent[i][1].get<std::string>() +
                      "; call it on its own (kivctl call), with a credential allowed to";
        }
        fprintf(stderr, "kivctl multi: sub-request %zu (%s) answered %d%s%s%s%s\n", i + 1, what.c_str(), sub,
                CabIsLibraryStatus(sub) ? ": " : "", CabIsLibraryStatus(sub) ? CabStatusText(sub) : "",
                why.empty() ? "" : ": ", why.c_str());
        int exit = kivctl::exitFor(sub);
        if (exit > rc) rc = exit;
    }
    printf("%s\n", answers.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return rc;
}

}  // namespace

KIVCTL_COMMAND("multi", "send several requests at once through the proxy", kUsageText, run);
