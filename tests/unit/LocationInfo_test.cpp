#include "LocationInfo.h"

#include "DB.h"
#include "JsonObject.h"
#include "Services.h"
#include "support/KivTest.h"
#include "support/LocationInfoPeer.h"
#include "support/NoThreads.h"
#include "support/OutputCapture.h"
#include "support/RetryPausePeer.h"
#include "support/ScriptedHttpServer.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <stdlib.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

namespace {

constexpr double kUnknown = 999.99;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

constexpr char kBrusselsAnswer[] =
    R"({"ip": "192.0.2.7", "city": "Brussels", "region": "Brussels Capital", "country": "BE",)"
    R"( "loc": "50.85,4.35"})";

/// The row of the location table.
struct StoredPlace {
    bool found = false;
    double lng = 0;
    double lat = 0;
    std::string ip, city, region, countryCode;
};

StoredPlace storedPlace(const std::string& path) {
    StoredPlace place;
    DB db;
    db.open(path, false);
    place.found =
        db.getLocation(place.lng, place.lat, place.ip, place.city, place.region, place.countryCode);
    return place;
}

std::string textOf(const std::shared_ptr<LocationInfo>& info) {
    return info ? info->toJSON().dumpAsString() : "null";
}

std::ptrdiff_t threadCount() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

constexpr char kNoThreadLine[] =
    "LocationInfo:Could not start Store thread: Resource temporarily unavailable\n";

class LocationInfoTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        LocationInfo::SetVerbose(false);
        LocationInfoPeer::forget();
        ::unsetenv("LOC_NETWORK");
        LocationInfo::setDbPath(m_db);
        std::thread([] {}).join();  // a sanitizer's own thread comes with the first one
        m_threadsBefore = threadCount();
    }

    void TearDown() override {
        m_noThreads.reset();
        m_server.reset();
        EXPECT_TRUE(WaitUntil([this] { return threadCount() <= m_threadsBefore; }));
        LocationInfoPeer::forget();
        LocationInfoPeer::setProvider(Services::geolocationUrl());
        ::unsetenv("LOC_NETWORK");
        KivTest::TearDown();
    }

    /// Has the geolocation service give this answer. Asked by address: the resolver of a name
    /// would need a thread.
    void answerWith(const std::string& body, int status = 200) {
        ScriptedHttpServer::Response response;
        response.status = status;
        response.body = body;
        serve(response);
    }

    void failRequests() {
        ScriptedHttpServer::Response response;
        response.closeWithoutAnswer = true;
        serve(response);
    }

    /// With the answer on its way no thread can be started any more, until `letThreadsStart`.
    /// (The server itself needs a thread for the request.)
    void answerAndPreventThreads(const std::string& body) {
        ScriptedHttpServer::Response response;
        response.body = body;
        serve(response, [this] { m_noThreads = std::make_unique<NoThreads>(); });
    }

    /// Whether they were prevented.
    bool letThreadsStart() {
        const bool done = m_noThreads && m_noThreads->done();
        m_noThreads.reset();
        return done;
    }

    void serve(
        const ScriptedHttpServer::Response& response,
        const std::function<void()>& atRequest = [] {}) {
        m_server.reset();
        m_server = std::make_unique<ScriptedHttpServer>(
            [response, atRequest](const ScriptedHttpServer::Request&) {
                atRequest();
                return response;
            });
        LocationInfoPeer::setProvider("http://127.0.0.1:" + std::to_string(m_server->port()) +
                                      "/json");
    }

    std::size_t requestCount() const { return m_server->requests().size(); }

    void storeBrussels() {
        DB db;
        db.open(m_db, false);
        ASSERT_TRUE(db.setLocation(4.35, 50.85, "192.0.2.7", "Brussels", "Brussels Capital", "BE"));
    }

    bool waitForStoredCity(const std::string& city) const {
        return WaitUntil([&] { return storedPlace(m_db).city == city; });
    }

    /// The location found for an answer with this "loc".
    std::shared_ptr<LocationInfo> locate(const std::string& loc) {
        LocationInfoPeer::beginNewRun();
        JsonObject answer = JsonObject::createObject();
        answer.set("loc", loc);
        answerWith(answer.dumpAsString());
        return LocationInfo::getLocation();
    }

    TempDir m_dir;
    const std::string m_db = m_dir.file("Db");
    std::unique_ptr<ScriptedHttpServer> m_server;
    std::unique_ptr<NoThreads> m_noThreads;
    std::ptrdiff_t m_threadsBefore = 0;
};

