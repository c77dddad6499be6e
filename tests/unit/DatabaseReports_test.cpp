#include "DatabaseReports.h"

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "EventType.h"
#include "JsonArrayIterator.h"
#include "support/JsonMemory.h"
#include "support/LocationInfoPeer.h"
#include "support/PoisonedOutput.h"
#include "support/UploadRooms.h"
#include "support/WallClock.h"

using DatabaseReportsTest = UploadRooms;

// --- database-full report -----------------------------------------------------------------------

/// The full report lists "/3rd_rw" by way of "/tmp/dbfullfile.log".
TEST_F(DatabaseReportsTest, ReportsOnTheDataPartition) {
    const DatabaseReports another(*cloudClient, asked);
    EXPECT_EQ(DatabaseReportsPeer::listedDirectory(another), "/3rd_rw");
    EXPECT_EQ(DatabaseReportsPeer::listingFile(another), "/tmp/dbfullfile.log");
}

/// The full report lists "/3rd_rw" by way of "/tmp/dbfullfile.log".
TEST_F(DatabaseReportsTest, SendsTheListingWhenTheDatabaseIsFull) {
    dir.write("rw/a", "0123456789");
    webTime->getWebTime();
    EXPECT_NE(reports.sendFullFile(), 0);
    EXPECT_EQ(objects(), (Objects{"/current/Board/kivApp_databasefull_dev1_2019-03-07.log"}));
    EXPECT_EQ(cloud.requests()[0].body,
              dir.file("rw/a") + "\t10\ntotal dir " + dir.file("rw") + "\t10\n");
    EXPECT_TRUE(DatabaseReportsPeer::fullFileSent(reports));
}

