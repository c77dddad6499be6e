#include <string>
#include <vector>

#include "KernelTime.h"
#include "support/StoreTest.h"

namespace {

const char* const kReadOnly = "attempt to write a readonly database";

class DBTablesTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    void makeReadOnly() { onStore("PRAGMA query_only = ON"); }

    struct Place {
        double longitude = -1;
        double latitude = -2;
        std::string ip = "a", city = "b", region = "c", country = "d";
        bool operator==(const Place& o) const {
            return longitude == o.longitude && latitude == o.latitude && ip == o.ip &&
                   city == o.city && region == o.region && country == o.country;
        }
    };
    bool read(Place& place) {
        return db->getLocation(place.longitude, place.latitude, place.ip, place.city, place.region,
                               place.country);
    }
};

// --- start times ---

/// A start time is kept by cycle and source, source 0 by default; unknown is 0.
TEST_F(DBTablesTest, AnUnknownStartTimeIsZero) {
    EXPECT_EQ(db->getStartTime(1, 2, 1), 0);
    EXPECT_EQ(db->getStartTime(1, 2), 0);
}

/// A start time is kept by cycle and source, source 0 by default; unknown is 0.
TEST_F(DBTablesTest, StartTimesAreKeptByCycleAndSource) {
    EXPECT_EQ(db->setStartTime(1, 2, 1, 1551953702347LL), 0);
    EXPECT_EQ(db->setStartTime(1, 3, 1, -5), 0);
    EXPECT_EQ(db->setStartTime(1, 2, 1600000000000LL), 0);
    EXPECT_EQ(db->getStartTime(1, 2, 1), 1551953702347LL);
    EXPECT_EQ(db->getStartTime(1, 3, 1), -5);
    EXPECT_EQ(db->getStartTime(1, 2), 1600000000000LL);
    EXPECT_EQ(db->getStartTime(1, 2, 0), 1600000000000LL);
    EXPECT_EQ(db->getStartTime(2, 2, 1), 0);
}

/// The source is written as status too; writing twice keeps the later value.
TEST_F(DBTablesTest, TheSourceIsWrittenAsStatusToo) {
    db->setStartTime(4, 5, 1, 77);
    EXPECT_EQ(rows("SELECT bootCount,standbyCount,source,startTime,status FROM TimeOffsets"),
              Texts{"4|5|1|77|1"});
}

/// The source is written as status too; writing twice keeps the later value.
TEST_F(DBTablesTest, WritingAStartTimeTwiceKeepsTheLaterOne) {
    db->setStartTime(4, 5, 1, 77);
    EXPECT_EQ(db->setStartTime(4, 5, 1, 78), 0);
    EXPECT_EQ(rows("SELECT startTime FROM TimeOffsets"), Texts{"78"});
}

/// A start time that cannot be written is reported and told; one that cannot be read is 0.
TEST_F(DBTablesTest, AStartTimeThatCannotBeWrittenIsReportedAndTold) {
    makeReadOnly();
    OutputCapture capture;
    EXPECT_NE(db->setStartTime(4, 5, 1, 77), 0);
    EXPECT_NE(db->setStartTime(4, 5, 77), 0);
    capture.stop();
    const std::string line =
        std::string("kivDB:  Can't Insert into table TimeOffsets : ") + kReadOnly + "\n";
    EXPECT_EQ(capture.err(), line + line);
}

/// A start time that cannot be written is reported and told; one that cannot be read is 0.
TEST_F(DBTablesTest, AStartTimeThatCannotBeReadIsZeroWithALine) {
    onStore("DROP TABLE TimeOffsets");
    OutputCapture capture;
    EXPECT_EQ(db->getStartTime(4, 5, 1), 0);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Can't read from table TimeOffsets: no such table: TimeOffsets\n");
}

// --- files ---

/// Files are counted; a failed query counts none.
TEST_F(DBTablesTest, CountsTheFiles) {
    EXPECT_EQ(db->getNumberOfFiles(), 0);
    db->addFile("a", "/tmp/a", "");
    db->addFile("b", "/tmp/b", "");
    EXPECT_EQ(db->getNumberOfFiles(), 2);
    db->removeUpload("a");
    EXPECT_EQ(db->getNumberOfFiles(), 1);
}

/// Files are counted; a failed query counts none.
TEST_F(DBTablesTest, CountsNoFilesWhenTheQueryFails) {
    onStore("DROP TABLE Files");
    OutputCapture capture;
    EXPECT_EQ(db->getNumberOfFiles(), 0);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Can't read from table Files: no such table: Files\n");
}

