// kivctl config: the configuration values the proxy reports.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "host/SettingsSecrets.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl config [--json] [OPTIONS]\n"
    "Asks the proxy's \"GetKivConfig\" and prints every configuration value,\n"
    "sorted by name, as NAME = VALUE lines (integers show as one character of\n"
    "their low 8 bits, as the proxy reports them). Values whose name ends in\n"
    "token, password or an nkey suffix show as ********, even from a proxy\n"
    "that sends them.\n"
    "Options:\n"
    "  --json               print one JSON object\n";

const kivctl::Command kConfig{"config", "show the proxy's configuration values", kUsageText, run};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.flag("json");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kConfig, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (!args.positional().empty()) return kivctl::usageError(kConfig, "takes no arguments");
    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    CLocalVariant in, out;
    int status = session.request("GetKivConfig", in.get(), out.ptr());
    if (status != 0) return kivctl::exitFor(status);
    nlohmann::json all = nlohmann::json::object();
    try {
        int n = VUtil::GetArrayLengthEmpty(out.get());
        for (int i = 0; i < n; ++i) {
            CLocalVariant pair;
            VUtil::GetElement(out.get(), i, pair.get());
            CStdStr name, value;
            VUtil::GetElement(pair.get(), 0, name);
            VUtil::GetElement(pair.get(), 1, value);
            value = SettingsSecrets::Shown(name, value);
            if (args.has("json"))
                all[name] = value;
            else
                printf("%s = %s\n", name.c_str(), value.c_str());
        }
    } catch (const std::exception&) {
        fprintf(stderr, "kivctl config: unexpected answer from the proxy\n");
        return kivctl::kFailure;
    }
    if (args.has("json")) printf("%s\n", all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("config", "show the proxy's configuration values", kUsageText, run);
