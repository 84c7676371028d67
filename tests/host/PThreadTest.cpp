#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "host/MemoryPolicy.h"
#include "host/PThread.h"
#include "tests/support/Sanitizers.h"

namespace {

struct Counter {
    std::atomic<int> runs{0};
    PCondMutex done;
    int finished = 0;  // guarded by done
    void* work(void* arg) {
        runs.fetch_add(1);
        done.lock();
        ++finished;
        done.broadcast();
        done.unlock();
        return arg;
    }
};

std::atomic<int> g_started{0};
void* markStarted(void*) {
    g_started.fetch_add(1);
    return nullptr;
}

}  // namespace

// init() returns only once the thread runs, even when the delegate ends at
// once, and destroying the PThread right away leaves the thread to free its
// own record. Many at once, to give the handshake a chance to go wrong.
TEST(PThread, HandshakeUnderLoadAndDestroyRightAfterInit) {
    Counter c;
    const int kThreads = 400;
    for (int i = 0; i < kThreads; ++i) {
        PThread* t = new PThread;
        t->init(nullptr, new PThreadDelegateMember<Counter>(&c, &Counter::work), reinterpret_cast<void*>(i));
        delete t;  // detaches; the thread keeps running
    }
    c.done.lock();
    while (c.finished < kThreads) c.done.wait();
    c.done.unlock();
    EXPECT_EQ(c.runs.load(), kThreads);
}

TEST(PThread, JoinReturnsTheDelegateResult) {
    Counter c;
    PThread t;
    t.init(nullptr, new PThreadDelegateMember<Counter>(&c, &Counter::work), reinterpret_cast<void*>(42));
    EXPECT_EQ(t.join(), reinterpret_cast<void*>(42));
    EXPECT_TRUE(t.detached());
    PThread f;
    g_started = 0;
    f.init(nullptr, new PThreadDelegateFunction(&markStarted), nullptr);
    f.join();
    EXPECT_EQ(g_started.load(), 1);
}

TEST(PThread, FailedCreationThrowsWithTheErrorNumber) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // A stack far beyond the address space makes pthread_create fail.
    ASSERT_EQ(pthread_attr_setstacksize(&attr, static_cast<size_t>(1) << 46), 0);
    PThread t;
    EXPECT_THAT([&] { t.init(&attr, new PThreadDelegateFunction(&markStarted), nullptr); },
                testing::ThrowsMessage<std::runtime_error>(testing::AllOf(
                    testing::StartsWith("Failed to create thread: "), testing::Ne("Failed to create thread: 0"))));
    pthread_attr_destroy(&attr);
}

// The bound on allocator pools takes effect on this platform (it once
// compiled to nothing: the C library's macro was tested before any header
// defined it).
TEST(MemoryPolicy, BoundAllocatorPoolsTakesEffectWithGlibc) {
#if defined(__GLIBC__) && !defined(KIV_SANITIZED)  // a sanitizer's allocator takes no such setting
    EXPECT_TRUE(BoundAllocatorPools(64));
#endif
}
