#include "DB.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <sys/stat.h>
#include <time.h>

#include "DBToken.h"
#include "JsonObject.h"
#include "support/DBTokenPeer.h"
#include "support/DiskFaults.h"
#include "support/SmallDisk.h"
#include "support/StoreRescuePeer.h"
#include "support/StoreTest.h"

namespace {

constexpr std::size_t kPage = 4096;
constexpr int kEvents = 400;
/// What is bounded is bounded far below this, also where the machine has other work.
constexpr auto kBound = std::chrono::seconds(8);
/// What one thread may work on a store of 3 MiB, whatever else the machine does.
constexpr auto kMostWork = std::chrono::seconds(1);

/// The CPU time of the calling thread.
std::chrono::nanoseconds worked() {
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

/// A filled store whose file is damaged in some place.
class DBDamageTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        DBToken::setDBUUIDPath(dir.path());
    }

    static std::string text(int number) {
        return "{\"event-type\": \"t\", \"n\": " + std::to_string(number) + ", \"text\": \"" +
               std::string(250, 'x') + "\"}";
    }

    /// Fills a store, closes it, and keeps what is in its file.
    void fill() {
        openStore();
        DBPeer::setPruneSizes(*db, 10000000, 9000000);
        std::vector<DB::NewEvent> events;
        for (int i = 0; i < kEvents; ++i) events.push_back({1, 1, i, "t", text(i)});
        while (!events.empty()) {
            std::size_t taken = 0;
            db->addEvents(events, taken);
            events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(taken));
        }
        for (int i = 0; i < 20; ++i) {
            db->addFile("file" + std::to_string(i), "/tmp/f", "{\"bucketname\": \"b\"}");
            db->setStartTime(i, 1, 1, 1000 + i);
            db->setOpTime(i, 1, 5);
        }
        db->setLocation(1, 2, "ip", "city", "region", "NL");
        db.reset();
        sound = dir.read("Db");
        token = dir.read("dbuuid.json");
    }

    /// What a run of the daemon does, without its lines: opens the store, as the application does
    /// or as the others do, adds an event, reads and deletes all, adds another one.
    /// @return the events that were read before the deletion
    Texts runOn(const std::string& content, bool atStart) {
        for (const char* suffix : {"-wal", "-shm", ".damaged"}) ::unlink((path + suffix).c_str());
        dir.write("Db", content);
        StoreRescuePeer::forgetAttempts();
        SqlFiles::forgetAll();
        const auto begin = std::chrono::steady_clock::now();
        OutputCapture capture;
        db = std::make_unique<DB>();
        DBPeer::setPruneSizes(*db, 10000000, 9000000);
        db->open(path, atStart);
        Texts found;
        add("{\"n\": \"before\"}");
        for (int attempt = 0; attempt < 3; ++attempt) {
            DB::EventSet all = db->getEvents(false);
            found.clear();
            for (std::string event = all.getNextAndMark(); !event.empty();
                 event = all.getNextAndMark()) {
                found.push_back(event);
            }
            all.close();
            if (db->deleteMarkedEvents(all)) break;
        }
        add("{\"n\": \"after\"}");
        db->getFirstUpload();
        db->getStartTime(1, 1, 1);
        capture.stop();
        lines = capture.errWithoutPrefixes();
        longest = std::max(longest, std::chrono::steady_clock::now() - begin);
        return found;
    }
    void add(const std::string& data) {
        std::vector<DB::NewEvent> events = {{2, 1, 1, "t", data}};
        for (int attempt = 0; attempt < 3 && !events.empty(); ++attempt) {
            std::size_t taken = 0;
            db->addEvents(events, taken);
            if (taken > 0) events.clear();
            DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(6));
        }
        EXPECT_TRUE(events.empty()) << "the store takes events again";
    }
    /// What the running store did not meet, the next start finds.
    void startAgain() {
        StoreRescuePeer::forgetAttempts();
        OutputCapture capture;
        db = std::make_unique<DB>();
        db->open(path, true);
    }
    /// The file is sound and has the event that was added last.
    void expectSound(const std::string& what) {
        db.reset();
        EXPECT_EQ(value("PRAGMA integrity_check"), "ok") << what;
        EXPECT_EQ(value("SELECT COUNT(*) FROM Events WHERE data='{\"n\": \"after\"}'"), "1")
            << what;
        EXPECT_EQ(value("PRAGMA user_version"), "2") << what;
    }

    /// Fills a store with 3 MiB of events and closes it. @return how many there are
    int fillWholly() {
        openStore();
        db->addEvent(1, 1, 0, "t", text(0));
        aside(
            "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<9000) "
            "INSERT INTO Events SELECT 1,1,i,'t',0,data FROM n,Events");
        const int stored = std::stoi(value("SELECT COUNT(*) FROM Events"));
        db.reset();
        EXPECT_GT(dir.read("Db").size(), 2500000u);
        return stored;
    }
    static void recordMilliseconds(const char* name, std::chrono::nanoseconds time) {
        RecordProperty(name, static_cast<int>(time / std::chrono::milliseconds(1)));
    }
    std::string withPage(std::size_t page, char filler) {
        std::string damaged = sound;
        std::minstd_rand random(static_cast<unsigned int>(page + 1));
        for (std::size_t i = page * kPage; i < (page + 1) * kPage; ++i) {
            damaged[i] = filler == 'r' ? static_cast<char>(random() >> 8) : filler;
        }
        return damaged;
    }

    std::string sound;
    std::string token;
    std::string lines;
    std::chrono::steady_clock::duration longest{};
};

