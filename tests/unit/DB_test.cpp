#include "DB.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "DBToken.h"
#include "SqlStatement.h"
#include "support/DBTokenPeer.h"
#include "support/DiskFaults.h"
#include "support/StoreTest.h"
#include "support/SystemCallFaults.h"
#include "support/WaitUntil.h"

namespace {

const std::vector<std::string> kSchema = {
    "CREATE TABLE Events(bootCount INT, standbyCount INT, kernelTime INT, type TEXT, status INT, "
    "data BLOB)",
    "CREATE TABLE Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, lastfail INT, "
    "info BLOB)",
    "CREATE TABLE TimeOffsets(bootCount INT, standbyCount INT, source INT, startTime INT, status "
    "INT, PRIMARY KEY(bootCount,standbyCount,source))",
    "CREATE TABLE OpTimes(bootCount INT, standbyCount INT, opTime INT, PRIMARY KEY(bootCount, "
    "standbyCount))",
    "CREATE TABLE Location(id INT PRIMARY KEY, longitude REAL, latitude REAL, IP TEXT, city TEXT, "
    "region TEXT, countryCode TEXT)",
};

const char* const kForeignText = "This is not a database. ";

/// As long as it lives, no connection that is opened tells its page size.
class UnknownPageSize {
  public:
    UnknownPageSize() { sqlite3_auto_extension(reinterpret_cast<void (*)()>(install)); }
    ~UnknownPageSize() { sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(install)); }
    UnknownPageSize(const UnknownPageSize&) = delete;
    UnknownPageSize& operator=(const UnknownPageSize&) = delete;

  private:
    static int install(sqlite3* connection, char**, const void*) {
        return sqlite3_set_authorizer(connection, judge, nullptr);
    }
    static int judge(void*, int action, const char* name, const char* value, const char*,
                     const char*) {
        const bool asks = action == SQLITE_PRAGMA && value == nullptr;
        return asks && std::string(name) == "page_size" ? SQLITE_DENY : SQLITE_OK;
    }
};

class DBLifecycleTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        DBToken::setDBUUIDPath(dir.path());
    }

    Texts schema() { return rows("SELECT sql FROM sqlite_master WHERE type='table'"); }

    /// Of the store's own connection; the file does not keep it.
    std::int64_t pageLimit() {
        SqlStatement limit(DBPeer::connection(*db), "PRAGMA max_page_count");
        return limit.step() == SQLITE_ROW ? limit.columnInt64(0) : -1;
    }

    /// What SQLite sets by itself.
    std::int64_t ownPageLimit() {
        return std::stoll(PlainDatabase(":memory:").value("PRAGMA max_page_count"));
    }

    /// Bytes of pages that the store's connection keeps.
    int keptPages() {
        int bytes = -1;
        int highest = 0;
        sqlite3_db_status(DBPeer::connection(*db), SQLITE_DBSTATUS_CACHE_USED, &bytes, &highest, 0);
        return bytes;
    }

    std::string foreignFile() {
        std::string text;
        while (text.size() < 8192) text += kForeignText;
        dir.write("Db", text);
        return text;
    }

    /// The line of a damaged file out of which nothing could be read.
    std::string replacedByNew() const {
        return "kivDB: Damaged database replaced, carried over: 0 events, 0 files, 0 other rows; "
               "the old one is " +
               path + ".damaged\n";
    }

    static std::string withoutAddresses(const std::string& text) {
        return std::regex_replace(text, std::regex("0x[0-9a-f]+"), "<address>");
    }
};

