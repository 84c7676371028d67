// kivctl encode: turns the JSON form of a variant into its CAB1 bytes.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

#include "value/Cab1.h"
#include "value/VariantJson.h"
#include "tools/kivctl/Command.h"
#include "tools/kivctl/JsonArgument.h"

namespace {

const char kUsage[] =
    "usage: kivctl encode [--raw] [JSON]\n"
    "\n"
    "Reads a variant in its JSON form (the argument, or standard input when it\n"
    "is absent or '-') and prints its CAB1 encoding as lowercase hex on one\n"
    "line, or as raw bytes with --raw. Example:\n"
    "  kivctl encode '[1,\"a\",{\"$vt\":\"I8\",\"v\":5},null]' | kivctl decode\n"
    "\n"
    "Exit status: 0 ok, 2 the value cannot be encoded, 64 usage error\n"
    "(including JSON that does not parse or does not describe a variant).\n";

int run(int argc, char** argv);
const kivctl::Command kCommand = {"encode", "print the CAB1 bytes of a variant given as JSON", kUsage, run};
KIVCTL_COMMAND(kCommand.name, kCommand.summary, kCommand.usage, run);

int run(int argc, char** argv) {
    kivctl::Args args;
    args.flag("raw");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kCommand, args.error());
    if (args.help()) {
        fputs(kUsage, stdout);
        return kivctl::kOk;
    }
    const auto& pos = args.positional();
    if (pos.size() > 1) return kivctl::usageError(kCommand, "takes one JSON argument");
    std::string text;
    if (pos.empty() || pos[0] == "-") text.assign(std::istreambuf_iterator<char>(std::cin), {});
    else text = pos[0];

    tagVARIANT v;
    std::string error;
    if (!kivctl::readJsonArgument(text, &v, &error)) return kivctl::usageError(kCommand, error);
    int status = kivctl::kOk;
    {
        Cab1Encoding enc(v);
        if (!enc.ok()) {
            fprintf(stderr, "kivctl encode: %s\n", enc.error().c_str());
            status = kivctl::kFailure;
        } else if (args.has("raw")) {
            std::string bytes = enc.str();
            if (fwrite(bytes.data(), 1, bytes.size(), stdout) != bytes.size()) status = kivctl::kFailure;
        } else {
            static const char digits[] = "0123456789abcdef";
            std::string bytes = enc.str();
            std::string hex;
            hex.reserve(bytes.size() * 2 + 1);
            for (unsigned char c : bytes) {
                hex += digits[c >> 4];
                hex += digits[c & 15];
            }
            hex += '\n';
            if (fwrite(hex.data(), 1, hex.size(), stdout) != hex.size()) status = kivctl::kFailure;
        }
    }
    VariantClear(&v);
    if (fflush(stdout) != 0) status = kivctl::kFailure;
    return status;
}

}  // namespace
