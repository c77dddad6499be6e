#include "GatewayImpl.h"

#include "KernelTime.h"
#include "PimAppVersion.h"
#include "support/GatewaySetup.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>

#include <gtest/gtest.h>

namespace {

class GatewayImplTest : public GatewaySetup {};

// --- before Init ----------------------------------------------------------------------------

/// Messages before `Init` are dropped with "Gateway not initialized: Ignore", their sender
/// woken.
TEST_F(GatewayImplTest, DropsMessagesBeforeInit) {
    makeEarlyGateway();
    EXPECT_EQ(errorsOf(R"({"event-type": "early"})"),
              "kivGateway:Gateway not initialized: Ignore\n");
    m_gateway->Init(m_db);
    EXPECT_TRUE(storedTypes().empty());
}

/// Messages before `Init` are dropped with "Gateway not initialized: Ignore", their sender
/// woken.
TEST_F(GatewayImplTest, WakesTheSenderOfADroppedEarlyMessage) {
    makeEarlyGateway();
    const NamedSemaphore done;
    EXPECT_EQ(errorsOf(R"({"event-type": "early", "syncsem": ")" + done.name() + "\"}"),
              "kivGateway:Gateway not initialized: Ignore\n");
    EXPECT_EQ(done.value(), 1);
}

/// Messages before `Init` are dropped with "Gateway not initialized: Ignore", their sender
/// woken.
TEST_F(GatewayImplTest, SaysTheSameOfEarlyMessagesThatAreNoEvents) {
    makeEarlyGateway();
    for (const char* message : {"", "no JSON", "[]", R"(["syncsem"])", R"({"syncsem": 5})"})
        EXPECT_EQ(errorsOf(message), "kivGateway:Gateway not initialized: Ignore\n") << message;
}

/// The first received message waits up to 2 s for `Init`.
TEST_F(GatewayImplTest, HasTheFirstReceivedMessageWaitForInit) {
    makeEarlyGateway();
    const NamedSemaphore done;
    ASSERT_TRUE(send(R"({"event-type": "first", "syncsem": ")" + done.name() + "\"}"));
    const Queue queue(m_queueName, O_RDONLY);
    ASSERT_TRUE(WaitUntil([&] { return queue.attributes().mq_curmsgs == 0; }));
    EXPECT_EQ(done.value(), 0);
    m_gateway->Init(m_db);
    ASSERT_TRUE(done.wait());
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"first"});
}

/// The first received message waits up to 2 s for `Init`.
TEST_F(GatewayImplTest, DropsReceivedMessagesTwoSecondsLater) {
    makeEarlyGateway();
    const NamedSemaphore done;
    const std::string message = R"({"event-type": "early", "syncsem": ")" + done.name() + "\"}";
    OutputCapture capture;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(send(message));
    EXPECT_TRUE(done.wait());
    const auto first = std::chrono::steady_clock::now();
    EXPECT_TRUE(send(message));
    EXPECT_TRUE(done.wait());
    capture.stop();
    EXPECT_GE(first - start, std::chrono::milliseconds(1990));
    EXPECT_LT(std::chrono::steady_clock::now() - first, std::chrono::milliseconds(1500));
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivGateway:Gateway not initialized: Ignore\n"
              "kivGateway:Gateway not initialized: Ignore\n");
}

/// `Init` is told when verbose.
TEST_F(GatewayImplTest, SaysWhenItIsInitialized) {
    makeEarlyGateway();
    OutputCapture silent;
    m_gateway->Init(m_db);
    silent.stop();
    EXPECT_EQ(silent.out(), "");
    // The receiving thread has lines of its own until it waits for its first message.
    ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::receives > 0; }));
    GatewayImpl::SetVerbose(true);
    OutputCapture capture;
    m_gateway->Init(m_db);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "kivGateway:Gateway initialized\n");
}

// --- messages that are not events ------------------------------------------------------------

/// What is not JSON, not an object or not UTF-8 is dropped with "Invalid JSON object: Ignore",
/// nobody woken.
TEST_F(GatewayImplTest, IgnoresWhatIsNotJson) {
    makeGateway();
    for (const char* message :
         {"", " ", "no JSON", "{", R"({"event-type": "x")", R"({"event-type": "x"} rest)",
          "{'event-type': 'x'}", R"({"a": nan})", R"({"a": "\u0000"})", "\xef\xbb\xbf{}"}) {
        EXPECT_EQ(errorsOf(message), "kivGateway:Invalid JSON object: Ignore\n") << message;
    }
    EXPECT_TRUE(storedTypes().empty());
}

