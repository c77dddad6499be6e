#include "EventsUpload.h"

#include <iostream>
#include <mutex>
#include <sstream>
#include <streambuf>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "JsonArrayIterator.h"
#include "AwsWrapperImpl.h"
#include "support/LocationInfoPeer.h"
#include "support/PoisonedOutput.h"
#include "support/UploadRooms.h"

namespace {

constexpr const char* kDbErrorType = R"("event-type": "db.error")";

class EventsUploadTest : public UploadRooms {
  protected:
    /// The events of all blocks of a record.
    static std::vector<JsonObject> eventsOf(const std::string& record) {
        std::vector<JsonObject> found;
        std::istringstream in(record);
        for (std::string line; std::getline(in, line);) {
            const JsonObject block = JsonObject::parse(line);
            EXPECT_TRUE(block.isObject()) << line;
            JsonArrayIterator event(block.getObject("events"));
            for (; event; ++event) found.push_back(event.current());
        }
        return found;
    }

    std::vector<JsonObject> sentEvents() const {
        std::vector<JsonObject> sent;
        for (const std::string& record : records()) {
            for (const JsonObject& event : eventsOf(record)) sent.push_back(event);
        }
        return sent;
    }

    std::int64_t nowSeconds() const { return timeManager->getTime() / 1000; }

    /// Uploads while another process locks the store during the send: accepted, not deleted.
    void sendWithoutDeleting() {
        std::shared_ptr<sqlite3> locked;
        script([&](const Request& request) {
            locked = lockStore();
            return accept(request);
        });
        const OutputCapture output;
        EXPECT_EQ(events.upload(), 0);
        script(accept);
    }
};

/// Looks, whenever a text with `moment` is written, whether another thread can have the store.
class LockProbe : public std::streambuf {
  public:
    explicit LockProbe(std::string moment)
        : m_moment(std::move(moment)), m_before(std::cout.rdbuf(this)) {}
    ~LockProbe() override { std::cout.rdbuf(m_before); }

    int free = 0;
    int taken = 0;

  private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        if (std::string(text, static_cast<std::size_t>(size)).find(m_moment) != std::string::npos)
            std::thread([this] { look(); }).join();
        return size;
    }
    int overflow(int character) override { return character; }

    void look() {
        const std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock, std::try_to_lock);
        ++(lock.owns_lock() ? free : taken);
    }

    std::string m_moment;
    std::streambuf* m_before;
};

}  // namespace

// --- events upload ------------------------------------------------------------------------------

/// Stored events are sent in stored order and deleted.
TEST_F(EventsUploadTest, SendsTheStoredEventsAndDeletesThem) {
    addEvent(2000);
    addEvent(1000);
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(storedEvents(), "0");
    ASSERT_EQ(records().size(), 1u);
    const std::string record = records()[0];
    EXPECT_EQ(record.substr(record.find(",\"events\":[")),
              ",\"events\":["
              R"({"event-type": "e", "utc-src": "web", )"
              R"("time": "2019-03-07T10:15:00.000Z", "ts": )" +
                  std::to_string(kernelNow - 2000) +
                  R"(},{"event-type": "e", "utc-src": "web", )"
                  R"("time": "2019-03-07T10:15:01.000Z", "ts": )" +
                  std::to_string(kernelNow - 1000) + "}]}\n");
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
    EXPECT_FALSE(DB::m_dbError) << "or the backlog would not drain";
}

/// Stored events are sent in stored order and deleted.
TEST_F(EventsUploadTest, SendsTheEventsInStoredOrder) {
    addEventOf(kBoot, kStandby, kernelNow);
    addEventOf(kBoot, 1, 500);
    addEventOf(3, 4, 700);
    addEventOf(3, 4, 600);
    EXPECT_NE(events.upload(), 0);
    std::vector<long long> order;
    for (const JsonObject& event : sentEvents()) order.push_back(event.optInteger("ts", -1));
    EXPECT_EQ(order, (std::vector<long long>{600, 700, 500, kernelNow}));
    EXPECT_EQ(records().size(), 1u);
}

