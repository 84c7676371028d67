// Fuzz target: any byte string either is refused by the decoder or decodes
// to a variant whose CAB1 encoding is the same bytes again, and whose JSON
// form reads back to the same variant.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "value/Cab1.h"
#include "value/VariantJson.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    tagVARIANT v;
    std::string error;
    if (!Cab1Decode(data, size, &v, &error)) {
        if (error.find("byte offset") == std::string::npos) {
            fprintf(stderr, "error without an offset: %s\n", error.c_str());
            abort();
        }
        return 0;
    }
    std::string again = Cab1Encoding(v).str();
    bool same = size == 0 ? again == std::string("\0\0", 2)
                          : again.size() == size && memcmp(again.data(), data, size) == 0;
    if (!same) {
        fprintf(stderr, "re-encoding differs\n");
        abort();
    }

    tagVARIANT back;
    if (!VariantFromJson(VariantToJson(v), &back, &error)) {
        fprintf(stderr, "JSON form does not read back: %s\n", error.c_str());
        abort();
    }
    if (Cab1Encoding(back).str() != again) {
        fprintf(stderr, "JSON round trip differs\n");
        abort();
    }
    VariantClear(&back);
    VariantClear(&v);
    return 0;
}
