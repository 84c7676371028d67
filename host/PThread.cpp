#include "host/PThread.h"

#include <cerrno>
#include <stdexcept>

#include "common/CStdStr.h"

std::atomic<PThread::StartHook> PThread::s_startHook{nullptr};
std::atomic<PThread::EndHook> PThread::s_endHook{nullptr};

void PThread::setThreadHooks(StartHook start, EndHook end) {
    s_endHook.store(end);
    s_startHook.store(start);
}

bool PCondMutex::waitUntil(const struct timespec& deadline) {
    return pthread_cond_timedwait(&m_cond, &m_mutex, &deadline) != ETIMEDOUT;
}

void PThread::init(const pthread_attr_t* attr, PThreadDelegateGeneric* delegate, void* arg) {
    m_handle = pthread_t();
    m_detached = false;
    boost::shared_ptr<ThreadData> data(new ThreadData(delegate, arg));
    m_data = data;
    int rc = pthread_create(&m_handle, attr, &PThread::startRoutine, this);
    if (rc != 0) {
        m_detached = true;  // there is no thread to detach
        throw std::runtime_error(CStdStr::Formatted("Failed to create thread: %d", rc));
    }
    data->signal.lock();
    while (!data->started) data->signal.wait();
    data->signal.unlock();
    // The new thread now holds its own reference; ours goes here.
}

void* PThread::startRoutine(void* self) {
    PThread* t = static_cast<PThread*>(self);
    // init() holds a strong reference until `started` is set, so the record
    // is always alive here; a missing record means there is nothing to run.
    boost::shared_ptr<ThreadData> data = t->m_data.lock();
    if (!data) return nullptr;
    data->signal.lock();
    data->started = true;
    data->signal.broadcast();
    data->signal.unlock();
    // From here on `t` may be gone: use only the record.
    EndHook end = s_endHook.load();
    StartHook start = s_startHook.load();
    void* token = start ? start() : nullptr;
    void* result = data->delegate->Invoke(data->arg);
    data.reset();
    if (end) end(token);
    return result;
}

void* PThread::join() {
    void* result = nullptr;
    if (!m_detached) {
        pthread_join(m_handle, &result);
        m_detached = true;
    }
    return result;
}

PThread::~PThread() {
    if (!m_detached) {
        pthread_detach(m_handle);
        m_detached = true;
    }
    m_data.reset();
}