// --- the record -----------------------------------------------------------------------------

/// A record is completed with country name and continent; unknown codes leave both empty.
TEST_F(LocationInfoTest, CompletesTheRecordFromTheCountryTable) {
    const LocationInfo info(50.85, 4.35, "192.0.2.7", "Brussels", "Brussels Capital", "BE");
    EXPECT_EQ(info.toJSON().dumpAsString(),
              R"({"lat": 50.850000000000001, "lng": 4.3499999999999996, "ip": "192.0.2.7", )"
              R"("city": "Brussels", "region": "Brussels Capital", "country-code": "BE", )"
              R"("country": "Belgium", "continent": "EU"})");
}

/// A record is completed with country name and continent; unknown codes leave both empty.
TEST_F(LocationInfoTest, FindsTheCountryWhateverTheCaseOfItsCodeButKeepsTheCodeAsGiven) {
    const JsonObject object = LocationInfo(1, 2, "", "", "", "be").toJSON();
    EXPECT_EQ(object.optString("country-code"), "be");
    EXPECT_EQ(object.optString("country"), "Belgium");
    EXPECT_EQ(object.optString("continent"), "EU");
}

/// A record is completed with country name and continent; unknown codes leave both empty.
TEST_F(LocationInfoTest, LeavesCountryAndContinentEmptyForAnUnknownCode) {
    for (const char* code : {"", "XX", "B", "BELGIUM"}) {
        const JsonObject object = LocationInfo(1, 2, "", "", "", code).toJSON();
        EXPECT_EQ(object.optString("country-code"), code);
        EXPECT_EQ(object.getObject("country").getAsString(), "");
        EXPECT_EQ(object.getObject("continent").getAsString(), "");
    }
}

/// Degrees up to their limits are kept; others, and NaN, become 999.99.
TEST_F(LocationInfoTest, KeepsDegreesUpToTheirLimits) {
    for (const double lat : {-90.0, 90.0, 0.0})
        EXPECT_EQ(LocationInfo(lat, 0, "", "", "", "").getLatitude(), lat);
    for (const double lng : {-180.0, 180.0, 0.0})
        EXPECT_EQ(LocationInfo(0, lng, "", "", "", "").getLongitude(), lng);
}

/// Degrees up to their limits are kept; others, and NaN, become 999.99.
TEST_F(LocationInfoTest, TurnsDegreesOutOfRangeIntoUnknownOnes) {
    for (const double lat : {91.0, -91.0, 90.000001, -90.000001, kInfinity, -kInfinity, kNaN}) {
        const LocationInfo info(lat, 4.35, "", "", "", "");
        EXPECT_EQ(info.getLatitude(), kUnknown) << lat;
        EXPECT_EQ(info.getLongitude(), 4.35) << lat;
    }
    for (const double lng : {181.0, -181.0, 180.000001, -180.000001, kInfinity, kNaN}) {
        const LocationInfo info(50.85, lng, "", "", "", "");
        EXPECT_EQ(info.getLongitude(), kUnknown) << lng;
        EXPECT_EQ(info.getLatitude(), 50.85) << lng;
    }
}

/// Degrees up to their limits are kept; others, and NaN, become 999.99.
TEST_F(LocationInfoTest, PacksNumbersThatAreNotKnownToo) {
    const JsonObject object = LocationInfo(kNaN, kInfinity, "", "", "", "").toJSON();
    EXPECT_EQ(object.optDouble("lat", 0), kUnknown);
    EXPECT_EQ(object.optDouble("lng", 0), kUnknown);
}

/// Texts that are not UTF-8 pack to a null handle.
TEST_F(LocationInfoTest, GivesANullHandleForTextsThatAreNoUtf8) {
    OutputCapture capture;
    const JsonObject object = LocationInfo(1, 2, "", "Li\xe8ge", "", "BE").toJSON();
    capture.stop();
    EXPECT_TRUE(object.isNull());
    EXPECT_EQ(capture.err().rfind("Error in Pack: ", 0), 0u) << capture.err();
}

// --- from JSON ------------------------------------------------------------------------------

