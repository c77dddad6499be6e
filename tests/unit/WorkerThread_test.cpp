#include "WorkerThread.h"

#include "support/NoThreads.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <future>
#include <string>

#include <cerrno>
#include <csignal>

#include <pthread.h>

#include <gtest/gtest.h>

namespace {

std::string nameOfThisThread() {
    char name[16] = "";
    ::pthread_getname_np(::pthread_self(), name, sizeof name);
    return name;
}

bool alarmIsBlocked() {
    sigset_t mask;
    ::pthread_sigmask(SIG_BLOCK, nullptr, &mask);
    return ::sigismember(&mask, SIGALRM) == 1;
}

/// Says at its end, however that comes, that it has come.
class EndMark {
  public:
    explicit EndMark(std::atomic<bool>& mark) : m_mark(mark) {}
    ~EndMark() { m_mark = true; }
    EndMark(const EndMark&) = delete;
    EndMark& operator=(const EndMark&) = delete;

  private:
    std::atomic<bool>& m_mark;
};

}  // namespace

/// A thread runs its body under its name, and its result is what the join returns.
TEST(WorkerThread, RunsItsBodyUnderItsName) {
    WorkerThread thread;
    std::string name;
    ASSERT_EQ(thread.start("KivWorker",
                           [&name] {
                               name = nameOfThisThread();
                               return 7;
                           }),
              0);
    EXPECT_TRUE(thread.isStarted());
    EXPECT_EQ(thread.join(), 7);
    EXPECT_EQ(name, "KivWorker");
    EXPECT_FALSE(thread.isStarted());
}

/// A name of more than 15 characters leaves the inherited one.
TEST(WorkerThread, KeepsTheInheritedNameWhereItsOwnIsTooLong) {
    WorkerThread thread;
    std::string name;
    ASSERT_EQ(thread.start("ANameOfSixteenCh",
                           [&name] {
                               name = nameOfThisThread();
                               return 0;
                           }),
              0);
    thread.join();
    EXPECT_EQ(name, nameOfThisThread());
}

/// The alarm is blocked on the thread, and as before on the one that started it.
TEST(WorkerThread, KeepsTheAlarmOut) {
    const bool before = alarmIsBlocked();
    bool blocked = false;
    WorkerThread thread;
    ASSERT_EQ(thread.start("KivWorker",
                           [&blocked] {
                               blocked = alarmIsBlocked();
                               return 0;
                           }),
              0);
    thread.join();
    EXPECT_TRUE(blocked);
    EXPECT_EQ(alarmIsBlocked(), before);
}

/// A cancelled thread ends where it says that it may, and only there; its owners release.
TEST(WorkerThread, IsCancelledAtItsCancelPointsOnly) {
    std::atomic<bool> asked{false};
    std::atomic<bool> slept{false};
    std::atomic<bool> ended{false};
    WorkerThread thread;
    ASSERT_EQ(thread.start("KivWorker",
                           [&] {
                               const EndMark mark(ended);
                               while (!asked) ::usleep(100);  // a cancellation point elsewhere
                               slept = true;
                               for (;;) WorkerThread::sleep(std::chrono::seconds(1));
                               return 0;
                           }),
              0);
    thread.cancel();
    EXPECT_FALSE(ended);
    asked = true;
    EXPECT_EQ(thread.join(), -1);
    EXPECT_TRUE(slept);
    EXPECT_TRUE(ended);
}

/// Without a thread to be had the start says why, and there is nothing to cancel or join.
TEST(WorkerThread, SaysWhyItCannotStart) {
    WorkerThread thread;
    {
        const NoThreads none;
        ASSERT_TRUE(none.done());
        EXPECT_EQ(thread.start("KivWorker", [] { return 0; }), EAGAIN);
        EXPECT_EQ(WorkerThread::startDetached("KivWorker", [] { return 0; }), EAGAIN);
    }
    EXPECT_FALSE(thread.isStarted());
    thread.cancel();
    EXPECT_EQ(thread.join(), -1);
}

/// A thread knows itself, and does not wait for itself.
TEST(WorkerThread, DoesNotJoinItself) {
    WorkerThread thread;
    std::promise<void> started;
    std::atomic<bool> knowsItself{false};
    std::atomic<int> joined{0};
    ASSERT_EQ(thread.start("KivWorker",
                           [&] {
                               started.get_future().wait();
                               knowsItself = thread.isCurrent();
                               joined = thread.join();
                               return 3;
                           }),
              0);
    EXPECT_FALSE(thread.isCurrent());
    started.set_value();
    EXPECT_EQ(thread.join(), 3);
    EXPECT_TRUE(knowsItself);
    EXPECT_EQ(joined, -1);
}

/// A thread that nobody joins runs its body as well.
TEST(WorkerThread, RunsADetachedBody) {
    std::promise<std::string> name;
    ASSERT_EQ(WorkerThread::startDetached("KivDetached",
                                          [&name] {
                                              name.set_value(nameOfThisThread());
                                              return 0;
                                          }),
              0);
    EXPECT_EQ(name.get_future().get(), "KivDetached");
}