/// What is not JSON, not an object or not UTF-8 is dropped with "Invalid JSON object: Ignore",
/// nobody woken.
TEST_F(GatewayImplTest, IgnoresJsonThatIsNoObject) {
    makeGateway();
    for (const char* message :
         {"[]", R"([{"event-type": "x"}])", R"("text")", "5", "1.5", "true", "null"})
        EXPECT_EQ(errorsOf(message), "kivGateway:Invalid JSON object: Ignore\n") << message;
    EXPECT_TRUE(storedTypes().empty());
}

/// What is not JSON, not an object or not UTF-8 is dropped with "Invalid JSON object: Ignore",
/// nobody woken.
TEST_F(GatewayImplTest, IgnoresTextThatIsNoUtf8) {
    makeGateway();
    for (const char* bytes : {"\xff", "\xc3", "\xc0\xaf", "\xed\xa0\x80", "\xf8\x88\x80\x80\x80"}) {
        EXPECT_EQ(errorsOf(std::string(R"({"event-type": ")") + bytes + "\"}"),
                  "kivGateway:Invalid JSON object: Ignore\n");
    }
    EXPECT_TRUE(storedTypes().empty());
}

/// UTF-8, the greatest number and deep nesting are kept.
TEST_F(GatewayImplTest, KeepsTextInUtf8) {
    const JsonObject event =
        storedFor("{\"event-type\": \"x\", \"data\": {\"t\": \"Li\xc3\xa8ge\"}}");
    EXPECT_EQ(event.getObject("data").optString("t"), "Li\xc3\xa8ge");
}

/// Numbers that fit no type, and nesting beyond the parser, are not JSON.
TEST_F(GatewayImplTest, IgnoresNumbersThatFitNoType) {
    makeGateway();
    for (const char* number : {"9223372036854775808", "-9223372036854775809", "1e400", "-1e400"})
        EXPECT_EQ(errorsOf(std::string(R"({"kernel-time": )") + number + "}"),
                  "kivGateway:Invalid JSON object: Ignore\n");
    EXPECT_TRUE(storedTypes().empty());
}

/// UTF-8, the greatest number and deep nesting are kept.
TEST_F(GatewayImplTest, KeepsTheGreatestNumber) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "x", "kernel-time": 9223372036854775807})");
    const auto all = stored();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].kernelTime, std::numeric_limits<long long>::max());
}

/// UTF-8, the greatest number and deep nesting are kept.
TEST_F(GatewayImplTest, StoresEventsNestedTwoThousandLevelsDeep) {
    makeGateway();
    const std::string deep = std::string(2000, '[') + std::string(2000, ']');
    EXPECT_EQ(errorsOf(R"({"event-type": "deep", "data": )" + deep + "}"), "");
    const auto all = stored();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_NE(all[0].data.find(deep), std::string::npos);
}

/// Numbers that fit no type, and nesting beyond the parser, are not JSON.
TEST_F(GatewayImplTest, IgnoresEventsNestedDeeperThanTheParserGoes) {
    makeGateway();
    const std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(errorsOf(R"({"event-type": "deep", "data": )" + deep + "}"),
              "kivGateway:Invalid JSON object: Ignore\n");
    EXPECT_TRUE(storedTypes().empty());
}

/// What is not JSON, not an object or not UTF-8 is dropped with "Invalid JSON object: Ignore",
/// nobody woken.
TEST_F(GatewayImplTest, DoesNotWakeTheSenderOfTextThatIsNoEvent) {
    makeGateway();
    const NamedSemaphore done;
    m_gateway->Log(R"({"syncsem": ")" + done.name() + "\"");
    m_gateway->Log(R"([{"syncsem": ")" + done.name() + "\"}]");
    EXPECT_EQ(done.value(), 0);
}

// --- type, counts and time ------------------------------------------------------------------

/// A type sent as number gets its name, one sent as name its number, an unknown one 0.
TEST_F(GatewayImplTest, NamesATypeThatWasSentAsItsNumber) {
    const JsonObject event = storedFor(R"({"event-type": "15"})");
    EXPECT_EQ(event.optString("event-type"), "ui.key.press");
    EXPECT_EQ(event.optInteger("eventid", -1), 15);
}