/// What was packed is read back: by code, else by country name, else nothing.
TEST_F(LocationInfoTest, ReadsBackWhatItPacks) {
    const LocationInfo info(50.85, 4.35, "192.0.2.7", "Brussels", "Brussels Capital", "BE");
    const auto copy = LocationInfo::fromJSON(info.toJSON());
    EXPECT_EQ(textOf(copy), info.toJSON().dumpAsString());
}

/// What was packed is read back: by code, else by country name, else nothing.
TEST_F(LocationInfoTest, FallsBackToTheCountryNameWhereTheCodeIsUnknown) {
    const auto info = LocationInfo::fromJSON(
        JsonObject::parse(R"({"country-code": "ZZ", "country": "Belgium", "lat": 50.5})"));
    EXPECT_EQ(textOf(info),
              R"({"lat": 50.5, "lng": 999.99000000000001, "ip": "", "city": "", "region": "", )"
              R"("country-code": "BE", "country": "Belgium", "continent": "EU"})");
}

/// What was packed is read back: by code, else by country name, else nothing.
TEST_F(LocationInfoTest, TakesTheCountryFromTheCodeBeforeTheName) {
    const auto info = LocationInfo::fromJSON(
        JsonObject::parse(R"({"country-code": "nld", "country": "Belgium"})"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->toJSON().optString("country-code"), "NL");
}

/// What was packed is read back: by code, else by country name, else nothing.
TEST_F(LocationInfoTest, ReadsNothingWhenNeitherCodeNorNameIsKnown) {
    for (const char* text :
         {"{}", "[]", R"({"country-code": "ZZ", "country": "Atlantis", "lat": 1.5})",
          R"({"country-code": 32, "country": null})", R"({"country": "belgium"})", ""})
        EXPECT_EQ(LocationInfo::fromJSON(JsonObject::parse(text)), nullptr) << text;
}

/// Degrees that are not reals are unknown.
TEST_F(LocationInfoTest, ReadsDegreesThatAreNoRealsAsUnknown) {
    const auto info = LocationInfo::fromJSON(
        JsonObject::parse(R"({"country-code": "BE", "lat": 50, "lng": "4"})"));
    ASSERT_TRUE(info);
    EXPECT_EQ(info->getLatitude(), kUnknown);
    EXPECT_EQ(info->getLongitude(), kUnknown);
}

// --- asking the service ---------------------------------------------------------------------

/// The build's service is asked, without key and device headers.
TEST_F(LocationInfoTest, AsksTheServiceOfThisBuild) {
    EXPECT_EQ(LocationInfoPeer::provider(), Services::geolocationUrl());
    EXPECT_EQ(LocationInfoPeer::provider().rfind("http://", 0), 0u);
}

/// Its answer is the place of the run: asked once, never replaced, for all threads.
TEST_F(LocationInfoTest, FindsThePlaceThatTheServiceNames) {
    answerWith(kBrusselsAnswer);
    const auto info = LocationInfo::getLocation();
    EXPECT_EQ(textOf(info),
              R"({"lat": 50.850000000000001, "lng": 4.3499999999999996, "ip": "192.0.2.7", )"
              R"("city": "Brussels", "region": "Brussels Capital", "country-code": "BE", )"
              R"("country": "Belgium", "continent": "EU"})");
    EXPECT_TRUE(waitForStoredCity("Brussels"));
}

/// The build's service is asked, without key and device headers.
TEST_F(LocationInfoTest, AsksWithoutKeyAndWithoutHeadersOfTheDevice) {
    answerWith(kBrusselsAnswer);
    LocationInfo::getLocation();
    ASSERT_EQ(requestCount(), 1u);
    const auto request = m_server->requests().front();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/json");
    for (const auto& [name, value] : request.headers)
        EXPECT_TRUE(name == "Host" || name == "Accept" || name == "User-Agent") << name;
    EXPECT_TRUE(waitForStoredCity("Brussels"));
}

/// Its answer is the place of the run: asked once, never replaced, for all threads.
TEST_F(LocationInfoTest, AsksOnceARunAndNeverReplacesWhatItFound) {
    answerWith(kBrusselsAnswer);
    const auto first = LocationInfo::getLocation();
    ASSERT_TRUE(waitForStoredCity("Brussels"));
    answerWith(R"({"city": "Ghent", "country": "BE", "loc": "51.05,3.72"})");
    EXPECT_EQ(LocationInfo::getLocation(), first);
    EXPECT_EQ(LocationInfo::getKnownLocation(), first);
    EXPECT_EQ(requestCount(), 0u);
}

/// A place that differs is stored for later runs; the stored one starts no thread.
TEST_F(LocationInfoTest, StoresThePlaceForALaterRun) {
    answerWith(kBrusselsAnswer);
    LocationInfo::getLocation();
    ASSERT_TRUE(waitForStoredCity("Brussels"));
    const StoredPlace place = storedPlace(m_db);
    EXPECT_EQ(place.lat, 50.85);
    EXPECT_EQ(place.lng, 4.35);
    EXPECT_EQ(place.ip, "192.0.2.7");
    EXPECT_EQ(place.region, "Brussels Capital");
    EXPECT_EQ(place.countryCode, "BE");
}

/// A place that differs is stored for later runs; the stored one starts no thread.
TEST_F(LocationInfoTest, ReplacesTheStoredPlaceByAnotherOne) {
    storeBrussels();
    answerWith(R"({"ip": "192.0.2.8", "city": "Ghent", "country": "BE", "loc": "51.05,3.72"})");
    EXPECT_EQ(LocationInfo::getLocation()->toJSON().optString("city"), "Ghent");
    ASSERT_TRUE(waitForStoredCity("Ghent"));
    EXPECT_EQ(storedPlace(m_db).lat, 51.05);
    EXPECT_EQ(storedPlace(m_db).region, "");
}

/// A place that differs is stored for later runs; the stored one starts no thread.
TEST_F(LocationInfoTest, StartsNoStoreThreadForThePlaceThatIsStored) {
    storeBrussels();
    answerAndPreventThreads(kBrusselsAnswer);
    OutputCapture capture;
    const auto info = LocationInfo::getLocation();
    capture.stop();
    ASSERT_TRUE(letThreadsStart());
    ASSERT_TRUE(info);
    EXPECT_EQ(info->toJSON().optString("city"), "Brussels");
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
}

/// A place that differs is stored for later runs; the stored one starts no thread.
TEST_F(LocationInfoTest, StartsNoStoreThreadForAnEmptyAnswerWhenNothingIsStored) {
    answerAndPreventThreads("{}");
    OutputCapture capture;
    const auto info = LocationInfo::getLocation();
    capture.stop();
    ASSERT_TRUE(letThreadsStart());
    EXPECT_EQ(textOf(info),
              R"({"lat": 999.99000000000001, "lng": 999.99000000000001, "ip": "", "city": "", )"
              R"("region": "", "country-code": "", "country": "", "continent": ""})");
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
}

/// A thread that cannot be started: "Could not start Store thread: ", and it goes on.
TEST_F(LocationInfoTest, SaysSoAndGoesOnWhenTheStoreThreadCannotBeStarted) {
    answerAndPreventThreads(kBrusselsAnswer);
    OutputCapture capture;
    const auto info = LocationInfo::getLocation();
    capture.stop();
    ASSERT_TRUE(letThreadsStart());
    EXPECT_EQ(capture.errWithoutPrefixes(), kNoThreadLine);
    ASSERT_TRUE(info);
    EXPECT_EQ(LocationInfo::getLocation(), info);
    EXPECT_FALSE(storedPlace(m_db).found);
}

/// Its answer is the place of the run: asked once, never replaced, for all threads.
TEST_F(LocationInfoTest, FindsOnePlaceForAllThreadsThatAskAtOnce) {
    answerWith(kBrusselsAnswer);
    std::vector<std::shared_ptr<LocationInfo>> found(4);
    std::vector<std::thread> askers;
    for (auto& place : found)
        askers.emplace_back([&place] { place = LocationInfo::getLocation(); });
    for (std::thread& asker : askers) asker.join();
    ASSERT_TRUE(found.front());
    for (const auto& place : found) EXPECT_EQ(place, found.front());
    EXPECT_TRUE(waitForStoredCity("Brussels"));
}

// --- answers of every kind ------------------------------------------------------------------

/// "loc" needs exactly two numbers; else both degrees are unknown, with a line for a part that is
/// not a number.
TEST_F(LocationInfoTest, ReadsTheTwoNumbersOfLoc) {
    const auto info = locate("50.85,4.35");
    EXPECT_EQ(info->getLatitude(), 50.85);
    EXPECT_EQ(info->getLongitude(), 4.35);
    const auto south = locate("-33.5,-180");
    EXPECT_EQ(south->getLatitude(), -33.5);
    EXPECT_EQ(south->getLongitude(), -180);
}

/// "loc" needs exactly two numbers; else both degrees are unknown, with a line for a part that is
/// not a number.
TEST_F(LocationInfoTest, KnowsNoDegreesWithoutExactlyTwoParts) {
    for (const char* loc : {"", "50.85", "1,2,3", "1,2,", ",1,2", "50.85;4.35"}) {
        const auto info = locate(loc);
        ASSERT_TRUE(info) << loc;
        EXPECT_EQ(info->getLatitude(), kUnknown) << loc;
        EXPECT_EQ(info->getLongitude(), kUnknown) << loc;
    }
}

/// "loc" needs exactly two numbers; else both degrees are unknown, with a line for a part that is
/// not a number.
TEST_F(LocationInfoTest, KnowsNoDegreesWhereAPartIsNoNumber) {
    for (const char* loc : {"north,4.35", "50.85,", ",4.35", ",", "1e999,4.35", "50.85,east"}) {
        OutputCapture capture;
        const auto info = locate(loc);
        capture.stop();
        ASSERT_TRUE(info) << loc;
        EXPECT_EQ(info->getLatitude(), kUnknown) << loc;
        EXPECT_EQ(info->getLongitude(), kUnknown) << loc;
        EXPECT_EQ(capture.errWithoutPrefixes(),
                  "LocationInfo:Invalid loc : " + std::string(loc) + ": stod\n");
    }
}

/// "loc" needs exactly two numbers; else both degrees are unknown, with a line for a part that is
/// not a number.
TEST_F(LocationInfoTest, KnowsNoDegreesThatAreNotOnTheGlobe) {
    EXPECT_EQ(locate("91,4.35")->getLatitude(), kUnknown);
    EXPECT_EQ(locate("91,4.35")->getLongitude(), 4.35);
    EXPECT_EQ(locate("nan,inf")->getLatitude(), kUnknown);
    EXPECT_EQ(locate("nan,inf")->getLongitude(), kUnknown);
    EXPECT_EQ(locate("50.85,1e300")->getLongitude(), kUnknown);
}

/// The store gets the degrees as they were received, but for what is not a number; the next run
/// reads them as unknown.
TEST_F(LocationInfoTest, StoresTheDegreesAsTheyWereReceived) {
    answerWith(R"({"city": "Nowhere", "loc": "nan,181"})");
    EXPECT_EQ(LocationInfo::getLocation()->getLongitude(), kUnknown);
    ASSERT_TRUE(waitForStoredCity("Nowhere"));
    EXPECT_EQ(storedPlace(m_db).lat, kUnknown);
    EXPECT_EQ(storedPlace(m_db).lng, 181);
    LocationInfoPeer::beginNewRun();
    EXPECT_EQ(LocationInfo::getKnownLocation()->getLongitude(), kUnknown);
}

/// Members that are not texts read as empty.
TEST_F(LocationInfoTest, ReadsMembersThatAreNoTextsAsEmpty) {
    answerWith(R"({"ip": 1, "city": null, "region": [], "country": {}, "loc": 50.85})");
    EXPECT_EQ(textOf(LocationInfo::getLocation()),
              R"({"lat": 999.99000000000001, "lng": 999.99000000000001, "ip": "", "city": "", )"
              R"("region": "", "country-code": "", "country": "", "continent": ""})");
}

/// An answer with an HTTP status other than 200 to 299 counts as a failed request.
TEST_F(LocationInfoTest, TreatsABadHttpStatusAsAFailedRequest) {
    storeBrussels();
    for (const int status : {302, 400, 404, 503}) {
        LocationInfoPeer::beginNewRun();
        answerWith(R"({"city": "Ghent", "country": "BE", "loc": "51.05,3.72"})", status);
        OutputCapture quiet;
        EXPECT_EQ(LocationInfo::getLocation()->toJSON().optString("city"), "Brussels") << status;
        EXPECT_EQ(requestCount(), 1u);
    }
    EXPECT_EQ(storedPlace(m_db).city, "Brussels");
}

/// A text above 128 characters counts as a failed request, with a line, and in a stored row as
/// none.
TEST_F(LocationInfoTest, TreatsALongTextAsAFailedRequest) {
    std::string longest;
    for (int i = 0; i < 128; ++i) longest += "\u00e8";
    for (const char* member : {"ip", "city", "region", "country"}) {
        LocationInfoPeer::beginNewRun();
        JsonObject answer = JsonObject::createObject();
        answer.set(member, longest + "x");
        answerWith(answer.dumpAsString());
        OutputCapture capture;
        EXPECT_EQ(LocationInfo::getLocation(), nullptr) << member;
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(), "LocationInfo:Answer of " +
                                                    LocationInfoPeer::provider() +
                                                    " has a text above 128 characters: Ignore\n");
    }
    LocationInfoPeer::beginNewRun();
    JsonObject answer = JsonObject::createObject();
    answer.set("city", longest);
    answerWith(answer.dumpAsString());
    ASSERT_TRUE(LocationInfo::getLocation());
    ASSERT_TRUE(waitForStoredCity(longest));
    {
        DB db;
        db.open(m_db, false);
        ASSERT_TRUE(db.setLocation(1, 2, "", std::string(200000, 'x'), "", "BE"));
    }
    LocationInfoPeer::beginNewRun();
    EXPECT_EQ(LocationInfo::getKnownLocation(), nullptr);
}

