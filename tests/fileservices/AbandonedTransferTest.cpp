// Answers nobody takes: requesters that ask for whole 1 GiB files, never grant
// credit and then go away. The proxy holds only each answer's window, keeps
// its workers free, cannot be cancelled by a guessed credit subject, and frees
// everything once the credit time-out has passed. Past the bytes that answers
// may hold together, a further answer is refused with CAB_E_BUSY; a file that
// shrinks while it is sent ends its transfer at once.
#include <nats/nats.h>

#include "cab/Cab1.h"
#include "tests/fileservices/TransferFixture.h"
#include "tests/support/ProcStatus.h"
#include "tests/support/Sanitizers.h"

namespace {

const int64_t kMiB = 1024;  // in KiB, as /proc reports

std::string header(natsMsg* m, const char* key) {
    const char* v = nullptr;
    return natsMsgHeader_Get(m, key, &v) == NATS_OK && v ? v : "";
}

// Publishes to `subject` a message with one header, `payload` and the reply subject `reply`.
natsStatus publish(natsConnection* nc, const std::string& subject, const char* key, const char* value,
                   const std::string& payload = "", const char* reply = nullptr) {
    natsMsg* m = nullptr;
    natsMsg_Create(&m, subject.c_str(), reply, payload.data(), (int)payload.size());
    natsMsgHeader_Set(m, key, value);
    natsStatus s = natsConnection_PublishMsg(nc, m);
    natsMsg_Destroy(m);
    return s;
}

// A raw "GetFile" request for the whole of `path`, answered to `reply`.
natsStatus requestWholeFile(natsConnection* nc, const std::string& path, const std::string& reply) {
    return publish(nc, "cab.VorpaMediaProxy.GetFile", "Cab-Proto", "1",
                   Cab1Encoding(JsonVariant("[\"" + path + "\"]").get()).str(), reply.c_str());
}

class AbandonedTransferTest : public TransferTest {
protected:
    int maxPayload() const override { return 1 << 20; }  // 1 MiB parts, a window of 8
    void SetUp() override {
        // Two workers: four transfers that held theirs would lock the proxy up.
        ASSERT_TRUE(setting("cabDirectory.maxHandlers", 2));
        ASSERT_TRUE(setting("cabDirectory.creditTimeoutMs", 1500));
        ASSERT_TRUE(setting("cabDirectory.maxAnswerBytes", 32 << 20));  // room for four windows of 8 MiB
        TransferTest::SetUp();
    }
};

TEST_F(AbandonedTransferTest, UncreditedAnswersHoldTheirWindowOnlyAndAreFreedAfterTheCreditTimeOut) {
    const std::string path = media.file("huge.sparse");
    kivtest::writeFile(path, "");
    ASSERT_EQ(truncate(path.c_str(), 1ll << 30), 0);  // 1 GiB without blocks on disk
    const int64_t idle = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    ASSERT_GT(idle, 0);
    natsConnection* nc = nullptr;
    natsSubscription* inbox = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, ("nats://" + hostPort()).c_str()));
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&inbox, nc, "greedy.inbox.*"));
    const int kTransfers = 4;
    for (int i = 0; i <= kTransfers; ++i)
        ASSERT_EQ(NATS_OK, requestWholeFile(nc, path, "greedy.inbox." + std::to_string(i)));
    // Each answer sends its first window, then waits for credit that never
    // comes; the fifth does not fit beside them and is refused.
    std::vector<std::string> creditTo(kTransfers + 1);
    int parts = 0, busy = 0;
    for (natsMsg* m = nullptr; parts + busy < kTransfers * 8 + 1; natsMsg_Destroy(m)) {
        ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&m, inbox, 60000)) << "after " << parts << " parts";
        const std::string part = header(m, "Cab-Part");
        if (part.empty()) {
            EXPECT_EQ(std::to_string(CAB_E_BUSY), header(m, "Cab-Status"));
        }
        ++(part.empty() ? busy : parts);
        const int index = std::string(natsMsg_GetSubject(m)).back() - '0';
        if (part == "0") creditTo[index] = header(m, "Cab-Credit-To");
    }
    EXPECT_EQ(1, busy);
    natsMsg* extra = nullptr;
    EXPECT_NE(NATS_OK, natsSubscription_NextMsg(&extra, inbox, 200)) << "a part beyond the window";

    // The workers are free: another caller is served while all four wait.
    CLocalVariant version;
    EXPECT_EQ(0, call("my-KIV_GetVersion", "null", version.ptr()));

    // A credit subject ends in 128 random bits; guessing its neighbours cancels nothing.
    const std::string credit = creditTo[0].empty() ? creditTo[1] : creditTo[0];
    ASSERT_EQ(credit.size() - credit.rfind('.') - 1, 32u) << credit;
    for (int guess = 0; guess < 64; ++guess)
        publish(nc, credit.substr(0, credit.rfind('.') + 1) + std::to_string(guess), "Cab-Cancel", "1");
    publish(nc, credit, "Cab-Received", "1");
    natsMsg* next = nullptr;
    ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&next, inbox, 60000)) << "a guess cancelled the transfer";
    EXPECT_EQ("8", header(next, "Cab-Part"));
    natsMsg_Destroy(next);
