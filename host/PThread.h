// Thin wrappers over POSIX threads.
//
// PMutex / PCondMutex: a mutex, and a mutex with its condition variable.
// PLocker<T>: a value that is also its own mutex; touch the value only while
//   holding that mutex.
// PLockGuard: holds a PMutex for its scope.
// The lock annotations (host/ThreadAnnotations.h) tell clang which fields a
// PMutex guards and which functions expect it held.
// PThread: runs a delegate on a new thread. init() returns only once the new
//   thread has taken its own reference to the start record, so the PThread may
//   be destroyed at once: an unjoined thread is detached and frees its record.
//   init() throws std::runtime_error("Failed to create thread: %d").
#pragma once

#include <pthread.h>

#include <atomic>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "host/ThreadAnnotations.h"

class KIV_CAPABILITY("mutex") PMutex {
public:
    PMutex() { pthread_mutex_init(&m_mutex, nullptr); }
    virtual ~PMutex() { pthread_mutex_destroy(&m_mutex); }
    PMutex(const PMutex&) = delete;
    PMutex& operator=(const PMutex&) = delete;

    void lock() KIV_ACQUIRE() { pthread_mutex_lock(&m_mutex); }
    void unlock() KIV_RELEASE() { pthread_mutex_unlock(&m_mutex); }
    pthread_mutex_t* native() { return &m_mutex; }

protected:
    pthread_mutex_t m_mutex;
};

class PCondMutex : public PMutex {
public:
    PCondMutex() { pthread_cond_init(&m_cond, nullptr); }
    ~PCondMutex() override { pthread_cond_destroy(&m_cond); }

    // Both waits are called with the mutex held and return holding it.
    void wait() KIV_REQUIRES(this) { pthread_cond_wait(&m_cond, &m_mutex); }
    // Waits until the absolute CLOCK_REALTIME deadline; returns false on time-out.
    bool waitUntil(const struct timespec& deadline) KIV_REQUIRES(this);
    void signal() { pthread_cond_signal(&m_cond); }
    void broadcast() { pthread_cond_broadcast(&m_cond); }

protected:
    pthread_cond_t m_cond;
};

// Scoped lock for PMutex and everything derived from it.
class KIV_SCOPED_CAPABILITY PLockGuard {
public:
    explicit PLockGuard(PMutex& m) KIV_ACQUIRE(m) : m_m(m) { m_m.lock(); }
    ~PLockGuard() KIV_RELEASE() { m_m.unlock(); }
    PLockGuard(const PLockGuard&) = delete;
    PLockGuard& operator=(const PLockGuard&) = delete;

private:
    PMutex& m_m;
};

// T's fields cannot carry KIV_GUARDED_BY (they are T's): the annotation
// covers the lock only.
template <class T>
class KIV_CAPABILITY("mutex") PLocker : public T, public PMutex {
public:
    PLocker() = default;
};

class PThreadDelegateGeneric {
public:
    virtual ~PThreadDelegateGeneric() = default;
    virtual void* Invoke(void* arg) = 0;
    virtual PThreadDelegateGeneric* clone() const = 0;
};

template <class T>
class PThreadDelegateMember : public PThreadDelegateGeneric {
public:
    typedef void* (T::*Method)(void*);
    PThreadDelegateMember(T* obj, Method m) : m_obj(obj), m_method(m) {}
    void* Invoke(void* arg) override { return (m_obj->*m_method)(arg); }
    PThreadDelegateGeneric* clone() const override { return new PThreadDelegateMember(*this); }

private:
    T* m_obj;
    Method m_method;
};

class PThreadDelegateFunction : public PThreadDelegateGeneric {
public:
    typedef void* (*Function)(void*);
    explicit PThreadDelegateFunction(Function f) : m_fn(f) {}
    void* Invoke(void* arg) override { return m_fn(arg); }
    PThreadDelegateGeneric* clone() const override { return new PThreadDelegateFunction(*this); }

private:
    Function m_fn;
};

class PThread {
public:
    PThread() = default;
    ~PThread();
    PThread(const PThread&) = delete;
    PThread& operator=(const PThread&) = delete;

    // Starts the thread; takes ownership of `delegate` (also when it throws).
    void init(const pthread_attr_t* attr, PThreadDelegateGeneric* delegate, void* arg);

    // Hooks run on every new PThread around its delegate: `start` before it
    // (its result is handed to `end`), `end` after it. Set them at start-up;
    // the crash handler uses them to give each thread an alternate signal
    // stack. Null hooks do nothing.
    typedef void* (*StartHook)();
    typedef void (*EndHook)(void* token);
    static void setThreadHooks(StartHook start, EndHook end);

    pthread_t handle() const { return m_handle; }
    // Joins the thread and marks it so the destructor does not detach it.
    // Returns the delegate's result.
    void* join();
    // Marks the thread as already released (joined by the owner with pthread_join).
    void setDetached() { m_detached = true; }
    bool detached() const { return m_detached; }

    struct ThreadData {
        ThreadData(PThreadDelegateGeneric* d, void* a) : delegate(d), arg(a) {}
        ~ThreadData() { delete delegate; }
        PThreadDelegateGeneric* delegate;
        PCondMutex signal;
        bool started KIV_GUARDED_BY(signal) = false;
        void* arg;
    };

private:
    static void* startRoutine(void* self);

    static std::atomic<StartHook> s_startHook;
    static std::atomic<EndHook> s_endHook;

    pthread_t m_handle{};
    boost::weak_ptr<ThreadData> m_data;
    bool m_detached = false;
};
