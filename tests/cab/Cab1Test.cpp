#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "value/Cab1.h"
#include "tests/cab/VariantSamples.h"
#include "tests/support/JsonVariant.h"
#include "tests/support/TempDir.h"

using kivtest::IdenticalVariants;

namespace {

std::string unhex(const std::string& h) {
    std::string out;
    for (size_t i = 0; i + 1 < h.size(); i += h[i] == ' ' ? 1 : 2)
        if (h[i] != ' ') out.push_back(char(std::stoi(h.substr(i, 2), nullptr, 16)));
    return out;
}

std::string hex(const std::string& b) {
    std::string out;
    for (unsigned char c : b) out += "0123456789abcdef"[c >> 4] + std::string(1, "0123456789abcdef"[c & 15]);
    return out;
}

std::string decodeError(const std::string& bytes) {
    CLocalVariant v;
    std::string error;
    EXPECT_FALSE(Cab1Decode(bytes.data(), bytes.size(), &v.get(), &error)) << hex(bytes);
    EXPECT_EQ(v.get().vt, VT_EMPTY);
    // Arriving one byte per piece changes nothing, not even the message.
    std::vector<Cab1Piece> pieces;
    for (size_t i = 0; i < bytes.size(); ++i) pieces.push_back({bytes.data() + i, 1});
    CLocalVariant w;
    std::string piecewise;
    EXPECT_FALSE(Cab1DecodePieces(pieces.data(), pieces.size(), &w.get(), &piecewise)) << hex(bytes);
    EXPECT_EQ(w.get().vt, VT_EMPTY);
    EXPECT_EQ(piecewise, error);
    return error;
}

// Cuts `bytes` into up to five pieces at random places (empty pieces included).
std::vector<Cab1Piece> randomPieces(std::mt19937_64& rng, const std::string& bytes) {
    std::vector<size_t> cuts{0, bytes.size()};
    for (int i = rng() % 5; i > 0; --i) cuts.push_back(bytes.empty() ? 0 : rng() % (bytes.size() + 1));
    std::sort(cuts.begin(), cuts.end());
    std::vector<Cab1Piece> pieces;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) pieces.push_back({bytes.data() + cuts[i], cuts[i + 1] - cuts[i]});
    return pieces;
}

int g_released = 0;
void countRelease(void*) { ++g_released; }

}  // namespace

TEST(Cab1, EncodesTheDocumentedBytes) {
    const std::pair<const char*, std::string> cases[] = {
        {R"([1, "a", {"$vt":"I8","v":5}, null])", "0c20" "00000000" "04000000"
                                                   "0300" "01000000"
                                                   "0800" "01000000" "61"
                                                   "1400" "0500000000000000"
                                                   "0000"},
        {R"({"$vt":"BSTR","v":null})", "0800ffffffff"},
        {"true", "0b00ffff"},
        {R"({"$vt":"UI1[]","lb":-1,"base64":"AQI="})", "1120ffffffff020000000102"},
    };
    for (const auto& [value, bytes] : cases) {
        JsonVariant v(value);
        Cab1Encoding enc(v.get());
        ASSERT_TRUE(enc.ok()) << enc.error();
        EXPECT_EQ(hex(enc.str()), bytes) << value;
    }
    // Nothing, and a type alone, decode too.
    for (const auto& [bytes, value] : {std::pair<std::string, std::string>{"", "null"}, {"0000", "null"},
                                       {"0100", "{\"$vt\":\"NULL\"}"}}) {
        CLocalVariant v;
        v.get().vt = VT_I4;
        std::string error;
        EXPECT_TRUE(Cab1Decode(unhex(bytes).data(), bytes.size() / 2, &v.get(), &error)) << error;
        EXPECT_EQ(VariantToJson(v.get()), value) << bytes;
    }
}

TEST(Cab1, RoundTripsGeneratedValues) {
    std::mt19937_64 rng(77);
    for (int n = 0; n < 2000; ++n) {
        CLocalVariant a, b;
        kivtest::RandomVariant(rng, 5, &a.get());
        Cab1Encoding enc(a.get());
        ASSERT_TRUE(enc.ok()) << enc.error();
        std::string bytes = enc.str();
        ASSERT_EQ(bytes.size(), enc.size());
        std::string error;
        ASSERT_TRUE(Cab1Decode(bytes.data(), bytes.size(), &b.get(), &error)) << error;
        std::string why;
        ASSERT_TRUE(IdenticalVariants(a.get(), b.get(), &why)) << n << ": " << why;
        // The same bytes arriving in pieces decode to the same value.
        std::vector<Cab1Piece> pieces = randomPieces(rng, bytes);
        CLocalVariant d;
        ASSERT_TRUE(Cab1DecodePieces(pieces.data(), pieces.size(), &d.get(), &error)) << n << ": " << error;
        ASSERT_TRUE(IdenticalVariants(a.get(), d.get(), &why)) << n << " in " << pieces.size() << " pieces: " << why;
        // Every strict prefix is refused (a prefix of 0 bytes is VT_EMPTY, 2 bytes may be a type alone).
        if (bytes.size() > 2) {
            size_t cut = 1 + rng() % (bytes.size() - 1);
            CLocalVariant c;
            if (cut != 2 || (a.get().vt != VT_EMPTY && a.get().vt != VT_NULL)) {
                EXPECT_FALSE(Cab1Decode(bytes.data(), cut, &c.get(), &error)) << cut;
            }
        }
    }
}

