#include "RetryPause.h"

#include "support/RetryPausePeer.h"

#include <cstdint>

#include <gtest/gtest.h>

namespace {

/// How long the pause is, to the second (up).
std::int64_t seconds(const RetryPause& pause) {
    return (pause.leftMs() + 999) / 1000;
}

/// There is no pause before the first failure.
TEST(RetryPauseTest, IsNoneAtFirst) {
    EXPECT_EQ(RetryPause().leftMs(), 0);
}

/// The pause is 10 s after the first failure and doubles with each further one, up to 300 s.
TEST(RetryPauseTest, DoublesFrom10To300Seconds) {
    RetryPause pause;
    for (const std::int64_t expected : {10, 20, 40, 80, 160, 300, 300}) {
        pause.lengthen();
        EXPECT_EQ(seconds(pause), expected);
        RetryPausePeer::pass(pause, expected * 1000);
        EXPECT_EQ(pause.leftMs(), 0);
    }
}

/// The pause runs down with the time that passes, and begins anew with a failure within it.
TEST(RetryPauseTest, RunsDown) {
    RetryPause pause;
    pause.lengthen();
    RetryPausePeer::pass(pause, 4000);
    EXPECT_EQ(seconds(pause), 6);
    pause.lengthen();
    EXPECT_EQ(seconds(pause), 20);
}

/// A pause that was begun before an attempt counts from the attempt's end, and is no longer for it.
TEST(RetryPauseTest, CountsFromTheEndOfTheAttempt) {
    RetryPause pause;
    pause.lengthen();
    RetryPausePeer::pass(pause, 120000);
    pause.beginAnew();
    EXPECT_EQ(seconds(pause), 10);
    pause.lengthen();
    EXPECT_EQ(seconds(pause), 20);
}

/// After a success there is none, and the next begins with 10 s.
TEST(RetryPauseTest, BeginsAnewAfterASuccess) {
    RetryPause pause;
    pause.lengthen();
    pause.lengthen();
    pause.forget();
    EXPECT_EQ(pause.leftMs(), 0);
    pause.lengthen();
    EXPECT_EQ(seconds(pause), 10);
}

}  // namespace
