// Values of every variant type travel to a satellite and back unchanged.
#include <cstring>
#include <vector>

#include "tests/broker/BrokerTestFixture.h"

namespace {

SAFEARRAY* makeArray(VARTYPE vt, uint32_t n) {
    SAFEARRAYBOUND b{n, 0};
    return SafeArrayCreate(vt, 1, &b);
}

void fillScalars(std::vector<tagVARIANT>* vs) {
    auto add = [&](VARTYPE vt, auto setter) {
        tagVARIANT v;
        VariantInit(&v);
        v.vt = vt;
        setter(v);
        vs->push_back(v);
    };
    add(VT_EMPTY, [](tagVARIANT&) {});
    add(VT_NULL, [](tagVARIANT&) {});
    add(VT_I2, [](tagVARIANT& v) { v.iVal = -12345; });
    add(VT_I4, [](tagVARIANT& v) { v.lVal = INT32_MIN; });
    add(VT_R4, [](tagVARIANT& v) { v.fltVal = 1.5e-3f; });
    add(VT_R8, [](tagVARIANT& v) { v.dblVal = -2.718281828459045; });
    add(VT_DATE, [](tagVARIANT& v) { v.date = 25569.5; });
    add(VT_BSTR, [](tagVARIANT& v) { v.bstrVal = SysAllocStringLen("a\0b\xc3\xa9", 5); });
    add(VT_BSTR, [](tagVARIANT& v) { v.bstrVal = SysAllocString(""); });
    add(VT_BOOL, [](tagVARIANT& v) { v.boolVal = VARIANT_TRUE; });
    add(VT_I1, [](tagVARIANT& v) { v.cVal = -7; });
    add(VT_UI1, [](tagVARIANT& v) { v.bVal = 250; });
    add(VT_UI2, [](tagVARIANT& v) { v.uiVal = 65535; });
    add(VT_UI4, [](tagVARIANT& v) { v.ulVal = 4000000000u; });
    add(VT_I8, [](tagVARIANT& v) { v.llVal = INT64_MIN + 1; });
    add(VT_UI8, [](tagVARIANT& v) { v.ullVal = UINT64_MAX; });
}

}  // namespace

TEST_F(BrokerTest, EveryVariantTypeRoundTrips) {
    std::vector<tagVARIANT> values;
    fillScalars(&values);
    // Arrays of every element type, an empty array, and nested variant arrays.
    for (VARTYPE et : {VT_I2, VT_I4, VT_R4, VT_R8, VT_DATE, VT_BOOL, VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_I8, VT_UI8}) {
        tagVARIANT v;
        VariantInit(&v);
        uint32_t n = 5;
        v.vt = VT_ARRAY | et;
        v.parray = makeArray(et, n);
        ASSERT_NE(nullptr, v.parray) << et;
        unsigned char* p = nullptr;
        SafeArrayAccessData(v.parray, (void**)&p);
        for (uint32_t i = 0; i < n * SafeArrayElementSize(et); ++i) p[i] = (unsigned char)(i * 13 + et);
        SafeArrayUnaccessData(v.parray);
        values.push_back(v);
    }
    {
        tagVARIANT v;
        VariantInit(&v);
        v.vt = VT_ARRAY | VT_UI1;
        v.parray = makeArray(VT_UI1, 0);
        values.push_back(v);
    }
    {
        tagVARIANT v;
        VariantInit(&v);
        v.vt = VT_ARRAY | VT_BSTR;
        v.parray = makeArray(VT_BSTR, 2);
        for (int32_t i = 0; i < 2; ++i) {
            BSTR s = SysAllocString(i ? "second" : "first");
            SafeArrayPutElement(v.parray, &i, s);
            SysFreeString(s);
        }
        values.push_back(v);
    }
    {
        // [scalars..., [scalars...]]
        std::vector<tagVARIANT> inner;
        fillScalars(&inner);
        tagVARIANT nested;
        VariantInit(&nested);
        nested.vt = VT_ARRAY | VT_VARIANT;
        nested.parray = makeArray(VT_VARIANT, (uint32_t)inner.size());
        for (int32_t i = 0; i < (int32_t)inner.size(); ++i) SafeArrayPutElement(nested.parray, &i, &inner[i]);
        tagVARIANT outer;
        VariantInit(&outer);
        outer.vt = VT_ARRAY | VT_VARIANT;
        outer.parray = makeArray(VT_VARIANT, 2);
        int32_t i0 = 0, i1 = 1;
        SafeArrayPutElement(outer.parray, &i0, &inner[3]);
        SafeArrayPutElement(outer.parray, &i1, &nested);
        for (auto& v : inner) VariantClear(&v);
        VariantClear(&nested);
        values.push_back(outer);
    }
    for (size_t i = 0; i < values.size(); ++i) {
        Var out;
        int rc = 0;
        EXPECT_EQ(0, call("EchoA", "Echo", values[i], &out, &rc)) << "value " << i << " vt " << values[i].vt;
        EXPECT_EQ(0, rc);
        EXPECT_EQ(values[i].vt, out.v.vt) << "value " << i;
        EXPECT_EQ(encodingOf(values[i]), encodingOf(out.v)) << "value " << i << " vt " << values[i].vt;
        VariantClear(&values[i]);
    }
}

