// kivctl version: the proxy's version report with named fields.
#include <cstdio>

#include <nlohmann/json.hpp>

#include "value/VariantJson.h"
#include "tools/kivctl/Connection.h"
#include "tools/kivctl/ProxyRequest.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

namespace {

int run(int argc, char** argv);

const char* const kUsageText =
    "usage: kivctl version [--json] [OPTIONS]\n"
    "Asks the proxy's \"my-KIV_GetVersion\" and prints its six fields by name:\n"
    "placeholder, version, time, timeZone, performanceIndex, platform. Fields the\n"
    "proxy leaves empty (the placeholder always; a performance index that was\n"
    "never measured) are left out; --json keeps all six, empty ones as null or \"\".\n"
    "Options:\n"
    "  --json               print one JSON object\n";

const kivctl::Command kVersion{"version", "show the installed version, time, zone and platform", kUsageText, run};
const char* const kFields[] = {"placeholder", "version", "time", "timeZone", "performanceIndex", "platform"};

int run(int argc, char** argv) {
    kivctl::Args args;
    kivctl::declareConnectionOptions(args);
    args.flag("json");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kVersion, args.error());
    if (args.help()) {
        printf("%s%s", kUsageText, kivctl::kConnectionUsage);
        return kivctl::kOk;
    }
    if (!args.positional().empty()) return kivctl::usageError(kVersion, "takes no arguments");
    kivctl::ProxySession session(args);
    if (!session.ok()) return session.failureExit();
    tagVARIANT in, out;
    VariantInit(&in);
    VariantInit(&out);
    int status = session.request("my-KIV_GetVersion", in, &out);
    if (status != 0) {
        if (status > 0) fprintf(stderr, "kivctl version: the proxy answered status %d\n", status);
        VariantClear(&out);
        return kivctl::exitFor(status);
    }
    nlohmann::json report = nlohmann::json::object();
    nlohmann::json all = VariantToJsonValue(out);
    for (size_t i = 0; i < 6; ++i) report[kFields[i]] = (all.is_array() && i < all.size()) ? all[i] : nullptr;
    // People read the time as local text; the JSON form keeps the exact date.
    std::string when;
    try {
        when = TimeUtils::FormatTime2(VUtil::GetDateElement(out, 2));
    } catch (const std::exception&) {
    }
    if (args.has("json")) {
        printf("%s\n", report.dump(2).c_str());
    } else {
        for (const char* f : kFields) {
            const nlohmann::json& v = report[f];
            std::string text = v.is_string() ? v.get<std::string>() : v.is_null() ? "" : v.dump();
            if (v.is_object() && v.contains("v") && v["v"].is_string()) text = v["v"].get<std::string>();
            if (std::string(f) == "time" && !when.empty()) text = when;
            if (text.empty()) continue;
            printf("%-17s %s\n", (std::string(f) + ":").c_str(), text.c_str());
        }
    }
    VariantClear(&out);
    return kivctl::kOk;
}

}  // namespace

KIVCTL_COMMAND("version", "show the installed version, time, zone and platform", kUsageText, run);
