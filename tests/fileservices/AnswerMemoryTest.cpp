// The memory budget of the proxy's answers, the satellite in this process (so its budget
// can be read): grouped inline "GetFile"s over a small budget, a requester too slow.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>

#include "value/Cab1.h"
#include "cab/CabMemoryBudget.h"
#include "satellite/KivRequestProxySatellite.h"
#include "tests/proxy/TestHelpers.h"
#include "tests/support/Eventually.h"
#include "tests/support/NatsServer.h"
#include "tests/support/RawNats.h"
#include "variant/CLocalVariant.h"
#include "variant/VUtil.h"

namespace {

using kivtest::header;

class AnswerMemoryTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.start()) << server.error();
        ASSERT_TRUE(setting("files.roots", CStdStr(media.path())));
        client.setRequestTimeoutMs(60000);
        ASSERT_EQ(0, client.Connect(server.hostPort().c_str(), "AnswerMemoryClient"));
    }
    // Connects the proxy's satellite with these settings.
    void serve(int maxAnswerBytes, int minBytesPerSecond) {
        ASSERT_TRUE(setting("cabDirectory.maxAnswerBytes", maxAnswerBytes));
        ASSERT_TRUE(setting("cabDirectory.minTransferBytesPerSecond", minBytesPerSecond));
        ASSERT_TRUE(setting("cabDirectory.creditTimeoutMs", 1500));
        proxy.reset(new KivRequestProxySatellite);
        ASSERT_EQ(0, proxy->Connect(server.hostPort().c_str(), "VorpaMediaProxy"));
        budget = proxy->memoryBudget();
    }

    kivtest::NatsServer server;  // 64 KiB messages: the grouped answer travels in parts
    kivtest::TempDir media{"kivmemory"};
    CabClient client;
    std::unique_ptr<KivRequestProxySatellite> proxy;
    std::shared_ptr<CabMemoryBudget> budget;
};

// 20 inline "GetFile"s of 1 MiB in one "MultiRequest", 4 MiB for the one caller: the rows that
// fit carry the file, the others say CAB_E_BUSY, all is free once sent, and again the same.
TEST_F(AnswerMemoryTest, GroupedInlineGetFilesBeyondTheBudgetAnswerBusyAndHoldNothing) {
    serve(8 << 20, 256 << 10);
    const std::string content = patternBytes(1 << 20, 3), path = media.file("clip.bin");
    kivtest::writeFile(path, content);
    nlohmann::json group = nlohmann::json::array();
    for (int i = 0; i < 20; ++i) group.push_back({"VorpaMediaProxy", "GetFile", {path}});
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        budget->resetPeak();
        CLocalVariant out, rc;
        ASSERT_EQ(0, client.Request("VorpaMediaProxy", "MultiRequest", JsonVariant(group.dump()).get(), out.ptr(), 0,
                                    rc.ptr()))
            << CabGetLastError();
        ASSERT_EQ(0, CabRetcode(rc.get()));
        ASSERT_EQ(20, VUtil::GetArrayLength(out.get()));
        int served = 0, busy = 0;
        for (int i = 0; i < 20; ++i) {
            CLocalVariant row, codes, bytes;
            VUtil::GetElement(out.get(), i, row.get());
            VUtil::GetElement(row.get(), 0, codes.get());
            VUtil::GetElement(row.get(), 1, bytes.get());
            const int status = CabRetcode(codes.get());
            if (status == 0 && bytesOf(bytes.get()) == content) ++served;
            if (status == CAB_E_BUSY && bytes.vt() == VT_EMPTY) ++busy;
        }
        // 1 MiB and its framing per row, and 128 bytes per row for the group: three fit in 4 MiB.
        EXPECT_EQ(3, served);
        EXPECT_EQ(17, busy);
        EXPECT_LE(budget->peak(), 4u << 20);
        EXPECT_GE(budget->peak(), 3u << 20);
        EXPECT_TRUE(kivtest::eventually([&] { return budget->held() == 0; })) << budget->held() << " bytes held";
    }
}

// A requester slower than the bound (2 GiB a second, which none reaches) loses its transfer:
// an empty part after those sent says CAB_E_TIMEOUT and why, and its memory is free again.
TEST_F(AnswerMemoryTest, ATransferSlowerThanTheRateBoundIsEnded) {
    serve(64 << 20, 0x7FFFFFFF);
    const std::string path = media.file("huge.sparse");
    kivtest::writeFile(path, "");
    ASSERT_EQ(0, truncate(path.c_str(), 3ll << 30));  // no blocks on disk
    kivtest::RawInbox requester(server.url(), "slow.inbox");
    ASSERT_TRUE(requester.ok());
    ASSERT_EQ(NATS_OK, kivtest::publish(requester.nc, "cab.VorpaMediaProxy.GetFile.-", "Cab-Proto", "1",
                                        Cab1Encoding(JsonVariant(listOf(path)).get()).str(), "slow.inbox"));
    std::string creditTo, status, error;
    long long parts = 0;
    for (;;) {  // takes every part at once and grants credit for it
        kivtest::Msg m = requester.next();
        ASSERT_TRUE(m) << "after " << parts << " parts";
        if (parts == 0) creditTo = header(m.get(), "Cab-Credit-To");
        if (natsMsg_GetDataLength(m.get()) == 0) {
            status = header(m.get(), "Cab-Status");
            error = header(m.get(), "Cab-Error");
            EXPECT_LE(parts, atoll(header(m.get(), "Cab-Part").c_str()));
            break;
        }
        ++parts;
        ASSERT_EQ(NATS_OK, kivtest::publish(requester.nc, creditTo, "Cab-Received", std::to_string(parts).c_str()));
    }
    EXPECT_EQ(std::to_string(CAB_E_TIMEOUT), status);
    EXPECT_NE(std::string::npos, error.find("bytes a second")) << error;
    EXPECT_TRUE(kivtest::eventually([&] { return budget->held() == 0; })) << budget->held() << " bytes held";
}

}  // namespace
