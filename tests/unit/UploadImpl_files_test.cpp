#include <filesystem>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "EventType.h"
#include "JsonArrayIterator.h"
#include "support/JsonMemory.h"
#include "support/LocationInfoPeer.h"
#include "support/UploadJobs.h"

namespace {

class UploadImplFilesTest : public UploadJobs {
  protected:
    void SetUp() override {
        UploadJobs::SetUp();
        UploadImplPeer::setBucket(*upload, "current");
        std::filesystem::create_directory(dir.file("rw"));
        UploadImplPeer::setReport(*upload, dir.file("rw"), dir.file("full.log"));
    }

    /// The objects that were put: the paths of the requests.
    std::vector<std::string> objects() const {
        std::vector<std::string> targets;
        for (const Request& request : cloud.requests()) {
            if (request.method == "PUT") targets.push_back(request.target);
        }
        return targets;
    }

    std::string announce(const std::string& name, const std::string& info = "") {
        const std::string path = dir.write("file-" + name, "content of " + name);
        db().addFile(name, path, info);
        return path;
    }

    /// As if the file had failed before, last at `lastfail`.
    void failedBefore(const std::string& name, int retries, std::int64_t lastfail) const {
        sql("UPDATE Files SET retries = " + std::to_string(retries) +
            ", lastfail = " + std::to_string(lastfail) + " WHERE id = '" + name + "'");
    }

    std::string storedFiles() const { return query("SELECT COUNT(*) FROM Files"); }

    static std::int64_t kernelMs() { return KernelTime::getTimeMonotonicAsInt64(); }

    using Objects = std::vector<std::string>;
};

}  // namespace

// --- files --------------------------------------------------------------------------------------

/// A file without metadata goes under component and name into the bucket in force, and is kept.
TEST_F(UploadImplFilesTest, UploadsAFileIntoTheFolderOfTheComponentAndKeepsIt) {
    const std::string path = announce("log1");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_EQ(cloud.requests()[0].body, "content of log1");
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(storedFiles(), "0");
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without a component the folder is "Unknown", in the report too.
TEST_F(UploadImplFilesTest, NamesTheFolderUnknownWithoutAComponent) {
    setDevice("");
    announce("log1");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Unknown/log1"}));
}

/// A file with metadata goes under its bare name into its bucket, which stays in force, and is
/// deleted.
TEST_F(UploadImplFilesTest, UploadsAFileWithMetadataUnderItsBareNameAndDeletesIt) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    const std::string later = announce("log2");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/b1/log1", "/b1/Board/log2"})) << "the bucket stays in force";
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::exists(later));
    EXPECT_EQ(UploadImplPeer::bucket(*upload), "b1");
}

/// Metadata without a bucket name takes the configuration's; a text that is not JSON counts as no
/// metadata.
TEST_F(UploadImplFilesTest, TakesTheDefaultBucketForMetadataWithoutOne) {
    announce("log1", R"({"x": 1})");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/default/bucket/log1"}));
}

/// Metadata without a bucket name takes the configuration's; a text that is not JSON counts as no
/// metadata.
TEST_F(UploadImplFilesTest, TakesTheDefaultBucketForABucketNameThatIsNoString) {
    announce("log1", R"({"bucketname": 5})");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/default/bucket/log1"}));
}

/// Metadata without a bucket name takes the configuration's; a text that is not JSON counts as no
/// metadata.
TEST_F(UploadImplFilesTest, TakesMetadataThatIsNoJsonForNone) {
    const std::string path = announce("log1", "no json");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_TRUE(std::filesystem::exists(path));
}

/// A file that is not there, or not a regular file, is dropped and the pass goes on.
TEST_F(UploadImplFilesTest, DropsAFileThatIsNotThereAndGoesOn) {
    db().addFile("gone", dir.file("gone"), "");
    announce("log1");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_EQ(storedFiles(), "0");
}

/// A file that is not there, or not a regular file, is dropped and the pass goes on.
TEST_F(UploadImplFilesTest, DropsWhatIsNoRegularFile) {
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    db().addFile("fifo", dir.file("fifo"), "");
    db().addFile("directory", dir.path(), "");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "0");
}

