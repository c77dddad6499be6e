#include "CGlobalInfoImpl.h"

#include "support/OutputCapture.h"
#include "support/TempDir.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const char* const kWhole = R"({
    "builddate": "Thu, 07 Mar 2019 10:15:02 GMT", "deviceid": "d-1", "component": "tv",
    "ufversion": "1.2.3", "op_hour": 7, "country": "BE", "ctn": "55X", "menu-language": "nl",
    "serial": "S9"})";

/// Loads a file with `text`; what that writes is swallowed.
void load(CGlobalInfoImpl& info, const std::string& text) {
    const TempDir dir;
    const OutputCapture capture;
    info.Load(dir.write("GlobalInfo", text));
}

void expectUntouched(const CGlobalInfoImpl& info) {
    EXPECT_EQ(info.getBuildDate(), "");
    EXPECT_EQ(info.getDeviceId(), "");
    EXPECT_EQ(info.getComponent(), "");
    EXPECT_EQ(info.getSwVersion(), "");
    EXPECT_EQ(info.getOpMinutes(), 0);
    EXPECT_EQ(info.getCountry(), "");
    EXPECT_EQ(info.getCtn(), "");
    EXPECT_EQ(info.getMenuLanguage(), "en");
    EXPECT_EQ(info.getSerial(), "");
}

void expectWhole(const CGlobalInfoImpl& info) {
    EXPECT_EQ(info.getBuildDate(), "Thu, 07 Mar 2019 10:15:02 GMT");
    EXPECT_EQ(info.getDeviceId(), "d-1");
    EXPECT_EQ(info.getComponent(), "tv");
    EXPECT_EQ(info.getSwVersion(), "1.2.3");
    EXPECT_EQ(info.getOpMinutes(), 420);
    EXPECT_EQ(info.getCountry(), "BE");
    EXPECT_EQ(info.getCtn(), "55X");
    EXPECT_EQ(info.getMenuLanguage(), "nl");
    EXPECT_EQ(info.getSerial(), "S9");
    EXPECT_EQ(info.getBuildTime().seconds(), 1551953702);
}

}  // namespace

/// Its members start with their defaults, the menu language with "en".
TEST(CGlobalInfoImpl, StartsWithItsDefaults) {
    const CGlobalInfoImpl info;
    expectUntouched(info);
    EXPECT_EQ(info.getBootCount(), 0U);
    EXPECT_EQ(info.getStandbyCount(), 0U);
    EXPECT_EQ(info.getBuildTime().seconds(), 0);
}

/// It never traces.
TEST(CGlobalInfoImpl, NeverTraces) {
    CGlobalInfoImpl::SetVerbose(true);
    EXPECT_FALSE(CGlobalInfoImpl::GetVerbose());
}

/// Every fact of the file is taken; operating minutes are the hours times 60.
///
/// The build date is parsed after every load, also of a missing file.
TEST(CGlobalInfoImpl, LoadsEveryFact) {
    const TempDir dir;
    CGlobalInfoImpl info;
    OutputCapture capture;
    info.Load(dir.write("GlobalInfo", kWhole));
    capture.stop();
    expectWhole(info);
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// Absent strings, and strings of another type, keep the member; empty ones are taken.
TEST(CGlobalInfoImpl, KeepsStringsThatAreAbsent) {
    CGlobalInfoImpl info;
    load(info, kWhole);
    load(info, R"({"serial": "S10", "op_hour": 7})");
    EXPECT_EQ(info.getSerial(), "S10");
    load(info, R"({"serial": "S9", "op_hour": 7})");
    expectWhole(info);
}

/// An absent or non-integer "op_hour" resets the operating minutes to 0.
TEST(CGlobalInfoImpl, ResetsTheOperatingMinutesWithoutOpHour) {
    CGlobalInfoImpl info;
    load(info, kWhole);
    ASSERT_EQ(info.getOpMinutes(), 420);
    load(info, R"({"deviceid": "d-2"})");
    EXPECT_EQ(info.getOpMinutes(), 0);
    EXPECT_EQ(info.getDeviceId(), "d-2");
}

/// An absent or non-integer "op_hour" resets the operating minutes to 0.
TEST(CGlobalInfoImpl, ResetsTheOperatingMinutesForAnOpHourThatIsNoInteger) {
    for (const char* text : {R"({"op_hour": "7"})", R"({"op_hour": 7.5})", R"({"op_hour": null})",
                             R"({"op_hour": {}})", R"({"op_hour": true})"}) {
        CGlobalInfoImpl info;
        load(info, R"({"op_hour": 7})");
        ASSERT_EQ(info.getOpMinutes(), 420);
        load(info, text);
        EXPECT_EQ(info.getOpMinutes(), 0) << text;
    }
}

/// Absent strings, and strings of another type, keep the member; empty ones are taken.
TEST(CGlobalInfoImpl, KeepsTheMembersOfStringKeysWithAnotherType) {
    CGlobalInfoImpl info;
    load(info, kWhole);
    load(info, R"({"builddate": 1, "deviceid": null, "component": {}, "ufversion": [],
                   "op_hour": 7, "country": true, "ctn": 1.5, "menu-language": 0, "serial": -1})");
    expectWhole(info);
}