/// Without a component the folder is "Unknown", in the report too.
TEST_F(DatabaseReportsTest, NamesTheReportsFolderUnknownWithoutAComponent) {
    setDevice("");
    webTime->getWebTime();
    EXPECT_NE(reports.sendFullFile(), 0);
    EXPECT_EQ(objects(), (Objects{"/current/Unknown/kivApp_databasefull_dev1_2019-03-07.log"}));
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(DatabaseReportsTest, SendsTheFullReportOnce) {
    EXPECT_NE(reports.sendFullFile(), 0);
    EXPECT_EQ(reports.sendFullFile(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(DatabaseReportsTest, SendsNoFullReportWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    EXPECT_EQ(reports.sendFullFile(), 1);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_FALSE(dir.has("full.log"));
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(DatabaseReportsTest, SendsTheFullReportWithTheNextMessageAfterAFailure) {
    script(refuse);
    OutputCapture output;
    EXPECT_EQ(reports.sendFullFile(), 0);
    output.stop();
    EXPECT_FALSE(DatabaseReportsPeer::fullFileSent(reports));
    EXPECT_TRUE(nothingIsScheduled());
    script(accept);
    DatabaseReportsPeer::letAMinutePass(reports);
    reports.sendFullFile();
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_TRUE(DatabaseReportsPeer::fullFileSent(reports));
}

/// However often a full store asks, a report that failed is not tried again within a minute.
TEST_F(DatabaseReportsTest, TriesAFailedFullReportOnceAMinute) {
    script(refuse);
    OutputCapture output;
    EXPECT_EQ(reports.sendFullFile(), 0);
    EXPECT_EQ(reports.sendFullFile(), 0);
    EXPECT_EQ(objects().size(), 1u);
    DatabaseReportsPeer::letAMinutePass(reports);
    EXPECT_EQ(reports.sendFullFile(), 0);
    EXPECT_EQ(reports.sendFullFile(), 0);
    output.stop();
    EXPECT_EQ(objects().size(), 2u);
}

/// A report that threw is not tried again within a minute either.
TEST_F(DatabaseReportsTest, TriesAFullReportThatThrewOnceAMinute) {
    AwsWrapperImpl::SetVerbose(true);
    {
        const PoisonedOutput output("Set AWS ClientConfiguration caPath",
                                    [] { AwsWrapperImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(reports.sendFullFile());
    }
    EXPECT_EQ(reports.sendFullFile(), 0);
    EXPECT_EQ(objects(), Objects{});
    DatabaseReportsPeer::letAMinutePass(reports);
    EXPECT_EQ(reports.sendFullFile(), 1);
}

/// While no clock can be believed the report waits: the next message sends it.
TEST_F(DatabaseReportsTest, SendsNoFullReportWhileNoClockCanBeBelieved) {
    {
        const WallClock clock(5);
        EXPECT_EQ(reports.sendFullFile(), 0);
        EXPECT_FALSE(dir.has("full.log"));
    }
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(reports.sendFullFile(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(DatabaseReportsTest, ReplacesAnOldListing) {
    dir.write("full.log", std::string(10000, 'x'));
    EXPECT_NE(reports.sendFullFile(), 0);
    EXPECT_EQ(dir.read("full.log"), "total dir " + dir.file("rw") + "\t0\n");
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(DatabaseReportsTest, WritesNoListingThroughALink) {
    dir.write("victim", "precious");
    ASSERT_EQ(::symlink(dir.file("victim").c_str(), dir.file("full.log").c_str()), 0);
    OutputCapture output;
    EXPECT_EQ(reports.sendFullFile(), 0);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot write " + dir.file("full.log") +
                                               ": Too many levels of symbolic links\n");
    EXPECT_EQ(dir.read("victim"), "precious");
    EXPECT_EQ(objects(), Objects{});
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(DatabaseReportsTest, WaitsForNoReaderOfAPipeInTheListingsPlace) {
    ASSERT_EQ(::mkfifo(dir.file("full.log").c_str(), 0600), 0);
    OutputCapture output;
    EXPECT_EQ(reports.sendFullFile(), 0);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot write " + dir.file("full.log") + ": No such device or address\n");
}

/// A directory that is not there gives an empty listing; a sent report is told when verbose.
TEST_F(DatabaseReportsTest, SendsAnEmptyListingOfADirectoryThatIsNotThere) {
    DatabaseReportsPeer::setReport(reports, dir.file("none"), dir.file("full.log"));
    OutputCapture output;
    EXPECT_NE(reports.sendFullFile(), 0);
    output.stop();
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].body, "");
}

/// A directory that is not there gives an empty listing; a sent report is told when verbose.
TEST_F(DatabaseReportsTest, NotesASentReportWhenVerbose) {
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    reports.sendFullFile();
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload:  Sent full DB file to AWS \n");
}

// --- database-error event -----------------------------------------------------------------------

/// A database error goes out as a "db.error" event with its message, straight to the stream.
TEST_F(DatabaseReportsTest, SendsADatabaseErrorEvent) {
    DB::m_DBErrorMessage = "disk I/O error";
    reports.sendErrorEvent();
    ASSERT_EQ(records().size(), 1u);
    const JsonObject block = JsonObject::parse(records()[0]);
    EXPECT_EQ(block.optInteger("boot-count", -1), kBoot);
    EXPECT_EQ(block.optInteger("standby-count", -1), kStandby);
    ASSERT_EQ(block.getObject("events").getArraySize(), 1u);
    const JsonObject event = JsonArrayIterator(block.getObject("events")).current();
    const long long kernelTime = event.optInteger("ts", -1);
    EXPECT_GE(kernelTime, kernelNow);
    EXPECT_LE(kernelTime, kernelMs());
    EXPECT_EQ(event.dumpAsString(),
              R"({"event-type": "db.error", "eventid": )" +
                  std::to_string(EventType::getEventIdByName("db.error")) +
                  R"(, "error-msg": "disk I/O error", "utc-src": "web", "time": ")" +
                  UtcTimeMs(utcOf(kernelTime)).getString() + R"(", "ts": )" +
                  std::to_string(kernelTime) + "}");
    EXPECT_TRUE(DatabaseReportsPeer::errorEventSent(reports));
}

/// It is sent once, never without consent.
TEST_F(DatabaseReportsTest, SendsTheDatabaseErrorEventOnce) {
    reports.sendErrorEvent();
    reports.sendErrorEvent();
    EXPECT_EQ(records().size(), 1u);
}

/// It is sent once, never without consent.
TEST_F(DatabaseReportsTest, SendsNoDatabaseErrorEventWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    reports.sendErrorEvent();
    EXPECT_EQ(records().size(), 0u);
    EXPECT_FALSE(DatabaseReportsPeer::errorEventSent(reports));
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(DatabaseReportsTest, TriesTheDatabaseErrorEventAgainWithTheNextUpload) {
    script(refuse);
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(DatabaseReportsPeer::errorEventSent(reports));
    script(accept);
    DatabaseReportsPeer::letAMinutePass(reports);
    DB::m_dbError = true;
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(records().size(), 2u);
    EXPECT_TRUE(DatabaseReportsPeer::errorEventSent(reports));
}

/// A database-error event that failed is owed: it goes a minute later, although the store is in
/// order again by then.
TEST_F(DatabaseReportsTest, SendsAnOwedErrorEventWithTheUploadThatItAskedFor) {
    script(refuse);
    DB::m_dbError = true;
    DB::m_DBErrorMessage = "disk I/O error";
    OutputCapture output;
    EXPECT_EQ(events.upload(), 0);
    output.stop();
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_TRUE(isDelayed(1, 60000));
    script(accept);
    addEvent();
    EXPECT_NE(events.upload(), 0);
    EXPECT_EQ(records().size(), 2u) << "the failed one and the packet";
    DatabaseReportsPeer::letAMinutePass(reports);
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(events.upload(), 0);
    ASSERT_EQ(records().size(), 3u);
    EXPECT_NE(records()[2].find("disk I/O error"), std::string::npos);
    EXPECT_TRUE(DatabaseReportsPeer::errorEventSent(reports));
}

/// A database-error event that failed is not tried again within a minute, however many uploads find
/// the database in error.
TEST_F(DatabaseReportsTest, TriesTheDatabaseErrorEventOnceAMinute) {
    script(refuse);
    OutputCapture output;
    reports.sendErrorEvent();
    reports.sendErrorEvent();
    EXPECT_EQ(records().size(), 1u);
    DatabaseReportsPeer::letAMinutePass(reports);
    reports.sendErrorEvent();
    reports.sendErrorEvent();
    output.stop();
    EXPECT_EQ(records().size(), 2u);
}

/// The location is asked for once an upload and once a database-error event, without the
/// store's lock.
TEST_F(DatabaseReportsTest, AsksForTheLocationOfTheErrorEventOnceAndWithoutTheStoresLock) {
    ::unsetenv("LOC_NETWORK");
    LocationInfoPeer::setProvider(cloud.url("/json"));
    std::string seen;
    script([&](const Request& request) {
        Response response = accept(request);
        if (request.target != "/json") return response;
        const std::unique_lock<std::recursive_mutex> lock(DB::m_PruneLock, std::try_to_lock);
        seen += lock.owns_lock() ? "free " : "held ";
        response.body = R"({"ip": "192.0.2.9", "city": "Ghent", "region": "East", )"
                        R"("country": "BE", "loc": "51.05,3.72"})";
        return response;
    });
    DB::m_dbError = true;
    EXPECT_EQ(events.upload(), 0);
    EXPECT_EQ(seen, "free ");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(JsonObject::parse(records()[0]).getObject("location").optString("city"), "Ghent");
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(DatabaseReportsTest, TakesAnErrorEventThatFitsNoPacketForFailed) {
    configure(R"({"upload_events": {"max-size": 100}})");
    OutputCapture output;
    reports.sendErrorEvent();
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(DatabaseReportsPeer::errorEventSent(reports));
    EXPECT_EQ(records().size(), 0u);
}

/// A database error goes out as a "db.error" event with its message, straight to the stream.
TEST_F(DatabaseReportsTest, SendsAnErrorMessageThatIsNoUtf8) {
    DB::m_DBErrorMessage = "near \"\xff\": syntax error";
    OutputCapture output;
    reports.sendErrorEvent();
    output.stop();
    EXPECT_EQ(output.err(), "");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_NE(records()[0].find(R"("error-msg": "near \"?\": syntax error")"), std::string::npos)
        << records()[0];
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(DatabaseReportsTest, TakesAnErrorEventThatCannotBePackedForFailed) {
    OutputCapture output;
    {
        const NoJsonMemory noMemory;
        reports.sendErrorEvent();
    }
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(DatabaseReportsPeer::errorEventSent(reports));
    EXPECT_EQ(records().size(), 0u);
}

/// One that threw is owed, and not tried again within a minute.
TEST_F(DatabaseReportsTest, OwesAnErrorEventThatThrew) {
    AwsWrapperImpl::SetVerbose(true);
    {
        const PoisonedOutput output("UploadToKinesisFirehose: ",
                                    [] { AwsWrapperImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(reports.sendErrorEvent());
    }
    reports.sendOwedErrorEvent();
    EXPECT_EQ(records().size(), 0u);
    DatabaseReportsPeer::letAMinutePass(reports);
    reports.sendOwedErrorEvent();
    EXPECT_EQ(records().size(), 1u);
}

/// While no clock can be believed the event is owed: nothing is asked of the cloud, and an upload
/// in a minute sends it.
TEST_F(DatabaseReportsTest, OwesTheErrorEventWhileNoClockCanBeBelieved) {
    {
        const WallClock clock(5);
        reports.sendErrorEvent();
    }
    EXPECT_EQ(records().size(), 0u);
    EXPECT_FALSE(DatabaseReportsPeer::errorEventSent(reports));
    EXPECT_TRUE(isDelayed(1, 60000));
    reports.sendOwedErrorEvent();
    EXPECT_EQ(records().size(), 1u);
    EXPECT_TRUE(DatabaseReportsPeer::errorEventSent(reports));
}