// --- any byte may be anything ---

/// A page of zeros in any place neither disables the store nor costs more than what stood on it.
TEST_F(DBDamageTest, APageOfZerosInAnyPlaceCostsWhatStoodOnIt) {
    fill();
    const std::size_t pages = sound.size() / kPage;
    ASSERT_GT(pages, 30u);
    int whole = 0;
    for (std::size_t page = 0; page < pages; ++page) {
        for (const bool atStart : {true, false}) {
            const auto found = runOn(withPage(page, '\0'), atStart);
            startAgain();
            expectSound("page " + std::to_string(page) + lines);
            // Only the first page, and the root of the events, have all of them below.
            if (found.size() > kEvents - 30) ++whole;
        }
    }
    EXPECT_GE(whole, static_cast<int>(pages - 2) * 2);
    EXPECT_LT(longest, kBound);
}

/// Garbage in the place of any page ends the same way.
TEST_F(DBDamageTest, APageOfGarbageInAnyPlaceIsSurvived) {
    fill();
    for (std::size_t page = 0; page < sound.size() / kPage; ++page) {
        for (const char filler : {'r', '\xff'}) {
            runOn(withPage(page, filler), page % 2 == 0);
            startAgain();
            expectSound("page " + std::to_string(page) + lines);
        }
    }
    EXPECT_LT(longest, kBound);
}

/// Bits that flip in any place end the same way, or are not noticed.
TEST_F(DBDamageTest, FlippedBitsAreSurvived) {
    fill();
    std::minstd_rand random(17);
    for (int i = 0; i < 200; ++i) {
        std::string damaged = sound;
        // Half of them where SQLite keeps its own things: at the beginning of a page.
        const std::size_t page = random() % (sound.size() / kPage);
        const std::size_t offset = random() % (i % 2 == 0 ? kPage : 100);
        damaged[page * kPage + offset] =
            static_cast<char>(damaged[page * kPage + offset] ^ (1 << (random() % 8)));
        runOn(damaged, true);
        db.reset();
        EXPECT_EQ(value("SELECT COUNT(*) FROM Events WHERE data='{\"n\": \"after\"}'"), "1")
            << page << " " << offset << lines;
    }
    EXPECT_LT(longest, kBound);
}

/// A file that ends anywhere is survived.
TEST_F(DBDamageTest, ATruncatedFileIsSurvived) {
    fill();
    for (std::size_t size = 0; size < sound.size(); size += 512) {
        const auto found = runOn(sound.substr(0, size), true);
        expectSound(std::to_string(size) + lines);
        if (size > 14 * kPage) {
            EXPECT_GT(found.size(), 20u) << size;
        }
    }
    EXPECT_LT(longest, kBound);
}