/// A file starts with status, retries and last failure 0; an empty info is NULL.
TEST_F(DBTablesTest, AFileIsStoredWithZeroCountersAndItsInfo) {
    db->addFile("it's \"id\"", "/tmp/a b", "{\"k\": \"v'\"}");
    EXPECT_EQ(rows("SELECT id,url,status,retries,lastfail,info FROM Files"),
              Texts{"it's \"id\"|/tmp/a b|0|0|0|{\"k\": \"v'\"}"});
}

/// A file starts with status, retries and last failure 0; an empty info is NULL.
TEST_F(DBTablesTest, AnEmptyInfoIsStoredAsNull) {
    db->addFile("a", "/tmp/a", "");
    EXPECT_EQ(value("SELECT info IS NULL FROM Files"), "1");
}

/// A second file of the same id fails with " Can't Insert into table Files".
TEST_F(DBTablesTest, ASecondFileOfTheSameIdFailsWithItsLine) {
    db->addFile("a", "/tmp/a", "");
    OutputCapture capture;
    db->addFile("a", "/tmp/other", "");
    capture.stop();
    EXPECT_EQ(capture.err(), "kivDB:  Can't Insert into table Files\n");
    EXPECT_EQ(rows("SELECT url FROM Files"), Texts{"/tmp/a"});
    EXPECT_FALSE(DB::m_dbError);
}

/// The first upload is the one whose failure is oldest; new files come first; an empty table
/// gives none.
TEST_F(DBTablesTest, ThereIsNoFirstUploadInAnEmptyTable) {
    OutputCapture capture;
    EXPECT_EQ(db->getFirstUpload(), nullptr);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// The first upload is the one whose failure is oldest; new files come first; an empty table
/// gives none.
TEST_F(DBTablesTest, TheFirstUploadIsTheOneWhoseFailureIsOldest) {
    aside(
        "INSERT INTO Files VALUES('late','/l',1,2,9000000000,'i'),('early','/e',3,4,8000000000,"
        "NULL)");
    auto upload = db->getFirstUpload();
    ASSERT_NE(upload, nullptr);
    EXPECT_EQ(upload->id, "early");
    EXPECT_EQ(upload->url, "/e");
    EXPECT_EQ(upload->status, 3);
    EXPECT_EQ(upload->retries, 4);
    EXPECT_EQ(upload->lastfail, 8000000000LL);
    EXPECT_EQ(upload->info, "");
    db->addFile("new", "/n", "{}");
    upload = db->getFirstUpload();
    ASSERT_NE(upload, nullptr);
    EXPECT_EQ(upload->id, "new");
    EXPECT_EQ(upload->info, "{}");
}

/// A retry counts up, notes the kernel time of now and puts the file after the others.
TEST_F(DBTablesTest, ARetriedFileGoesBehindTheOthers) {
    db->addFile("a", "/tmp/a", "");
    db->addFile("b", "/tmp/b", "");
    const std::string first = db->getFirstUpload()->id;
    const auto before = KernelTime::getTimeMonotonicAsInt64();
    db->retryUpload(first);
    const auto after = KernelTime::getTimeMonotonicAsInt64();
    EXPECT_NE(db->getFirstUpload()->id, first);
    EXPECT_EQ(value("SELECT retries FROM Files WHERE id='" + first + "'"), "1");
    const long long failed =
        std::stoll(value("SELECT lastfail FROM Files WHERE id='" + first + "'"));
    EXPECT_GE(failed, before);
    EXPECT_LE(failed, after);
    db->retryUpload(first);
    EXPECT_EQ(value("SELECT retries FROM Files WHERE id='" + first + "'"), "2");
}

/// A file that cannot be removed or changed gets its line; an unknown one is not a failure.
TEST_F(DBTablesTest, FilesThatCannotBeChangedGetTheirLines) {
    db->addFile("a", "/tmp/a", "");
    makeReadOnly();
    OutputCapture capture;
    db->removeUpload("a");
    db->retryUpload("a");
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              std::string("kivDB:  Can't delete from table Files : ") + kReadOnly +
                  "\nkivDB:  Can't update table Files : " + kReadOnly + "\n");
    EXPECT_EQ(rows("SELECT id,retries FROM Files"), Texts{"a|0"});
}

