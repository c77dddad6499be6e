#include "Singleton.h"

#include "support/OutputCapture.h"

#include <atomic>
#include <future>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <cstddef>

#include <signal.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/// A service that tells of its life. Outside a namespace: its name is part of the trace.
class SingletonProbe {
  public:
    SingletonProbe() {
        ++living;
        ++made;
    }
    ~SingletonProbe() { --living; }
    SingletonProbe(const SingletonProbe&) = delete;
    SingletonProbe& operator=(const SingletonProbe&) = delete;

    static bool GetVerbose() { return verbose; }

    int value = 0;

    static inline std::atomic<int> living{0};
    static inline std::atomic<int> made{0};
    static inline std::atomic<bool> verbose{false};
};

/// A service for which there is no memory.
class SingletonWithoutMemory {
  public:
    static bool GetVerbose() { return verbose; }
    static void* operator new(std::size_t, const std::nothrow_t&) noexcept { return nullptr; }
    static void operator delete(void*) {}

    static inline bool verbose = false;
};

namespace {

using Holder = Singleton<SingletonProbe>;

class SingletonTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(Holder::m_RefCount, 0);
        SingletonProbe::made = 0;
    }
    void TearDown() override { SingletonProbe::verbose = false; }
};

}  // namespace

/// Without a holder there is no instance.
TEST_F(SingletonTest, HasNoInstanceWithoutAHolder) {
    EXPECT_EQ(Holder::m_pImpl, nullptr);
    EXPECT_EQ(Holder::m_RefCount, 0);
    EXPECT_EQ(SingletonProbe::living, 0);
}

/// Nested holders share one instance, deleted with the last one.
TEST_F(SingletonTest, CreatesOneInstanceForNestedHolders) {
    {
        const Holder outer;
        SingletonProbe* const instance = outer.get();
        EXPECT_EQ(Holder::m_RefCount, 1);
        {
            const Holder inner;
            EXPECT_EQ(inner.get(), instance);
            EXPECT_EQ(Holder::m_RefCount, 2);
            EXPECT_EQ(SingletonProbe::made, 1);
        }
        EXPECT_EQ(Holder::m_RefCount, 1);
        EXPECT_EQ(SingletonProbe::living, 1);
        EXPECT_EQ(Holder::m_pImpl, instance);
    }
    EXPECT_EQ(SingletonProbe::living, 0);
    EXPECT_EQ(Holder::m_pImpl, nullptr);
    EXPECT_EQ(Holder::m_RefCount, 0);
}

/// A later holder makes a fresh instance.
TEST_F(SingletonTest, CreatesAFreshInstanceAfterTheLastRelease) {
    { Holder()->value = 5; }
    EXPECT_EQ(Holder()->value, 0);
    EXPECT_EQ(SingletonProbe::made, 2);
}

/// Nested holders share one instance, deleted with the last one.
TEST_F(SingletonTest, EveryHolderReachesTheSameInstance) {
    const Holder first;
    const Holder second;
    first->value = 5;
    EXPECT_EQ((*second).value, 5);
    EXPECT_EQ(second.get(), Holder::m_pImpl);
}

/// When verbose each step is traced under the compiler's name of the type; the counts of two
/// nested holders read 1, 2, 1, 0.
TEST_F(SingletonTest, TracesNestedHolders) {
    OutputCapture capture;
    SingletonProbe::verbose = true;
    {
        const Holder outer;
        const Holder inner;
    }
    SingletonProbe::verbose = false;
    capture.stop();
    EXPECT_EQ(capture.out(),
              "14SingletonProbe: lock mutex\n"
              "14SingletonProbe: Created object\n"
              "14SingletonProbe: Constr ref=1\n"
              "14SingletonProbe: unlock mutex\n"
              "14SingletonProbe: lock mutex\n"
              "14SingletonProbe: Constr ref=2\n"
              "14SingletonProbe: unlock mutex\n"
              "14SingletonProbe: lock mutex\n"
              "14SingletonProbe: Destr ref=1\n"
              "14SingletonProbe: unlock mutex\n"
              "14SingletonProbe: lock mutex\n"
              "14SingletonProbe: Destr ref=0\n"
              "14SingletonProbe: Delete object\n"
              "14SingletonProbe: unlock mutex\n");
    EXPECT_EQ(capture.err(), "");
}

/// The flag is asked before every line; without it nothing is written.
TEST_F(SingletonTest, TracesNothingUnlessVerbose) {
    OutputCapture capture;
    {
        const Holder outer;
        const Holder inner;
    }
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
    EXPECT_EQ(SingletonProbe::made, 1);
}

/// The flag is asked before every line; without it nothing is written.
TEST_F(SingletonTest, AsksForTheFlagBeforeEveryLine) {
    OutputCapture capture;
    auto holder = std::make_unique<Holder>();
    SingletonProbe::verbose = true;
    holder.reset();
    SingletonProbe::verbose = false;
    capture.stop();
    EXPECT_EQ(capture.out(),
              "14SingletonProbe: lock mutex\n"
              "14SingletonProbe: Destr ref=0\n"
              "14SingletonProbe: Delete object\n"
              "14SingletonProbe: unlock mutex\n");
}

/// Another thread's holder keeps the instance alive.
TEST_F(SingletonTest, AnotherThreadsHolderKeepsTheInstanceAlive) {
    auto holder = std::make_unique<Holder>();
    SingletonProbe* const instance = holder->get();
    std::promise<void> held;
    std::promise<void> release;
    std::thread user([&] {
        const Holder own;
        held.set_value();
        release.get_future().wait();
        own->value = 1;
    });
    held.get_future().wait();
    holder.reset();
    EXPECT_EQ(SingletonProbe::living, 1);
    EXPECT_EQ(Holder::m_pImpl, instance);
    release.set_value();
    user.join();
    EXPECT_EQ(SingletonProbe::living, 0);
}

/// Holders of many threads are counted right.
TEST_F(SingletonTest, CountsHoldersOfManyThreads) {
    std::atomic<int> strangers{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                const Holder outer;
                const Holder inner;
                if (outer.get() != inner.get() || SingletonProbe::living != 1) ++strangers;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(strangers, 0);
    EXPECT_EQ(Holder::m_RefCount, 0);
    EXPECT_EQ(SingletonProbe::living, 0);
}

/// The mutex is held during acquire and release only.
TEST_F(SingletonTest, LeavesTheMutexFreeBetweenCalls) {
    const Holder holder;
    ASSERT_TRUE(Holder::m_Mutex.try_lock());
    Holder::m_Mutex.unlock();
}

/// Without memory: "Cannot allocate: abort", the unlock traced, and abort.
TEST(SingletonDeathTest, AbortsWhenThereIsNoMemory) {
    EXPECT_EXIT(Singleton<SingletonWithoutMemory>(), ::testing::KilledBySignal(SIGABRT),
                ::testing::Eq("22SingletonWithoutMemory: Cannot allocate: abort\n"));
}

/// Without memory: "Cannot allocate: abort", the unlock traced, and abort.
TEST(SingletonDeathTest, TracesTheUnlockBeforeItAborts) {
    EXPECT_EXIT(
        {
            std::cout.rdbuf(std::cerr.rdbuf());
            SingletonWithoutMemory::verbose = true;
            const Singleton<SingletonWithoutMemory> holder;
        },
        ::testing::KilledBySignal(SIGABRT),
        ::testing::Eq("22SingletonWithoutMemory: lock mutex\n"
                      "22SingletonWithoutMemory: Cannot allocate: abort\n"
                      "22SingletonWithoutMemory: unlock mutex\n"));
}
