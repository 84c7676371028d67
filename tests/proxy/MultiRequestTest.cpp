// "MultiRequest" through the running process.
#include <signal.h>

#include "tests/proxy/ProxyFixture.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

TEST_F(ProxyTest, MultiRequestAnswersInInputOrderWithFailuresInPlace) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();

    // Empty input: -1 and no output.
    CLocalVariant empty;
    EXPECT_EQ(call("MultiRequest", "[]", empty.ptr()), -1);
    EXPECT_EQ(empty.vt(), VT_EMPTY);

    // The first sub-request finishes last; answers still come in input order.
    CLocalVariant out;
    ASSERT_EQ(call("MultiRequest",
                   "[[\"EchoA\",\"Sleep\",300],"
                   " [\"EchoA\",\"Echo\",\"fast\"],"
                   " [\"NoSuchSatellite\",\"Echo\",1],"
                   " [\"EchoA\",\"Status\",5],"
                   " [\"EchoA\",\"Echo\"]]",
                   out.ptr()),
              0);
    ASSERT_EQ(VUtil::GetArrayLength(out.get()), 5);
    auto answer = [&](int i, tagVARIANT& status, tagVARIANT& value) {
        CLocalVariant pair;
        VUtil::GetElement(out.get(), i, pair.get());
        ASSERT_EQ(VUtil::GetArrayLength(pair.get()), 2) << i;
        VUtil::GetElement(pair.get(), 0, status);
        VUtil::GetElement(pair.get(), 1, value);
    };
    {
        CLocalVariant st, v;
        answer(0, st.get(), v.get());
        EXPECT_EQ(CabRetcode(st.get()), 0);
        EXPECT_EQ(json(v.get()), "300");
    }
    {
        CLocalVariant st, v;
        answer(1, st.get(), v.get());
        EXPECT_EQ(CabRetcode(st.get()), 0);
        EXPECT_EQ(json(v.get()), "\"fast\"");
    }
    {
        CLocalVariant st, v;
        answer(2, st.get(), v.get());
        EXPECT_EQ(CabRetcode(st.get()), CAB_E_NO_SUCH_SERVICE);
        EXPECT_EQ(v.vt(), VT_EMPTY);
    }
    {
        CLocalVariant st, v;
        answer(3, st.get(), v.get());
        EXPECT_EQ(CabRetcode(st.get()), 5);
    }
    {
        // Fewer than three elements: two empty values in its place.
        CLocalVariant st, v;
        answer(4, st.get(), v.get());
        EXPECT_EQ(st.vt(), VT_EMPTY);
        EXPECT_EQ(v.vt(), VT_EMPTY);
    }
    EXPECT_EQ(stopProxy(SIGTERM), 0);
    EXPECT_NE(proxyOutput().find("threadCabRequest exception"), std::string::npos);
}

TEST_F(ProxyTest, MultiRequestNestsIntoItself) {
    startProxy();
    ASSERT_TRUE(waitUntilServing()) << proxyOutput();
    CLocalVariant out;
    ASSERT_EQ(call("MultiRequest",
                   "[[\"VorpaMediaProxy\",\"MultiRequest\","
                   "   [[\"VorpaMediaProxy\",\"MultiRequest\",[[\"EchoA\",\"Echo\",\"deep\"]]],"
                   "    [\"EchoA\",\"Echo\",\"mid\"]]],"
                   " [\"EchoA\",\"Echo\",\"top\"]]",
                   out.ptr()),
              0);
    std::string text = json(out.get());
    EXPECT_NE(text.find("\"deep\""), std::string::npos) << text;
    EXPECT_NE(text.find("\"mid\""), std::string::npos) << text;
    EXPECT_LT(text.find("\"mid\""), text.find("\"top\"")) << text;
    EXPECT_EQ(stopProxy(SIGTERM), 0);
}