#ifndef KIV_SANITIZED
    const int64_t peak = kivtest::statusKiB(proxy.pid(), "VmHWM:");
    EXPECT_LT(peak - idle, 128 * kMiB) << "idle " << idle << " KiB, peak " << peak << " KiB";
    printf("proxy memory: idle %lld KiB, peak %lld KiB with %d uncredited 1 GiB answers\n", (long long)idle,
           (long long)peak, kTransfers);
#endif
    // The requester goes away; after the credit time-out every transfer is abandoned.
    natsSubscription_Destroy(inbox);
    natsConnection_Destroy(nc);
    for (int i = 0; i <= kTransfers; ++i)
        if (!creditTo[i].empty()) {
            ASSERT_TRUE(waitForLog("greedy.inbox." + std::to_string(i) + " abandoned"));
        }
    EXPECT_THAT(proxyLog(), HasSubstr("no credit for 1500 ms"));
#ifndef KIV_SANITIZED
    const int64_t after = kivtest::statusKiB(proxy.pid(), "VmRSS:");
    EXPECT_LT(after - idle, 64 * kMiB) << "idle " << idle << " KiB, after " << after << " KiB";
#endif

    // A file that shrinks while it is sent ends its transfer with an empty part
    // that says why, instead of leaving the requester to time out.
    const std::string shrinking = media.file("shrinking.bin");
    kivtest::writeFile(shrinking, std::string(12 << 20, 'x'));
    ASSERT_EQ(NATS_OK, natsConnection_ConnectTo(&nc, ("nats://" + hostPort()).c_str()));
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&inbox, nc, "shrink.inbox"));
    ASSERT_EQ(NATS_OK, requestWholeFile(nc, shrinking, "shrink.inbox"));
    std::string shrinkCredit;
    for (int i = 0; i < 8; ++i) {
        natsMsg* m = nullptr;
        ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&m, inbox, 60000));
        if (i == 0) shrinkCredit = header(m, "Cab-Credit-To");
        natsMsg_Destroy(m);
    }
    ASSERT_EQ(0, truncate(shrinking.c_str(), 0));
    publish(nc, shrinkCredit, "Cab-Received", "8");
    natsMsg* stop = nullptr;
    ASSERT_EQ(NATS_OK, natsSubscription_NextMsg(&stop, inbox, 60000));
    EXPECT_EQ("8", header(stop, "Cab-Part"));
    EXPECT_EQ(0, natsMsg_GetDataLength(stop));
    EXPECT_EQ("1", header(stop, "Cab-Status"));
    EXPECT_THAT(header(stop, "Cab-Error"), HasSubstr("shrank"));
    natsMsg_Destroy(stop);
    natsSubscription_Destroy(inbox);
    natsConnection_Destroy(nc);
}

}  // namespace
