// kivctl: the command-line client of the KivRequestProxy system.
#include <cstdio>
#include <cstring>

#include "tools/kivctl/Command.h"

namespace {

void overview(FILE* to) {
    fprintf(to, "usage: kivctl COMMAND [ARGS...]\n\nCommands:\n");
    for (const auto& c : kivctl::commands()) fprintf(to, "  %-10s %s\n", c.first.c_str(), c.second.summary);
    fprintf(to, "\n'kivctl COMMAND --help' describes one command.\n");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") || !strcmp(argv[1], "help")) {
        if (argc >= 3 && !strcmp(argv[1], "help")) {
            auto it = kivctl::commands().find(argv[2]);
            if (it != kivctl::commands().end()) { fputs(it->second.usage, stdout); return kivctl::kOk; }
        }
        overview(argc < 2 ? stderr : stdout);
        return argc < 2 ? kivctl::kUsage : kivctl::kOk;
    }
    auto it = kivctl::commands().find(argv[1]);
    if (it == kivctl::commands().end()) {
        fprintf(stderr, "kivctl: unknown command '%s'\n\n", argv[1]);
        overview(stderr);
        return kivctl::kUsage;
    }
    return it->second.run(argc - 1, argv + 1);
}
