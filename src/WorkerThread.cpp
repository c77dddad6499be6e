#include "WorkerThread.h"

#include "AlarmBlock.h"

#include <memory>
#include <new>
#include <utility>

#include <cerrno>
#include <cstdint>

#include <unistd.h>

namespace {

struct Launch {
    const char* name;
    WorkerThread::Body body;
};

void* run(void* launch) {
    ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    const std::unique_ptr<Launch> own(static_cast<Launch*>(launch));
    static_cast<void>(::pthread_setname_np(::pthread_self(), own->name));
    const std::intptr_t result = own->body();
    // NOLINTNEXTLINE(performance-no-int-to-ptr): how a thread hands on its exit value
    return reinterpret_cast<void*>(result);
}

int launch(pthread_t& thread, const char* name, WorkerThread::Body body) {
    try {
        auto start = std::make_unique<Launch>(Launch{name, std::move(body)});
        const AlarmBlock inherited;
        const int error = ::pthread_create(&thread, nullptr, run, start.get());
        if (error == 0) static_cast<void>(start.release());  // the thread's own now
        return error;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

}  // namespace

int WorkerThread::start(const char* name, Body body) {
    const int error = launch(m_thread, name, std::move(body));
    m_started = error == 0;
    return error;
}

int WorkerThread::startDetached(const char* name, Body body) {
    pthread_t thread{};
    const int error = launch(thread, name, std::move(body));
    if (error == 0) ::pthread_detach(thread);
    return error;
}

bool WorkerThread::isCurrent() const {
    return m_started && ::pthread_equal(m_thread, ::pthread_self()) != 0;
}

void WorkerThread::cancel() {
    if (m_started) ::pthread_cancel(m_thread);
}

int WorkerThread::join() {
    if (!m_started || isCurrent()) return -1;
    void* result = nullptr;
    ::pthread_join(m_thread, &result);
    m_started = false;
    return static_cast<int>(reinterpret_cast<std::intptr_t>(result));
}

void WorkerThread::sleep(std::chrono::microseconds duration) {
    const CancelPoint here;
    ::usleep(static_cast<useconds_t>(duration.count()));
}