/// A type sent as number gets its name, one sent as name its number, an unknown one 0.
TEST_F(GatewayImplTest, NumbersATypeThatWasSentAsItsName) {
    const JsonObject event = storedFor(R"({"event-type": "ui.key.press", "eventid": 99})");
    EXPECT_EQ(event.optString("event-type"), "ui.key.press");
    EXPECT_EQ(event.optInteger("eventid", -1), 15);
}

/// A type sent as number gets its name, one sent as name its number, an unknown one 0.
TEST_F(GatewayImplTest, KeepsTheNameOfAnUnknownTypeWithNumberZero) {
    const JsonObject event = storedFor(R"({"event-type": "my.event"})");
    EXPECT_EQ(event.optString("event-type"), "my.event");
    EXPECT_EQ(event.optInteger("eventid", -1), 0);
}

/// A type sent as number gets its name, one sent as name its number, an unknown one 0.
TEST_F(GatewayImplTest, StoresEventsWhoseTypeIsMissingOrNoText) {
    makeGateway();
    for (const char* message :
         {"{}", R"({"event-type": 15})", R"({"event-type": null})", R"({"event-type": {"a": 1}})"})
        m_gateway->Log(message);
    const auto all = stored();
    ASSERT_EQ(all.size(), 4u);
    for (const Row& row : all) {
        EXPECT_EQ(row.type, "");
        const JsonObject event = JsonObject::parse(row.data);
        EXPECT_TRUE(event.getObject("event-type").isString()) << row.data;
        EXPECT_EQ(event.optInteger("eventid", -1), 0) << row.data;
    }
}

/// The row holds the completed event; sent counts are replaced.
TEST_F(GatewayImplTest, StoresTheColumnsOfTheCompletedEvent) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "15", "kernel-time": 12345, "boot-count": 99})");
    const auto all = stored();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].bootCount, 7);
    EXPECT_EQ(all[0].standbyCount, 2);
    EXPECT_EQ(all[0].kernelTime, 12345);
    EXPECT_EQ(all[0].type, "ui.key.press");
}

/// The row holds the completed event; sent counts are replaced.
TEST_F(GatewayImplTest, ReplacesCountsThatWereSent) {
    const JsonObject event =
        storedFor(R"({"event-type": "x", "boot-count": 99, "standby-count": "many"})");
    EXPECT_EQ(event.optInteger("boot-count", -1), 7);
    EXPECT_EQ(event.optInteger("standby-count", -1), 2);
}

/// The row holds the completed event; sent counts are replaced.
TEST_F(GatewayImplTest, KeepsCountsAboveTheSignedRange) {
    m_device->setBootCounts(4294967295u, 2147483648u);
    makeGateway();
    m_gateway->Log(R"({"event-type": "x"})");
    const auto all = stored();
    ASSERT_EQ(all.size(), 1u);
    const JsonObject event = JsonObject::parse(all[0].data);
    EXPECT_EQ(event.optInteger("boot-count", -1), 4294967295);
    EXPECT_EQ(event.optInteger("standby-count", -1), 2147483648);
}

/// A sent kernel time stays; one below 1, absent or not an integer becomes now.
TEST_F(GatewayImplTest, KeepsASentKernelTime) {
    EXPECT_EQ(storedFor(R"({"kernel-time": 12345})").optInteger("kernel-time", -1), 12345);
    EXPECT_EQ(storedFor(R"({"kernel-time": 1})").optInteger("kernel-time", -1), 1);
}

/// A sent kernel time stays; one below 1, absent or not an integer becomes now.
TEST_F(GatewayImplTest, DatesEventsWithoutAUsableKernelTimeNow) {
    makeGateway();
    const std::vector<std::string> messages = {
        "{}",
        R"({"kernel-time": 0})",
        R"({"kernel-time": -5})",
        R"({"kernel-time": "12345"})",
        R"({"kernel-time": 12345.5})",
        R"({"kernel-time": null})",
        R"({"kernel-time": -9223372036854775808})",
    };
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    for (const std::string& message : messages) m_gateway->Log(message);
    const std::int64_t after = KernelTime::getTimeMonotonicAsInt64();
    const auto all = stored();
    ASSERT_EQ(all.size(), messages.size());
    for (const Row& row : all) {
        EXPECT_GE(row.kernelTime, before) << row.data;
        EXPECT_LE(row.kernelTime, after) << row.data;
        EXPECT_EQ(JsonObject::parse(row.data).optInteger("kernel-time", -1), row.kernelTime);
    }
}

