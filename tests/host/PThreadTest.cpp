#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "host/MemoryPolicy.h"
#include "host/PThread.h"
#include "tests/support/Sanitizers.h"
#include "tests/support/Thrown.h"

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

}  // namespace

// init() returns once the thread runs, even when the delegate ends at once, and a PThread destroyed right
// away leaves the thread to free its own record (many, to give the handshake a chance to fail). join() too.
TEST(PThread, HandshakeUnderLoadDestroyRightAfterInitAndJoin) {
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
    PThread t;
    t.init(nullptr, new PThreadDelegateMember<Counter>(&c, &Counter::work), reinterpret_cast<void*>(42));
    EXPECT_EQ(t.join(), reinterpret_cast<void*>(42));
    EXPECT_TRUE(t.detached());
    PThread f;
    f.init(nullptr, new PThreadDelegateFunction([](void* arg) -> void* { return arg; }), &c);
    EXPECT_EQ(f.join(), &c);
}

TEST(PThread, FailedCreationThrowsWithTheErrorNumber) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    // A stack far beyond the address space makes pthread_create fail.
    ASSERT_EQ(pthread_attr_setstacksize(&attr, static_cast<size_t>(1) << 46), 0);
    PThread t;
    const std::string what = kivtest::thrownBy(
        [&] { t.init(&attr, new PThreadDelegateFunction([](void*) -> void* { return nullptr; }), nullptr); });
    EXPECT_TRUE(what.rfind("Failed to create thread: ", 0) == 0 && what != "Failed to create thread: 0") << what;
    pthread_attr_destroy(&attr);
}

// The bound takes effect here (it once compiled to nothing: a macro tested before its header).
TEST(MemoryPolicy, BoundAllocatorPoolsTakesEffectWithGlibc) {
#if defined(__GLIBC__) && !defined(KIV_SANITIZED)  // a sanitizer's allocator takes no such setting
    EXPECT_TRUE(BoundAllocatorPools(64));
#endif
}