// --- what is carried over ---

/// What can be read of all tables is carried over, with its ROWIDs; the identity stays.
TEST_F(DBDamageTest, AllTablesAreCarriedOverAndTheIdentityStays) {
    fill();
    dir.write("Db", withPage(sound.size() / kPage - 1, '\0'));
    OutputCapture capture;
    db = std::make_unique<DB>();
    db->open(path, true);
    capture.stop();
    EXPECT_NE(capture.errWithoutPrefixes().find("kivDB: Damaged database replaced, carried over: "),
              std::string::npos);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Files"), "20");
    EXPECT_EQ(value("SELECT COUNT(*) FROM TimeOffsets"), "20");
    EXPECT_EQ(value("SELECT COUNT(*) FROM OpTimes"), "20");
    EXPECT_EQ(rows("SELECT * FROM Location"), Texts{"1|1.0|2.0|ip|city|region|NL"});
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events WHERE ROWID=kernelTime+1"),
              value("SELECT COUNT(*) FROM Events"));
    EXPECT_EQ(dir.read("dbuuid.json"), token);
    EXPECT_TRUE(DB::m_dbError) << "it is reported";
    EXPECT_EQ(DB::lastErrorMessage().find("Damaged database replaced"), 0u);
    EXPECT_TRUE(dir.has("Db.damaged"));
    EXPECT_FALSE(dir.has("Db.new"));
}

/// Only rows of the right types whose text is a JSON object are carried over.
TEST_F(DBDamageTest, OnlySoundRowsAreCarriedOver) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{\"good\": 1}");
    aside(
        "INSERT INTO Events VALUES('x',1,1,'t',0,'{}'),(1,NULL,1,'t',0,'{}'),(1,1,2,x'74',0,'{}'),"
        "(1,1,1,'t',0,'no JSON'),(1,1,1,'t',0,'[1]'),(1,1,1,'t',0,x'7b7d'),(1,1,1,'t',0,NULL),"
        "(1,1,7,'t',0,'{\"good\": 2}')");
    aside(
        "INSERT INTO Files VALUES('a','/a',0,0,0,'no JSON'),('b','/b',0,0,0,NULL),"
        "(NULL,'/c',0,0,0,NULL)");
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    db->getNumberOfFiles();
    capture.stop();
    EXPECT_EQ(storedData(), (Texts{"{\"good\": 1}", "{\"good\": 2}"}));
    EXPECT_EQ(rows("SELECT id FROM Files"), Texts{"b"});
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Damaged database replaced, carried over: 2 events, 1 files, 0 other rows; "
              "the old one is " +
                  path + ".damaged\n");
}

/// A flipped bit in the text of a table leaves a file that SQLite finds sound: it is replaced all
/// the same, as it could take no row any more, and costs no event.
TEST_F(DBDamageTest, AFlippedBitInTheTextOfATableCostsNoEvent) {
    fill();
    for (const std::string& table :
         Texts{"Events(", "Files(", "TimeOffsets(", "OpTimes(", "Location("}) {
        for (const bool atStart : {true, false}) {
            std::string damaged = sound;
            const std::size_t place = damaged.find("CREATE TABLE " + table);
            ASSERT_NE(place, std::string::npos);
            damaged[damaged.find('(', place) + 1] ^= 1;  // the first letter of the first column
            EXPECT_EQ(runOn(damaged, atStart).size(), kEvents + 1u) << table;
            EXPECT_TRUE(dir.has("Db.damaged")) << table;
            // lost.
            EXPECT_EQ(value("SELECT COUNT(*) FROM Files"), "20") << table;
            EXPECT_EQ(value("SELECT city FROM Location"), "city") << table;
            startAgain();
            expectSound(table);
        }
    }
}

