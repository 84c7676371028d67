// The worker pool starts a thread for a job whenever every existing thread is busy or already promised to an earlier
// job, so jobs that wait on each other never wait for each other's thread; at its cap, jobs wait for a thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cab/internal/CabWorkerPool.h"
#include "tests/support/Eventually.h"

namespace {

// Jobs that each wait, ten seconds at most, until `n` of them run together.
struct Meeting {
    std::mutex lock;
    std::condition_variable cv;
    int inside = 0;  // lock
    std::atomic<int> met{0};
    void join(int n) {
        std::unique_lock<std::mutex> g(lock);
        ++inside;
        cv.notify_all();
        if (cv.wait_for(g, std::chrono::seconds(10), [&] { return inside >= n; })) ++met;
    }
};

}  // namespace

TEST(WorkerPool, BackToBackJobsDoNotShareTheIdleThreadsAndBeyondTheCapJobsQueue) {
    CabWorkerPool pool(9);
    Meeting warm, nine;
    std::atomic<int> late{0};
    for (int i = 0; i < 8; ++i) ASSERT_TRUE(pool.submit([&] { warm.join(8); }));
    ASSERT_TRUE(kivtest::eventually([&] { return pool.idleCount() == 8; }));
    // Queued faster than the eight idle threads wake: a thread signalled for
    // one job is not free for the next, so the ninth gets a thread of its own.
    for (int i = 0; i < 9; ++i) ASSERT_TRUE(pool.submit([&] { nine.join(9); }));
    ASSERT_TRUE(pool.submit([&] { ++late; }));  // all nine threads are busy: it waits
    EXPECT_EQ(9, pool.threadCount());
    pool.stop();  // lets every job end
    EXPECT_EQ(8, warm.met.load());
    EXPECT_EQ(9, nine.met.load()) << "jobs waited for a thread promised to an earlier job";
    EXPECT_EQ(1, late.load());
    EXPECT_FALSE(pool.submit([] {}));
}
