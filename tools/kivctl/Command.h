// The frame of kivctl: subcommands register themselves with KIVCTL_COMMAND and
// share one argument parser. Exit statuses: 0 success, 1 the request answered
// a non-zero status, 2 a failure of the library or the system, 64 a usage error.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace kivctl {

enum ExitCode { kOk = 0, kStatus = 1, kFailure = 2, kUsage = 64 };

// Parsed command line of one subcommand. Options are declared before parsing;
// "--name value", "--name=value" and, for flags, "--name" are accepted, as are
// one-letter aliases ("-o value"). "--" ends the options.
class Args {
public:
    // Declares an option that takes a value, with an optional one-letter alias.
    void value(const std::string& name, char alias = 0);
    // Declares an option without a value.
    void flag(const std::string& name, char alias = 0);
    // Parses argv[first..argc); false (with error()) on an unknown option or a
    // missing value. "--help"/"-h" is always a known flag.
    bool parse(int argc, char** argv, int first);

    bool has(const std::string& name) const { return m_values.count(name) != 0; }
    std::string get(const std::string& name, const std::string& fallback = "") const;
    const std::vector<std::string>& positional() const { return m_positional; }
    const std::string& error() const { return m_error; }
    bool help() const { return has("help"); }

private:
    std::map<std::string, bool> m_known;  // name -> takes a value
    std::map<char, std::string> m_alias;
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_positional;
    std::string m_error;
};

struct Command {
    const char* name;
    const char* summary;  // one line for the overview
    const char* usage;    // the full --help text
    // argv[0] is the subcommand's name.
    int (*run)(int argc, char** argv);
};

void registerCommand(const Command& c);
const std::map<std::string, Command>& commands();

// Prints "kivctl NAME: message" and the usage line to stderr; returns kUsage.
int usageError(const Command& c, const std::string& message);

struct Registrar {
    explicit Registrar(const Command& c) { registerCommand(c); }
};

}  // namespace kivctl

#define KIVCTL_CONCAT2(a, b) a##b
#define KIVCTL_CONCAT(a, b) KIVCTL_CONCAT2(a, b)
#define KIVCTL_COMMAND(name, summary, usage, fn) \
    static ::kivctl::Registrar KIVCTL_CONCAT(kivctl_registrar_, __LINE__)({name, summary, usage, fn})