/// An answer that names nothing does not take the place of a stored one.
TEST_F(LocationInfoTest, KeepsTheStoredPlaceWhenTheAnswerNamesNothing) {
    storeBrussels();
    answerWith(R"({"error": "log in first"})");
    EXPECT_EQ(LocationInfo::getLocation()->toJSON().optString("city"), "Brussels");
    EXPECT_EQ(storedPlace(m_db).city, "Brussels");
}

/// An answer that is not an object counts as a failed request.
TEST_F(LocationInfoTest, TreatsAnAnswerThatIsNoObjectAsAFailedRequest) {
    storeBrussels();
    for (const char* body : {"<html>Log in</html>", "[]", "\"BE\"", "12", "null", "", "{\"ip\":"}) {
        LocationInfoPeer::beginNewRun();
        answerWith(body);
        OutputCapture capture;
        const auto info = LocationInfo::getLocation();
        capture.stop();
        ASSERT_TRUE(info) << body;
        EXPECT_EQ(info->toJSON().optString("city"), "Brussels") << body;
        EXPECT_EQ(capture.errWithoutPrefixes(), "LocationInfo:Answer of " +
                                                    LocationInfoPeer::provider() +
                                                    " is no JSON object: Ignore\n");
        EXPECT_EQ(storedPlace(m_db).city, "Brussels") << body;
    }
}

