// The worker pool starts a thread for a job whenever every existing thread is
// busy or already promised to an earlier job, so jobs that wait on each other
// never wait for each other's thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>

#include "cab/CabWorkerPool.h"
#include "tests/support/Eventually.h"

namespace {

// A one-shot flag that threads can wait on with a safety time-out.
struct Flag {
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
    bool wait(int seconds = 30) { return future.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready; }
};

}  // namespace

TEST(WorkerPool, BackToBackJobsDoNotShareTheOneIdleThread) {
    CabWorkerPool pool(8);
    Flag warm;
    ASSERT_TRUE(pool.submit([&] { warm.promise.set_value(); }));
    ASSERT_TRUE(warm.wait());
    ASSERT_TRUE(kivtest::eventually([&] { return pool.idleCount() == 1; }));
    // Both jobs are queued before the idle thread can wake; the first waits for
    // the second, which must therefore get a thread of its own.
    Flag second, firstDone;
    bool sawSecond = false;
    ASSERT_TRUE(pool.submit([&] {
        sawSecond = second.wait();
        firstDone.promise.set_value();
    }));
    ASSERT_TRUE(pool.submit([&] { second.promise.set_value(); }));
    ASSERT_TRUE(firstDone.wait(60));
    EXPECT_TRUE(sawSecond) << "the second job only ran after the first gave up";
    EXPECT_EQ(2, pool.threadCount());
    pool.stop();  // before the flags go
}

TEST(WorkerPool, BeyondTheCapJobsQueueAndAllRun) {
    CabWorkerPool pool(2);
    std::atomic<int> done{0};
    Flag all;
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(pool.submit([&] {
            if (++done == 50) all.promise.set_value();
        }));
    ASSERT_TRUE(all.wait());
    EXPECT_LE(pool.threadCount(), 2);
    pool.stop();
    EXPECT_FALSE(pool.submit([] {}));
}