/// A file that cannot be removed or changed gets its line; an unknown one is not a failure.
TEST_F(DBTablesTest, RemovingAnUnknownFileIsNoFailure) {
    OutputCapture capture;
    db->removeUpload("nobody");
    db->retryUpload("nobody");
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

// --- operating times ---

/// Operating times are kept by cycle; failures get their lines.
TEST_F(DBTablesTest, OperatingTimesAreKeptByCycle) {
    EXPECT_EQ(db->getOpTime(1, 1), 0u);
    db->setOpTime(1, 1, 60);
    db->setOpTime(1, 2, 4294967295u);
    db->setOpTime(1, 1, 61);
    EXPECT_EQ(db->getOpTime(1, 1), 61u);
    EXPECT_EQ(db->getOpTime(1, 2), 4294967295u);
    EXPECT_EQ(rows("SELECT COUNT(*) FROM OpTimes"), Texts{"2"});
}

/// Operating times are kept by cycle; failures get their lines.
TEST_F(DBTablesTest, OperatingTimesThatCannotBeKeptGetTheirLines) {
    makeReadOnly();
    OutputCapture capture;
    db->setOpTime(1, 1, 60);
    onStore("PRAGMA query_only = OFF; DROP TABLE OpTimes");
    EXPECT_EQ(db->getOpTime(1, 1), 0u);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              std::string("kivDB: Can't Insert into table OpTimes: ") + kReadOnly +
                  "\nkivDB: Can't read from table OpTimes: no such table: OpTimes\n");
}

// --- location ---

/// The location is one row that is replaced; an empty table leaves the outputs unchanged.
TEST_F(DBTablesTest, AnEmptyLocationLeavesTheOutputsUnchanged) {
    Place place;
    OutputCapture capture;
    EXPECT_FALSE(read(place));
    capture.stop();
    EXPECT_EQ(place, Place());
    EXPECT_EQ(capture.err(), "");
}

/// The location is one row that is replaced; an empty table leaves the outputs unchanged.
TEST_F(DBTablesTest, TheLocationIsOneRowThatIsReplaced) {
    EXPECT_TRUE(db->setLocation(1, 2, "i", "c", "r", "cc"));
    EXPECT_TRUE(db->setLocation(5.4667, -51.25, "192.0.2.7", "'s-Hertogenbosch", "NB", "NL"));
    Place place;
    EXPECT_TRUE(read(place));
    const Place expected = {5.4667, -51.25, "192.0.2.7", "'s-Hertogenbosch", "NB", "NL"};
    EXPECT_EQ(place, expected);
    EXPECT_EQ(rows("SELECT id,city FROM Location"), Texts{"1|'s-Hertogenbosch"});
}

/// A location that cannot be kept gets its line and false.
TEST_F(DBTablesTest, ALocationThatCannotBeKeptGetsItsLines) {
    makeReadOnly();
    OutputCapture capture;
    EXPECT_FALSE(db->setLocation(1, 2, "i", "c", "r", "cc"));
    onStore("PRAGMA query_only = OFF; DROP TABLE Location");
    Place place;
    EXPECT_FALSE(read(place));
    capture.stop();
    EXPECT_EQ(place, Place());
    EXPECT_EQ(capture.errWithoutPrefixes(),
              std::string("kivDB: Can't Insert into table Location: ") + kReadOnly +
                  "\nkivDB: Can't read from table Location: no such table: Location\n");
}

// --- the lock ---

/// Verbose, each operation says "Take lock for " and its name.
TEST_F(DBTablesTest, EachOperationSaysThatItTakesTheLockWhenVerbose) {
    DB::setVerbose(true);
    OutputCapture capture;
    db->setStartTime(1, 1, 1, 1);
    db->setStartTime(1, 1, 1);
    db->getStartTime(1, 1, 1);
    db->getStartTime(1, 1);
    db->addFile("a", "b", "c");
    db->getNumberOfFiles();
    db->getFirstUpload();
    db->retryUpload("a");
    db->removeUpload("a");
    db->setOpTime(1, 1, 1);
    db->getOpTime(1, 1);
    db->setLocation(1, 1, "", "", "", "");
    Place place;
    read(place);
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "kivDB: Take lock for setStartTime\n"
              "kivDB: Take lock for setStartTime\n"
              "kivDB: Take lock for getStartTime\n"
              "kivDB: Take lock for getStartTime\n"
              "kivDB: Take lock for addFile\n"
              "kivDB: Take lock for getNumberOfFiles\n"
              "kivDB: Take lock for getFirstUpload\n"
              "kivDB: Take lock for retryUpload\n"
              "kivDB: Take lock for removeUpload\n"
              "kivDB: Take lock for setOpTime\n"
              "kivDB: Take lock for getOpTime\n"
              "kivDB: Take lock for setLocation\n"
              "kivDB: Take lock for getLocation\n");
}

}  // namespace