/// A table whose place something else has taken is made by replacing the file.
TEST_F(DBDamageTest, AViewInThePlaceOfATableIsReplaced) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    aside("DROP TABLE Files; CREATE VIEW Files AS SELECT 1 AS id");
    OutputCapture capture;
    db = std::make_unique<DB>();
    openStore();
    EXPECT_TRUE(db->addFile("a", "/a", ""));
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "1");
    EXPECT_EQ(rows("SELECT id FROM Files"), Texts{"a"});
}

/// A file out of which nothing can be read is a new store, with a new identity.
TEST_F(DBDamageTest, AStoreWithoutAnyRowLeftGetsANewIdentity) {
    fill();
    dir.write("Db", withPage(0, '\0'));
    OutputCapture capture;
    db = std::make_unique<DB>();
    db->open(path, true);
    EXPECT_NE(dir.read("dbuuid.json"), token);
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "0");
}

/// A file of version 1 is carried over, too.
TEST_F(DBDamageTest, FilesOfVersion1AreCarriedOver) {
    aside(
        "CREATE TABLE Files(id TEXT PRIMARY KEY, url TEXT, status INT, retries INT, "
        "lastfail INT); INSERT INTO Files VALUES('a','/tmp/a',0,4,17); PRAGMA user_version = 1");
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    openStore();
    SqlFiles::noteDamage(path);
    db->getNumberOfFiles();
    EXPECT_EQ(rows("SELECT * FROM Files"), Texts{"a|/tmp/a|0|4|17|NULL"});
}

// --- while the daemon runs ---

/// Every store of the process goes on with the new file, whoever found the damage.
TEST_F(DBDamageTest, EveryStoreOfTheProcessGoesOn) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    DB other;
    other.open(path, false);
    other.addFile("a", "/a", "");
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    EXPECT_EQ(other.getNumberOfFiles(), 1);
    EXPECT_TRUE(dir.has("Db.damaged"));
    db->addEvent(1, 1, 2, "t", "{}");
    other.addEvent(1, 1, 3, "t", "{}");
    capture.stop();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "3");
    EXPECT_EQ(db->totalEventSize(), 10);
    EXPECT_FALSE(SqlFiles::isDamaged(path));
}

/// The error of a damaged store stays, over successful inserts, until the store is asked.
TEST_F(DBDamageTest, TheErrorStaysUntilTheStoreIsAsked) {
    openStore();
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    db->addEvent(1, 1, 1, "t", "{}");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_TRUE(db->works());
    EXPECT_FALSE(DB::m_dbError);
    db->checkErrorCondition("another");
    db->addEvent(1, 1, 1, "t", "{}");
    EXPECT_FALSE(DB::m_dbError);
}

/// A damaged page that a cursor meets is noted; the store is replaced once the cursor is closed,
/// and what it marked is deleted from the new one.
TEST_F(DBDamageTest, ACursorThatMeetsDamageIsServedToItsEnd) {
    fill();
    dir.write("Db", withPage(20, '\xee'));
    db = std::make_unique<DB>();
    OutputCapture capture;
    db->open(path, false);
    DB::EventSet set(path, "SELECT ROWID,data FROM Events");
    int read = 0;
    while (!set.getNextAndMark().empty()) ++read;
    EXPECT_GT(read, 100);
    EXPECT_TRUE(SqlFiles::isDamaged(path));
    db->getNumberOfFiles();
    EXPECT_FALSE(dir.has("Db.damaged")) << "the cursor is open";
    set.close();
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    capture.stop();
    EXPECT_TRUE(dir.has("Db.damaged"));
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events WHERE kernelTime<" + std::to_string(read)), "0");
    EXPECT_NE(value("SELECT COUNT(*) FROM Events"), "0");
}

/// A mark of a row that the damage took does not delete the new event that got its ROWID.
TEST_F(DBDamageTest, AMarkOfALostRowDeletesNoNewEvent) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{\"kept\": 1}");
    aside("INSERT INTO Events VALUES(1,1,2,'t',0,'not carried over')");
    DB::EventSet set = db->getEvents(false);
    while (!set.getNextAndMark().empty()) continue;
    ASSERT_EQ(set.getReturnedRows(), (std::vector<long>{1, 2}));
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    db->addEvent(1, 1, 3, "t", "{\"new\": 1}");
    EXPECT_EQ(value("SELECT ROWID FROM Events WHERE kernelTime=3"), "2");
    EXPECT_TRUE(db->deleteMarkedEvents(set));
    EXPECT_EQ(storedData(), Texts{"{\"new\": 1}"});
}

