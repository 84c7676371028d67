#include "tools/kivctl/DisplayJson.h"

#include <cmath>

#include "value/VariantJson.h"
#include "variant/TimeUtils.h"
#include "variant/VUtil.h"

namespace kivctl {

namespace {

// A number of days that falls on a whole second (to within a microsecond) as
// local time text; other values stay as they are.
void dateAsText(nlohmann::json* value) {
    if (!value->is_number()) return;
    const double days = value->get<double>();
    const long seconds = VUtil::DateToTime(days);
    if (seconds == -1 || std::fabs(VUtil::TimeToDate(seconds) - days) * 86400.0 > 1e-6) return;
    *value = std::string(TimeUtils::FormatTime2(seconds));
}

void walk(nlohmann::json* j) {
    if (j->is_array()) {
        for (auto& element : *j) walk(&element);
        return;
    }
    if (!j->is_object() || !j->contains("$vt") || !j->contains("v")) return;
    const nlohmann::json& type = (*j)["$vt"];
    nlohmann::json& v = (*j)["v"];
    if (type == "DATE") {
        dateAsText(&v);
    } else if (type == "DATE[]" && v.is_array()) {
        for (auto& element : v) dateAsText(&element);
    }
}

}  // namespace

nlohmann::json displayJson(const tagVARIANT& v) {
    nlohmann::json j = VariantToJsonValue(v);
    walk(&j);
    return j;
}

}  // namespace kivctl