/// The moment of the latest accepted event is remembered.
TEST_F(GatewayImplTest, RemembersTheMomentOfTheLatestEvent) {
    EXPECT_EQ(GatewayImpl::latestEvent(), nullptr);
    makeGateway();
    const std::int64_t before = KernelTime::getTimeMonotonicAsInt64();
    m_gateway->Log(R"({"event-type": "x", "kernel-time": 5})");
    const std::int64_t after = KernelTime::getTimeMonotonicAsInt64();
    const auto latest = GatewayImpl::latestEvent();
    ASSERT_NE(latest, nullptr);
    EXPECT_EQ(latest->bootCount, kBoot);
    EXPECT_EQ(latest->standbyCount, kStandby);
    EXPECT_GE(latest->kernelTime, before);
    EXPECT_LE(latest->kernelTime, after);
}

/// The moment of the latest accepted event is remembered.
TEST_F(GatewayImplTest, DoesNotCountRefusedEventsAsLatest) {
    configure(R"({"kiv_tou": false})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "x"})");
    EXPECT_EQ(GatewayImpl::latestEvent(), nullptr);
}

// --- consent and filters --------------------------------------------------------------------

/// Without consent nothing is kept, yet the sender is woken; the consent of the moment counts.
TEST_F(GatewayImplTest, KeepsNothingWithoutConsentYetWakesTheSender) {
    configure(R"({"kiv_tou": false})");
    makeGateway();
    const NamedSemaphore done;
    m_gateway->Log(R"({"event-type": "x", "oob-url": "/tmp/a.log", "syncsem": ")" + done.name() +
                   "\"}");
    EXPECT_EQ(done.value(), 1);
    EXPECT_TRUE(files().empty());
    configure(R"({"kiv_tou": true})");
    EXPECT_TRUE(storedTypes().empty());
}

/// Without consent nothing is kept, yet the sender is woken; the consent of the moment counts.
TEST_F(GatewayImplTest, FollowsTheConsentOfTheMoment) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "first"})");
    configure(R"({"kiv_tou": false})");
    m_gateway->Log(R"({"event-type": "second"})");
    configure(R"({"kiv_tou": true})");
    m_gateway->Log(R"({"event-type": "third"})");
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"first", "third"}));
}

/// The event filter decides what is kept, by the event as sent; the sender is woken either way.
TEST_F(GatewayImplTest, KeepsOnlyWhatTheEventFilterIncludes) {
    configure(R"({"kiv_tou": true, "event-filter": {"include":
                 [{"event-type": ["kept", "test.end"]}]}})");
    makeGateway();
    const NamedSemaphore done;
    m_gateway->Log(R"({"event-type": "dropped", "syncsem": ")" + done.name() + "\"}");
    EXPECT_EQ(done.value(), 1);
    m_gateway->Log(R"({"event-type": "kept"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"kept"});
}

/// The event filter decides what is kept, by the event as sent; the sender is woken either way.
TEST_F(GatewayImplTest, DropsWhatTheEventFilterExcludes) {
    configure(R"({"kiv_tou": true, "event-filter": {"exclude": [{"data": {"level": 1}}]}})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "a", "data": {"level": 1}})");
    m_gateway->Log(R"({"event-type": "b", "data": {"level": 2}})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"b"});
}

/// The event filter decides what is kept, by the event as sent; the sender is woken either way.
TEST_F(GatewayImplTest, FiltersTheEventAsItWasSentWithoutItsSemaphore) {
    configure(R"({"kiv_tou": true, "event-filter":
                 {"exclude": [{"event-type": "ui.key.press"}, {"syncsem": {"$regex": ".*"}}]}})");
    makeGateway();
    const NamedSemaphore done;
    m_gateway->Log(R"({"event-type": "15", "syncsem": ")" + done.name() + "\"}");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"ui.key.press"});
}