/// Threads with stores and cursors of their own go on while the file is replaced under them, again
/// and again.
TEST_F(DBDamageTest, ThreadsGoOnWhileTheFileIsReplacedUnderThem) {
    constexpr int kThreads = 3;
    constexpr int kRounds = 60;
    openStore();
    OutputCapture capture;
    std::atomic<int> stored{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t, &stored] {
            for (int i = 0; i < kRounds; ++i) {
                DB own;
                own.open(path, false);
                std::vector<DB::NewEvent> events = {{t, 1, i, "t", "{}"}};
                while (!events.empty()) {
                    std::size_t taken = 0;
                    own.addEvents(events, taken);
                    if (taken == 1) events.clear();
                    DBPeer::letTimePassSinceOpening(own, std::chrono::seconds(6));
                }
                ++stored;
                DB::EventSet set = own.getEvents(false);
                for (int step = 0; step < 3; ++step) set.getNextAndMark();
            }
        });
    }
    while (stored < kThreads * kRounds) {
        // Long ago each time, so that all of it is carried over.
        StoreRescuePeer::letTimePass(std::chrono::minutes(2));
        SqlFiles::noteDamage(path);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (auto& thread : threads) thread.join();
    db->getNumberOfFiles();
    capture.stop();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), std::to_string(kThreads * kRounds));
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    EXPECT_TRUE(dir.has("Db.damaged"));
}

/// Amid an operation nothing is replaced.
TEST_F(DBDamageTest, AmidATransactionNothingIsReplaced) {
    openStore();
    onStore("BEGIN; INSERT INTO Events VALUES(1,1,1,'t',0,'{}')");
    SqlFiles::noteDamage(path);
    EXPECT_EQ(db->getOldestEvent(), "{}");
    EXPECT_FALSE(dir.has("Db.damaged"));
    onStore("COMMIT");
    OutputCapture capture;
    EXPECT_EQ(db->getOldestEvent(), "{}");
    EXPECT_TRUE(dir.has("Db.damaged"));
}

// --- not endless ---

/// A store that is damaged again within a minute is replaced by an empty one; later it is carried
/// over again.
TEST_F(DBDamageTest, ASecondDamageWithinAMinuteIsNotCarriedOver) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    OutputCapture capture;
    const auto damage = [this] {
        SqlFiles::noteDamage(path);
        return db->getNumberOfFiles();
    };
    damage();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "1");
    damage();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "1") << "not more often than every 5 s";
    StoreRescuePeer::letTimePass(std::chrono::seconds(6));
    damage();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "0");
    db->addEvent(1, 1, 1, "t", "{}");
    StoreRescuePeer::letTimePass(std::chrono::seconds(61));
    damage();
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "1");
}

/// A replacement that fails leaves the old file, counts as a failing store, and is tried again.
TEST_F(DBDamageTest, AReplacementThatFailsLeavesTheOldFile) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    {
        DiskWatch disk;
        disk.fileSyncError = ENOSPC;
        EXPECT_EQ(db->getOldestEvent(), "{}");
    }
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: Can't replace damaged database " + path +
                  ": cannot sync the new file: No space left on device\n");
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_FALSE(dir.has("Db.damaged"));
    EXPECT_FALSE(dir.has("Db.new"));
    db->getOldestEvent();
    EXPECT_FALSE(dir.has("Db.damaged")) << "not more often than every 5 s";
    StoreRescuePeer::letTimePass(std::chrono::seconds(6));
    EXPECT_EQ(db->getOldestEvent(), "{}");
    EXPECT_TRUE(dir.has("Db.damaged"));
}