/// A given time is sent without source; an unknown one is the epoch.
TEST_F(EventsUploadTest, SendsAGivenTimeWithoutSource) {
    addEvent(0, R"(, "utc-time": "1500000000000")");
    EXPECT_NE(events.upload(), 0);
    ASSERT_EQ(sentEvents().size(), 1u);
    EXPECT_EQ(sentEvents()[0].optString("time"), "2017-07-14T02:40:00.000Z");
    EXPECT_TRUE(sentEvents()[0].getObject("utc-src").isNull());
}

/// A given time is sent without source; an unknown one is the epoch.
TEST_F(EventsUploadTest, SendsAnEventOfAnUnknownCycleAtTheEpoch) {
    addEventOf(3, 0, 1000);
    EXPECT_NE(events.upload(), 0);
    ASSERT_EQ(sentEvents().size(), 1u);
    EXPECT_EQ(sentEvents()[0].optString("time"), "1970-01-01T00:00:00.000Z");
    EXPECT_TRUE(sentEvents()[0].getObject("utc-src").isNull());
    EXPECT_TRUE(sentEvents()[0].getObject("utc-time").isNull());
}

/// An empty store sends nothing.
TEST_F(EventsUploadTest, SendsNothingOfAnEmptyStore) {
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(cloud.requests().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// A store that cannot be read is asked for events again in a minute.
TEST_F(EventsUploadTest, AsksAgainInAMinuteWhenTheEventsCannotBeRead) {
    sql("ALTER TABLE Events RENAME TO Others");
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_TRUE(isDelayed(1, 60000));
}

/// A backlog above the minimum is drained packet after packet; a rest below it waits for its
/// age.
TEST_F(EventsUploadTest, DrainsABacklogPacketAfterPacket) {
    configure(R"({"upload_events": {"max-size": 1500, "min-size": 10}})");
    for (int i = 0; i < 30; ++i) addEvent(30 - i);
    int packets = 0;
    while (storedEvents() != "0") {
        ASSERT_NE(events.upload(), 0);
        ++packets;
        const Messages expected{{storedEvents() == "0" ? 4 : 1, 0}};
        EXPECT_EQ(UploadSchedulePeer::take(asked), expected);
    }
    EXPECT_GT(packets, 2);
    EXPECT_EQ(sentEvents().size(), 30u) << "each once";
    for (const std::string& record : records()) EXPECT_LE(record.size(), 1501u);
}

/// A backlog above the minimum is drained packet after packet; a rest below it waits for its
/// age.
TEST_F(EventsUploadTest, WaitsForTheAgeOfARestBelowTheMinimum) {
    configure(R"({"upload_events": {"max-size": 1500, "min-size": 100000}})");
    for (int i = 0; i < 30; ++i) addEvent(30 - i);
    EXPECT_NE(events.upload(), 0);
    EXPECT_NE(storedEvents(), "0");
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
}

/// An event that fits no packet blocks the queue; that does not count as a failure.
TEST_F(EventsUploadTest, LetsAnEventThatFitsNoPacketBlockTheQueue) {
    configure(R"({"upload_events": {"max-size": 100}})");
    addEvent();
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(cloud.requests().size(), 0u);
    EXPECT_EQ(storedEvents(), "1");
    EXPECT_EQ(EventsUploadPeer::lastFailureTime(events), 0);
}

/// A failed send keeps the rows, says "Event upload failed, will try later in " 60 " seconds"
/// and checks in 60000 ms.
TEST_F(EventsUploadTest, KeepsTheRowsWhenTheStreamRefuses) {
    script(refuse);
    addEvent();
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: Event upload failed, will try later in 60 seconds\n");
    EXPECT_EQ(storedEvents(), "1");
    EXPECT_TRUE(isDelayed(4, 60000));
    EXPECT_NEAR(static_cast<double>(EventsUploadPeer::lastFailureTime(events)),
                static_cast<double>(nowSeconds()), 2);
    EXPECT_EQ(waiting(), Messages{});
}

/// A failed send keeps the rows, says "Event upload failed, will try later in " 60 " seconds"
/// and checks in 60000 ms.
TEST_F(EventsUploadTest, SendsTheSameEventsAgainAfterAFailure) {
    script(refuse);
    addEvent(0, R"(, "utc-time": "1500000000000")");
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    script(accept);
    EventsUploadPeer::setLastFailureTime(events, nowSeconds() - 60);
    EXPECT_NE(events.upload(), 0);
    const auto sent = sentEvents();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(sent[0].equals(sent[1]));
    EXPECT_EQ(EventsUploadPeer::lastFailureTime(events), 0);
    EXPECT_EQ(storedEvents(), "0");
}

/// Within 60 s of a failure nothing is tried; a failure in the future is an old one.
TEST_F(EventsUploadTest, TriesNothingWithinAMinuteOfAFailure) {
    script(refuse);
    addEvent();
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 1u);
}

/// Within 60 s of a failure nothing is tried; a failure in the future is an old one.
TEST_F(EventsUploadTest, TriesAgainAMinuteAfterAFailure) {
    addEvent();
    EventsUploadPeer::setLastFailureTime(events, nowSeconds() - 50);
    EXPECT_EQ(events.upload(), 0);
    EventsUploadPeer::setLastFailureTime(events, nowSeconds() - 60);
    EXPECT_NE(events.upload(), 0);
}

/// Within 60 s of a failure nothing is tried; a failure in the future is an old one.
TEST_F(EventsUploadTest, TakesAFailureInTheFutureForAnOldOne) {
    addEvent();
    EventsUploadPeer::setLastFailureTime(events, nowSeconds() + 1000);
    EXPECT_NE(events.upload(), 0);
}

/// Without consent, current configuration, web time or clock nothing is sent or scheduled.
TEST_F(EventsUploadTest, UploadsNothingWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    addEvent();
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(cloud.requests().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without consent, current configuration, web time or clock nothing is sent or scheduled.
TEST_F(EventsUploadTest, UploadsNothingUnderAnExpiredConfiguration) {
    configure(R"({"expiry_tou": 0})");
    addEvent();
    script([](const Request&) {
        Response response;
        response.closeWithoutAnswer = true;
        return response;
    });
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(otherRequests(), "/config/dev1 ") << "it asks for a new one";
    EXPECT_EQ(records().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without consent, current configuration, web time or clock nothing is sent or scheduled.
TEST_F(EventsUploadTest, UploadsNothingWithoutWebTime) {
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    addEvent();
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(otherRequests(), "/time ");
    EXPECT_EQ(records().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without consent, current configuration, web time or clock nothing is sent or scheduled.
TEST_F(EventsUploadTest, UploadsNothingWithoutAClock) {
    device->setBootCounts(8, 0);
    addEvent();
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(records().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// A database in error is reported instead of events and of files.
TEST_F(EventsUploadTest, ReportsADatabaseErrorInsteadOfEvents) {
    addEvent();
    DB::m_dbError = true;
    EXPECT_EQ(events.upload(), 0);
    ASSERT_EQ(records().size(), 1u);
    EXPECT_NE(records()[0].find(kDbErrorType), std::string::npos);
    EXPECT_EQ(storedEvents(), "1");
    EXPECT_EQ(waiting(), (Messages{{1, 0}}));
    EXPECT_EQ(UploadSchedulePeer::pendingTimers(asked), 0);
}

/// A database that was in error and works again is no reason to wait: the next message uploads.
TEST_F(EventsUploadTest, GoesOnAtOnceWhenTheStoreWorksAgain) {
    addEvent();
    DB::m_dbError = true;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(storedEvents(), "0");
}

/// Events that fail for a reason of their own, however many, do not hold up the others.
TEST_F(EventsUploadTest, IsNotHeldUpByAnErrorThatComesAgainAtOnce) {
    addEvent();
    DB::m_dbError = true;
    EXPECT_EQ(events.upload(), 0);
    OutputCapture output;
    db().addEvent(kBoot, kStandby, 1, "it's", "{}");
    output.stop();
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(storedEvents(), "0");
}

/// A store that fails is asked again in 60000 ms, and not before, however often an upload is asked
/// for.
TEST_F(EventsUploadTest, AsksAStoreThatFailsAgainInAMinute) {
    addEvent();
    const std::shared_ptr<sqlite3> locked = lockStore();
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_TRUE(isDelayed(1, 60000));
    const std::uint64_t timer = UploadSchedulePeer::timer(asked, 1);
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n")
        << "asked once";
    EXPECT_EQ(UploadSchedulePeer::timer(asked, 1), timer) << "put off for ever by requests";
    EXPECT_EQ(waiting(), Messages{});
}

/// A store that fails is asked again in 60000 ms, and not before, however often an upload is asked
/// for.
TEST_F(EventsUploadTest, GoesOnWhenAStoreThatFailedWorksAMinuteLater) {
    addEvent();
    std::shared_ptr<sqlite3> locked = lockStore();
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    locked.reset();
    EventsUploadPeer::letAMinutePass(events);
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(waiting(), (Messages{{1, 0}}));
    EXPECT_NE(events.upload(), 0);
}

/// The store's lock is not held while sending or asking for the location.
TEST_F(EventsUploadTest, HoldsNoLockOfTheStoreWhileSending) {
    addEvent();
    std::string seen;
    script([&](const Request& request) {
        const std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock, std::try_to_lock);
        seen = lock.owns_lock() ? "free" : "held";
        return accept(request);
    });
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(seen, "free");
}

/// A prune that went on while sending keeps its overflow event.
TEST_F(EventsUploadTest, KeepsTheRecordOfAPruneThatWentOnWhileSending) {
    for (int i = 0; i < 5; ++i) addEvent(5 - i);
    script([&](const Request& request) {
        DB other;
        other.open(database, false);
        other.pruneAboveSize(0);
        return accept(request);
    });
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(storedEvents(), "1");
    EXPECT_NE(db().getOldestEvent().find("logging.overflow"), std::string::npos);
    EXPECT_EQ(sentEvents().size(), 5u);
}

/// Rows that cannot be deleted count as a failed send.
TEST_F(EventsUploadTest, TreatsRowsThatCannotBeDeletedLikeAFailedSend) {
    addEvent();
    std::shared_ptr<sqlite3> locked;
    script([&](const Request& request) {
        locked = lockStore();
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    locked.reset();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: Deleting the sent events failed, will try later in 60 seconds\n");
    EXPECT_NE(EventsUploadPeer::lastFailureTime(events), 0);
    EXPECT_TRUE(isDelayed(4, 60000));
    EXPECT_EQ(waiting(), Messages{});
    EXPECT_EQ(storedEvents(), "1");
}

/// What was accepted is never sent again: the next upload deletes it first.
TEST_F(EventsUploadTest, NeverSendsAgainWhatItCouldNotDelete) {
    addEvent(2000);
    sendWithoutDeleting();
    addEvent(1000);
    DB::m_dbError = false;
    EventsUploadPeer::letAMinutePass(events);
    EXPECT_NE(events.upload(), 0);
    ASSERT_EQ(records().size(), 2u);
    ASSERT_EQ(sentEvents().size(), 2u);
    EXPECT_EQ(sentEvents()[0].optInteger("ts", 0), kernelNow - 2000);
    EXPECT_EQ(sentEvents()[1].optInteger("ts", 0), kernelNow - 1000);
    EXPECT_EQ(storedEvents(), "0");
}

/// As long as the events that were sent cannot be deleted, nothing is packed, and the deletion is
/// tried once a minute.
TEST_F(EventsUploadTest, PacksNothingBeforeTheSentEventsAreDeleted) {
    addEvent(2000);
    sendWithoutDeleting();
    addEvent(1000);
    DB::m_dbError = false;
    const std::shared_ptr<sqlite3> locked = lockStore();
    EXPECT_EQ(events.upload(), 0) << "within the minute";
    EXPECT_EQ(events.checkTimes(), 0) << "within the minute";
    EXPECT_FALSE(DB::m_dbError) << "nothing was tried";
    EventsUploadPeer::letAMinutePass(events);
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    DB::m_dbError = false;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: Deleting the sent events failed, will try later in 60 seconds\n");
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(storedEvents(), "2");
    EXPECT_TRUE(isDelayed(1, 60000));
    EXPECT_TRUE(isDelayed(4, 60000));
}

/// A time check, too, deletes first what an upload sent and could not delete.
TEST_F(EventsUploadTest, DeletesTheSentEventsBeforeATimeCheck) {
    addEvent(3600000);
    sendWithoutDeleting();
    EventsUploadPeer::letAMinutePass(events);
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_EQ(storedEvents(), "0");
    EXPECT_EQ(records().size(), 1u);
    EXPECT_TRUE(isDelayed(4, 3600000)) << "as for an empty store";
    addEvent(3600000);
    EXPECT_NE(events.checkTimes(), 0);
    EXPECT_EQ(records().size(), 2u);
}

/// What was sent is deleted although the consent has been withdrawn meanwhile.
TEST_F(EventsUploadTest, DeletesTheSentEventsWithoutConsent) {
    addEvent();
    sendWithoutDeleting();
    configure(R"({"kiv_tou": false})");
    EventsUploadPeer::letAMinutePass(events);
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_EQ(storedEvents(), "0");
}

/// The late deletion spares what took the place of a sent event that pruning has removed.
TEST_F(EventsUploadTest, SparesWhatTookThePlaceOfAPrunedSentEvent) {
    for (int i = 0; i < 5; ++i) addEvent(5 - i);
    sendWithoutDeleting();
    db().pruneAboveSize(0);
    addEvent();
    EventsUploadPeer::letAMinutePass(events);
    DB::m_dbError = false;
    EXPECT_NE(events.upload(), 0);
    ASSERT_EQ(records().size(), 2u);
    EXPECT_EQ(eventsOf(records()[1]).size(), 2u) << "the overflow event and the new one";
    EXPECT_EQ(storedEvents(), "0");
}

/// The minute counts from the end of a send, however long that took.
TEST_F(EventsUploadTest, DatesAFailureAtTheEndOfTheSend) {
    addEvent();
    script([&](const Request& request) {
        const std::int64_t kernel = KernelTime::getTimeMonotonicAsInt64();
        timeManager->setTime(TimeSourceWeb, TimeReference(kBoot, kStandby, kernel),
                             kNowMs + 100000);
        return refuse(request);
    });
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 1u);
    EXPECT_NEAR(static_cast<double>(EventsUploadPeer::lastFailureTime(events)),
                kNowMs / 1000.0 + 100, 5);
}

/// The line of a failed send tells the time of the next try: one is asked for then, whatever the
/// time check decides.
TEST_F(EventsUploadTest, AsksForTheTryThatTheLinePromises) {
    script(refuse);
    addEvent();
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_TRUE(isDelayed(1, 60000));
    EXPECT_EQ(events.checkTimes(), 0) << "the event is not of age";
    EXPECT_TRUE(isDelayed(4, 3600000));
    EXPECT_TRUE(isDelayed(1, 60000));
    output.stop();
}

/// The store's lock is not held while sending or asking for the location.
TEST_F(EventsUploadTest, AsksForTheLocationBeforeItLocksTheStore) {
    ::unsetenv("LOC_NETWORK");
    LocationInfoPeer::setProvider(cloud.url("/json"));
    LocationInfo::setDbPath(database);
    std::string seen;
    script([&](const Request& request) {
        Response response = accept(request);
        if (request.target == "/json") {
            const std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock, std::try_to_lock);
            seen = lock.owns_lock() ? "free" : "held";
            response.body = R"({"ip": "192.0.2.9", "city": "Ghent", "region": "East", )"
                            R"("country": "BE", "loc": "51.05,3.72"})";
        }
        return response;
    });
    addEvent();
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(seen, "free");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(JsonObject::parse(records()[0]).getObject("location").optString("city"), "Ghent");
    EXPECT_TRUE(WaitUntil([&] { return query("SELECT city FROM Location") == "Ghent"; }));
}

/// The location is asked for once an upload and once a database-error event, without the
/// store's lock.
TEST_F(EventsUploadTest, AsksForTheLocationOnceAnUploadAlsoWhenItStaysUnknown) {
    ::unsetenv("LOC_NETWORK");
    LocationInfoPeer::setProvider(cloud.url("/json"));
    script([](const Request& request) {
        Response response = accept(request);
        if (request.target == "/json") response.status = 500;
        return response;
    });
    addEventOf(3, 1, 1000);
    addEventOf(3, 2, 1000);
    addEvent();
    OutputCapture output;
    EXPECT_NE(events.upload(), 0);
    output.stop();
    EXPECT_EQ(otherRequests(), "/json ") << "one for three headers";
    ASSERT_EQ(records().size(), 1u);
    std::istringstream blocks(records()[0]);
    int empty = 0;
    for (std::string block; std::getline(blocks, block);) {
        if (JsonObject::parse(block).getObject("location").dumpAsString() == "{}") ++empty;
    }
    EXPECT_EQ(empty, 3);
}

/// Verbose, an upload is told step by step; otherwise nothing is.
TEST_F(EventsUploadTest, DescribesAnUploadWhenVerbose) {
    addEvent(0, R"(, "utc-time": "1500000000000")");
    const std::string event = db().getOldestEvent();
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    EXPECT_NE(events.upload(), 0);
    output.stop();
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    const std::string tail =
        "kivUpload: uploadEvents will be done\n"
        "kivUpload: Process event: " +
        event +
        "\nkivUpload: Add event to packet with utc time = 1500000000000\n"
        "kivUpload: Try to send packet\n"
        "kivUpload: Delete marked events from database\n"
        "kivUpload: DB remaining size = -1\n"
        "kivUpload:  Send message 4 0\n";
    EXPECT_EQ(lines.rfind("kivUpload: uploadEvents request\n", 0), 0u) << lines;
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(lines.substr(lines.size() - tail.size()), tail);
}

/// Verbose, an upload is told step by step; otherwise nothing is.
TEST_F(EventsUploadTest, DescribesAFullPacketAndTheNextOneWhenVerbose) {
    configure(R"({"upload_events": {"max-size": 1500, "min-size": 10}})");
    for (int i = 0; i < 30; ++i) addEvent(30 - i);
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    EXPECT_NE(events.upload(), 0);
    output.stop();
    const std::string lines = output.outWithoutPrefixes();
    EXPECT_NE(lines.find("kivUpload: Packet full. Unmark last event\n"), std::string::npos);
    const std::string size = std::to_string(db().totalEventSize());
    EXPECT_NE(lines.find("kivUpload: DB remaining size = " + size +
                         "\nkivUpload: Scheduling upload of events of size " + size +
                         "\nkivUpload:  Send message 1 0\n"),
              std::string::npos)
        << lines;
}

/// Verbose, an upload is told step by step; otherwise nothing is.
TEST_F(EventsUploadTest, UploadsSilentlyOtherwise) {
    addEvent();
    OutputCapture output;
    EXPECT_NE(events.upload(), 0);
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}

/// A location that stays unknown is asked for once a minute, not for each packet.
TEST_F(EventsUploadTest, AsksForAnUnknownLocationOnceAMinute) {
    ::unsetenv("LOC_NETWORK");
    LocationInfoPeer::setProvider(cloud.url("/json"));
    script([](const Request& request) {
        Response response = accept(request);
        response.closeWithoutAnswer = request.target == "/json";
        return response;
    });
    OutputCapture output;
    for (int packet = 0; packet < 3; ++packet) {
        addEvent();
        EXPECT_NE(events.upload(), 0);
    }
    const std::string before = otherRequests();
    EventsUploadPeer::letAMinutePass(events);
    LocationInfoPeer::beginNewRun();  // whose own pause is over by then
    addEvent();
    EXPECT_NE(events.upload(), 0);
    output.stop();
    EXPECT_FALSE(before.empty());
    EXPECT_EQ(otherRequests(), before + before) << "once before, once after the minute";
}

// --- time check ---------------------------------------------------------------------------------

/// The time check stops under an expired configuration and with a delay below 1.
TEST_F(EventsUploadTest, ChecksNoTimesUnderAnExpiredConfiguration) {
    configure(R"({"expiry_tou": 0})");
    addEvent();
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without a clock the time check schedules nothing; by the system's time it waits for the age,
/// and a due event for web time in steps of 300000 ms.
TEST_F(EventsUploadTest, ChecksNoTimesWithoutAClock) {
    device->setBootCounts(8, 0);  // a cycle of which nobody knows the time
    addEventOf(3, 0, 1000);
    OutputCapture output;
    EXPECT_EQ(events.checkTimes(), 0);
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 0u);
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without a clock the time check schedules nothing; by the system's time it waits for the age,
/// and a due event for web time in steps of 300000 ms.
TEST_F(EventsUploadTest, ChecksAgainInFiveMinutesWhileOnlyTheSystemKnowsTheTime) {
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    addEventOf(3, 0, 1000);  // of unknown age: due
    OutputCapture output;
    EXPECT_EQ(events.checkTimes(), 0);
    output.stop();
    EXPECT_TRUE(isDelayed(4, 300000));
    EXPECT_EQ(waiting(), Messages{});
    EXPECT_EQ(records().size(), 0u);
    EXPECT_EQ(storedEvents(), "1");
}

/// Without a clock the time check schedules nothing; by the system's time it waits for the age,
/// and a due event for web time in steps of 300000 ms.
TEST_F(EventsUploadTest, ChecksAgainByTheSystemsTimeWhileTheWebsIsUnknown) {
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    addEventOf(8, 0, KernelTime::getTimeMonotonicAsInt64() - 1000000);
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 2600000));
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// The time check stops under an expired configuration and with a delay below 1.
TEST_F(EventsUploadTest, ChecksNoTimesWithoutAMaximumDelay) {
    for (const char* delay : {"0", "-1"}) {
        configure(std::string(R"({"upload_events": {"max-delay": )") + delay + "}}");
        addEvent(100000000);
        EXPECT_EQ(events.checkTimes(), 0);
        EXPECT_TRUE(nothingIsScheduled());
    }
    EXPECT_EQ(records().size(), 0u);
}

/// An empty store is checked after the maximum delay.
TEST_F(EventsUploadTest, ChecksAnEmptyStoreAfterTheMaximumDelay) {
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 3600000));
}

/// The next check comes when the oldest event is of age, never later than the maximum delay.
TEST_F(EventsUploadTest, ChecksAgainWhenTheOldestEventComesOfAge) {
    addEvent(1000000);
    addEvent(5000);
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 2600000));
    EXPECT_EQ(records().size(), 0u);
    EXPECT_EQ(waiting(), Messages{});
}

/// The next check comes when the oldest event is of age, never later than the maximum delay.
TEST_F(EventsUploadTest, NeverChecksLaterThanTheMaximumDelay) {
    addEvent();
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 3600000));
}

/// An oldest event that is dated ahead of now counts as due.
TEST_F(EventsUploadTest, TakesAnEventFromTheFutureForDue) {
    for (const char* time : {"4000000000000", "9223372036854775807"}) {
        addEvent(0, R"(, "utc-time": ")" + std::string(time) + "\"");
        EXPECT_NE(events.checkTimes(), 0) << time;
        EXPECT_EQ(storedEvents(), "0") << time;
        EXPECT_EQ(UploadSchedulePeer::pendingDelay(asked, 4), -1) << time;
    }
}

/// The next check comes when the oldest event is of age, never later than the maximum delay.
TEST_F(EventsUploadTest, ClampsAnEndlessMaximumDelay) {
    configure(R"({"upload_events": {"max-delay": 9223372036854775807}})");
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 2147483000));
    addEvent(5000);
    EXPECT_EQ(events.checkTimes(), 0);
    EXPECT_TRUE(isDelayed(4, 2147483000));
}

