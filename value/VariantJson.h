// The JSON form of a variant, for people and scripts, and an indented text
// rendering for logs.
//
// Promises:
// - Plain JSON reads as the natural types: null VT_EMPTY, true/false VT_BOOL,
//   an integer VT_I4 when it fits 32 bits, else VT_I8 (VT_UI8 above the signed
//   range), another number VT_R8, a string VT_BSTR, an array an array of
//   variants. Every other value is an object naming its type ({"$vt":"I2","v":5},
//   {"$vt":"UI1[]","base64":"..."}, ...); see docs/protocol.md for the table.
// - Writing then reading gives the identical variant, bit for bit (types,
//   lower bounds, NaN payloads, null strings, non-UTF-8 bytes included). The
//   plain form is used wherever it reads back as the same type.
// - The reader refuses anything else with a message naming the JSON path
//   (a JSON pointer such as "/2/v/0"); `out` is then VT_EMPTY. It accepts at
//   most 64 nested arrays, as CAB1 does.
// - The writer never fails: what JSON cannot name (by-reference or unknown
//   types, multi-dimensional arrays) is written as {"$vt":"?","type":N}, which
//   the reader refuses.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "value/Variant.h"

// Parses `text` and reads it as a variant into `out` (the caller owns it; it
// is overwritten without being cleared). False with *error (may be null) on failure.
bool VariantFromJson(const std::string& text, tagVARIANT* out, std::string* error);
bool VariantFromJsonValue(const nlohmann::json& j, tagVARIANT* out, std::string* error);

// The JSON text; indent < 0 gives one line, otherwise pretty-printed.
std::string VariantToJson(const tagVARIANT& v, int indent = -1);
nlohmann::json VariantToJsonValue(const tagVARIANT& v);

// A multi-line rendering for logs: one line per value, array elements indented
// under their array with their index, e.g.
//   VT_ARRAY|VT_VARIANT [2]
//     [0] VT_I4 1
//     [1] VT_BSTR "a"
// Long strings and byte arrays are shortened (their length is always shown).
std::string VariantToText(const tagVARIANT& v);

// "VT_I4", "VT_ARRAY|VT_UI1", or the decimal code for an unknown type.
std::string VariantTypeName(VARTYPE vt);