// --- no answer ------------------------------------------------------------------------------

/// A failed request leaves the stored place for the run, or nothing and asks again.
TEST_F(LocationInfoTest, KeepsTheStoredPlaceForTheRunWhenTheRequestFails) {
    storeBrussels();
    failRequests();
    const auto info = LocationInfo::getLocation();
    EXPECT_EQ(textOf(info),
              R"({"lat": 50.850000000000001, "lng": 4.3499999999999996, "ip": "192.0.2.7", )"
              R"("city": "Brussels", "region": "Brussels Capital", "country-code": "BE", )"
              R"("country": "Belgium", "continent": "EU"})");
    answerWith(R"({"city": "Ghent"})");
    EXPECT_EQ(LocationInfo::getLocation(), info);
    EXPECT_EQ(requestCount(), 0u);
}

/// A failed request leaves the stored place for the run, or nothing and asks again after a pause.
TEST_F(LocationInfoTest, KnowsNothingAndAsksAgainWhenTheRequestFailsAndNothingIsStored) {
    failRequests();
    EXPECT_EQ(LocationInfo::getLocation(), nullptr);
    EXPECT_EQ(LocationInfoPeer::current(), nullptr);
    answerWith(kBrusselsAnswer);
    EXPECT_EQ(LocationInfo::getLocation(), nullptr);
    EXPECT_EQ(requestCount(), 0u) << "within the pause";
    RetryPausePeer::pass(LocationInfoPeer::pause(), RetryPause::shortestMs);
    ASSERT_TRUE(LocationInfo::getLocation());
    EXPECT_EQ(requestCount(), 1u);
    EXPECT_TRUE(waitForStoredCity("Brussels"));
}

