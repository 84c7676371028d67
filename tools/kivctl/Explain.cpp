#include "tools/kivctl/Explain.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "satellite/AdminServices.h"
#include "tools/kivctl/ProxyRequest.h"

namespace kivctl {

namespace {

size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            const size_t above = row[j];
            const bool same = tolower(static_cast<unsigned char>(a[i - 1])) ==
                              tolower(static_cast<unsigned char>(b[j - 1]));
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (same ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

// Satellite name -> its services, from the discovery answers; false when
// the directory did not let kivctl ask.
bool discoverServices(CabSatellite& client, std::map<std::string, std::set<std::string>>* out) {
    std::map<std::string, std::set<std::string>>& found = *out;
    std::vector<std::string> replies;
    // Only after a failure: a slow satellite (a loaded machine) is worth a longer wait.
    if (client.Discover("INFO", nullptr, 3000, &replies) != 0) return false;
    for (const std::string& reply : replies) {
        const nlohmann::json j = nlohmann::json::parse(reply, nullptr, false);
        if (!j.is_object() || !j.contains("name") || !j["name"].is_string()) continue;
        auto& services = found[j["name"].get<std::string>()];
        if (j.contains("endpoints") && j["endpoints"].is_array())
            for (const auto& e : j["endpoints"])
                if (e.is_object() && e.contains("name") && e["name"].is_string()) services.insert(e["name"]);
    }
    return true;
}

std::string didYouMean(const std::string& name, const std::vector<std::string>& names) {
    const std::string nearest = nearestName(name, names);
    return nearest.empty() ? std::string() : "; did you mean '" + nearest + "'?";
}

// The services only the directory's admin role may call.
bool forAdmins(const std::string& service) {
    for (const char* admin : kAdminServices)
        if (service == admin) return true;
    return false;
}

struct Layout {
    const char* service;
    const char* form;
    std::vector<const char*> required;  // the names of the elements the service needs
};

const Layout kLayouts[] = {
    {"QueryFileSize", "[medium id, [item, ...]]", {"medium id", "item list"}},
    {"GetFile", "[path, offset?, max?]", {"path"}},
    {"my-KIV_TailLog", "[path, count]", {"path", "count"}},
    {"CreateZip", "[context, item, ...]", {"context"}},
    {"DeleteTempFile", "[path]", {"path"}},
};

}  // namespace

std::string nearestName(const std::string& name, const std::vector<std::string>& names) {
    std::string best;
    size_t bestDistance = std::max<size_t>(1, name.size() / 3) + 1;
    for (const std::string& candidate : names) {
        const size_t d = editDistance(name, candidate);
        if (d < bestDistance) {
            bestDistance = d;
            best = candidate;
        }
    }
    return best;
}

std::string explainFailure(CabSatellite& client, const std::string& target, const std::string& service, int status,
                           const std::string& user) {
    const size_t at = target.find('@');
    const std::string satellite = target.substr(0, at);
    if (status == CAB_E_PERMISSION_DENIED) {
        std::string who = user.empty() ? "this client" : "user '" + user + "'";
        return "the directory does not let " + who + " call " + service + " of " + satellite +
               (forAdmins(service) ? " (an admin credential is needed: --user and --password-file)"
                                   : " (another credential is needed: --user and --password-file)");
    }
    if (status != CAB_E_NO_SUCH_SERVICE && status != CAB_E_CONNECTION_LOST && status != CAB_E_TIMEOUT) return "";
    // Asked once per run: a group of failed sub-requests waits for one round, not one each.
    static std::map<std::string, std::set<std::string>> found;
    static bool asked = false, answered = false;
    if (!asked && client.isConnected()) {
        asked = true;
        answered = discoverServices(client, &found);
    }
    if (!answered) return "";
    auto it = found.find(satellite);
    if (status != CAB_E_NO_SUCH_SERVICE) {
        return it == found.end() ? endedText(satellite, service) : "";
    }
    if (it == found.end()) {
        std::vector<std::string> names;
        for (const auto& f : found) names.push_back(f.first);
        const std::string guess = didYouMean(satellite, names);
        if (!guess.empty()) return "no satellite '" + satellite + "'" + guess;
        return "no satellite '" + satellite + "' is running on the directory ('kivctl list' shows those that are)";
    }
    if (!it->second.count(service)) {
        return "satellite '" + satellite + "' has no service '" + service + "'" +
               didYouMean(service, std::vector<std::string>(it->second.begin(), it->second.end()));
    }
    if (at != std::string::npos) return "no " + satellite + " serves host '" + target.substr(at + 1) + "'";
    return "";
}

std::string endedText(const std::string& satellite, const std::string& service) {
    return satellite + " ended during the request: it no longer answers on the directory" +
           (service == "GenerateCrash" ? " (GenerateCrash makes it crash; 'kivctl crashes' lists the report)"
                                       : " (crashed or stopped; 'kivctl crashes' lists crash reports)");
}

std::string missingArgument(const std::string& target, const std::string& service, const tagVARIANT& in) {
    if (target.substr(0, target.find('@')) != kProxyName) return "";
    for (const Layout& l : kLayouts) {
        if (service != l.service) continue;
        if (in.vt != (VT_ARRAY | VT_VARIANT)) return service + " takes an array " + l.form + "; the input is not one";
        const size_t given = in.parray ? in.parray->rgsabound[0].cElements : 0;
        if (given >= l.required.size()) return "";
        return service + " takes " + l.form + ": the " + l.required[given] + " (element " + std::to_string(given) +
               ") is missing";
    }
    return "";
}

}  // namespace kivctl
