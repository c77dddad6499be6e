#include "AppClock.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <cstdint>

#include <gtest/gtest.h>

#include "KernelTime.h"
#include "support/AppClockPeer.h"
#include "support/KivTest.h"

namespace {

constexpr std::int64_t kTime = 1551953702000;  // UTC ms: 2019-03-07T10:15:02Z
constexpr std::int64_t kMinute = 60000;

class AppClockTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        AppClockPeer::forget();
    }
    void TearDown() override {
        AppClockPeer::forget();
        KivTest::TearDown();
    }

    static std::int64_t appClockMs() {
        using std::chrono::milliseconds;
        return std::chrono::duration_cast<milliseconds>(kivAppNow().time_since_epoch()).count();
    }
};

/// The application clock is the system clock while it was never set.
TEST_F(AppClockTest, IsTheSystemClockWhileItWasNeverSet) {
    const auto before = std::chrono::system_clock::now();
    const auto now = kivAppNow();
    const auto after = std::chrono::system_clock::now();
    EXPECT_LE(before, now);
    EXPECT_LE(now, after);
}

/// Once set it runs on with the monotonic clock.
TEST_F(AppClockTest, RunsOnFromTheTimeThatItWasSetTo) {
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    AppClock::set(kTime);
    AppClockPeer::age({2, 500000000});
    const std::int64_t now = appClockMs();
    const std::int64_t passed = KernelTime::getTimeMonotonicAsInt64() - before;
    EXPECT_GE(now, kTime + 2500);
    EXPECT_LE(now, kTime + 2500 + passed + 1);
}

/// Once set it runs on with the monotonic clock.
TEST_F(AppClockTest, CarriesNanosecondsIntoSeconds) {
    AppClock::set(kTime + 999);
    AppClockPeer::age({0, 900000000});
    const std::int64_t now = appClockMs();
    EXPECT_GE(now, kTime + 1899);
    EXPECT_LT(now, kTime + 1899 + kMinute);
}

/// Once set it runs on with the monotonic clock.
TEST_F(AppClockTest, SettingItSplitsMilliseconds) {
    AppClock::set(kTime + 347);
    EXPECT_EQ(AppClockPeer::asSet().tv_sec, kTime / 1000);
    EXPECT_EQ(AppClockPeer::asSet().tv_nsec, 347000000);
}

/// Times of any size are survived; readers never meet half a setting.
TEST_F(AppClockTest, SurvivesTimesOfAnySize) {
    for (const std::int64_t ms : {INT64_MAX, INT64_MIN, INT64_MIN + 1}) {
        AppClock::set(ms);
        kivAppNow();
    }
    AppClock::set(kTime);
    EXPECT_GE(appClockMs(), kTime);
}

/// Times of any size are survived; readers never meet half a setting.
TEST_F(AppClockTest, ReadersNeverMeetHalfASetting) {
    AppClock::set(kTime);
    std::atomic<bool> finished{false};
    std::thread writer([&] {
        for (int i = 0; i < 20000; ++i) AppClock::set(i % 2 == 0 ? kTime : 2 * kTime);
        finished = true;
    });
    while (!finished) {
        const std::int64_t now = appClockMs();
        EXPECT_TRUE((now >= kTime && now < kTime + 10 * kMinute) ||
                    (now >= 2 * kTime && now < 2 * kTime + 10 * kMinute))
            << now;
    }
    writer.join();
}

}  // namespace
