// kivctl decode: turns captured CAB1 bytes back into the JSON form.
#include <cctype>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <string>

#include "value/Cab1.h"
#include "value/VariantJson.h"
#include "tools/kivctl/Command.h"

namespace {

const char kUsage[] =
    "usage: kivctl decode [--raw] [--pretty | --text]\n"
    "\n"
    "Reads CAB1 bytes from standard input, as hex (whitespace ignored, an\n"
    "optional 0x prefix allowed) or as raw bytes with --raw, and prints the\n"
    "variant in its JSON form on one line. --pretty indents the JSON;\n"
    "--text prints the indented rendering used in logs instead.\n"
    "\n"
    "Exit status: 0 ok, 2 the bytes are not a valid CAB1 variant (the message\n"
    "names the byte offset), 64 usage error (including input that is not hex).\n";

int run(int argc, char** argv);
const kivctl::Command kCommand = {"decode", "print a CAB1 variant from standard input as JSON", kUsage, run};
KIVCTL_COMMAND(kCommand.name, kCommand.summary, kCommand.usage, run);

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

bool unhex(const std::string& text, std::string* out, std::string* error) {
    std::string digits;
    digits.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (isspace(static_cast<unsigned char>(c))) continue;
        if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X') && digits.empty()) {
            ++i;
            continue;
        }
        if (hexDigit(c) < 0) {
            *error = "not a hex digit at input position " + std::to_string(i);
            return false;
        }
        digits += c;
    }
    if (digits.size() % 2) {
        *error = "odd number of hex digits";
        return false;
    }
    out->resize(digits.size() / 2);
    for (size_t i = 0; i < out->size(); ++i)
        (*out)[i] = char(hexDigit(digits[2 * i]) << 4 | hexDigit(digits[2 * i + 1]));
    return true;
}

int run(int argc, char** argv) {
    kivctl::Args args;
    args.flag("raw");
    args.flag("pretty");
    args.flag("text");
    if (!args.parse(argc, argv, 1)) return kivctl::usageError(kCommand, args.error());
    if (args.help()) {
        fputs(kUsage, stdout);
        return kivctl::kOk;
    }
    if (!args.positional().empty()) return kivctl::usageError(kCommand, "reads standard input; takes no arguments");
    if (args.has("pretty") && args.has("text"))
        return kivctl::usageError(kCommand, "--pretty and --text exclude each other");

    std::string input(std::istreambuf_iterator<char>(std::cin), {});
    std::string bytes, error;
    if (args.has("raw")) bytes.swap(input);
    else if (!unhex(input, &bytes, &error)) return kivctl::usageError(kCommand, error);

    tagVARIANT v;
    if (!Cab1Decode(bytes.data(), bytes.size(), &v, &error)) {
        fprintf(stderr, "kivctl decode: %s\n", error.c_str());
        return kivctl::kFailure;
    }
    std::string out = args.has("text") ? VariantToText(v) : VariantToJson(v, args.has("pretty") ? 2 : -1);
    VariantClear(&v);
    out += '\n';
    if (fwrite(out.data(), 1, out.size(), stdout) != out.size() || fflush(stdout) != 0) return kivctl::kFailure;
    return kivctl::kOk;
}

}  // namespace
