#include "UtcTimeMs.h"

#include "support/OutputCapture.h"
#include "support/TimeFaults.h"

#include <string>

#include <gtest/gtest.h>

/// `UtcTimeMs` is its number of milliseconds.
TEST(UtcTimeMs, ConvertsFromAndToItsNumber) {
    UtcTimeMs time = 1551953702347;
    EXPECT_EQ(time / 1000, 1551953702);
    time = 5;
    EXPECT_EQ(time, 5);
    EXPECT_EQ(UtcTimeMs(), 0);
}

/// `UtcTimeMs` writes its milliseconds with three digits.
TEST(UtcTimeMs, WritesItsMilliseconds) {
    EXPECT_EQ(UtcTimeMs(1551953702347).getString(), "2019-03-07T10:15:02.347Z");
    EXPECT_EQ(UtcTimeMs(1551953702005).getString(), "2019-03-07T10:15:02.005Z");
    EXPECT_EQ(UtcTimeMs(1551953702000).getString(), "2019-03-07T10:15:02.000Z");
    EXPECT_EQ(UtcTimeMs(999).getString(), "1970-01-01T00:00:00.999Z");
}

/// A remainder below zero is cut to three characters.
TEST(UtcTimeMs, CutsARemainderBelowZeroToThreeCharacters) {
    EXPECT_EQ(UtcTimeMs(-1).getString(), "1970-01-01T00:00:00.429Z");
    EXPECT_EQ(UtcTimeMs(-1500).getString(), "1969-12-31T23:59:59.429Z");
    EXPECT_EQ(UtcTimeMs(-2000).getString(), "1969-12-31T23:59:58.000Z");
}

/// Seconds beyond 32 bits wrap.
TEST(UtcTimeMs, WrapsSecondsThatDoNotFit32Bits) {
    EXPECT_EQ(UtcTimeMs(4294967296000LL + 1551953702347LL).getString(), "2019-03-07T10:15:02.347Z");
}

/// An empty seconds text stays empty.
TEST(UtcTimeMs, StaysEmptyWhenTheSecondsCannotBeWritten) {
    OutputCapture capture;
    TimeFaults::strftimeFails = true;
    const std::string text = UtcTimeMs(1551953702347).getString();
    TimeFaults::strftimeFails = false;
    capture.stop();
    EXPECT_EQ(text, "");
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "UtcTime: Conversion of time 1551953702 to string failed\n");
}

/// The distance of two times is the same from both, and right for numbers of any size.
TEST(UtcTimeMs, TellsTheDistanceToAnotherTime) {
    EXPECT_EQ(UtcTimeMs(1551953702347).distanceTo(1551953702000), 347U);
    EXPECT_EQ(UtcTimeMs(1551953702000).distanceTo(1551953702347), 347U);
    EXPECT_EQ(UtcTimeMs(-5).distanceTo(5), 10U);
    EXPECT_EQ(UtcTimeMs(7).distanceTo(7), 0U);
    EXPECT_EQ(UtcTimeMs(INT64_MIN).distanceTo(INT64_MAX), UINT64_MAX);
    EXPECT_EQ(UtcTimeMs(INT64_MAX).distanceTo(INT64_MIN), UINT64_MAX);
}