// --- geolocation switched off ---------------------------------------------------------------

/// "LOC_NETWORK" other than "true" gives the fixed place without request or database.
TEST_F(LocationInfoTest, AssumesTheFixedPlaceWhereGeolocationIsOff) {
    const Services::Place place = Services::fallbackPlace();
    const LocationInfo fixed(place.latitude, place.longitude, place.ip, place.city, place.region,
                             place.countryCode);
    for (const char* value : {"false", "", "TRUE", "true ", "1"}) {
        LocationInfoPeer::beginNewRun();
        answerWith(kBrusselsAnswer);
        ASSERT_EQ(::setenv("LOC_NETWORK", value, 1), 0);
        const auto info = LocationInfo::getLocation();
        EXPECT_EQ(textOf(info), fixed.toJSON().dumpAsString()) << value;
        EXPECT_EQ(LocationInfo::getLocation(), info);
        EXPECT_EQ(LocationInfo::getKnownLocation(), info);
        EXPECT_EQ(requestCount(), 0u) << value;
    }
    EXPECT_FALSE(m_dir.has("Db"));
}

/// "LOC_NETWORK" other than "true" gives the fixed place without request or database.
TEST_F(LocationInfoTest, KnowsTheFixedPlaceBeforeAnybodyAskedWhereGeolocationIsOff) {
    ASSERT_EQ(::setenv("LOC_NETWORK", "false", 1), 0);
    const auto known = LocationInfo::getKnownLocation();
    ASSERT_TRUE(known);
    EXPECT_EQ(known->toJSON().optString("city"), Services::fallbackPlace().city);
    EXPECT_EQ(LocationInfo::getLocation(), known);
    EXPECT_FALSE(m_dir.has("Db"));
}

