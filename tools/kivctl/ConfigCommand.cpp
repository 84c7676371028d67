// kivctl config: the configuration values the proxy reports.
#include <cstdio>
#include <fstream>
#include <map>
#include <string>

#include <nlohmann/json.hpp>

#include "host/Preferences.h"
#include "host/SettingsSecrets.h"
#include "tools/kivctl/Checkout.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl config [--json] [OPTIONS]\n"
    "Asks the proxy's \"GetKivConfig\" and prints every configuration value,\n"
    "sorted by name, as NAME = VALUE lines. The proxy reports an integer as one\n"
    "character, the one of its low 8 bits; kivctl prints the number instead when\n"
    "a settings file it can read holds that integer (the caller's own, then under\n"
    "make run the proxy's in var/settings/proxy), and otherwise says so under\n"
    "the table. Values whose name ends in token, password or an nkey suffix show\n"
    "as ********, even from a proxy that sends them.\n"
    "Options:\n"
    "  --json               print one JSON object (integers found as numbers)\n";

const kivctl::Command kConfig{"config", "show the proxy's configuration values", kUsageText, run};

const char* const kDomain = "com.kiv-foundry.kiv.config";

// The integer values of a settings file of the configuration domain.
void readIntegers(const std::string& file, std::map<std::string, long long>* out) {
    std::ifstream in(file);
    if (!in) return;
    nlohmann::json j = nlohmann::json::parse(in, nullptr, false);
    if (!j.is_object()) return;
    for (auto it = j.begin(); it != j.end(); ++it)
        if (it.value().is_number_integer() && !out->count(it.key())) (*out)[it.key()] = it.value().get<long long>();
}

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
    // Where the proxy's integers can be read: the caller's settings (the same
    // as the proxy's on one machine), then those of make run's proxy.
    std::map<std::string, long long> integers;
    readIntegers(Preferences::DomainFile(kDomain), &integers);
    std::string var = kivctl::makeRunFolder();
    if (!var.empty()) readIntegers(var + "/settings/proxy/kivfoundry/" + kDomain + ".json", &integers);

    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    CLocalVariant in, out;
    int status = session.request("GetKivConfig", in.get(), out.ptr());
    if (status != 0) {
        if (!CabIsLibraryStatus(status)) fprintf(stderr, "kivctl config: GetKivConfig answered %d\n", status);
        return kivctl::exitFor(status);
    }
    nlohmann::json all = nlohmann::json::object();
    bool unexplained = false;
    try {
        int n = VUtil::GetArrayLengthEmpty(out.get());
        for (int i = 0; i < n; ++i) {
            CLocalVariant pair;
            VUtil::GetElement(out.get(), i, pair.get());
            CStdStr name, value;
            VUtil::GetElement(pair.get(), 0, name);
            VUtil::GetElement(pair.get(), 1, value);
            value = SettingsSecrets::Shown(name, value);
            nlohmann::json shown = std::string(value);
            auto known = integers.find(name);
            if (value.size() == 1 && known != integers.end() &&
                static_cast<unsigned char>(value[0]) == static_cast<unsigned char>(known->second & 0xff))
                shown = known->second;
            else if (value.size() == 1) unexplained = true;
            if (args.has("json")) all[name] = shown;
            else
                printf("%s = %s\n", name.c_str(),
                       shown.is_string() ? shown.get<std::string>().c_str() : shown.dump().c_str());
        }
    } catch (const std::exception&) {
        fprintf(stderr, "kivctl config: unexpected answer from the proxy\n");
        return kivctl::kFailure;
    }
    if (args.has("json")) printf("%s\n", all.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    else if (unexplained)
        printf("(a one-character value may be an integer: the proxy sends only the character of its low 8 bits)\n");
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("config", "show the proxy's configuration values", kUsageText, run);
