#include "EventSessionHeader.h"

#include <time.h>

#include "BuildInfo.h"
#include "CycleTimes.h"
#include "LocationInfo.h"
#include "support/EventSessionHeaderPeer.h"
#include "support/JsonMemory.h"
#include "support/StoreTest.h"
#include "support/UploadSetup.h"

namespace {

class EventSessionHeaderTest : public UploadSetup {
  protected:
    static long localTimeOffset() {
        const time_t now = ::time(nullptr);
        struct tm local = {};
        ::localtime_r(&now, &local);
        return local.tm_gmtoff;
    }
};

}  // namespace

/// The sixteen keys of the header, in their order, with their values.
TEST_F(EventSessionHeaderTest, DescribesDeviceSoftwareClocksAndPlaceInThisOrder) {
    const std::shared_ptr<LocationInfo> place = LocationInfo::getLocation();
    ASSERT_NE(place, nullptr);
    const EventSessionHeader header(7, 2, 1500000000123);
    const std::string uploadTime = JsonObject::parse(header.text()).optString("upload-time");
    EXPECT_EQ(header.text(),
              R"({"country": "BE", "deviceid": "dev1", "ctn": "55X", "component": "Board", )"
              R"("ufversion": "1.2.3", "boot-count": 7, "standby-count": 2, "upload-time": ")" +
                  uploadTime + R"(", "start-time": "2017-07-14T02:40:00.123Z", "lto": )" +
                  std::to_string(localTimeOffset()) + R"(, "operating-minutes": 0, "location": )" +
                  place->toJSON().dumpAsString() + R"(, "client": "kivApp )" +
                  BuildInfo::revisionText() + " " + BuildInfo::buildTimeText() +
                  R"(", "pimclient": "pimApp 4.5 2019-01-02", "times": )" +
                  R"([{"src": "system", "utc": 0}, {"src": "web", "utc": )" +
                  std::to_string(kNowMs - kernelNow) + R"(}], "db-token": ")" + kToken + R"("})");
}

/// The upload time is now by the time manager.
TEST_F(EventSessionHeaderTest, TellsTheUploadTimeByTheTimeManager) {
    const std::string earliest = timeManager->getTime().getString();
    const EventSessionHeader header(3, 0, 0);
    const std::string latest = timeManager->getTime().getString();
    const std::string uploadTime = JsonObject::parse(header.text()).optString("upload-time");
    EXPECT_LE(earliest, uploadTime);
    EXPECT_LE(uploadTime, latest);
}

/// The times are those of the events' cycle.
TEST_F(EventSessionHeaderTest, GivesTheTimesOfTheEventsCycleNotOfTheRunningOne) {
    timeManager->setTime(TimeSourceSystem, TimeReference(3, 0, 5000), 1500000005000);
    const JsonObject header = JsonObject::parse(EventSessionHeader(3, 0, 0).text());
    EXPECT_EQ(header.getObject("times").dumpAsString(),
              R"([{"src": "system", "utc": 1500000000000}, {"src": "web", "utc": 0}])");
    EXPECT_EQ(header.optInteger("boot-count", -1), 3);
    EXPECT_EQ(header.optInteger("standby-count", -1), 0);
}

/// The operating minutes are the cycle's; 0 when unknown or without a database.
TEST_F(EventSessionHeaderTest, ReadsTheOperatingMinutesOfTheCycle) {
    DB db;
    db.open(database, false);
    db.setOpTime(3, 1, 4711);
    const EventSessionHeader known(3, 1, 0);
    EXPECT_EQ(JsonObject::parse(known.text()).optInteger("operating-minutes", -1), 4711);
    const EventSessionHeader unknown(3, 2, 0);
    EXPECT_EQ(JsonObject::parse(unknown.text()).optInteger("operating-minutes", -1), 0);
}

/// The operating minutes are the cycle's; 0 when unknown or without a database.
TEST_F(EventSessionHeaderTest, GivesNoOperatingMinutesWithoutADatabase) {
    DB db;
    db.open(database, false);
    db.setOpTime(3, 1, 4711);
    EventSessionHeader::setDbPath("");
    const EventSessionHeader header(3, 1, 0);
    EXPECT_EQ(JsonObject::parse(header.text()).optInteger("operating-minutes", -1), 0);
}

/// Country codes become two letters; a country not in the table stays.
TEST_F(EventSessionHeaderTest, TurnsCountryCodesIntoTwoLetters) {
    EXPECT_EQ(EventSessionHeaderPeer::countryOf("BEL"), "BE");
    EXPECT_EQ(EventSessionHeaderPeer::countryOf("NL"), "NL");
}

