#include "tools/kivctl/Command.h"

#include <cstdio>

namespace kivctl {

namespace {
std::map<std::string, Command>& registry() {
    static std::map<std::string, Command> r;
    return r;
}
}  // namespace

void registerCommand(const Command& c) { registry()[c.name] = c; }
const std::map<std::string, Command>& commands() { return registry(); }

int usageError(const Command& c, const std::string& message) {
    fprintf(stderr, "kivctl %s: %s\n", c.name, message.c_str());
    fprintf(stderr, "Try 'kivctl %s --help'.\n", c.name);
    return kUsage;
}

void Args::value(const std::string& name, char alias) {
    m_known[name] = true;
    if (alias) m_alias[alias] = name;
}

void Args::flag(const std::string& name, char alias) {
    m_known[name] = false;
    if (alias) m_alias[alias] = name;
}

std::string Args::get(const std::string& name, const std::string& fallback) const {
    auto it = m_values.find(name);
    return it == m_values.end() ? fallback : it->second;
}

bool Args::parse(int argc, char** argv, int first) {
    m_known.emplace("help", false);
    m_alias.emplace('h', "help");
    bool optionsDone = false;
    for (int i = first; i < argc; ++i) {
        std::string a = argv[i];
        if (optionsDone || a.size() < 2 || a[0] != '-' || (a[1] >= '0' && a[1] <= '9')) {
            m_positional.push_back(a);
            continue;
        }
        if (a == "--") {
            optionsDone = true;
            continue;
        }
        std::string name, inlineValue;
        bool hasInline = false;
        if (a[1] == '-') {
            name = a.substr(2);
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                inlineValue = name.substr(eq + 1);
                name = name.substr(0, eq);
                hasInline = true;
            }
        } else if (a.size() == 2 && m_alias.count(a[1])) {
            name = m_alias[a[1]];
        } else {
            // Single-dash words (e.g. "-int") are positional for commands that take them.
            m_positional.push_back(a);
            continue;
        }
        auto known = m_known.find(name);
        if (known == m_known.end()) {
            m_error = "unknown option '" + a + "'";
            return false;
        }
        if (!known->second) {
            if (hasInline) {
                m_error = "option '--" + name + "' takes no value";
                return false;
            }
            m_values[name] = "1";
        } else if (hasInline) {
            m_values[name] = inlineValue;
        } else if (i + 1 < argc) {
            m_values[name] = argv[++i];
        } else {
            m_error = "option '" + a + "' needs a value";
            return false;
        }
    }
    return true;
}

}  // namespace kivctl
