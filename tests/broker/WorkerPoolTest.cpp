// The worker pool starts a thread for a job whenever every existing thread is
// busy or already promised to an earlier job, so jobs that wait on each other
// never wait for each other's thread.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "cab/CabWorkerPool.h"

namespace {

// A one-shot flag that threads can wait on with a safety time-out.
class Flag {
public:
    void set() {
        std::lock_guard<std::mutex> g(m_lock);
        m_set = true;
        m_cond.notify_all();
    }
    bool wait(int seconds = 30) {
        std::unique_lock<std::mutex> g(m_lock);
        return m_cond.wait_for(g, std::chrono::seconds(seconds), [this] { return m_set; });
    }

private:
    std::mutex m_lock;            // guards m_set
    std::condition_variable m_cond;
    bool m_set = false;           // m_lock
};

// Waits (bounded) until the pool has `n` threads waiting for work.
bool waitIdle(CabWorkerPool& pool, int n) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (pool.idleCount() != n) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

}  // namespace

TEST(WorkerPool, BackToBackJobsDoNotShareTheOneIdleThread) {
    CabWorkerPool pool(8);
    Flag warm;
    ASSERT_TRUE(pool.submit([&] { warm.set(); }));
    ASSERT_TRUE(warm.wait());
    ASSERT_TRUE(waitIdle(pool, 1));
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