TEST_F(BrokerTest, ReplyLargerThanOneMessageArrivesWhole) {
    // 64 KiB max payload: 3 MiB + 1 travels in ~50 parts, beyond the credit window.
    for (int32_t size : {60 * 1024, 64 * 1024, 3 * 1024 * 1024 + 1}) {
        Var in, out;
        setI4(&in.v, size);
        ASSERT_EQ(0, call("EchoA", "Blob", in.v, &out)) << CabGetLastError();
        ASSERT_EQ(VT_ARRAY | VT_UI1, out.v.vt);
        int32_t ub = -2;
        SafeArrayGetUBound(out.v.parray, 1, &ub);
        ASSERT_EQ(size - 1, ub);
        unsigned char* p = nullptr;
        SafeArrayAccessData(out.v.parray, (void**)&p);
        size_t bad = 0;
        for (int32_t i = 0; i < size; ++i) bad += p[i] != echoBlobByte((uint64_t)i);
        SafeArrayUnaccessData(out.v.parray);
        EXPECT_EQ(0u, bad) << size;
    }
}

TEST(BrokerLargeMessages, AnswersUpToOneMessageGoWholeAndStayValid) {
    // An 8 MiB max payload: answers up to 8 MiB - 4 KiB go as one message (a large
    // array answer then lives in that message), bigger ones in parts of 4 MiB.
    kivtest::NatsServer server(8 << 20);
    ASSERT_TRUE(server.start()) << server.error();
    EchoSatellite echo;
    ASSERT_EQ(0, echo.Connect(server.hostPort().c_str(), "EchoBig")) << CabGetLastError();
    CabClient client;
    client.setRequestTimeoutMs(60000);
    ASSERT_EQ(0, client.Connect(server.hostPort().c_str(), "BigClient")) << CabGetLastError();
    const int32_t sizes[] = {64 * 1024, (5 << 20) + 3, (8 << 20) - 4096 - 10, 9 << 20};
    // Every answer is held until all have arrived, so each must outlive the traffic after it.
    Var out[4];
    for (int i = 0; i < 4; ++i) {
        Var in, codes;
        setI4(&in.v, sizes[i]);
        ASSERT_EQ(0, client.Request("EchoBig", "Blob", in.v, &out[i].v, 0, &codes.v)) << CabGetLastError();
        ASSERT_EQ(0, CabRetcode(codes.v));
    }
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(VT_ARRAY | VT_UI1, out[i].v.vt);
        ASSERT_EQ((uint32_t)sizes[i], out[i].v.parray->rgsabound[0].cElements);
        const unsigned char* p = static_cast<const unsigned char*>(out[i].v.parray->pvData);
        size_t bad = 0;
        for (int32_t k = 0; k < sizes[i]; ++k) bad += p[k] != echoBlobByte((uint64_t)k);
        EXPECT_EQ(0u, bad) << sizes[i];
    }
    // A lent answer can be resized like any other array.
    SAFEARRAYBOUND bigger{(uint32_t)sizes[0] + 1, 0};
    ASSERT_EQ(S_OK, SafeArrayRedim(out[0].v.parray, &bigger));
    EXPECT_EQ(echoBlobByte(7), static_cast<const unsigned char*>(out[0].v.parray->pvData)[7]);
    client.Disconnect();
    echo.Disconnect();
}

TEST_F(BrokerTest, RequestLargerThanOneMessageIsRefused) {
    Var in, out, codes;
    in.v.vt = VT_ARRAY | VT_UI1;
    SAFEARRAYBOUND b{128 * 1024, 0};
    in.v.parray = SafeArrayCreate(VT_UI1, 1, &b);
    EXPECT_EQ(CAB_E_TOO_LARGE, client->Request("EchoA", "Echo", in.v, &out.v, 0, &codes.v));
    EXPECT_EQ(CAB_E_TOO_LARGE, CabRetcode(codes.v));
    EXPECT_NE(std::string::npos, CabGetLastError().find("CAB_E_TOO_LARGE"));
}

TEST_F(BrokerTest, HandlerStatusesTravelBack) {
    for (int32_t st : {0, 7, 404, -1}) {
        Var in, out;
        setI4(&in.v, st);
        int rc = 99;
        EXPECT_EQ(st, call("EchoA", "Status", in.v, &out, &rc));
        EXPECT_EQ(0, rc) << "a handler's own status is not a library failure";
        EXPECT_EQ(VT_EMPTY, out.v.vt);
    }
}

TEST_F(BrokerTest, RetcodeReaderAcceptsBothArrayForms) {
    Var a;
    a.v.vt = VT_ARRAY | VT_I4;
    SAFEARRAYBOUND b{1, 0};
    a.v.parray = SafeArrayCreate(VT_I4, 1, &b);
    int32_t i = 0, seven = 7;
    SafeArrayPutElement(a.v.parray, &i, &seven);
    EXPECT_EQ(7, CabRetcode(a.v));
    Var e;
    EXPECT_EQ(-5, CabRetcode(e.v, -5));
    setI4(&e.v, 3);
    EXPECT_EQ(3, CabRetcode(e.v));
}
