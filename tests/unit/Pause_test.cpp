#include "Pause.h"

#include "support/PausePeer.h"

#include <gtest/gtest.h>

using std::chrono::milliseconds;

/// Nothing waits before a pause has begun.
TEST(Pause, IsOverBeforeItBegins) {
    const Pause pause(std::chrono::minutes(1));
    EXPECT_TRUE(pause.isOver());
    EXPECT_EQ(pause.left(), 0);
}

/// A pause that has begun lasts as long as it was made for.
TEST(Pause, LastsItsTime) {
    Pause pause(std::chrono::minutes(1));
    pause.begin();
    EXPECT_FALSE(pause.isOver());
    EXPECT_LE(pause.left(), 60000);
    EXPECT_GT(pause.left(), 50000);
    PausePeer::pass(pause, milliseconds(40000));
    EXPECT_LE(pause.left(), 20000);
    EXPECT_GT(pause.left(), 10000);
    PausePeer::pass(pause, milliseconds(20000));
    EXPECT_TRUE(pause.isOver());
}

/// What is left is rounded up: who waits that long finds it over.
TEST(Pause, RoundsUpWhatIsLeft) {
    Pause pause(milliseconds(1));
    pause.begin();
    PausePeer::pass(pause, milliseconds(-1000000));
    const long left = pause.left();
    PausePeer::pass(pause, milliseconds(left));
    EXPECT_TRUE(pause.isOver());
}

/// One that begins again begins anew.
TEST(Pause, BeginsAnew) {
    Pause pause(std::chrono::minutes(1));
    pause.begin();
    PausePeer::pass(pause, milliseconds(50000));
    pause.begin();
    EXPECT_GT(pause.left(), 50000);
}