/// Construction does no input or output.
TEST_F(DBLifecycleTest, ConstructionDoesNoInputOrOutput) {
    OutputCapture capture;
    db.reset();
    capture.stop();
    EXPECT_FALSE(dir.has("Db"));
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// A new file gets the five tables, to the letter, and version 2.
TEST_F(DBLifecycleTest, CreatesTheSchemaOfVersion2) {
    OutputCapture capture;
    db->open(path, false);
    capture.stop();
    EXPECT_EQ(schema(), kSchema);
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_EQ(capture.out() + capture.err(), "");
    EXPECT_FALSE(DB::m_dbError);
}

/// The page limit is 3 MiB divided by the page size, rounded up.
TEST_F(DBLifecycleTest, LimitsThePagesToThreeMebibytes) {
    openStore();
    EXPECT_EQ(pageLimit(), 768) << "of 4096 bytes";
}

/// The page limit is 3 MiB divided by the page size, rounded up.
TEST_F(DBLifecycleTest, LimitsThePagesByThePageSizeOfTheFile) {
    aside("PRAGMA page_size = 1024; CREATE TABLE T(a)");
    openStore();
    EXPECT_EQ(pageLimit(), 3072);
}

/// The page limit is 3 MiB divided by the page size, rounded up.
TEST_F(DBLifecycleTest, LimitsEveryPageSizeToThreeMebibytes) {
    for (int size = 512; size <= 65536; size *= 2) {
        path = dir.file("Db" + std::to_string(size));
        aside("PRAGMA page_size = " + std::to_string(size) + "; CREATE TABLE T(a)");
        openStore();
        EXPECT_EQ(pageLimit(), 3145728 / size);
    }
}

/// A page size that cannot be read sets no page limit.
TEST_F(DBLifecycleTest, AnUnknownPageSizeSetsNoLimit) {
    const UnknownPageSize unknown;
    OutputCapture capture;
    openStore();
    capture.stop();
    EXPECT_EQ(pageLimit(), ownPageLimit());
    EXPECT_EQ(capture.out() + capture.err(), "");
    EXPECT_EQ(schema(), kSchema);
}

/// The page limit is 3 MiB divided by the page size, rounded up.
TEST_F(DBLifecycleTest, RoundsThePageLimitUp) {
    DBPeer::setMaxDatabaseSize(*db, 100 * 4096 + 1);
    openStore();
    EXPECT_EQ(pageLimit(), 101);
}

/// A new file gets a new identity.
TEST_F(DBLifecycleTest, ANewFileGetsANewIdentity) {
    const std::string old = "3f0e8f6a-2a53-4c52-9d9b-0b2f5d7a9c11";
    dir.write("dbuuid.json", "{\"db-uuid\": \"" + old + "\"}");
    openStore();
    EXPECT_NE(DBToken::current(), old);
    EXPECT_EQ(dir.read("dbuuid.json"), "{\"db-uuid\": \"" + DBToken::current() + "\"}");
}

/// A file of version 2 is left as it is, its identity too.
TEST_F(DBLifecycleTest, AnExistingVersion2FileKeepsItsContentAndItsIdentity) {
    openStore();
    db->addEvent(1, 2, 3, "t", "kept");
    const std::string token = dir.read("dbuuid.json");
    db.reset();
    const std::string before = dir.read("Db");
    DB again;
    again.open(path, true);
    EXPECT_EQ(dir.read("Db"), before);
    EXPECT_EQ(dir.read("dbuuid.json"), token);
    EXPECT_EQ(storedData(), Texts{"kept"});
}

/// A file of version 1 gains the info column, keeps its rows and its identity.
TEST_F(DBLifecycleTest, AVersion1FileGainsTheInfoColumnAndKeepsItsRows) {
    aside(
        "CREATE TABLE Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, "
        "lastfail INT);"
        "INSERT INTO Files VALUES('a','/tmp/a',0,4,17);PRAGMA user_version = 1");
    OutputCapture capture;
    openStore();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(rows("SELECT id,url,status,retries,lastfail,info FROM Files"),
              Texts{"a|/tmp/a|0|4|17|NULL"});
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_TRUE(DBTokenPeer::holdsNothing());
    EXPECT_FALSE(dir.has("dbuuid.json"));
}

/// A failed ALTER gets "SQL error (ALTER TABLE Files): " and the version is set all the same.
TEST_F(DBLifecycleTest, AVersion1FileThatHasTheColumnAlreadyGetsALineAndTheVersion) {
    openStore();
    aside("PRAGMA user_version = 1");
    OutputCapture capture;
    openStore();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (ALTER TABLE Files): duplicate column name: info\n");
    EXPECT_EQ(value("PRAGMA user_version"), "2");
}

/// Any other version is set back to 2 without another change.
TEST_F(DBLifecycleTest, AnyOtherVersionIsSetBackWithoutAnotherChange) {
    openStore();
    db->addEvent(1, 2, 3, "t", "kept");
    const std::string token = dir.read("dbuuid.json");
    aside("PRAGMA user_version = 7");
    openStore();
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_EQ(schema(), kSchema);
    EXPECT_EQ(storedData(), Texts{"kept"});
    EXPECT_EQ(dir.read("dbuuid.json"), token);
}

/// A path that cannot be opened gets "Can't open database " and leaves no connection, the
/// cached size as it was.
TEST_F(DBLifecycleTest, AMissingDirectoryLeavesNoUsableConnection) {
    DB::m_TotalEventSize = 4711;
    const std::string missing = dir.file("no/such/Db");
    OutputCapture capture;
    db->open(missing, true);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Can't open database " + missing + ": unable to open database file\n");
    EXPECT_EQ(DBPeer::connection(*db), nullptr);
    EXPECT_EQ(DB::m_TotalEventSize, 4711);
    EXPECT_FALSE(DB::m_dbError);
}

/// Operations without a connection fail and record the error.
TEST_F(DBLifecycleTest, OperationsWithoutAConnectionFailAndRecordIt) {
    OutputCapture capture;
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), -1);
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "bad parameter or other API misuse");
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "it's"), -1);
    EXPECT_EQ(DB::lastErrorMessage(), "no open database");
    EXPECT_EQ(db->totalEventSize(), -1);
    EXPECT_EQ(db->getOldestEvent(), "");
    EXPECT_FALSE(db->getEvents(false).isOpen());
    EXPECT_FALSE(db->getEvents(true).isOpen());
    EXPECT_FALSE(db->deleteMarkedEvents(db->getEvents(false)));
    EXPECT_EQ(db->getNumberOfFiles(), 0);
    EXPECT_EQ(db->getFirstUpload(), nullptr);
    EXPECT_EQ(db->getStartTime(1, 1), 0);
    EXPECT_NE(db->setStartTime(1, 1, 5), 0);
    DB::m_TotalEventSize = 500;
    db->pruneAboveSize(100);
    capture.stop();
    EXPECT_EQ(DB::m_TotalEventSize, 500);
    EXPECT_EQ(capture.errWithoutPrefixes().substr(0, 69),
              "kivDB: SQL error (insert event): bad parameter or other API misuse\nki");
}

