#include <gtest/gtest.h>

#include <cstring>

#include "cab/Cab1.h"
#include "tests/cab/VariantSamples.h"

using kivtest::IdenticalVariants;
using kivtest::OwnedVariant;

namespace {

std::string unhex(const std::string& h) {
    std::string out;
    for (size_t i = 0; i + 1 < h.size();) {
        if (h[i] == ' ') { ++i; continue; }
        out.push_back(char(std::stoi(h.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

std::string hex(const std::string& b) {
    static const char* d = "0123456789abcdef";
    std::string out;
    for (unsigned char c : b) { out += d[c >> 4]; out += d[c & 15]; }
    return out;
}

std::string decodeError(const std::string& bytes) {
    OwnedVariant v;
    std::string error;
    EXPECT_FALSE(Cab1Decode(bytes.data(), bytes.size(), &v.v, &error)) << hex(bytes);
    EXPECT_EQ(v.v.vt, VT_EMPTY);
    return error;
}

}  // namespace

TEST(Cab1, EncodesTheDocumentedBytes) {
    OwnedVariant list;
    std::vector<tagVARIANT> e(4);
    VariantInit(&e[0]); e[0].vt = VT_I4; e[0].lVal = 1;
    kivtest::MakeString(&e[1], "a");
    VariantInit(&e[2]); e[2].vt = VT_I8; e[2].llVal = 5;
    VariantInit(&e[3]);
    kivtest::MakeVariantArray(&list.v, e);
    Cab1Encoding enc(list.v);
    ASSERT_TRUE(enc.ok()) << enc.error();
    EXPECT_EQ(hex(enc.str()),
              "0c20" "00000000" "04000000"
              "0300" "01000000"
              "0800" "01000000" "61"
              "1400" "0500000000000000"
              "0000");

    OwnedVariant nullString;
    nullString.v.vt = VT_BSTR;
    EXPECT_EQ(hex(Cab1Encoding(nullString.v).str()), "0800ffffffff");
    OwnedVariant truth;
    truth.v.vt = VT_BOOL;
    truth.v.boolVal = VARIANT_TRUE;
    EXPECT_EQ(hex(Cab1Encoding(truth.v).str()), "0b00ffff");
    OwnedVariant bytes;
    kivtest::MakeBytes(&bytes.v, "\x01\x02", -1);
    EXPECT_EQ(hex(Cab1Encoding(bytes.v).str()), "1120ffffffff020000000102");
}

TEST(Cab1, EmptyInputsDecodeToEmpty) {
    OwnedVariant v;
    std::string error;
    v.v.vt = VT_I4;
    EXPECT_TRUE(Cab1Decode(nullptr, 0, &v.v, &error));
    EXPECT_EQ(v.v.vt, VT_EMPTY);
    EXPECT_TRUE(Cab1Decode("\0\0", 2, &v.v, &error));
    EXPECT_EQ(v.v.vt, VT_EMPTY);
    EXPECT_TRUE(Cab1Decode("\x01\x00", 2, &v.v, &error));
    EXPECT_EQ(v.v.vt, VT_NULL);
}

TEST(Cab1, RoundTripsGeneratedValues) {
    std::mt19937_64 rng(77);
    for (int n = 0; n < 2000; ++n) {
        OwnedVariant a, b;
        kivtest::RandomVariant(rng, 5, &a.v);
        Cab1Encoding enc(a.v);
        ASSERT_TRUE(enc.ok()) << enc.error();
        std::string bytes = enc.str();
        ASSERT_EQ(bytes.size(), enc.size());
        std::string error;
        ASSERT_TRUE(Cab1Decode(bytes.data(), bytes.size(), &b.v, &error)) << error;
        std::string why;
        ASSERT_TRUE(IdenticalVariants(a.v, b.v, &why)) << n << ": " << why;
        // Every strict prefix is refused (a prefix of 0 bytes is VT_EMPTY, 2 bytes may be a type alone).
        if (bytes.size() > 2) {
            size_t cut = 1 + rng() % (bytes.size() - 1);
            OwnedVariant c;
            if (cut != 2 || (a.v.vt != VT_EMPTY && a.v.vt != VT_NULL)) {
                EXPECT_FALSE(Cab1Decode(bytes.data(), cut, &c.v, &error)) << cut;
            }
        }
    }
}

TEST(Cab1, CopyHandsOutAnyWindow) {
    // Strings and byte arrays large enough to be referenced in place, between small fields.
    std::vector<tagVARIANT> e(5);
    std::string big(100000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = char(i * 7);
    kivtest::MakeBytes(&e[0], big);
    kivtest::MakeString(&e[1], std::string(5000, 'q'));
    VariantInit(&e[2]); e[2].vt = VT_R8; e[2].dblVal = 1.5;
    kivtest::MakeBytes(&e[3], big.substr(0, 300));
    kivtest::MakeString(&e[4], "tail");
    OwnedVariant list;
    kivtest::MakeVariantArray(&list.v, e);
    Cab1Encoding enc(list.v);
    ASSERT_TRUE(enc.ok());
    std::string whole = enc.str();
    std::mt19937_64 rng(5);
    for (int n = 0; n < 500; ++n) {
        size_t off = rng() % (whole.size() + 10);
        size_t len = rng() % 3 == 0 ? rng() % 20 : rng() % 200000;
        std::string window(len, '\x55');
        size_t got = enc.copy(off, &window[0], len);
        size_t expect = off >= whole.size() ? 0 : std::min(len, whole.size() - off);
        ASSERT_EQ(got, expect) << off << " " << len;
        ASSERT_EQ(window.substr(0, got), whole.substr(std::min(off, whole.size()), got));
        // In place or not, span never hands out other bytes than copy.
        if (const char* in = enc.span(off, len)) {
            ASSERT_EQ(std::string(in, len), whole.substr(off, len));
        }
    }
    // The middle of the big byte array is handed out in place.
    size_t at = whole.find(big.substr(1000, 64));
    ASSERT_NE(at, std::string::npos);
    EXPECT_NE(enc.span(at, 50000), nullptr);
    EXPECT_EQ(enc.span(0, whole.size()), nullptr);  // spans the headers too
    EXPECT_EQ(enc.span(whole.size(), 1), nullptr);
    // Windows of a few bytes stitch back into the whole.
    std::string stitched;
    char chunk[997];
    for (size_t off = 0;; ) {
        size_t got = enc.copy(off, chunk, sizeof chunk);
        if (!got) break;
        stitched.append(chunk, got);
        off += got;
    }
    EXPECT_EQ(stitched, whole);
}

TEST(Cab1, EncoderRefusesWhatTheWireCannotCarry) {
    OwnedVariant v;
    v.v.vt = VT_BYREF | VT_I4;
    Cab1Encoding byref(v.v);
    EXPECT_FALSE(byref.ok());
    EXPECT_EQ(byref.size(), 0u);
    v.v.vt = 6;
    EXPECT_FALSE(Cab1Encoding(v.v).ok());
    VariantInit(&v.v);

    // 65 nested arrays are one too many; 64 are fine.
    auto nest = [](tagVARIANT* out, int levels) {
        VariantInit(out);
        for (int i = 0; i < levels; ++i) {
            tagVARIANT inner = *out;
            kivtest::MakeVariantArray(out, {inner});
        }
    };
    nest(&v.v, 64);
    Cab1Encoding deep(v.v);
    EXPECT_TRUE(deep.ok()) << deep.error();
    std::string bytes = deep.str();
    OwnedVariant back;
    std::string error;
    EXPECT_TRUE(Cab1Decode(bytes.data(), bytes.size(), &back.v, &error)) << error;
    VariantClear(&v.v);
    nest(&v.v, 65);
    Cab1Encoding tooDeep(v.v);
    EXPECT_FALSE(tooDeep.ok());
    EXPECT_NE(tooDeep.error().find("64"), std::string::npos);
}

TEST(Cab1, DecoderRefusesHostileBytes) {
    struct Case { const char* hex; const char* says; };
    const Case cases[] = {
        {"00", "truncated type code (needs 2 bytes, 1 left) at byte offset 0"},
        {"0900", "unknown type code 0x0009 at byte offset 0"},
        {"0c00", "unknown type code 0x000C at byte offset 0"},
        {"0340 01000000", "by-reference flag in type code 0x4003 at byte offset 0"},
        {"0060", "by-reference flag"},
        {"0020 00000000 00000000", "bad array element type in type code 0x2000 at byte offset 0"},
        {"0120 00000000 00000000", "bad array element type"},
        {"0620 00000000 00000000", "bad array element type"},
        {"0130 00000000 00000000", "bad array element type"},
        {"0300 0100", "truncated value (needs 4 bytes, 2 left) at byte offset 2"},
        {"0800 05000000 6162", "truncated string (length 5, 2 bytes left) at byte offset 2"},
        {"0800 feffffff", "truncated string"},
        {"0300 01000000 00", "1 trailing bytes at byte offset 6"},
        {"0000 00", "trailing bytes at byte offset 2"},
        {"1120 00000000 ffffffff 00", "array count 4294967295 needs at least 4294967295 bytes but only 1 remain at byte offset 6"},
        {"0c20 00000000 ffffffff 0000", "array count 4294967295 needs at least 8589934590 bytes"},
        {"0820 00000000 02000000 00000000", "array count 2 needs at least 8 bytes but only 4 remain"},
        {"0520 00000000 01000000 0000", "array count 1 needs at least 8 bytes"},
        {"0c20 00000000 02000000 0300 01000000 0900", "unknown type code 0x0009 at byte offset 16"},
        {"0c20 00000000 01000000 0c20 00000000 01000000 0800 03000000 6162",
         "truncated string (length 3, 2 bytes left) at byte offset 22"},
        {"1120 00000000", "truncated array count"},
        {"1120 000000", "truncated array lower bound"},
    };
    for (const auto& c : cases) {
        std::string error = decodeError(unhex(c.hex));
        EXPECT_NE(error.find(c.says), std::string::npos) << c.hex << " -> " << error;
        EXPECT_EQ(error.rfind("CAB1: ", 0), 0u) << error;
    }

    // Nesting: 64 arrays decode, 65 are refused, and so are a million (no stack overflow).
    auto nested = [](int levels) {
        std::string b;
        for (int i = 0; i < levels; ++i) b += unhex("0c20 00000000 01000000");
        b += unhex("0000");
        return b;
    };
    OwnedVariant ok;
    std::string error;
    std::string b64 = nested(64);
    EXPECT_TRUE(Cab1Decode(b64.data(), b64.size(), &ok.v, &error)) << error;
    EXPECT_NE(decodeError(nested(65)).find("arrays nested deeper than 64 at byte offset 640"), std::string::npos);
    EXPECT_NE(decodeError(nested(1000000)).find("nested deeper"), std::string::npos);
}