/// Without files nothing happens.
TEST_F(UploadImplFilesTest, DoesNothingWithoutFiles) {
    EXPECT_EQ(upload->uploadFiles(), 0);
    EXPECT_TRUE(nothingIsScheduled());
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(UploadImplFilesTest, WaitsOutTheMinuteOfTheLastFailure) {
    announce("log1");
    failedBefore("log1", 2, kernelMs() - 20000);
    EXPECT_EQ(upload->uploadFiles(), 0);
    const long long left = UploadImplPeer::pendingDelay(*upload, 2);
    EXPECT_LE(left, 40000);
    EXPECT_GT(left, 38000);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "1");
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(UploadImplFilesTest, StopsAtTheFirstFileThatIsNotDue) {
    announce("log1");
    announce("log2");
    failedBefore("log1", 2, kernelMs() - 20000);
    failedBefore("log2", 2, kernelMs() - 10000);
    EXPECT_EQ(upload->uploadFiles(), 0);
    EXPECT_EQ(objects(), Objects{});
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(UploadImplFilesTest, TriesAgainWhenTheMinuteHasPassed) {
    announce("log1");
    failedBefore("log1", 2, kernelMs() - 61000);
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// The last failure is read as kernel time or UTC; one ahead counts as due.
TEST_F(UploadImplFilesTest, ReadsALastFailureInUtcToo) {
    announce("log1");
    failedBefore("log1", 1, timeManager->getTime() - 20000);
    EXPECT_EQ(upload->uploadFiles(), 0);
    const long long left = UploadImplPeer::pendingDelay(*upload, 2);
    EXPECT_LE(left, 40000);
    EXPECT_GT(left, 38000);
}

/// The last failure is read as kernel time or UTC; one ahead counts as due.
TEST_F(UploadImplFilesTest, TakesALastFailureAheadForOneOfAnEarlierCycle) {
    announce("log1");
    failedBefore("log1", 3, kernelMs() + 1000000);
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// A file that never failed is not waited for.
TEST_F(UploadImplFilesTest, AsksForNoWaitOfAFileThatNeverFailed) {
    announce("log1");
    failedBefore("log1", 0, kernelMs());
    EXPECT_EQ(upload->uploadFiles(), 1);
}

/// A failed upload is counted, the file kept, and the next file goes.
TEST_F(UploadImplFilesTest, CountsAFailedUploadAndTriesAgainInAMinute) {
    script(refuse);
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 0);
    output.stop();
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_EQ(query("SELECT retries FROM Files"), "1");
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// A failed upload is counted, the file kept, and the next file goes.
TEST_F(UploadImplFilesTest, GoesOnWithTheNextFileAfterAFailure) {
    script([](const Request& request) {
        return request.target == "/current/Board/bad" ? refuse(request) : accept(request);
    });
    announce("bad");
    announce("good");
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 1);
    output.stop();
    EXPECT_EQ(objects(), (Objects{"/current/Board/bad", "/current/Board/good"}));
    EXPECT_EQ(storedFiles(), "1");
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// No name is handled twice in a pass.
TEST_F(UploadImplFilesTest, HandlesNoNameTwiceInAPass) {
    announce("log1");
    sql("CREATE TRIGGER keep BEFORE DELETE ON Files BEGIN SELECT RAISE(IGNORE); END");
    EXPECT_EQ(upload->uploadFiles(), 1);
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// Without consent, current configuration or web time no file goes.
TEST_F(UploadImplFilesTest, UploadsNothingWithoutConsentConfigurationOrWebTime) {
    announce("log1");
    configure(R"({"kiv_tou": false})");
    EXPECT_EQ(upload->uploadFiles(), 0);
    configure(R"({"expiry_tou": 0})");
    script([](const Request&) {
        Response response;
        response.closeWithoutAnswer = true;
        return response;
    });
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 0);
    configure();
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    EXPECT_EQ(upload->uploadFiles(), 0);
    output.stop();
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "1");
    EXPECT_TRUE(nothingIsScheduled());
}

/// A database in error is reported instead of events and of files.
TEST_F(UploadImplFilesTest, ReportsADatabaseErrorInsteadOfFiles) {
    announce("log1");
    DB::m_dbError = true;
    EXPECT_EQ(upload->uploadFiles(), 0);
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(objects(), Objects{});
}

/// A file that cannot be deleted gets a line.
TEST_F(UploadImplFilesTest, TellsThatAnUploadedFileCannotBeDeleted) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([&](const Request& request) {
        ::unlink(path.c_str());
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot delete " + path + ": No such file or directory\n");
}

/// Verbose, each file is told, with "is invalid, removing "; otherwise nothing is.
TEST_F(UploadImplFilesTest, DescribesEachFileWhenVerbose) {
    db().addFile("gone", dir.file("gone"), "");
    const std::string path = announce("log1");
    failedBefore("log1", 3, 1);
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 1);
    output.stop();
    const std::string gone = dir.file("gone");
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    const std::string tail = "kivUpload: Trying upload of \"" + gone +
                             "\" gone (retries=0)\n"
                             "kivUpload: File \"" +
                             gone +
                             "\" is invalid, removing gone from DB\n"
                             "kivUpload: Trying upload of \"" +
                             path + "\" log1 (retries=3)\n";
    EXPECT_EQ(lines.rfind("kivUpload: uploadFiles request\n", 0), 0u) << lines;
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(lines.substr(lines.size() - tail.size()), tail);
}

/// Verbose, each file is told, with "is invalid, removing "; otherwise nothing is.
TEST_F(UploadImplFilesTest, UploadsSilentlyOtherwise) {
    db().addFile("gone", dir.file("gone"), "");
    announce("log1");
    OutputCapture output;
    EXPECT_EQ(upload->uploadFiles(), 1);
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}

// --- database-full report -----------------------------------------------------------------------

/// The full report lists "/3rd_rw" by way of "/tmp/dbfullfile.log".
TEST_F(UploadImplFilesTest, ReportsOnTheDataPartition) {
    const auto another = std::make_unique<UploadImpl>();
    EXPECT_EQ(UploadImplPeer::listedDirectory(*another), "/3rd_rw");
    EXPECT_EQ(UploadImplPeer::listingFile(*another), "/tmp/dbfullfile.log");
}

/// The full report lists "/3rd_rw" by way of "/tmp/dbfullfile.log".
TEST_F(UploadImplFilesTest, SendsTheListingWhenTheDatabaseIsFull) {
    dir.write("rw/a", "0123456789");
    webTime->getWebTime();
    EXPECT_NE(upload->sendDBFullFile(), 0);
    EXPECT_EQ(objects(), (Objects{"/current/Board/kivApp_databasefull_dev1_2019-03-07.log"}));
    EXPECT_EQ(cloud.requests()[0].body,
              dir.file("rw/a") + "\t10\ntotal dir " + dir.file("rw") + "\t10\n");
    EXPECT_TRUE(UploadImplPeer::fullDBFileSent(*upload));
}

/// Without a component the folder is "Unknown", in the report too.
TEST_F(UploadImplFilesTest, NamesTheReportsFolderUnknownWithoutAComponent) {
    setDevice("");
    webTime->getWebTime();
    EXPECT_NE(upload->sendDBFullFile(), 0);
    EXPECT_EQ(objects(), (Objects{"/current/Unknown/kivApp_databasefull_dev1_2019-03-07.log"}));
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(UploadImplFilesTest, SendsTheFullReportOnce) {
    EXPECT_NE(upload->sendDBFullFile(), 0);
    EXPECT_EQ(upload->sendDBFullFile(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(UploadImplFilesTest, SendsNoFullReportWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    EXPECT_EQ(upload->sendDBFullFile(), 1);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_FALSE(dir.has("full.log"));
}

/// It is sent once, never without consent, and after a failure with the next message.
TEST_F(UploadImplFilesTest, SendsTheFullReportWithTheNextMessageAfterAFailure) {
    script(refuse);
    OutputCapture output;
    EXPECT_EQ(upload->sendDBFullFile(), 0);
    output.stop();
    EXPECT_FALSE(UploadImplPeer::fullDBFileSent(*upload));
    EXPECT_TRUE(nothingIsScheduled());
    script(accept);
    upload->handleMsg(6, 0);
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_TRUE(UploadImplPeer::fullDBFileSent(*upload));
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(UploadImplFilesTest, ReplacesAnOldListing) {
    dir.write("full.log", std::string(10000, 'x'));
    EXPECT_NE(upload->sendDBFullFile(), 0);
    EXPECT_EQ(dir.read("full.log"), "total dir " + dir.file("rw") + "\t0\n");
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(UploadImplFilesTest, WritesNoListingThroughALink) {
    dir.write("victim", "precious");
    ASSERT_EQ(::symlink(dir.file("victim").c_str(), dir.file("full.log").c_str()), 0);
    OutputCapture output;
    EXPECT_EQ(upload->sendDBFullFile(), 0);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot write " + dir.file("full.log") +
                                               ": Too many levels of symbolic links\n");
    EXPECT_EQ(dir.read("victim"), "precious");
    EXPECT_EQ(objects(), Objects{});
}

/// An old listing is replaced; a link or a pipe in its place is refused with a line.
TEST_F(UploadImplFilesTest, WaitsForNoReaderOfAPipeInTheListingsPlace) {
    ASSERT_EQ(::mkfifo(dir.file("full.log").c_str(), 0600), 0);
    OutputCapture output;
    EXPECT_EQ(upload->sendDBFullFile(), 0);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot write " + dir.file("full.log") + ": No such device or address\n");
}

/// A directory that is not there gives an empty listing; a sent report is told when verbose.
TEST_F(UploadImplFilesTest, SendsAnEmptyListingOfADirectoryThatIsNotThere) {
    UploadImplPeer::setReport(*upload, dir.file("none"), dir.file("full.log"));
    OutputCapture output;
    EXPECT_NE(upload->sendDBFullFile(), 0);
    output.stop();
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].body, "");
}

/// A directory that is not there gives an empty listing; a sent report is told when verbose.
TEST_F(UploadImplFilesTest, NotesASentReportWhenVerbose) {
    UploadImpl::SetVerbose(true);
    OutputCapture output;
    upload->sendDBFullFile();
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivUpload:  Sent full DB file to AWS \n");
}

// --- database-error event -----------------------------------------------------------------------

/// A database error goes out as a "db.error" event with its message, straight to the stream.
TEST_F(UploadImplFilesTest, SendsADatabaseErrorEvent) {
    DB::m_DBErrorMessage = "disk I/O error";
    upload->sendDBErrorEvent();
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
    EXPECT_TRUE(UploadImplPeer::dbErrorEventSent(*upload));
}

/// It is sent once, never without consent.
TEST_F(UploadImplFilesTest, SendsTheDatabaseErrorEventOnce) {
    upload->sendDBErrorEvent();
    upload->sendDBErrorEvent();
    EXPECT_EQ(records().size(), 1u);
}

/// It is sent once, never without consent.
TEST_F(UploadImplFilesTest, SendsNoDatabaseErrorEventWithoutConsent) {
    configure(R"({"kiv_tou": false})");
    upload->sendDBErrorEvent();
    EXPECT_EQ(records().size(), 0u);
    EXPECT_FALSE(UploadImplPeer::dbErrorEventSent(*upload));
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(UploadImplFilesTest, TriesTheDatabaseErrorEventAgainWithTheNextUpload) {
    script(refuse);
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(upload->uploadEvents(), 0);
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(UploadImplPeer::dbErrorEventSent(*upload));
    script(accept);
    EXPECT_EQ(upload->uploadFiles(), 0);
    EXPECT_EQ(records().size(), 2u);
    EXPECT_TRUE(UploadImplPeer::dbErrorEventSent(*upload));
}

/// The location is asked for once an upload and once a database-error event, without the
/// store's lock.
TEST_F(UploadImplFilesTest, AsksForTheLocationOfTheErrorEventOnceAndWithoutTheStoresLock) {
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
    EXPECT_EQ(upload->uploadEvents(), 0);
    EXPECT_EQ(seen, "free ");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_EQ(JsonObject::parse(records()[0]).getObject("location").optString("city"), "Ghent");
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(UploadImplFilesTest, TakesAnErrorEventThatFitsNoPacketForFailed) {
    configure(R"({"upload_events": {"max-size": 100}})");
    OutputCapture output;
    upload->sendDBErrorEvent();
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(UploadImplPeer::dbErrorEventSent(*upload));
    EXPECT_EQ(records().size(), 0u);
}

/// A database error goes out as a "db.error" event with its message, straight to the stream.
TEST_F(UploadImplFilesTest, SendsAnErrorMessageThatIsNoUtf8) {
    DB::m_DBErrorMessage = "near \"\xff\": syntax error";
    OutputCapture output;
    upload->sendDBErrorEvent();
    output.stop();
    EXPECT_EQ(output.err(), "");
    ASSERT_EQ(records().size(), 1u);
    EXPECT_NE(records()[0].find(R"("error-msg": "near \"?\": syntax error")"), std::string::npos)
        << records()[0];
}

/// "DB Error event upload failed ": it is tried again with the next upload.
TEST_F(UploadImplFilesTest, TakesAnErrorEventThatCannotBePackedForFailed) {
    OutputCapture output;
    {
        const NoJsonMemory noMemory;
        upload->sendDBErrorEvent();
    }
    output.stop();
    EXPECT_EQ(taggedLines(output.errWithoutPrefixes(), kTag),
              "kivUpload: DB Error event upload failed \n");
    EXPECT_FALSE(UploadImplPeer::dbErrorEventSent(*upload));
    EXPECT_EQ(records().size(), 0u);
}
