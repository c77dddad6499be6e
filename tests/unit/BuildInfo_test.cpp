#include "BuildInfo.h"

#include <optional>
#include <string>

#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

namespace {

/// The build time's text with `zone` as the process's local zone.
std::string textIn(const char* zone) {
    std::optional<std::string> old;
    if (const char* value = ::getenv("TZ")) old = value;
    ::setenv("TZ", zone, 1);
    const std::string text = BuildInfo::buildTimeText();
    if (old) {
        ::setenv("TZ", old->c_str(), 1);
    } else {
        ::unsetenv("TZ");
    }
    ::tzset();
    return text;
}

}  // namespace

/// The revision number is fixed at build time and printed as "#0x" and seven hexadecimal
/// digits, ten characters.
TEST(BuildInfo, WritesTheRevisionWithSevenDigits) {
    EXPECT_EQ(BuildInfo::revisionText(), "#0x442c3c4");
    EXPECT_LT(BuildInfo::revision, 1U << 28);
}

/// The build time is printed in local time with weekday, date, time and zone.
TEST(BuildInfo, WritesTheBuildTimeInLocalTime) {
    EXPECT_EQ(textIn("UTC"), "Fri 2019-05-17 03:00:13 UTC");
    EXPECT_EQ(textIn("Europe/Brussels"), "Fri 2019-05-17 05:00:13 CEST");
    EXPECT_EQ(textIn("America/New_York"), "Thu 2019-05-16 23:00:13 EDT");
}