/// A file that is not a database, or corrupt, is replaced where that is allowed.
TEST_F(DBLifecycleTest, AForeignFileIsReplacedWhenRecreationIsAllowed) {
    const std::string text = foreignFile();
    DB::m_dbError = true;
    OutputCapture capture;
    db->open(path, true);
    capture.stop();
    EXPECT_EQ(dir.read("Db.damaged"), text) << "put aside";
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (max_page_count): file is not a database\n" + replacedByNew());
    EXPECT_EQ(schema(), kSchema);
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_TRUE(dir.has("dbuuid.json"));
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "usable"), 8);
    EXPECT_TRUE(DB::m_dbError) << "until it has been reported, and the store is asked";
    EXPECT_EQ(DB::lastErrorMessage().rfind("Damaged database replaced, carried over: 0 events", 0),
              0u)
        << DB::lastErrorMessage();
    EXPECT_TRUE(db->works());
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_EQ(pageLimit(), 768);
}

/// Otherwise it is left alone, with a line for each failed step.
TEST_F(DBLifecycleTest, AForeignFileIsLeftAloneWithoutRecreation) {
    const std::string text = foreignFile();
    OutputCapture capture;
    db->open(path, false);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (max_page_count): file is not a database\n"
              "kivDB: SQL error (create Events table): file is not a database\n"
              "kivDB: SQL error (create Files table): file is not a database\n"
              "kivDB: SQL error (create TimeOffsets table): file is not a database\n"
              "kivDB: SQL error (create OpTimes table): file is not a database\n"
              "kivDB: SQL error (create Location table): file is not a database\n"
              "kivDB: SQL error (user_version): file is not a database\n");
    EXPECT_EQ(dir.read("Db"), text);
}

