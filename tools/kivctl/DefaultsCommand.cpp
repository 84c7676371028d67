// kivctl defaults: read, write and delete settings in the per-user
// preferences domains, in the manner of the macOS "defaults" tool.
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "host/CRegistry.h"
#include "host/Preferences.h"
#include "host/PreferencesCodec.h"
#include "host/SettingsSecrets.h"
#include "tools/kivctl/Command.h"

namespace {

const char kUsage[] =
    "usage: kivctl defaults read DOMAIN [KEY]\n"
    "       kivctl defaults write DOMAIN KEY [-int|-bool|-string] VALUE\n"
    "       kivctl defaults delete DOMAIN [KEY]\n"
    "       kivctl defaults domains\n"
    "\n"
    "DOMAIN is a domain identifier (com.kiv-foundry.kiv) or a key path in\n"
    "backslash form ('Software\\Kiv Foundry\\Kiv\\Config'), which names the\n"
    "same domain as the program's settings store does.\n"
    "\n"
    "read DOMAIN KEY   prints the value: integers in decimal, booleans as 1 or 0,\n"
    "                  strings as their bytes; then a line end.\n"
    "read DOMAIN       prints the whole domain as a JSON object.\n"
    "write             stores VALUE with the given type (default -string);\n"
    "                  -bool takes true/false, yes/no or 1/0. An empty\n"
    "                  credential (a password or token) is refused.\n"
    "delete            removes one key, or the whole domain.\n"
    "domains           lists the domains that exist, one per line.\n"
    "\n"
    "Settings live in $XDG_CONFIG_HOME/kivfoundry (or ~/.config/kivfoundry).\n"
    "Exit status: 0 ok, 1 no such domain or key, 2 failure, 64 usage error.\n";

const kivctl::Command& self();

CStdStr domainOf(const std::string& arg) {
    if (arg.find('\\') != std::string::npos) return CRegistry::getInstance()->createKey(arg);
    return CStdStr(arg);
}

bool parseInt(const std::string& text, int32_t& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long long v = strtoll(text.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX) return false;
    out = static_cast<int32_t>(v);
    return true;
}

bool parseBool(const std::string& text, bool& out) {
    CStdStr t(text);
    t.MakeLower();
    if (t == "true" || t == "yes" || t == "1") {
        out = true;
        return true;
    }
    if (t == "false" || t == "no" || t == "0") {
        out = false;
        return true;
    }
    return false;
}

int failure(const CStdStr& what) {
    fprintf(stderr, "kivctl defaults: %s\n", what.c_str());
    return kivctl::kFailure;
}

int readCommand(const std::vector<std::string>& pos) {
    if (pos.size() < 2 || pos.size() > 3) return kivctl::usageError(self(), "read takes DOMAIN [KEY]");
    CStdStr domain = domainOf(pos[1]);
    Preferences::Domain all;
    CStdStr error;
    if (!Preferences::Load(domain, all, &error)) return failure(error);
    if (pos.size() == 2) {
        if (all.empty() && access(Preferences::DomainFile(domain).c_str(), F_OK) != 0) {
            fprintf(stderr, "kivctl defaults: domain %s does not exist\n", domain.c_str());
            return kivctl::kStatus;
        }
        nlohmann::json j = nlohmann::json::object();
        for (const auto& e : all) j[e.first] = PreferencesCodec::encodeValue(e.second);
        printf("%s\n", j.dump(4).c_str());
        return kivctl::kOk;
    }
    auto it = all.find(pos[2]);
    if (it == all.end()) {
        fprintf(stderr, "kivctl defaults: the domain/default pair of (%s, %s) does not exist\n", domain.c_str(),
                pos[2].c_str());
        return kivctl::kStatus;
    }
    const Preferences::Value& v = it->second;
    switch (v.type) {
    case Preferences::Value::Bool: printf("%d\n", v.b ? 1 : 0); break;
    case Preferences::Value::Int: printf("%d\n", v.i); break;
    case Preferences::Value::String:
        fwrite(v.s.data(), 1, v.s.size(), stdout);
        fputc('\n', stdout);
        break;
    }
    return kivctl::kOk;
}

int writeCommand(const std::vector<std::string>& pos) {
    if (pos.size() != 4 && pos.size() != 5)
        return kivctl::usageError(self(), "write takes DOMAIN KEY [-int|-bool|-string] VALUE");
    std::string type = pos.size() == 5 ? pos[3] : "-string";
    const std::string& text = pos.back();
    Preferences::Value value;
    if (type == "-int" || type == "-integer") {
        int32_t i;
        if (!parseInt(text, i)) return kivctl::usageError(self(), "'" + text + "' is not a 32-bit integer");
        value = Preferences::Value::ofInt(i);
    } else if (type == "-bool" || type == "-boolean") {
        bool b;
        if (!parseBool(text, b)) return kivctl::usageError(self(), "'" + text + "' is not a boolean");
        value = Preferences::Value::ofBool(b);
    } else if (type == "-string") {
        // An empty credential is a mistake (a password file that was not
        // read, say), never a password: the program would then connect
        // without one and be refused.
        if (SettingsSecrets::IsSecretName(pos[2]) && text.find_first_not_of(" \t\r\n") == std::string::npos)
            return kivctl::usageError(self(), "refusing to store an empty " + pos[2] +
                                                  "; to remove it: kivctl defaults delete DOMAIN " + pos[2]);
        value = Preferences::Value::ofString(text);
    } else {
        return kivctl::usageError(self(), "unknown type '" + type + "' (use -int, -bool or -string)");
    }
    CStdStr error;
    if (!Preferences::Set(domainOf(pos[1]), pos[2], value, &error)) return failure(error);
    return kivctl::kOk;
}

int deleteCommand(const std::vector<std::string>& pos) {
    if (pos.size() < 2 || pos.size() > 3) return kivctl::usageError(self(), "delete takes DOMAIN [KEY]");
    CStdStr domain = domainOf(pos[1]);
    bool existed = false;
    CStdStr error;
    bool ok = pos.size() == 2 ? Preferences::RemoveDomain(domain, &existed, &error)
                              : Preferences::Remove(domain, pos[2], &existed, &error);
    if (!ok) return failure(error);
    if (!existed) {
        if (pos.size() == 2) fprintf(stderr, "kivctl defaults: domain %s does not exist\n", domain.c_str());
        else
            fprintf(stderr, "kivctl defaults: the domain/default pair of (%s, %s) does not exist\n", domain.c_str(),
                    pos[2].c_str());
        return kivctl::kStatus;
    }
    return kivctl::kOk;
}

int run(int argc, char** argv) {
    kivctl::Args args;
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(self(), args.error());
    if (args.help()) {
        fputs(kUsage, stdout);
        return kivctl::kOk;
    }
    const std::vector<std::string>& pos = args.positional();
    if (pos.empty()) return kivctl::usageError(self(), "missing action (read, write, delete or domains)");
    const std::string& action = pos[0];
    if (action == "read") return readCommand(pos);
    if (action == "write") return writeCommand(pos);
    if (action == "delete") return deleteCommand(pos);
    if (action == "domains") {
        if (pos.size() != 1) return kivctl::usageError(self(), "domains takes no arguments");
        for (const CStdStr& d : Preferences::Domains()) printf("%s\n", d.c_str());
        return kivctl::kOk;
    }
    return kivctl::usageError(self(), "unknown action '" + action + "'");
}

const kivctl::Command kCommand = {"defaults", "read, write and delete settings", kUsage, run};
const kivctl::Command& self() { return kCommand; }

}  // namespace

KIVCTL_COMMAND("defaults", "read, write and delete settings", kUsage, run);