/// Absent strings, and strings of another type, keep the member; empty ones are taken.
TEST(CGlobalInfoImpl, TakesEmptyStrings) {
    CGlobalInfoImpl info;
    load(info, kWhole);
    load(info, R"({"deviceid": "", "menu-language": ""})");
    EXPECT_EQ(info.getDeviceId(), "");
    EXPECT_EQ(info.getMenuLanguage(), "");
}

/// Hours that do not fit wrap in 32 bits.
TEST(CGlobalInfoImpl, WrapsHoursThatDoNotFit) {
    CGlobalInfoImpl info;
    load(info, R"({"op_hour": -2})");
    EXPECT_EQ(info.getOpMinutes(), -120);
    load(info, R"({"op_hour": 71582789})");
    EXPECT_EQ(info.getOpMinutes(), 44);
    load(info, R"({"op_hour": 9223372036854775807})");
    EXPECT_EQ(info.getOpMinutes(), -60);
}

/// A missing file, or one that is not JSON, changes nothing.
TEST(CGlobalInfoImpl, LeavesEverythingWhenTheFileIsMissing) {
    const TempDir dir;
    CGlobalInfoImpl info;
    load(info, kWhole);
    info.Load(dir.file("missing"));
    expectWhole(info);
}

/// A missing file, or one that is not JSON, changes nothing.
TEST(CGlobalInfoImpl, LeavesEverythingWhenTheFileIsNoJson) {
    for (const char* text : {"", "nonsense", "{\"deviceid\": \"x\"", "{\"deviceid\": \"\xff\"}"}) {
        CGlobalInfoImpl info;
        load(info, text);
        expectUntouched(info);
        load(info, kWhole);
        load(info, text);
        expectWhole(info);
    }
}

/// JSON that is not an object resets the operating minutes alone.
TEST(CGlobalInfoImpl, OnlyResetsTheOperatingMinutesForJsonThatIsNoObject) {
    for (const char* text : {"5", "\"deviceid\"", "[\"deviceid\"]", "null"}) {
        CGlobalInfoImpl info;
        load(info, kWhole);
        load(info, text);
        EXPECT_EQ(info.getDeviceId(), "d-1") << text;
        EXPECT_EQ(info.getOpMinutes(), 0) << text;
    }
}

/// The build date is parsed after every load, also of a missing file.
TEST(CGlobalInfoImpl, ParsesTheBuildDateAlsoWhenTheFileIsMissing) {
    const TempDir dir;
    CGlobalInfoImpl info;
    OutputCapture capture;
    info.Load(dir.file("missing"));
    capture.stop();
    EXPECT_EQ(info.getBuildTime().seconds(), 0);
    EXPECT_EQ(capture.errWithoutPrefixes(), "UtcTime: Failed to parse time: \n");
}

/// A build date of no known form gives build time 0.
TEST(CGlobalInfoImpl, HasNoBuildTimeFromAnUnknownForm) {
    const TempDir dir;
    CGlobalInfoImpl info;
    load(info, kWhole);
    OutputCapture capture;
    info.Load(dir.write("GlobalInfo", R"({"builddate": "today"})"));
    capture.stop();
    EXPECT_EQ(info.getBuildDate(), "today");
    EXPECT_EQ(info.getBuildTime().seconds(), 0);
    EXPECT_EQ(capture.errWithoutPrefixes(), "UtcTime: Failed to parse time: today\n");
}

/// The boot counts are those that were set, and no load changes them.
TEST(CGlobalInfoImpl, TakesTheBootCounts) {
    CGlobalInfoImpl info;
    info.setBootCounts(4294967295U, 3);
    EXPECT_EQ(info.getBootCount(), 4294967295U);
    EXPECT_EQ(info.getStandbyCount(), 3U);
    load(info, kWhole);
    EXPECT_EQ(info.getBootCount(), 4294967295U);
    EXPECT_EQ(info.getStandbyCount(), 3U);
}