/// "LOC_NETWORK" other than "true" gives the fixed place without request or database.
TEST_F(LocationInfoTest, AsksTheServiceWhereGeolocationIsOnByName) {
    ASSERT_EQ(::setenv("LOC_NETWORK", "true", 1), 0);
    answerWith(kBrusselsAnswer);
    LocationInfo::getLocation();
    EXPECT_EQ(requestCount(), 1u);
    EXPECT_TRUE(waitForStoredCity("Brussels"));
}

// --- what is known without the network ------------------------------------------------------

/// What is known without asking: the run's place, else the stored one, else nothing.
TEST_F(LocationInfoTest, KnowsTheStoredPlaceWithoutAskingAndAsksLaterAllTheSame) {
    storeBrussels();
    answerWith(R"({"city": "Ghent", "country": "BE", "loc": "51.05,3.72"})");
    EXPECT_EQ(LocationInfo::getKnownLocation()->toJSON().optString("city"), "Brussels");
    EXPECT_EQ(requestCount(), 0u);
    EXPECT_EQ(LocationInfoPeer::current(), nullptr);
    EXPECT_EQ(LocationInfo::getLocation()->toJSON().optString("city"), "Ghent");
    EXPECT_EQ(LocationInfo::getKnownLocation()->toJSON().optString("city"), "Ghent");
    EXPECT_TRUE(waitForStoredCity("Ghent"));
}

/// What is known without asking: the run's place, else the stored one, else nothing.
TEST_F(LocationInfoTest, KnowsNothingWithoutAStoredPlaceOrWithoutADatabase) {
    answerWith(kBrusselsAnswer);
    EXPECT_EQ(LocationInfo::getKnownLocation(), nullptr);
    LocationInfo::setDbPath("");
    EXPECT_EQ(LocationInfo::getKnownLocation(), nullptr);
    EXPECT_EQ(requestCount(), 0u);
}

// --- the store thread -----------------------------------------------------------------------

/// Storing is tried every second until the database takes it, at the path of the moment.
TEST_F(LocationInfoTest, TriesToStoreUntilTheDatabaseCanBeOpened) {
    LocationInfo::setDbPath(m_dir.file("later/Db"));
    OutputCapture capture;
    std::thread storer(LocationInfo::StoreInDB, 50.85, 4.35, "192.0.2.7", "Brussels",
                       "Brussels Capital", "BE");
    const std::string line = "kivDB: Can't Insert into table Location: ";
    EXPECT_TRUE(WaitUntil([&] { return capture.err().find(line) != std::string::npos; }));
    std::filesystem::create_directory(m_dir.file("later"));
    storer.join();
    capture.stop();
    const StoredPlace place = storedPlace(m_dir.file("later/Db"));
    EXPECT_TRUE(place.found);
    EXPECT_EQ(place.lat, 50.85);
    EXPECT_EQ(place.lng, 4.35);
    EXPECT_EQ(place.city, "Brussels");
}

