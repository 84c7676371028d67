// Answers nobody takes: requesters that ask for whole 1 GiB files, never grant
// credit and then go away. The proxy holds only each answer's window, keeps
// its workers free, cannot be cancelled by a guessed credit subject, and frees
// everything once the credit time-out has passed. Past the bytes that answers
// may hold together, a further answer is refused with CAB_E_BUSY; a file that
// shrinks while it is sent ends its transfer at once.
#include <fcntl.h>
#include <nats/nats.h>
#include <unistd.h>

#include <vector>

#include "cab/Cab1.h"
#include "host/CRegistry.h"
#include "tests/fileservices/TransferFixture.h"
#include "tests/support/ProcStatus.h"
#include "variant/VUtil.h"
#include "tests/support/Sanitizers.h"

namespace {

const char* kConfigKey = "Software\\Kiv Foundry\\Kiv\\Config";
const int64_t kMiB = 1024;  // in KiB, as /proc reports

std::string header(natsMsg* m, const char* key) {
    const char* v = nullptr;
    return natsMsgHeader_Get(m, key, &v) == NATS_OK && v ? v : "";
}

void publishControl(natsConnection* nc, const std::string& to, const char* key, const char* value) {
    natsMsg* m = nullptr;
    natsMsg_Create(&m, to.c_str(), nullptr, nullptr, 0);
    natsMsgHeader_Set(m, key, value);
    natsConnection_PublishMsg(nc, m);
    natsMsg_Destroy(m);
}

// Publishes a raw "GetFile" request for the whole of `path`, answered to `reply`.
natsStatus requestWholeFile(natsConnection* nc, const std::string& path, const std::string& reply) {
    CLocalVariant in;
    VUtil::CreateArray(in.get(), VT_VARIANT, 1);
    VUtil::PutElement(in.get(), 0, CStdStr(path));
    std::string payload = Cab1Encoding(in.get()).str();
    natsMsg* m = nullptr;
    natsMsg_Create(&m, "cab.VorpaMediaProxy.GetFile", reply.c_str(), payload.data(), (int)payload.size());
    natsMsgHeader_Set(m, "Cab-Proto", "1");
    natsStatus s = natsConnection_PublishMsg(nc, m);
    natsMsg_Destroy(m);
    return s;
}

class AbandonedTransferTest : public TransferTest {
protected:
    int maxPayload() const override { return 1 << 20; }  // 1 MiB parts, a window of 8
    void SetUp() override {
        // Two workers: four transfers that held theirs would lock the proxy up.
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.maxHandlers", 2));
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.creditTimeoutMs", 1500));
        // Room for four windows of 8 MiB.
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "cabDirectory.maxAnswerBytes", 32 << 20));
        TransferTest::SetUp();
    }
};

