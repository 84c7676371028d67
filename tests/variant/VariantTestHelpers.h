// Helpers of the variant tests: building arrays and scalar variants, and
// checking the exception text a call throws.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "cab/CabException.h"
#include "value/Variant.h"
#include "variant/CLocalVariant.h"

// Expects `stmt` to throw a CabException with `code` and exactly `text`;
// an invalid parameter has the code 1.
#define EXPECT_CAB_THROW(stmt, code, text)                 \
    do {                                                   \
        try {                                              \
            stmt;                                          \
            ADD_FAILURE() << "no exception from " #stmt;   \
        } catch (const CabException& e) {                  \
            EXPECT_STREQ(text, e.getMessage()) << #stmt;   \
            EXPECT_EQ(code, e.getCode());                  \
        }                                                  \
    } while (0)
#define EXPECT_INVALID(stmt, text) EXPECT_CAB_THROW(stmt, 1, text)

// Calls that must each throw an invalid parameter with exactly their text.
struct Refusal {
    std::function<void()> call;
    std::string text;
};
inline void expectRefusals(const std::vector<Refusal>& refusals) {
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.text);
        EXPECT_INVALID(r.call(), r.text.c_str());
    }
}

namespace vtest {

// A new array of `count` elements, zero-based unless `lowerBound` says otherwise.
struct Array : CLocalVariant {
    Array(VARTYPE elementType, uint32_t count, int32_t lowerBound = 0) {
        SAFEARRAYBOUND bound{count, lowerBound};
        get().parray = SafeArrayCreate(elementType, 1, &bound);
        get().vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
    }
};

inline void setI4(CLocalVariant& v, int32_t value) {
    VariantClear(v.ptr());
    v.get().vt = VT_I4;
    v.get().lVal = value;
}

}  // namespace vtest
