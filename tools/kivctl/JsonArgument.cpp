#include "tools/kivctl/JsonArgument.h"

#include <cctype>

#include <nlohmann/json.hpp>

#include "value/VariantJson.h"

namespace kivctl {

namespace {

std::string hintAt(const std::string& text, size_t at) {
    if (at >= text.size()) return "the text ends early: a closing ], } or \" is missing";
    const char c = text[at];
    size_t before = at;
    while (before > 0 && isspace(static_cast<unsigned char>(text[before - 1]))) --before;
    if (c == '\'')
        return "strings take double quotes (\"...\"); quote the whole argument with single quotes for the shell";
    if ((c == ']' || c == '}') && before > 0 && text[before - 1] == ',')
        return "remove the comma before the '" + std::string(1, c) + "'";
    size_t word = at;  // a word the parser read up to here
    while (word > 0 && isalnum(static_cast<unsigned char>(text[word - 1]))) --word;
    if (isalpha(static_cast<unsigned char>(c)) || (word < at && isalpha(static_cast<unsigned char>(text[word]))))
        return "a string needs double quotes (\"...\"); true, false and null are written in lower case";
    if (before > 0 && (text[before - 1] == '"' || text[before - 1] == ']' || text[before - 1] == '}' ||
                       isalnum(static_cast<unsigned char>(text[before - 1]))))
        return "a comma is missing between two elements";
    return "arrays are [a, b], strings \"text\"; docs/protocol.md gives the form of each type";
}

}  // namespace

bool readJsonArgument(const std::string& text, tagVARIANT* out, std::string* message) {
    VariantInit(out);
    nlohmann::json parsed;
    try {
        parsed = nlohmann::json::parse(text);
    } catch (const nlohmann::json::parse_error& e) {
        // e.byte counts from 1 and names the character that did not fit.
        size_t at = e.byte > 0 ? e.byte - 1 : 0;
        if (at > text.size()) at = text.size();
        size_t lineStart = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
        lineStart = lineStart == std::string::npos ? 0 : lineStart + 1;
        size_t lineEnd = text.find('\n', lineStart);
        if (lineEnd == std::string::npos) lineEnd = text.size();
        int line = 1;
        for (size_t i = 0; i < lineStart; ++i) line += text[i] == '\n';
        const size_t column = at - lineStart + 1;
        *message = "not valid JSON at " + (line > 1 ? "line " + std::to_string(line) + ", " : std::string()) +
                   "column " + std::to_string(column) + ":\n  " + text.substr(lineStart, lineEnd - lineStart) + "\n  " +
                   std::string(column - 1, ' ') + "^\n  hint: " + hintAt(text, at);
        return false;
    } catch (const std::exception& e) {
        *message = e.what();
        return false;
    }
    std::string error;
    if (VariantFromJsonValue(parsed, out, &error)) return true;
    *message = error;
    return false;
}

}  // namespace kivctl