TEST_F(AbandonedTransferTest, UncreditedAnswersHoldTheirWindowOnlyAndAreFreedAfterTheCreditTimeOut) {
    std::string path = media.file("huge.sparse");
    int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 1ll << 30), 0);  // 1 GiB without blocks on disk
    close(fd);
    int64_t idle = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    ASSERT_GT(idle, 0);

    natsConnection* nc = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, ("nats://" + hostPort()).c_str()));
    natsSubscription* inbox = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&inbox, nc, "greedy.inbox.*"));
    const int kTransfers = 4;
    for (int i = 0; i <= kTransfers; ++i)
        ASSERT_EQ(NATS_OK, requestWholeFile(nc, path, "greedy.inbox." + std::to_string(i)));
    // Each answer sends its first window, then waits for credit that never
    // comes; the fifth does not fit beside them and is refused.
    std::vector<std::string> creditTo(kTransfers + 1);
    int parts = 0, busy = 0;
    for (natsMsg* m = nullptr; parts + busy < kTransfers * 8 + 1;) {
        ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&m, inbox, 60000)) << "after " << parts << " parts";
        std::string subject = natsMsg_GetSubject(m);
        int index = subject.back() - '0';
        if (header(m, "Cab-Part").empty()) {
            EXPECT_EQ(std::to_string(CAB_E_BUSY), header(m, "Cab-Status"));
            ++busy;
        } else {
            ++parts;
        }
        if (header(m, "Cab-Part") == "0") creditTo[index] = header(m, "Cab-Credit-To");
        natsMsg_Destroy(m);
    }
    EXPECT_EQ(1, busy);
    natsMsg* extra = nullptr;
    EXPECT_NE(NATS_OK, natsSubscription_NextMsg(&extra, inbox, 200)) << "a part beyond the window";

    // The workers are free: another caller is served while all four wait.
    CLocalVariant none, version;
    EXPECT_EQ(0, call("my-KIV_GetVersion", none.get(), version.ptr()));

    // A credit subject ends in 128 random bits; guessing its neighbours cancels nothing.
    std::string credit = creditTo[0].empty() ? creditTo[1] : creditTo[0];
    ASSERT_EQ(credit.size() - credit.rfind('.') - 1, 32u) << credit;
    std::string prefix = credit.substr(0, credit.rfind('.') + 1);
    for (int guess = 0; guess < 64; ++guess)
        publishControl(nc, prefix + std::to_string(guess), "Cab-Cancel", "1");
    publishControl(nc, credit, "Cab-Received", "1");
    natsMsg* next = nullptr;
    ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&next, inbox, 60000)) << "the transfer was cancelled by a guess";
    EXPECT_EQ("8", header(next, "Cab-Part"));
    natsMsg_Destroy(next);

#ifndef KIV_SANITIZED
    int64_t peak = kivtest::statusKiB(proxy.pid(), "VmHWM:");
    EXPECT_LT(peak - idle, 128 * kMiB) << "idle " << idle << " KiB, peak " << peak << " KiB";
    printf("proxy memory: idle %lld KiB, peak %lld KiB with %d uncredited 1 GiB answers\n", (long long)idle,
           (long long)peak, kTransfers);
#endif
    // The requester goes away; after the credit time-out every transfer is abandoned.
    natsSubscription_Destroy(inbox);
    natsConnection_Destroy(nc);
    for (int i = 0; i <= kTransfers; ++i)
        if (!creditTo[i].empty()) {
            ASSERT_TRUE(waitForLog("greedy.inbox." + std::to_string(i) + " abandoned")) << proxyLog();
        }
    EXPECT_NE(proxyLog().find("no credit for 1500 ms"), std::string::npos);
#ifndef KIV_SANITIZED
    int64_t after = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    EXPECT_LT(after - idle, 64 * kMiB) << "idle " << idle << " KiB, after " << after << " KiB";
#endif

    // A file that shrinks while it is sent ends its transfer with an empty part
    // that says why, instead of leaving the requester to time out.
    std::string shrinking = media.file("shrinking.bin");
    kivtest::writeFile(shrinking, std::string(12 << 20, 'x'));
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, ("nats://" + hostPort()).c_str()));
    natsSubscription* shrinkInbox = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&shrinkInbox, nc, "shrink.inbox"));
    ASSERT_EQ(NATS_OK, requestWholeFile(nc, shrinking, "shrink.inbox"));
    std::string shrinkCredit;
    for (int i = 0; i < 8; ++i) {
        natsMsg* m = nullptr;
        ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&m, shrinkInbox, 60000));
        if (i == 0) shrinkCredit = header(m, "Cab-Credit-To");
        natsMsg_Destroy(m);
    }
    ASSERT_EQ(0, truncate(shrinking.c_str(), 0));
    publishControl(nc, shrinkCredit, "Cab-Received", "8");
    natsMsg* stop = nullptr;
    ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&stop, shrinkInbox, 60000));
    EXPECT_EQ("8", header(stop, "Cab-Part"));
    EXPECT_EQ(0, natsMsg_GetDataLength(stop));
    EXPECT_EQ("1", header(stop, "Cab-Status"));
    EXPECT_NE(std::string::npos, header(stop, "Cab-Error").find("shrank")) << header(stop, "Cab-Error");
    natsMsg_Destroy(stop);
    natsSubscription_Destroy(shrinkInbox);
    natsConnection_Destroy(nc);
}

}  // namespace
