// kivctl: the command-line client of the KivRequestProxy system.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/kivctl/Command.h"

namespace {

// Options of the commands that talk to the directory, which may also come
// before the command (as with git or busctl): they are handed to it.
const char* const kGlobalOptions[] = {"--server", "--host", "--user", "--password-file", "--token", "--timeout"};

void overview(FILE* to) {
    fprintf(to, "usage: kivctl [--version] [DIRECTORY OPTIONS] COMMAND [ARGS...]\n\nCommands:\n");
    for (const auto& c : kivctl::commands()) fprintf(to, "  %-10s %s\n", c.first.c_str(), c.second.summary);
    fprintf(to,
            "\nThe directory options (--server, --host, --user, --password-file, --token,\n"
            "--timeout) go before or after the command. 'kivctl COMMAND --help' describes\n"
            "one command and its options.\n");
}

// The global option `arg` names ("--server" or "--server=..."), or null.
const char* globalOption(const char* arg) {
    for (const char* name : kGlobalOptions) {
        const size_t n = strlen(name);
        if (!strncmp(arg, name, n) && (arg[n] == '\0' || arg[n] == '=')) return name;
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<char*> global;
    int first = 1;
    for (; first < argc && argv[first][0] == '-'; ++first) {
        const char* arg = argv[first];
        if (!strcmp(arg, "--version")) {
            printf("kivctl %s\n", KIVCTL_VERSION);
            return kivctl::kOk;
        }
        if (!strcmp(arg, "--help") || !strcmp(arg, "-h")) break;
        const char* name = globalOption(arg);
        if (!name) {
            fprintf(stderr, "kivctl: unknown option '%s'\n\n", arg);
            overview(stderr);
            return kivctl::kUsage;
        }
        global.push_back(argv[first]);
        if (arg[strlen(name)] == '=') continue;
        if (first + 1 >= argc) {
            fprintf(stderr, "kivctl: option '%s' needs a value\n", arg);
            return kivctl::kUsage;
        }
        global.push_back(argv[++first]);
    }
    const int left = argc - first;
    char** rest = argv + first;
    if (left < 1 || !strcmp(rest[0], "--help") || !strcmp(rest[0], "-h") || !strcmp(rest[0], "help")) {
        if (left >= 2 && !strcmp(rest[0], "help")) {
            auto it = kivctl::commands().find(rest[1]);
            if (it != kivctl::commands().end()) {
                fputs(it->second.usage, stdout);
                return kivctl::kOk;
            }
        }
        overview(left < 1 ? stderr : stdout);
        return left < 1 ? kivctl::kUsage : kivctl::kOk;
    }
    auto it = kivctl::commands().find(rest[0]);
    if (it == kivctl::commands().end()) {
        fprintf(stderr, "kivctl: unknown command '%s'\n\n", rest[0]);
        overview(stderr);
        return kivctl::kUsage;
    }
    // The command's own arguments after the global options: the command's
    // parser takes options anywhere before "--".
    std::vector<char*> args{rest[0]};
    args.insert(args.end(), global.begin(), global.end());
    args.insert(args.end(), rest + 1, rest + left);
    args.push_back(nullptr);
    return it->second.run(static_cast<int>(args.size()) - 1, args.data());
}