TEST(Cab1, CopyHandsOutAnyWindow) {
    // Strings and byte arrays large enough to be referenced in place, between small fields.
    std::vector<tagVARIANT> e(5);
    const std::string big = kivtest::patternBytes(100000, 7);
    kivtest::MakeBytes(&e[0], big);
    kivtest::MakeString(&e[1], std::string(5000, 'q'));
    VariantInit(&e[2]); e[2].vt = VT_R8; e[2].dblVal = 1.5;
    kivtest::MakeBytes(&e[3], big.substr(0, 300));
    kivtest::MakeString(&e[4], "tail");
    CLocalVariant list;
    kivtest::MakeVariantArray(&list.get(), e);
    Cab1Encoding enc(list.get());
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
}

TEST(Cab1, EncoderRefusesWhatTheWireCannotCarry) {
    CLocalVariant v;
    v.get().vt = VT_BYREF | VT_I4;
    Cab1Encoding byref(v.get());
    EXPECT_FALSE(byref.ok());
    EXPECT_EQ(byref.size(), 0u);
    v.get().vt = 6;
    EXPECT_FALSE(Cab1Encoding(v.get()).ok());
    VariantInit(&v.get());
    // 65 nested arrays are one too many; 64 are fine.
    auto nest = [](tagVARIANT* out, int levels) {
        VariantInit(out);
        for (int i = 0; i < levels; ++i) {
            tagVARIANT inner = *out;
            kivtest::MakeVariantArray(out, {inner});
        }
    };
    nest(&v.get(), 64);
    EXPECT_TRUE(Cab1Encoding(v.get()).ok());
    VariantClear(&v.get());
    nest(&v.get(), 65);
    Cab1Encoding tooDeep(v.get());
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
    CLocalVariant ok;
    std::string error;
    std::string b64 = nested(64);
    EXPECT_TRUE(Cab1Decode(b64.data(), b64.size(), &ok.get(), &error)) << error;
    EXPECT_NE(decodeError(nested(65)).find("arrays nested deeper than 64 at byte offset 640"), std::string::npos);
    EXPECT_NE(decodeError(nested(1000000)).find("nested deeper"), std::string::npos);
}

TEST(Cab1, LargeArraysDecodeOverTheirInput) {
    auto encoded = [](VARTYPE et, uint32_t count, int32_t lb) {
        CLocalVariant v;
        SAFEARRAYBOUND b{count, lb};
        v.get().vt = VARTYPE(VT_ARRAY | et);
        v.get().parray = SafeArrayCreate(et, 1, &b);
        void* p = nullptr;
        SafeArrayAccessData(v.get().parray, &p);
        for (size_t i = 0; i < size_t(count) * SafeArrayElementSize(et); ++i) static_cast<char*>(p)[i] = char(i * 13);
        SafeArrayUnaccessData(v.get().parray);
        return Cab1Encoding(v.get()).str();
    };
    const size_t head = 10;
    // A large byte array: the array's storage is the input, released once, when the array goes or
    // when a resize moves the elements onto storage of the array's own. A copy owns its storage.
    std::string bytes = encoded(VT_UI1, kCab1LendMin, -3);
    for (bool resize : {false, true}) {
        g_released = 0;
        {
            CLocalVariant out, copy;
            bool lent = false;
            ASSERT_TRUE(Cab1DecodeLending(&bytes[0], bytes.size(), &countRelease, nullptr, &out.get(), &lent, nullptr));
            ASSERT_TRUE(lent);
            SAFEARRAY* psa = out.get().parray;
            EXPECT_EQ(out.get().vt, VT_ARRAY | VT_UI1);
            EXPECT_EQ(psa->pvData, static_cast<void*>(&bytes[head]));
            EXPECT_EQ(psa->rgsabound[0].lLbound, -3);
            EXPECT_EQ(psa->rgsabound[0].cElements, kCab1LendMin);
            ASSERT_EQ(VariantCopy(&copy.get(), &out.get()), S_OK);
            EXPECT_NE(copy.get().parray->pvData, psa->pvData);
            SAFEARRAYBOUND bigger{kCab1LendMin + 5, 0};
            if (resize) {
                ASSERT_EQ(SafeArrayRedim(psa, &bigger), S_OK);
            }
            EXPECT_EQ(g_released, resize ? 1 : 0);
            EXPECT_EQ(memcmp(psa->pvData, &bytes[head], kCab1LendMin), 0);
            EXPECT_TRUE(!resize || static_cast<const char*>(psa->pvData)[kCab1LendMin + 4] == 0);
        }
        EXPECT_EQ(g_released, 1);
    }
    // Small arrays, misaligned elements, other shapes and damaged inputs are decoded as copies
    // (or refused) and the input stays the caller's.
    // Heap blocks start 16-aligned, so the elements of this copy start 3 bytes off.
    std::string misaligned = std::string(1, 'x') + encoded(VT_I4, kCab1LendMin, 0);
    std::string truncated = bytes.substr(0, bytes.size() - 1);
    CLocalVariant nested;
    std::vector<tagVARIANT> e(1);
    kivtest::MakeBytes(&e[0], std::string(kCab1LendMin, 'n'));
    kivtest::MakeVariantArray(&nested.get(), e);
    struct Case { std::string in; size_t skip; bool good; };
    std::vector<Case> cases = {{encoded(VT_UI1, kCab1LendMin - 1, 0), 0, true},
                               {misaligned, 1, true},
                               {Cab1Encoding(nested.get()).str(), 0, true},
                               {truncated, 0, false}};
    g_released = 0;
    for (auto& c : cases) {
        CLocalVariant out;
        bool lent = true;
        std::string error;
        EXPECT_EQ(Cab1DecodeLending(&c.in[c.skip], c.in.size() - c.skip, &countRelease, nullptr, &out.get(), &lent,
                                    &error),
                  c.good)
            << error;
        EXPECT_FALSE(lent);
    }
    EXPECT_EQ(g_released, 0);
}