/// A dropped event registers no file.
TEST_F(GatewayImplTest, RegistersNoFileOfAnEventThatTheEventFilterDrops) {
    configure(R"({"kiv_tou": true, "event-filter": {"exclude": [{"event-type": "x"}]}})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "x", "oob-url": "/tmp/a.log"})");
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(askedOfUpload().empty());
}

/// The filters are those of the gateway's making.
TEST_F(GatewayImplTest, KeepsItsFiltersUntilTheNextGateway) {
    makeGateway();
    configure(R"({"kiv_tou": true, "event-filter": {"exclude": [{"event-type": "x"}]}})");
    m_gateway->Log(R"({"event-type": "x"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
    m_gateway.reset();
    makeGateway();
    m_gateway->Log(R"({"event-type": "x"})");
    m_gateway->Log(R"({"event-type": "y"})");
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"x", "y"}));
}

/// The event filter decides what is kept, by the event as sent; the sender is woken either way.
TEST_F(GatewayImplTest, KeepsEveryEventWithoutRules) {
    configure(R"({"kiv_tou": true, "event-filter": {}})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "any"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"any"});
}

// --- the sibling's start --------------------------------------------------------------------

/// "pim.start" brings the sibling's version, without consent too; other events do not.
TEST_F(GatewayImplTest, TakesTheSiblingsVersionFromItsStartEvent) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "pim.start",
                       "data": {"pim-version": "4.5", "pim-builddate": "2019-01-02"}})");
    EXPECT_EQ(PimAppVersion::current().version, "4.5");
    EXPECT_EQ(PimAppVersion::current().buildDate, "2019-01-02");
    EXPECT_TRUE(m_dir.has("pimversion.json"));
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"pim.start"});
}

/// "pim.start" brings the sibling's version, without consent too; other events do not.
TEST_F(GatewayImplTest, TakesTheSiblingsVersionWithoutConsentToo) {
    configure(R"({"kiv_tou": false})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "pim.start", "data": {"pim-version": "4.6"}})");
    EXPECT_EQ(PimAppVersion::current().version, "4.6");
    EXPECT_EQ(PimAppVersion::current().buildDate, "");
}

/// "pim.start" brings the sibling's version, without consent too; other events do not.
TEST_F(GatewayImplTest, ReadsAbsentVersionTextsOfTheSiblingAsEmpty) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "pim.start", "data": {"pim-version": "4.5"}})");
    m_gateway->Log(R"({"event-type": "pim.start", "data": [1]})");
    EXPECT_EQ(PimAppVersion::current().version, "");
}

/// "pim.start" brings the sibling's version, without consent too; other events do not.
TEST_F(GatewayImplTest, LeavesTheSiblingsVersionAloneAtOtherEvents) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "206", "data": {"pim-version": "9"}})");
    m_gateway->Log(R"({"event-type": "pim.stop", "data": {"pim-version": "9"}})");
    EXPECT_EQ(PimAppVersion::current().version, "");
}

// --- the sender's semaphore -----------------------------------------------------------------

/// "syncsem" is removed before storage and posted once a message.
TEST_F(GatewayImplTest, RemovesTheSemaphoresNameBeforeStoring) {
    const NamedSemaphore done;
    const JsonObject event = storedFor(R"({"event-type": "x", "syncsem": ")" + done.name() + "\"}");
    EXPECT_TRUE(event.isObject());
    EXPECT_TRUE(event.getObject("syncsem").isNull());
    EXPECT_EQ(done.value(), 1);
}

/// "syncsem" is removed before storage and posted once a message.
TEST_F(GatewayImplTest, RemovesASemaphoreThatIsNoNameAndPostsNone) {
    makeGateway();
    for (const char* value : {"5", "null", "\"\"", "{}"})
        EXPECT_EQ(errorsOf(R"({"event-type": "x", "syncsem": )" + std::string(value) + "}"), "");
    for (const Row& row : stored())
        EXPECT_TRUE(JsonObject::parse(row.data).getObject("syncsem").isNull());
}

/// A semaphore's failures: "Cannot open semaphore ", "Cannot post sem ", "Cannot close sem ",
/// with name and reason.
TEST_F(GatewayImplTest, SaysWhichSemaphoreDoesNotExist) {
    makeGateway();
    EXPECT_EQ(errorsOf(R"({"event-type": "x", "syncsem": "/kivtest-no-such"})"),
              "kivGateway:Cannot open semaphore /kivtest-no-such: No such file or directory\n");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
}

