// The worker pool starts a thread for a job whenever every existing thread is
// busy or already promised to an earlier job, so jobs that wait on each other
// never wait for each other's thread.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <mutex>

#include "cab/CabWorkerPool.h"
#include "tests/support/Eventually.h"

namespace {

// A one-shot flag that threads can wait on with a safety time-out.
struct Flag {
    std::promise<void> promise;
    std::shared_future<void> future = promise.get_future().share();
    void set() { promise.set_value(); }
    bool wait(int seconds = 30) { return future.wait_for(std::chrono::seconds(seconds)) == std::future_status::ready; }
};

}  // namespace

TEST(WorkerPool, BackToBackJobsDoNotShareTheOneIdleThread) {
    CabWorkerPool pool(8);
    Flag warm;
    ASSERT_TRUE(pool.submit([&] { warm.set(); }));
    ASSERT_TRUE(warm.wait());
    ASSERT_TRUE(kivtest::eventually([&] { return pool.idleCount() == 1; }));
    // Both jobs are queued before the idle thread can wake; the first waits for
    // the second, which must therefore get a thread of its own.
    Flag second, firstDone;
    bool sawSecond = false;
    ASSERT_TRUE(pool.submit([&] {
        sawSecond = second.wait();
        firstDone.set();
    }));
    ASSERT_TRUE(pool.submit([&] { second.set(); }));
    ASSERT_TRUE(firstDone.wait(60));
    EXPECT_TRUE(sawSecond) << "the second job only ran after the first gave up";
    EXPECT_EQ(2, pool.threadCount());
    pool.stop();
}

TEST(WorkerPool, BeyondTheCapJobsQueueAndAllRun) {
    CabWorkerPool pool(2);
    std::mutex lock;   // guards done
    int done = 0;      // lock
    Flag all;
    for (int i = 0; i < 50; ++i)
        ASSERT_TRUE(pool.submit([&] {
            std::lock_guard<std::mutex> g(lock);
            if (++done == 50) all.set();
        }));
    ASSERT_TRUE(all.wait());
    EXPECT_LE(pool.threadCount(), 2);
    pool.stop();
    EXPECT_FALSE(pool.submit([] {}));
}
