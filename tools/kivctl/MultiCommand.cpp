// kivctl multi [JSON | -]: one "MultiRequest" of several sub-requests.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

#include <nlohmann/json.hpp>

#include "cab/VariantJson.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl multi [OPTIONS] [JSON | -]\n"
    "Sends the sub-requests [[SATELLITE, SERVICE, INPUT], ...] (JSON form; \"-\" or\n"
    "nothing reads them from standard input) as one \"MultiRequest\" to the proxy,\n"
    "which runs them in parallel, and prints one {\"status\", \"out\"} per\n"
    "sub-request, in order.\n"
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
    else
        text = args.positional()[0];
    CLocalVariant in, out;
    std::string error;
    if (!VariantFromJson(text, in.ptr(), &error)) return kivctl::usageError(kMulti, "bad JSON: " + error);

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    int status = session.request("MultiRequest", in.get(), out.ptr());
    if (status != 0) {
        if (status > 0) fprintf(stderr, "kivctl multi: the proxy answered status %d\n", status);
        return kivctl::exitFor(status);
    }
    nlohmann::json answers = nlohmann::json::array();
    nlohmann::json all = VariantToJsonValue(out.get());
    for (const auto& pair : all) {
        nlohmann::json one;
        nlohmann::json codes = pair.is_array() && !pair.empty() ? pair[0] : nlohmann::json();
        one["status"] = codes.is_array() && !codes.empty() ? codes[0] : nullptr;
        one["out"] = pair.is_array() && pair.size() > 1 ? pair[1] : nullptr;
        answers.push_back(one);
    }
    printf("%s\n", answers.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("multi", "send several requests at once through the proxy", kUsageText, run);