/// A file that is not a database, or corrupt, is replaced where that is allowed.
TEST_F(DBLifecycleTest, ACorruptSchemaIsReplacedWhenRecreationIsAllowed) {
    openStore();
    db.reset();
    std::string text = dir.read("Db");
    ASSERT_GT(text.size(), 4096u);
    std::fill(text.begin() + 100, text.begin() + 4096, '\xee');
    dir.write("Db", text);
    OutputCapture capture;
    DB again;
    again.open(path, true);
    capture.stop();
    EXPECT_EQ(
        capture.errWithoutPrefixes(),
        "kivDB: SQL error (max_page_count): database disk image is malformed\n" + replacedByNew());
    EXPECT_EQ(schema(), kSchema);
}

/// A file that cannot be put aside gets a line, and stays.
TEST_F(DBLifecycleTest, AForeignFileThatCannotBePutAsideGetsALineAndStays) {
    const std::string text = foreignFile();
    OutputCapture capture;
    {
        DiskWatch disk;
        disk.renameError = ENOSPC;
        db->open(path, true);
    }
    capture.stop();
    const std::string lines = capture.errWithoutPrefixes();
    EXPECT_EQ(lines.find("kivDB: SQL error (max_page_count): file is not a database\n"
                         "kivDB: Can't replace damaged database " +
                         path + ": cannot name the new file: No space left on device\n"),
              0u)
        << lines;
    EXPECT_EQ(dir.read("Db"), text);
    EXPECT_FALSE(dir.has("Db.new"));
    EXPECT_FALSE(dir.has("Db.damaged"));
    EXPECT_FALSE(dir.has("Db.damaged.new"));
}

/// Every successful open makes the cached size unknown.
TEST_F(DBLifecycleTest, EverySuccessfulOpenForgetsTheCachedSize) {
    openStore();
    db->addEvent(1, 1, 1, "t", "x");
    EXPECT_EQ(DB::m_TotalEventSize, 3);
    DB other;
    other.open(path, false);
    EXPECT_EQ(DB::m_TotalEventSize, -1);
}

/// Opening again closes the old connection.
TEST_F(DBLifecycleTest, OpeningAgainClosesTheOldConnection) {
    openStore();
    db->addEvent(1, 1, 1, "t", "first file");
    db->open(dir.file("Other"), false);
    db->addEvent(1, 1, 1, "t", "second file");
    EXPECT_EQ(storedData(), Texts{"first file"});
    EXPECT_EQ(PlainDatabase(dir.file("Other")).value("SELECT data FROM Events"), "second file");
}

/// Verbose, opening and closing are told step by step, with "Table Event created successfully".
TEST_F(DBLifecycleTest, SaysWhatItDoesWhenVerbose) {
    DB::setVerbose(true);
    EXPECT_TRUE(DB::getVerbose());
    OutputCapture capture;
    db->open(path, false);
    db.reset();
    DB::setVerbose(false);
    capture.stop();
    EXPECT_EQ(withoutAddresses(capture.outWithoutPrefixes()),
              "kivDB: Opened database " + path +
                  " successfully: <address>\n"
                  "kivDB: Take lock for creating tables\n"
                  "*** sql callback: kivDB:  max_page_count = 768\n\n"
                  "kivDB: Table Event created successfully\n"
                  "kivDB: Table Files created successfully\n"
                  "kivDB: Table TimeOffsets created successfully\n"
                  "kivDB: Table OpTimes created successfully\n"
                  "kivDB: Table Location created successfully\n"
                  "kivDB: Destructor: close DB <address>\n");
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, opening and closing are told step by step, with "Table Event created successfully".
TEST_F(DBLifecycleTest, DestroyingAnUnopenedStoreSaysNothing) {
    DB::setVerbose(true);
    OutputCapture capture;
    db.reset();
    capture.stop();
    EXPECT_EQ(capture.out(), "");
}

/// No connection can attach other files.
TEST_F(DBLifecycleTest, NoConnectionCanAttachOtherFiles) {
    openStore();
    EXPECT_THROW(onStore("ATTACH '" + dir.file("other") + "' AS other"), std::runtime_error);
    EXPECT_FALSE(dir.has("other"));
}

/// A failure sets `m_dbError` and its text; a null text is empty.
TEST_F(DBLifecycleTest, AFailureIsRecordedWithItsText) {
    openStore();
    db->checkErrorCondition("a text");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "a text");
    db->checkErrorCondition(nullptr);
    EXPECT_EQ(DB::lastErrorMessage(), "");
}

