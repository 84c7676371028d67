// Fuzz target: any text either is refused by the JSON reader with a message
// naming where, or reads to a variant whose JSON form reads back to the
// same variant (compared by its CAB1 bytes).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "value/Cab1.h"
#include "value/VariantJson.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    tagVARIANT v;
    std::string error;
    if (!VariantFromJson(text, &v, &error)) {
        if (error.empty()) {
            fprintf(stderr, "refused without a reason\n");
            abort();
        }
        if (v.vt != VT_EMPTY) {
            fprintf(stderr, "refused, but the output is not empty\n");
            abort();
        }
        return 0;
    }
    const Cab1Encoding first(v);
    tagVARIANT back;
    if (!VariantFromJson(VariantToJson(v), &back, &error)) {
        fprintf(stderr, "JSON form does not read back: %s\n", error.c_str());
        abort();
    }
    if (!first.ok() || Cab1Encoding(back).str() != first.str()) {
        fprintf(stderr, "JSON round trip differs\n");
        abort();
    }
    VariantClear(&back);
    VariantClear(&v);
    return 0;
}