/// On a full disk the damaged file stays as it was until there is room.
TEST_F(DBDamageTest, AFullDiskKeepsTheDamagedFile) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    fill();
    std::ofstream(disk.file("Db"), std::ios::binary) << withPage(20, '\0');
    path = disk.file("Db");
    disk.fill();
    const std::string before = TempDir::readFile(path);
    OutputCapture capture;
    db = std::make_unique<DB>();
    db->open(path, true);
    EXPECT_EQ(TempDir::readFile(path), before);
    disk.free();
    StoreRescuePeer::letTimePass(std::chrono::seconds(6));
    DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(6));
    EXPECT_EQ(db->getOldestEvent(), "") << "damage is met";
    EXPECT_NE(db->getOldestEvent(), "");
    capture.stop();
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    EXPECT_GT(std::stoi(value("SELECT COUNT(*) FROM Events")), kEvents - 30);
}

/// Another process's lock delays the replacement and costs no row.
TEST_F(DBDamageTest, AForeignLockDelaysTheReplacement) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    useRollbackJournal();
    PlainDatabase locker(path);
    locker.run("BEGIN EXCLUSIVE");
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    db->getNumberOfFiles();
    EXPECT_FALSE(dir.has("Db.damaged"));
    locker.run("ROLLBACK");
    StoreRescuePeer::letTimePass(std::chrono::seconds(6));
    DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(6));
    db->getNumberOfFiles();
    capture.stop();
    SCOPED_TRACE(capture.err());
    EXPECT_TRUE(dir.has("Db.damaged"));
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "1");
}

/// A full store of 3 MiB is carried over well within a second.
TEST_F(DBDamageTest, AFullStoreIsCarriedOverInTime) {
    const int stored = fillWholly();
    db = std::make_unique<DB>();
    openStore();
    SqlFiles::noteDamage(path);
    OutputCapture capture;
    const auto begin = worked();
    db->getNumberOfFiles();
    const auto time = worked() - begin;
    capture.stop();
    recordMilliseconds("milliseconds", time);
    EXPECT_LT(time, kMostWork);
    EXPECT_EQ(std::stoi(value("SELECT COUNT(*) FROM Events")), stored);
}

/// So is one that is damaged all over: every second page, a bit of each page, any bytes of it.
TEST_F(DBDamageTest, AFullStoreThatIsDamagedAllOverIsReplacedInTime) {
    fillWholly();
    const std::string whole = dir.read("Db");
    using Damage = void (*)(std::string&, std::size_t, std::minstd_rand&);
    const std::vector<std::pair<const char*, Damage>> damages = {
        {"zeros",
         [](std::string& file, std::size_t page, std::minstd_rand&) {
             if (page % (2 * kPage) == 0) file.replace(page, kPage, std::string(kPage, '\0'));
         }},
        {"header",
         [](std::string& file, std::size_t page, std::minstd_rand& random) {
             char& byte = file[page + random() % 12];
             byte = static_cast<char>(byte ^ (1 << (random() % 8)));
         }},
        {"bytes",
         [](std::string& file, std::size_t page, std::minstd_rand& random) {
             for (int i = 0; i < 8; ++i) {
                 file[page + random() % kPage] = static_cast<char>(random() >> 8);
             }
         }},
    };
    for (const auto& [name, damage] : damages) {
        std::minstd_rand random(5);
        std::string damaged = whole;
        for (std::size_t page = 8 * kPage; page + kPage <= damaged.size(); page += kPage) {
            damage(damaged, page, random);
        }
        for (const char* suffix : {"-wal", "-shm", ".damaged"}) {
            ::unlink((path + suffix).c_str());
        }
        dir.write("Db", damaged);
        StoreRescuePeer::forgetAttempts();
        SqlFiles::forgetAll();
        OutputCapture capture;
        db = std::make_unique<DB>();
        const auto begin = worked();
        db->open(path, true);
        add("{\"n\": \"after\"}");
        const auto time = worked() - begin;
        capture.stop();
        recordMilliseconds(name, time);
        EXPECT_LT(time, kMostWork) << name;
        EXPECT_TRUE(dir.has("Db.damaged")) << name << capture.err();
        expectSound(name);
    }
}

}  // namespace