/// Storing is tried every second until the database takes it, at the path of the moment.
TEST_F(LocationInfoTest, PausesForASecondBetweenTwoTriesToStore) {
    LocationInfo::setDbPath(m_dir.file("missing/Db"));
    OutputCapture capture;
    const auto start = std::chrono::steady_clock::now();
    std::thread storer(LocationInfo::StoreInDB, 1.5, 2.5, "", "Brussels", "", "BE");
    EXPECT_TRUE(WaitUntil([&] { return !capture.err().empty(); }));
    LocationInfo::setDbPath(m_db);
    storer.join();
    capture.stop();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Can't open database " + m_dir.file("missing/Db") +
                  ": unable to open database file\n"
                  "kivDB: Can't Insert into table Location: no open database\n")
        << "one try in vain";
}

/// A store that is locked is told once, and no other thread waits for the attempts.
TEST_F(LocationInfoTest, TellsOnceOfALockedStoreAndHoldsUpNobody) {
    LocationInfo::setDbPath(m_db);
    DB().open(m_db, false);
    sqlite3* opened = nullptr;
    ASSERT_EQ(::sqlite3_open(m_db.c_str(), &opened), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> other(opened, ::sqlite3_close);
    ASSERT_EQ(::sqlite3_exec(opened, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    OutputCapture capture;
    std::thread storer(LocationInfo::StoreInDB, 1.5, 2.5, "", "Brussels", "", "BE");
    const std::string line = "kivDB: Can't Insert into table Location: database is locked\n";
    EXPECT_TRUE(WaitUntil([&] { return capture.err().find(line) != std::string::npos; }));
    std::chrono::steady_clock::duration longest{};
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(2500);
    while (std::chrono::steady_clock::now() < end) {  // over two attempts more
        const auto begin = std::chrono::steady_clock::now();
        const std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock);
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(::sqlite3_exec(opened, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    storer.join();
    capture.stop();
    EXPECT_LT(longest, std::chrono::milliseconds(500));
    const std::string errors = capture.errWithoutPrefixes();
    EXPECT_EQ(errors.find(line), errors.rfind(line)) << errors;
    EXPECT_EQ(storedPlace(m_db).city, "Brussels");
}

/// Storing is tried every second until the database takes it, at the path of the moment.
TEST_F(LocationInfoTest, StoresAtThePathOfTheMoment) {
    LocationInfo::setDbPath(m_dir.file("missing/Db"));
    OutputCapture capture;
    std::thread storer(LocationInfo::StoreInDB, 1.5, 2.5, "", "Brussels", "", "BE");
    EXPECT_TRUE(WaitUntil([&] { return !capture.err().empty(); }));
    LocationInfo::setDbPath(m_db);
    storer.join();
    capture.stop();
    EXPECT_TRUE(storedPlace(m_db).found);
}

/// Storing is tried every second until the database takes it, at the path of the moment.
TEST_F(LocationInfoTest, TriesToStoreUntilTheDatabaseIsNoLongerLocked) {
    storeBrussels();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(m_db.c_str(), &other), SQLITE_OK);
    const std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(other, sqlite3_close);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    OutputCapture capture;
    std::thread storer(LocationInfo::StoreInDB, 51.05, 3.72, "", "Ghent", "", "BE");
    EXPECT_TRUE(WaitUntil(
        [&] { return capture.err().find("Location: database is locked") != std::string::npos; }));
    ASSERT_EQ(sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    storer.join();
    capture.stop();
    EXPECT_EQ(storedPlace(m_db).city, "Ghent");
}

/// Its verbose flag can be switched.
TEST_F(LocationInfoTest, SwitchesItsVerboseFlag) {
    EXPECT_FALSE(LocationInfo::GetVerbose());
    LocationInfo::SetVerbose(true);
    EXPECT_TRUE(LocationInfo::GetVerbose());
    LocationInfo::SetVerbose(false);
    EXPECT_FALSE(LocationInfo::GetVerbose());
}

}  // namespace