/// The full callback is called for a full database only, on the calling thread, under the lock.
TEST_F(DBLifecycleTest, TheFullCallbackIsForAFullDatabaseOnly) {
    openStore();
    int calls = 0;
    DB::setFullCallback([&calls] { ++calls; });
    OutputCapture capture;
    db->addEvent(1, 1, 1, "t", "it's");
    EXPECT_EQ(calls, 0);
    onStore("PRAGMA max_page_count = 1");
    EXPECT_THROW(onStore("CREATE TABLE Big AS SELECT randomblob(100000) AS a"), std::runtime_error);
    db->checkErrorCondition("database or disk is full");
    EXPECT_EQ(calls, 1);
    DB::setFullCallback(nullptr);
    onStore("SELECT 1");
    db->checkErrorCondition("no callback");
    EXPECT_EQ(calls, 1);
}

/// The full callback is called for a full database only, on the calling thread, under the lock.
TEST_F(DBLifecycleTest, TheFullCallbackRunsOnTheCallingThreadWithTheLockHeld) {
    openStore();
    std::thread::id thread;
    bool heldByCaller = false;
    DB::setFullCallback([&] {
        thread = std::this_thread::get_id();
        std::thread([&] {
            heldByCaller = !DB::m_PruneLock.try_lock();
            if (!heldByCaller) DB::m_PruneLock.unlock();
        }).join();
        DB::setFullCallback(nullptr);  // may replace itself
    });
    onStore("PRAGMA max_page_count = 1");
    OutputCapture capture;
    db->addEvent(1, 1, 1, "t", std::string(100000, 'x'));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): database or disk is full\n");
    EXPECT_EQ(thread, std::this_thread::get_id());
    EXPECT_TRUE(heldByCaller);
}

/// Threads may share one store: they take turns.
TEST_F(DBLifecycleTest, ThreadsThatShareAStoreTakeTurns) {
    constexpr int kEach = 50;
    openStore();
    OutputCapture capture;
    std::thread receiver([this] {
        for (int i = 0; i < kEach; ++i) {
            db->addFile("file" + std::to_string(i), "/tmp/f", "");
            db->getNumberOfFiles();
        }
    });
    for (int i = 0; i < kEach; ++i) {
        std::size_t taken = 0;
        db->addEvents({{1, 1, i, "t", "x"}, {1, 1, i, "t", "y"}}, taken);
    }
    receiver.join();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(db->getNumberOfFiles(), kEach);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), std::to_string(2 * kEach));
}

// --- memory -------------------------------------------------------------------------------------

/// Memory that a big transaction took is given back on demand, under the lock; without a
/// connection there is none.
TEST_F(DBLifecycleTest, GivesThePagesOfABigTransactionBack) {
    openStore();
    onStore("BEGIN; CREATE TABLE Big(a)");
    for (int i = 0; i < 250; ++i) onStore("INSERT INTO Big VALUES(zeroblob(4000))");
    onStore("COMMIT");
    ASSERT_GT(keptPages(), 500000);
    const int trimsBefore = SystemCallFaults::heapTrims;
    db->returnFreeMemory();
    EXPECT_LT(keptPages(), 100000);
    EXPECT_EQ(SystemCallFaults::heapTrims, trimsBefore + 1) << "what is free in the heap";
    EXPECT_EQ(value("SELECT COUNT(*) FROM Big"), "250");
    EXPECT_FALSE(DB::m_dbError);
}

/// Memory that a big transaction took is given back on demand, under the lock; without a
/// connection there is none.
TEST_F(DBLifecycleTest, TakesTheLockToGiveMemoryBack) {
    openStore();
    std::unique_lock<std::recursive_mutex> statement(DB::m_PruneLock);
    std::atomic<bool> returned{false};
    std::thread other([&] {
        db->returnFreeMemory();
        returned = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(50)));
    statement.unlock();
    other.join();
}

/// Memory that a big transaction took is given back on demand, under the lock; without a
/// connection there is none.
TEST_F(DBLifecycleTest, HasNoMemoryToGiveBackWithoutAConnection) {
    OutputCapture capture;
    db->returnFreeMemory();
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_FALSE(dir.has("Db"));
}

}  // namespace
