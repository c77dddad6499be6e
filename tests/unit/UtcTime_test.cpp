#include "UtcTime.h"

#include "support/OutputCapture.h"
#include "support/TaggedLines.h"
#include "support/TimeFaults.h"

#include <limits>
#include <optional>
#include <string>

#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

namespace {

/// 2019-03-07 10:15:02 and 2019-07-07 10:15:02 UTC.
constexpr std::int32_t kWinter = 1551953702;
constexpr std::int32_t kSummer = 1562494502;

/// Makes `zone` the process's local zone for a scope.
class ZoneScope {
  public:
    explicit ZoneScope(const char* zone) {
        if (const char* old = ::getenv("TZ")) m_old = old;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~ZoneScope() {
        if (m_old) {
            ::setenv("TZ", m_old->c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    ZoneScope(const ZoneScope&) = delete;
    ZoneScope& operator=(const ZoneScope&) = delete;

    /// Seconds east of UTC at `seconds`: shows that the zone is really known.
    static long offsetAt(time_t seconds) {
        struct tm fields {};
        ::localtime_r(&seconds, &fields);
        return fields.tm_gmtoff;
    }

  private:
    std::optional<std::string> m_old;
};

/// What `text` parses to, with what is written to standard error meanwhile.
struct Parsed {
    explicit Parsed(const std::string& text) {
        OutputCapture capture;
        seconds = UtcTime(text).seconds();
        capture.stop();
        errors = capture.errWithoutPrefixes();
    }
    std::int32_t seconds = 0;
    std::string errors;
};

void expectRefused(const std::string& text) {
    const Parsed parsed(text);
    EXPECT_EQ(parsed.seconds, 0) << text;
    EXPECT_EQ(parsed.errors, "UtcTime: Failed to parse time: " + text + "\n");
}

}  // namespace

/// The text form is ISO in UTC with ".000Z"; the date form is the date alone.
TEST(UtcTime, IsTheEpochByDefault) {
    EXPECT_EQ(UtcTime().seconds(), 0);
    EXPECT_EQ(UtcTime().getString(), "1970-01-01T00:00:00.000Z");
}

/// Each of the four text forms parses to its UTC seconds.
TEST(UtcTime, ParsesEachForm) {
    const ZoneScope zone("UTC");
    for (const char* text : {"Thu, 07 Mar 2019 10:15:02 GMT", "Thu Mar 07 10:15:02 GMT 2019",
                             "Thu Mar  7 10:15:02 GMT 2019", "Thu 07 Mar 2019 10:15:02 GMT",
                             "UTC time=20190307 10:15:02="}) {
        const Parsed parsed(text);
        EXPECT_EQ(parsed.seconds, kWinter) << text;
        EXPECT_EQ(parsed.errors, "") << text;
    }
}

/// The result does not depend on the process's zone, also in summer.
TEST(UtcTime, ParsesToTheSameSecondsInEveryZone) {
    struct Zone {
        const char* name;
        long winter, summer;
    };
    for (const Zone& zone :
         {Zone{"UTC", 0, 0}, Zone{"Europe/Brussels", 3600, 7200},
          Zone{"Asia/Kolkata", 19800, 19800}, Zone{"America/St_Johns", -12600, -9000},
          Zone{"America/New_York", -18000, -14400}}) {
        const ZoneScope scope(zone.name);
        ASSERT_EQ(ZoneScope::offsetAt(kWinter), zone.winter) << zone.name;
        ASSERT_EQ(ZoneScope::offsetAt(kSummer), zone.summer) << zone.name;
        EXPECT_EQ(UtcTime("Thu, 07 Mar 2019 10:15:02 GMT").seconds(), kWinter) << zone.name;
        EXPECT_EQ(UtcTime("Sun, 07 Jul 2019 10:15:02 GMT").seconds(), kSummer) << zone.name;
        EXPECT_EQ(UtcTime("UTC time=20190307 10:15:02=").seconds(), kWinter) << zone.name;
    }
}

/// The zone is corrected by one fixed day of 1970, without its seconds.
TEST(UtcTime, CorrectsByTheZoneAsItWasIn1970) {
    const ZoneScope zone("Europe/London");
    ASSERT_EQ(ZoneScope::offsetAt(43200), 3600);
    ASSERT_EQ(ZoneScope::offsetAt(kWinter), 0);
    EXPECT_EQ(UtcTime("Thu, 07 Mar 2019 10:15:02 GMT").seconds(), kWinter + 3600);
}

/// The zone is corrected by one fixed day of 1970, without its seconds.
TEST(UtcTime, CorrectsByTheClockOfTheCalibrationDayAlone) {
    const ZoneScope zone("Pacific/Auckland");
    ASSERT_EQ(ZoneScope::offsetAt(43200), 43200);
    // Noon UTC is midnight of the next day there: hour 0.
    EXPECT_EQ(UtcTime("Sun, 07 Jul 2019 10:15:02 GMT").seconds(), kSummer - 86400);
}

/// The zone is corrected by one fixed day of 1970, without its seconds.
TEST(UtcTime, LeavesOutTheSecondsOfTheZonesOffset) {
    const ZoneScope zone("<+00>-00:19:32");
    ASSERT_EQ(ZoneScope::offsetAt(43200), 19 * 60 + 32);
    EXPECT_EQ(UtcTime("Thu, 07 Mar 2019 10:15:02 GMT").seconds(), kWinter - 32);
}

/// The whole text must be consumed, a zero character included.
TEST(UtcTime, RefusesTextThatIsNotConsumedWhole) {
    const ZoneScope zone("UTC");
    expectRefused("UTC time=20190307 10:15:02");
    expectRefused("UTC time=20190307 10:15:02= ");
    expectRefused("Thu, 07 Mar 2019 10:15:02 GMT+1");
    expectRefused("Thu, 07 Mar 2019 10:15:02");
}

/// What is not a time gives 0 and the line "Failed to parse time: " with the text.
TEST(UtcTime, RefusesTextThatIsNoTime) {
    const ZoneScope zone("UTC");
    expectRefused("");
    expectRefused("yesterday");
    expectRefused("2019-03-07T10:15:02Z");
    expectRefused("Thu, 07 Mar 2019 25:15:02 GMT");
    expectRefused("Thu, 40 Mar 2019 10:15:02 GMT");
    expectRefused("Xyz, 07 Mar 2019 10:15:02 GMT");
}

/// The whole text must be consumed, a zero character included.
TEST(UtcTime, RefusesTextAfterAZeroCharacter) {
    const ZoneScope zone("UTC");
    const std::string text = std::string("Thu, 07 Mar 2019 10:15:02 GMT") + '\0' + "x";
    const Parsed parsed(text);
    EXPECT_EQ(parsed.seconds, 0);
    EXPECT_EQ(parsed.errors,
              "UtcTime: Failed to parse time: Thu, 07 Mar 2019 10:15:02 GMT\\x00x\n");
}

/// Times beyond 32 bits are refused, before and after the zone's correction.
TEST(UtcTime, RefusesTimesThatDoNotFit32Bits) {
    const ZoneScope zone("UTC");
    EXPECT_EQ(UtcTime("Tue, 19 Jan 2038 03:14:07 GMT").seconds(), 2147483647);
    expectRefused("Tue, 19 Jan 2038 03:14:08 GMT");
    expectRefused("Fri, 01 Jan 2100 00:00:00 GMT");
    expectRefused("Sun, 01 Jan 1800 00:00:00 GMT");
    EXPECT_EQ(UtcTime("Fri, 13 Dec 1901 20:45:52 GMT").seconds(),
              std::numeric_limits<std::int32_t>::min());
}

/// Times beyond 32 bits are refused, before and after the zone's correction.
TEST(UtcTime, RefusesATimeThatOverflowsByTheZonesCorrection) {
    const ZoneScope zone("America/New_York");
    EXPECT_EQ(UtcTime().parseTime("Fri, 13 Dec 1901 18:00:00 GMT", "%a, %d %b %Y %H:%M:%S GMT"),
              -1);
}

/// Times beyond 32 bits are refused, before and after the zone's correction.
TEST(UtcTime, RefusesATimeWhoseLocalFormDoesNotFit32Bits) {
    const ZoneScope zone("America/New_York");
    EXPECT_EQ(UtcTime("Mon, 18 Jan 2038 22:14:07 GMT").seconds(), 2147483647 - 5 * 3600);
    expectRefused("Tue, 19 Jan 2038 03:00:00 GMT");
}

/// The second before the epoch counts as a failure of the conversion.
TEST(UtcTime, TakesTheSecondBeforeTheEpochForAFailure) {
    const ZoneScope zone("UTC");
    EXPECT_EQ(UtcTime().parseTime("Wed, 31 Dec 1969 23:59:58 GMT", "%a, %d %b %Y %H:%M:%S GMT"),
              -2);
    expectRefused("Wed, 31 Dec 1969 23:59:59 GMT");
}

/// Each of the four text forms parses to its UTC seconds.
TEST(UtcTime, ParsesByOneFormat) {
    const ZoneScope zone("UTC");
    const UtcTime time;
    OutputCapture capture;
    EXPECT_EQ(time.parseTime("2019-03-07 10:15:02", "%Y-%m-%d %H:%M:%S"), kWinter);
    EXPECT_EQ(time.parseTime("2019-03-07 10:15:02 ", "%Y-%m-%d %H:%M:%S"), -1);
    EXPECT_EQ(time.parseTime("2019-03-07", "%Y-%m-%d %H:%M:%S"), -1);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// A failed conversion gives the empty text and "Conversion of time ... to string failed".
TEST(UtcTime, ItsLinesCarryTheDiagnosticPrefix) {
    OutputCapture capture;
    const UtcTime time("yesterday");
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.err(), "UtcTime: "),
              "UtcTime: Failed to parse time: yesterday\n");
}

/// Without a calibration time: -1 and "Cannot determine 'calibration time'".
TEST(UtcTime, SaysWhenItCannotCalibrate) {
    const ZoneScope zone("UTC");
    OutputCapture capture;
    TimeFaults::localtimeFails = true;
    const time_t seconds = UtcTime().parseTime("2019-03-07", "%Y-%m-%d");
    TimeFaults::localtimeFails = false;
    capture.stop();
    EXPECT_EQ(seconds, -1);
    EXPECT_EQ(capture.errWithoutPrefixes(), "UtcTime: Cannot determine 'calibration time'\n");
}

/// The text form is ISO in UTC with ".000Z"; the date form is the date alone.
TEST(UtcTime, WritesTheIsoFormInUtc) {
    const ZoneScope zone("Asia/Kolkata");
    EXPECT_EQ(UtcTime(kWinter).getString(), "2019-03-07T10:15:02.000Z");
    EXPECT_EQ(UtcTime(2147483647).getString(), "2038-01-19T03:14:07.000Z");
    EXPECT_EQ(UtcTime(std::numeric_limits<std::int32_t>::min()).getString(),
              "1901-12-13T20:45:52.000Z");
    EXPECT_EQ(UtcTime(-1).getString(), "1969-12-31T23:59:59.000Z");
}

/// The text form is ISO in UTC with ".000Z"; the date form is the date alone.
TEST(UtcTime, WritesTheDateAlone) {
    const ZoneScope zone("America/St_Johns");
    EXPECT_EQ(UtcTime(kWinter).getDateString(), "2019-03-07");
    EXPECT_EQ(UtcTime(0).getDateString(), "1970-01-01");
}

/// A failed conversion gives the empty text and "Conversion of time ... to string failed".
TEST(UtcTime, SaysWhenItCannotBeWritten) {
    OutputCapture capture;
    TimeFaults::strftimeFails = true;
    const std::string text = UtcTime(kWinter).getString();
    const std::string date = UtcTime(-5).getDateString();
    TimeFaults::strftimeFails = false;
    capture.stop();
    EXPECT_EQ(text, "");
    EXPECT_EQ(date, "");
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "UtcTime: Conversion of time 1551953702 to string failed\n"
              "UtcTime: Conversion of time -5 to string failed\n");
}