/// A due event, or one of unknown time, is uploaded at once.
TEST_F(EventsUploadTest, UploadsWhenTheOldestEventIsDue) {
    addEvent(3600000);
    addEvent();
    EXPECT_NE(events.checkTimes(), 0);
    EXPECT_EQ(storedEvents(), "0");
    EXPECT_EQ(waiting(), (Messages{{4, 0}}));
    EXPECT_EQ(UploadSchedulePeer::pendingDelay(asked, 4), -1);
}

/// A due event, or one of unknown time, is uploaded at once.
TEST_F(EventsUploadTest, UploadsWhenTheTimeOfTheOldestEventIsUnknown) {
    addEventOf(3, 0, 1000);
    EXPECT_NE(events.checkTimes(), 0);
    EXPECT_EQ(storedEvents(), "0");
}

/// An upload that failed in a check is checked for again in 300000 ms; the try that its line
/// promises comes before.
TEST_F(EventsUploadTest, ChecksAgainInFiveMinutesWhenTheUploadFailed) {
    script(refuse);
    addEvent(3600000);
    OutputCapture output;
    EXPECT_EQ(events.checkTimes(), 0);
    output.stop();
    EXPECT_TRUE(isDelayed(4, 300000));
    EXPECT_TRUE(isDelayed(1, 60000));
    EXPECT_TRUE(WaitUntil([&] { return UploadSchedulePeer::pendingTimers(asked) <= 2; }));
    EXPECT_EQ(waiting(), Messages{});
}