/// Country codes become two letters; a country not in the table stays.
TEST_F(EventSessionHeaderTest, KeepsACountryThatTheTableDoesNotHave) {
    EXPECT_EQ(EventSessionHeaderPeer::countryOf("be"), "be");
    EXPECT_EQ(EventSessionHeaderPeer::countryOf("Atlantis"), "Atlantis");
    EXPECT_EQ(EventSessionHeaderPeer::countryOf(""), "");
}

/// An unknown location is the empty object; no server is asked for it.
TEST_F(EventSessionHeaderTest, LeavesAnUnknownLocationEmpty) {
    ::unsetenv("LOC_NETWORK");  // with it even an unknown place has a name
    const JsonObject header = JsonObject::parse(EventSessionHeader(7, 2, 0).text());
    EXPECT_TRUE(header.getObject("location").isObject());
    EXPECT_EQ(header.getObject("location").dumpAsString(), "{}");
}

/// So is a stored location that cannot be packed; unusable values of another type do no harm.
TEST_F(EventSessionHeaderTest, LeavesAStoredLocationEmptyThatCannotBePacked) {
    ::unsetenv("LOC_NETWORK");
    LocationInfo::setDbPath(database);
    DB db;
    db.open(database, false);
    for (const char* notUtf8 : {"Gh\xff"
                                "nt",
                                "\xc3"}) {
        ASSERT_TRUE(db.setLocation(3.72, 51.05, "192.0.2.9", notUtf8, "East", "BE"));
        OutputCapture output;
        const EventSessionHeader header(7, 2, 0);
        output.stop();
        const JsonObject parsed = JsonObject::parse(header.text());
        EXPECT_EQ(parsed.getObject("location").dumpAsString(), "{}");
        EXPECT_EQ(parsed.optString("db-token"), kToken) << "the rest is whole";
        EXPECT_NE(output.err().find("Error in Pack: "), std::string::npos);
    }
}

/// So is a stored location that cannot be packed; unusable values of another type do no harm.
TEST_F(EventSessionHeaderTest, SurvivesAStoredLocationOfUnusableValues) {
    ::unsetenv("LOC_NETWORK");
    LocationInfo::setDbPath(database);
    PlainDatabase(database).run(
        "INSERT INTO Location VALUES(1, 'east', 1e999, NULL, x'', NULL, 'nowhere')");
    const EventSessionHeader header(7, 2, 0);
    EXPECT_EQ(JsonObject::parse(header.text()).getObject("location").dumpAsString(),
              R"({"lat": 999.99000000000001, "lng": 0.0, "ip": "", "city": "", "region": "", )"
              R"("country-code": "nowhere", "country": "", "continent": ""})");
}

/// An unknown location is the empty object; no server is asked for it.
TEST_F(EventSessionHeaderTest, AsksNoServer) {
    ::unsetenv("LOC_NETWORK");
    const EventSessionHeader header(7, 2, 0);
    EXPECT_FALSE(header.text().empty());
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A header that cannot be packed is empty.
TEST_F(EventSessionHeaderTest, IsEmptyWhenItCannotBePacked) {
    OutputCapture output;
    const NoJsonMemory noMemory;
    const EventSessionHeader header(7, 2, 0);
    output.stop();
    EXPECT_EQ(header.text(), "");
    EXPECT_NE(output.err().find("Error in Pack: "), std::string::npos);
}

/// A header of a packet, which shares the packet's times, reads like one of its own.
TEST_F(EventSessionHeaderTest, ReadsTheSameWithThePacketsTimes) {
    DB store;
    store.open(database, false);
    store.setOpTime(kBoot, kStandby, 77);
    CycleTimes times(*timeManager);
    JsonObject shared =
        JsonObject::parse(EventSessionHeader(Cycle(kBoot, kStandby), 1500000000123, times).text());
    JsonObject own = JsonObject::parse(EventSessionHeader(kBoot, kStandby, 1500000000123).text());
    EXPECT_EQ(shared.optInteger("operating-minutes", -1), 77);
    EXPECT_EQ(shared.optString("upload-time").size(), own.optString("upload-time").size());
    for (JsonObject* header : {&shared, &own}) header->set("upload-time", std::string());
    EXPECT_EQ(shared.dumpAsString(), own.dumpAsString());
}