/// A semaphore's failures: "Cannot open semaphore ", "Cannot post sem ", "Cannot close sem ",
/// with name and reason.
TEST_F(GatewayImplTest, SaysWhichSemaphoreCannotBePosted) {
    makeGateway();
    const NamedSemaphore full(SEM_VALUE_MAX);
    EXPECT_EQ(
        errorsOf(R"({"syncsem": ")" + full.name() + "\"}"),
        "kivGateway:Cannot post sem " + full.name() + ": Value too large for defined data type\n");
}

/// A semaphore's failures: "Cannot open semaphore ", "Cannot post sem ", "Cannot close sem ",
/// with name and reason.
TEST_F(GatewayImplTest, SaysWhichSemaphoreCannotBeClosed) {
    makeGateway();
    const NamedSemaphore done;
    SystemCallFaults::closeSemaphoreError = EINVAL;
    const std::string errors = errorsOf(R"({"syncsem": ")" + done.name() + "\"}");
    SystemCallFaults::clear();
    EXPECT_EQ(errors, "kivGateway:Cannot close sem " + done.name() + ": Invalid argument\n");
    EXPECT_EQ(done.value(), 1);
}

/// "syncsem" is removed before storage and posted once a message.
TEST_F(GatewayImplTest, PostsTheSemaphoreOnceAMessage) {
    makeGateway();
    const NamedSemaphore done;
    for (int i = 0; i < 3; ++i) m_gateway->Log(R"({"syncsem": ")" + done.name() + "\"}");
    EXPECT_EQ(done.value(), 3);
}

// --- what it tells when verbose -------------------------------------------------------------

/// Verbose, the way of an event is told; otherwise nothing is.
TEST_F(GatewayImplTest, TellsTheWayOfAnEventWhenVerbose) {
    makeGateway();
    const NamedSemaphore done;
    const std::string message =
        R"({"event-type": "15", "kernel-time": 5, "syncsem": ")" + done.name() + "\"}";
    const std::string event =
        R"({"event-type": "ui.key.press", "kernel-time": 5, "eventid": 15, "boot-count": 7, )"
        R"("standby-count": 2})";
    SystemCallFaults::holdSleeps = true;  // so that it is not stored meanwhile
    ASSERT_TRUE(WaitUntil([] { return SystemCallFaults::heldSleeps > 0; }));
    GatewayImpl::SetVerbose(true);
    OutputCapture capture;
    m_gateway->Log(message);
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivGateway: message received: " + message + "\nkivGateway: will be sent\n" +
                  "kivGateway: message stored in queue: " + event + "\n" +
                  "kivGateway:Signal semaphore " + done.name() + "\n");
    SystemCallFaults::holdSleeps = false;
    const std::string last = "kivGateway: message read from queue: " + event + "\n";
    EXPECT_TRUE(WaitUntil([&] { return capture.out().find(last) != std::string::npos; }));
    capture.stop();
    GatewayImpl::SetVerbose(false);
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, the way of an event is told; otherwise nothing is.
TEST_F(GatewayImplTest, TellsOfARefusalForWantOfConsentWhenVerbose) {
    configure(R"({"kiv_tou": false})");
    makeGateway();
    GatewayImpl::SetVerbose(true);
    OutputCapture capture;
    m_gateway->Log(R"({"event-type": "x"})");
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivGateway: message received: {\"event-type\": \"x\"}\n"
              "kivGateway:TOU not accepted: will not send event\n");
}

/// Verbose, the way of an event is told; otherwise nothing is.
TEST_F(GatewayImplTest, TellsNothingUnlessVerbose) {
    makeGateway();
    OutputCapture capture;
    m_gateway->Log(R"({"event-type": "x"})");
    EXPECT_EQ(storedTypes(), std::vector<std::string>{"x"});
    m_gateway.reset();
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, the way of an event is told; otherwise nothing is.
TEST_F(GatewayImplTest, SwitchesItsVerboseFlag) {
    EXPECT_FALSE(GatewayImpl::GetVerbose());
    GatewayImpl::SetVerbose(true);
    EXPECT_TRUE(GatewayImpl::GetVerbose());
    GatewayImpl::SetVerbose(false);
    EXPECT_FALSE(GatewayImpl::GetVerbose());
}

}  // namespace