/// A check is told when verbose.
TEST_F(EventsUploadTest, NotesATimeCheckWhenVerbose) {
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    events.checkTimes();
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload: eventsTimeCheck request\n");
}

/// A packet is put together under the store's lock and sent without it.
TEST_F(EventsUploadTest, PacksUnderTheStoresLockAndSendsWithoutIt) {
    addEvent(1);
    UploadLog::log.setVerbose(true);
    {
        const LockProbe packing("Process event: ");
        events.upload();
        EXPECT_EQ(packing.taken, 1);
        EXPECT_EQ(packing.free, 0);
    }
    addEvent(1);
    {
        const LockProbe sending("Try to send packet");
        events.upload();
        EXPECT_EQ(sending.taken, 0);
        EXPECT_EQ(sending.free, 1);
    }
    UploadLog::log.setVerbose(false);
}

/// A send that throws is followed by a minute without sending too.
TEST_F(EventsUploadTest, WaitsOutTheMinuteAfterASendThatThrew) {
    addEvent();
    AwsWrapperImpl::SetVerbose(true);
    {
        const PoisonedOutput output("UploadToKinesisFirehose: ",
                                    [] { AwsWrapperImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(events.upload());
    }
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(records().size(), 0u);
    EventsUploadPeer::letAMinutePass(events);
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(EventsUploadPeer::lastFailureTime(events), 0);
}
