// The memory budget of answers: shares between callers, reservations, ledgers of one request.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "cab/CabInline.h"
#include "cab/CabMemoryBudget.h"

namespace {

// Grows a reservation for `caller` by `bytes`; true when it was granted.
bool grow(CabMemoryBudget& budget, std::vector<CabMemoryBudget::Reservation>& held, const std::string& caller,
          uint64_t bytes, std::string* why = nullptr) {
    CabCallerScope scope(caller);
    CabMemoryBudget::Reservation r = budget.forCurrentCaller();
    if (!r.grow(bytes, why)) return false;
    held.push_back(std::move(r));
    return true;
}

}  // namespace

// A caller may hold limit / (N + 1) with N callers holding memory, itself included: alone half, so a second caller
// always finds room while the first keeps everything it may take; a third gets what is left.
TEST(MemoryBudget, EachCallerHoldsAtMostItsShareAndAnotherAlwaysFindsRoom) {
    auto budget = std::make_shared<CabMemoryBudget>(1200);
    std::vector<CabMemoryBudget::Reservation> held;
    const struct {
        const char* caller;
        uint64_t bytes;
        bool granted;
        const char* why;  // part of the refusal
    } steps[] = {
        {"greedy", 600, true, ""},  // alone: half of 1200
        {"greedy", 1, false, "share of caller greedy: 600"},
        {"other", 400, true, ""},  // two hold memory: 1200 / 3 each
        {"other", 1, false, "share of caller other: 400"},
        {"greedy", 1, false, "share of caller greedy: 400"},  // over its new share: no more
        {"", 200, true, ""},                                  // unknown callers, one key: 1200 / 4, but 200 are left
        {"", 1, false, "pass the 1200 bytes"},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(std::string(s.caller) + " " + std::to_string(s.bytes));
        std::string why;
        EXPECT_EQ(s.granted, grow(*budget, held, s.caller, s.bytes, &why)) << why;
        EXPECT_NE(why.find(s.why), std::string::npos) << why;
    }
    EXPECT_EQ(1200u, budget->held());
    EXPECT_EQ(600u, budget->heldBy("greedy"));
    held.erase(held.begin());  // greedy's reservation frees itself
    EXPECT_EQ(0u, budget->heldBy("greedy"));
    EXPECT_TRUE(grow(*budget, held, "other", 0)) << "nothing is always granted";
    EXPECT_FALSE(grow(*budget, held, "late", 2000)) << "larger than the whole budget";
    held.clear();
    EXPECT_EQ(0u, budget->held());
    EXPECT_EQ(1200u, budget->peak());
    // An answer already built passes the limit only while it is all that is held.
    CabMemoryBudget::Reservation built = budget->forCurrentCaller(), second = budget->forCurrentCaller();
    EXPECT_TRUE(built.growAlone(2000, nullptr));
    EXPECT_FALSE(second.growAlone(1, nullptr));
    EXPECT_FALSE(grow(*budget, held, "other", 1));
}

// A request's ledger holds what its handler, its inline calls (child ledgers that only count)
// and its helper threads reserve, until handed on; what does not fit leaves nothing behind.
TEST(MemoryBudget, ALedgerHoldsWhatEveryThreadOfItsRequestReservedUntilHandedOn) {
    auto budget = std::make_shared<CabMemoryBudget>(2 << 20);  // alone: 1 MiB
    CabMemoryBudget::Reservation answer;
    {
        CabCallerScope caller("client");
        CabMemoryLedger request(budget);
        CabMemoryLedger inlineCall(&request);
        std::atomic<int> granted{0}, refused{0};
        std::vector<std::thread> helpers;
        for (int i = 0; i < 8; ++i)
            helpers.emplace_back([&, i] {
                CabLedgerScope helperScope(i % 2 ? &inlineCall : &request);
                for (int k = 0; k < 100; ++k) ++(CabReserveAnswerMemory(4096, nullptr) ? granted : refused);
            });
        for (std::thread& t : helpers) t.join();
        EXPECT_EQ(256, granted.load()) << "1 MiB in 4 KiB steps";
        EXPECT_EQ(800 - 256, refused.load());
        EXPECT_EQ(1u << 20, request.counted());
        EXPECT_EQ(budget->held(), request.counted());
        EXPECT_LE(inlineCall.counted(), request.counted());
        EXPECT_EQ(0u, inlineCall.take().bytes()) << "a child holds nothing of its own";
        answer = request.take();
    }
    EXPECT_EQ(1u << 20, budget->heldBy("client")) << "the answer holds it after the request";
    answer.shrinkTo(1000);
    EXPECT_EQ(1000u, budget->held());
    answer = CabMemoryBudget::Reservation();
    EXPECT_EQ(0u, budget->held());
    EXPECT_TRUE(CabReserveAnswerMemory(1ull << 40, nullptr)) << "a thread serving no request counts nothing";
}
