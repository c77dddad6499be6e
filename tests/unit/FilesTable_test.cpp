#include "FilesTable.h"

#include <chrono>
#include <string>
#include <vector>

#include "support/StoreTest.h"

namespace {

class FilesTableTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }
    std::string bytes() {
        return value("SELECT SUM(LENGTH(id)+LENGTH(url)+LENGTH(IFNULL(info,''))) FROM Files");
    }
};

/// It tells whether a file is registered, and whether one is gone.
TEST_F(FilesTableTest, TellsWhatBecameOfAFile) {
    OutputCapture capture;
    EXPECT_TRUE(db->addFile("a", "/a", ""));
    EXPECT_TRUE(db->addFile("a", "/other", "")) << "known already";
    EXPECT_TRUE(db->removeUpload("a"));
    EXPECT_TRUE(db->removeUpload("a")) << "there is none";
    db->addFile("b", "/b", "");
    onStore("PRAGMA query_only = ON");
    EXPECT_FALSE(db->removeUpload("b"));
    EXPECT_FALSE(db->addFile("c", "/c", ""));
}

/// Where the table itself is missing a file can wait: the next opening makes it.
TEST_F(FilesTableTest, AFileWaitsForATableThatIsMissing) {
    onStore("DROP TABLE Files");
    OutputCapture capture;
    EXPECT_EQ(db->registerFile({"a", "/a", ""}), FilesTable::Outcome::NotNow);
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(5));
    EXPECT_EQ(db->registerFile({"a", "/a", ""}), FilesTable::Outcome::Registered);
    EXPECT_EQ(rows("SELECT id FROM Files"), Texts{"a"});
}

/// An info above 4096 bytes is refused with a line; one of 4096 is taken.
TEST_F(FilesTableTest, ALongInfoIsRefusedWithALine) {
    OutputCapture capture;
    EXPECT_TRUE(db->addFile("fits", "/a", std::string(4096, 'i')));
    EXPECT_FALSE(db->addFile("long\n", "/a", std::string(4097, 'i')));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: File refused, its info has 4097 bytes: long\\x0A\n");
    EXPECT_EQ(rows("SELECT id FROM Files"), Texts{"fits"});
}

/// A file whose texts exceed all bounds by themselves is refused with a line, and drops none.
TEST_F(FilesTableTest, AFileThatNeverFitsIsRefused) {
    db->addFile("a", "/a", "");
    OutputCapture capture;
    EXPECT_FALSE(db->addFile("b", std::string(300000, 'u'), ""));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: File refused, it takes 300001 bytes: b\n");
    EXPECT_EQ(rows("SELECT id FROM Files"), Texts{"a"});
}

/// At most 256 files are kept: a new one pushes out the one announced first, with a line.
TEST_F(FilesTableTest, TheFirstAnnouncedGivesWayToTheNewest) {
    for (int i = 0; i < 256; ++i) db->addFile("file" + std::to_string(i), "/f", "");
    db->retryUpload("file0");  // tried, and still the one announced first
    OutputCapture capture;
    EXPECT_TRUE(db->addFile("new", "/f", ""));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: Too many announced files: dropped file0\n");
    EXPECT_EQ(db->getNumberOfFiles(), 256);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files WHERE id='file0'"), "0");
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files WHERE id='new'"), "1");
}

/// A file that is known already pushes out no other.
TEST_F(FilesTableTest, AKnownFilePushesOutNoOther) {
    for (int i = 0; i < 256; ++i) db->addFile("file" + std::to_string(i), "/f", "");
    OutputCapture capture;
    EXPECT_TRUE(db->addFile("file7", "/f", ""));
    capture.stop();
    EXPECT_EQ(capture.err(), "kivDB:  Can't Insert into table Files\n");
    EXPECT_EQ(db->getNumberOfFiles(), 256);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files WHERE id='file0'"), "1");
}

/// A drop that is not committed is not told.
TEST_F(FilesTableTest, ADropThatIsNotCommittedIsNotTold) {
    for (int i = 0; i < 256; ++i) db->addFile("file" + std::to_string(i), "/f", "");
    breakCommitsAfter("INSERT ON Files");
    OutputCapture capture;
    EXPECT_FALSE(db->addFile("new", "/f", ""));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n");
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files WHERE id='file0'"), "1");
}

/// Whoever keeps what is not taken learns whether to: not of a file that the table refuses.
TEST_F(FilesTableTest, TellsWhetherLaterMayBeBetter) {
    using Outcome = FilesTable::Outcome;
    DB unopened;
    OutputCapture capture;
    EXPECT_EQ(unopened.registerFileAtOnce({"a", "/a", ""}), Outcome::NotNow);
    EXPECT_EQ(db->registerFileAtOnce({"a", "/a", ""}), Outcome::Registered);
    EXPECT_EQ(db->registerFile({"b", "/b", std::string(4097, 'i')}), Outcome::Refused);
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(db->registerFileAtOnce({"b", "/b", ""}), Outcome::NotNow);
    EXPECT_EQ(db->registerFile({"b", "/b", ""}), Outcome::NotNow);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    locker.run("ROLLBACK");
    EXPECT_EQ(db->registerFile({"b", "/b", ""}), Outcome::Registered);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: File refused, its info has 4097 bytes: b\n");
    EXPECT_TRUE(db->isUploadGone("c"));
    EXPECT_FALSE(db->isUploadGone("b"));
    EXPECT_FALSE(unopened.isUploadGone("c")) << "that cannot be read";
}

/// All files together take at most 256 KiB: as many give way as the new one needs.
TEST_F(FilesTableTest, AsManyGiveWayAsTheNewestNeeds) {
    OutputCapture capture;
    for (int i = 0; i < 400; ++i) {
        EXPECT_TRUE(db->addFile("file" + std::to_string(i), std::string(2900, 'u'),
                                std::string(4096, 'i')));
    }
    EXPECT_TRUE(db->addFile("large", std::string(100000, 'u'), ""));
    capture.stop();
    EXPECT_LE(std::stol(bytes()), 256 * 1024);
    EXPECT_GT(std::stol(bytes()), 256 * 1024 - 7100);
    EXPECT_EQ(value("SELECT id FROM Files ORDER BY ROWID DESC LIMIT 1"), "large");
    EXPECT_EQ(value("SELECT id FROM Files WHERE id='file399'"), "file399");
    EXPECT_GT(db->addEvent(1, 1, 1, "t", "{}"), 0) << "the store has room for events";
}

/// Where the new one cannot be registered, none gives way.
TEST_F(FilesTableTest, NoneGivesWayWhereTheNewOneCannotBeRegistered) {
    for (int i = 0; i < 256; ++i) db->addFile("file" + std::to_string(i), "/f", "");
    makeTrigger("CREATE TRIGGER No BEFORE INSERT ON Files BEGIN SELECT RAISE(ABORT,'no'); END");
    OutputCapture capture;
    EXPECT_FALSE(db->addFile("new", "/f", ""));
    EXPECT_EQ(db->getNumberOfFiles(), 256);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files WHERE id='file0'"), "1");
}

}  // namespace
