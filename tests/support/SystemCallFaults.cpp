#include "support/SystemCallFaults.h"

#include "support/MessageQueue.h"

#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <mqueue.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

// Defined here, not in the header: only programs that use them get the calls below.
std::atomic<int> SystemCallFaults::getAttributesError{0};
std::atomic<int> SystemCallFaults::closeQueueError{0};
std::atomic<int> SystemCallFaults::closeSemaphoreError{0};
std::atomic<int> SystemCallFaults::receiveError{0};
std::atomic<int> SystemCallFaults::receiveFailures{0};
std::atomic<int> SystemCallFaults::receives{0};
std::atomic<bool> SystemCallFaults::waitForMessages{false};
std::atomic<bool> SystemCallFaults::holdSleeps{false};
std::atomic<int> SystemCallFaults::heldSleeps{0};
std::atomic<bool> SystemCallFaults::shortenSleeps{false};
std::atomic<unsigned int> SystemCallFaults::longestSleep{0};
std::atomic<int> SystemCallFaults::sleeps{0};
std::atomic<int> SystemCallFaults::sleepsBelowAMillisecond{0};
std::atomic<int> SystemCallFaults::heapTrims{0};

namespace {

constexpr std::size_t kMostSleeps = 1000;

std::mutex s_sleepsMutex;  // guards s_sleepsAsked
std::vector<unsigned int> s_sleepsAsked;

void rememberSleep(unsigned int microseconds) {
    const std::lock_guard<std::mutex> lock(s_sleepsMutex);
    if (s_sleepsAsked.size() < kMostSleeps) s_sleepsAsked.push_back(microseconds);
}

}  // namespace

std::vector<unsigned int> SystemCallFaults::sleepsAsked() {
    const std::lock_guard<std::mutex> lock(s_sleepsMutex);
    return s_sleepsAsked;
}

void SystemCallFaults::forgetSleeps() {
    const std::lock_guard<std::mutex> lock(s_sleepsMutex);
    s_sleepsAsked.clear();
}

void SystemCallFaults::clear() {
    forgetSleeps();
    getAttributesError = 0;
    closeQueueError = 0;
    closeSemaphoreError = 0;
    receiveError = 0;
    receiveFailures = 0;
    receives = 0;
    waitForMessages = false;
    holdSleeps = false;
    shortenSleeps = false;
    longestSleep = 0;
    sleeps = 0;
    sleepsBelowAMillisecond = 0;
    heapTrims = 0;
}

namespace {

template <typename Function>
Function* libraryCall(const char* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

int failWith(int error) {
    errno = error;
    return -1;
}

bool isEmpty(mqd_t queue) {
    mq_attr attributes{};
    libraryCall<int(mqd_t, mq_attr*)>("mq_getattr")(queue, &attributes);
    return attributes.mq_curmsgs == 0;
}

void waitForMessage(mqd_t queue) {
    const timespec step = {0, 100000};
    while (SystemCallFaults::waitForMessages && isEmpty(queue)) ::nanosleep(&step, nullptr);
}

class Held {
  public:
    Held() { ++SystemCallFaults::heldSleeps; }
    ~Held() { --SystemCallFaults::heldSleeps; }
};

}  // namespace

// The program's own definitions come before those of the C library.
extern "C" {

int mq_getattr(mqd_t queue, mq_attr* attributes) noexcept {
    if (const int error = SystemCallFaults::getAttributesError) return failWith(error);
    return libraryCall<int(mqd_t, mq_attr*)>("mq_getattr")(queue, attributes);
}

int mq_close(mqd_t queue) noexcept {
    const int result = libraryCall<int(mqd_t)>("mq_close")(queue);
    if (const int error = SystemCallFaults::closeQueueError) return failWith(error);
    return result;
}

ssize_t mq_timedreceive(mqd_t queue, char* buffer, size_t size, unsigned int* priority,
                        const timespec* limit) {
    waitForMessage(queue);
    return libraryCall<ssize_t(mqd_t, char*, size_t, unsigned int*, const timespec*)>(
        "mq_timedreceive")(queue, buffer, size, priority, limit);
}

ssize_t mq_receive(mqd_t queue, char* buffer, size_t size, unsigned int* priority) {
    ++SystemCallFaults::receives;
    waitForMessage(queue);
    if (SystemCallFaults::receiveFailures > 0) {
        --SystemCallFaults::receiveFailures;
        return failWith(SystemCallFaults::receiveError);
    }
    const ssize_t length = libraryCall<ssize_t(mqd_t, char*, size_t, unsigned int*)>("mq_receive")(
        queue, buffer, size, priority);
    static_cast<void>(messagesSent.load());
    return length;
}

int sem_close(sem_t* semaphore) noexcept {
    const int result = libraryCall<int(sem_t*)>("sem_close")(semaphore);
    if (const int error = SystemCallFaults::closeSemaphoreError) return failWith(error);
    return result;
}

int usleep(useconds_t microseconds) {
    if (microseconds > SystemCallFaults::longestSleep)
        SystemCallFaults::longestSleep = microseconds;
    ++SystemCallFaults::sleeps;
    rememberSleep(microseconds);
    if (microseconds < 1000) ++SystemCallFaults::sleepsBelowAMillisecond;
    const timespec step = {0, 1000000};
    if (SystemCallFaults::holdSleeps) {
        const Held held;
        while (SystemCallFaults::holdSleeps) ::nanosleep(&step, nullptr);
        return 0;
    }
    if (SystemCallFaults::shortenSleeps) return ::nanosleep(&step, nullptr);
    return libraryCall<int(useconds_t)>("usleep")(microseconds);
}

int malloc_trim(size_t pad) noexcept {
    ++SystemCallFaults::heapTrims;
    return libraryCall<int(size_t)>("malloc_trim")(pad);
}
}
