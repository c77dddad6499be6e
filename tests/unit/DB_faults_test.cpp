#include "DB.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cerrno>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "DBToken.h"
#include "Descriptor.h"
#include "EventSet.h"
#include "JsonObject.h"
#include "SqlStatement.h"
#include "support/DBTokenPeer.h"
#include "support/SmallDisk.h"
#include "support/StoreFaults.h"
#include "support/StoreTest.h"

namespace {

using Call = StoreFaults::Call;

/// A store on a disk that fails now and then.
class DBFaultsTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        DBToken::setDBUUIDPath(dir.path());
    }

    static std::vector<DB::NewEvent> events(int first, int count) {
        std::vector<DB::NewEvent> made;
        for (int i = first; i < first + count; ++i) {
            made.push_back({1, 1, i, "t", "{\"n\": " + std::to_string(i) + "}"});
        }
        return made;
    }
    /// Adds events as their owner does, who keeps what is not taken. @return how many were taken
    std::size_t add(std::vector<DB::NewEvent>& waiting) {
        std::size_t taken = 0;
        db->addEvents(waiting, taken);
        waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(taken));
        return taken;
    }
    /// A store with one event, as a power cut leaves it: what is in the log has not gone into the
    /// database, where it needs no more room, and the index is gone.
    void leaveALogBehind() {
        openStore();
        db->addEvent(1, 1, 0, "t", "{}");
        onStore("PRAGMA wal_checkpoint(TRUNCATE)");
        for (int i = 0; i < 10; ++i) onStore("UPDATE Events SET status=1-status");
        for (const char* end : {"", "-wal"}) {
            std::filesystem::copy_file(path + end, dir.file("Kept") + end,
                                       std::filesystem::copy_options::overwrite_existing);
        }
        db = std::make_unique<DB>();
        for (const char* end : {"", "-wal"}) {
            std::filesystem::copy_file(dir.file("Kept") + end, path + end,
                                       std::filesystem::copy_options::overwrite_existing);
        }
    }
    /// @return whether that is possible here
    static bool setImmutable(const std::string& file, bool immutable) {
        const Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
        int flags = 0;
        if (::ioctl(opened.get(), FS_IOC_GETFLAGS, &flags) != 0) return false;
        flags = immutable ? flags | FS_IMMUTABLE_FL : flags & ~FS_IMMUTABLE_FL;
        return ::ioctl(opened.get(), FS_IOC_SETFLAGS, &flags) == 0;
    }
    void sixSecondsLater() { DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(6)); }
    std::string count() { return value("SELECT COUNT(*) FROM Events"); }
    std::string uniqueCount() { return value("SELECT COUNT(DISTINCT kernelTime) FROM Events"); }
};

// --- a store that cannot be opened ---

/// A store whose directory appears late is opened by the first operation 5 s after the failure.
TEST_F(DBFaultsTest, ADirectoryThatAppearsLateIsFound) {
    path = dir.file("late/Db");
    OutputCapture capture;
    openStore();
    auto waiting = events(0, 3);
    EXPECT_EQ(add(waiting), 0u);
    ::mkdir(dir.file("late").c_str(), 0755);
    EXPECT_EQ(add(waiting), 0u) << "not more often than every 5 s";
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    capture.stop();
    const std::string noStore =
        "kivDB: SQL error (begin transaction): bad parameter or other API misuse\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: Can't open database " + path +
                                                ": unable to open database file\n" + noStore +
                                                noStore);
    EXPECT_EQ(count(), "3");
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_FALSE(DB::m_dbError);
}

/// Each operation opens a store that was not there, reading ones too.
TEST_F(DBFaultsTest, AReadingOperationOpensItToo) {
    path = dir.file("late/Db");
    OutputCapture capture;
    openStore();
    ::mkdir(dir.file("late").c_str(), 0755);
    sixSecondsLater();
    EXPECT_EQ(db->getNumberOfFiles(), 0);
    capture.stop();
    EXPECT_EQ(value("PRAGMA user_version"), "2");
}

/// An I/O error at the opening passes.
TEST_F(DBFaultsTest, AnErrorAtTheOpeningPasses) {
    for (const Call call : {Call::Open, Call::Read, Call::Write, Call::Sync}) {
        db = std::make_unique<DB>();
        path = dir.file("Db" + std::to_string(static_cast<int>(call)));
        OutputCapture capture;
        auto waiting = events(0, 3);
        {
            StoreFaults faults;
            faults.failEach(call, call == Call::Write ? ENOSPC : EIO);
            openStore();
            EXPECT_EQ(add(waiting), 0u);
        }
        sixSecondsLater();
        EXPECT_EQ(add(waiting), 3u) << static_cast<int>(call);
        capture.stop();
        SCOPED_TRACE(capture.err());
        EXPECT_EQ(count(), "3");
        EXPECT_EQ(value("PRAGMA user_version"), "2");
        EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    }
}

/// A version that cannot be read makes no new identity, however often it is tried; a new file gets
/// one, once.
TEST_F(DBFaultsTest, OnlyAVersionThatWasReadMakesAnIdentity) {
    openStore();
    db->addEvent(1, 1, 1, "t", "{}");
    const std::string token = dir.read("dbuuid.json");
    useRollbackJournal();  // with a log nothing bars a reader
    db = std::make_unique<DB>();
    PlainDatabase locker(path);
    locker.run("BEGIN EXCLUSIVE");
    OutputCapture capture;
    openStore();
    locker.run("ROLLBACK");
    EXPECT_NE(capture.err().find("SQL error (user_version): database is locked"),
              std::string::npos);
    sixSecondsLater();
    EXPECT_EQ(db->getOldestEvent(), "{}");
    capture.stop();
    EXPECT_EQ(dir.read("dbuuid.json"), token);
}

/// A new file that cannot be completed at once gets one identity.
TEST_F(DBFaultsTest, ANewFileGetsOneIdentityHoweverOftenItsMakingIsTried) {
    OutputCapture capture;
    std::string token;
    {
        StoreFaults faults;
        faults.failEach(Call::Sync, EIO);
        openStore();
        token = dir.read("dbuuid.json");
        for (int i = 0; i < 3; ++i) {
            sixSecondsLater();
            db->getNumberOfFiles();
        }
    }
    sixSecondsLater();
    db->getNumberOfFiles();
    capture.stop();
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    ASSERT_NE(token, "");
    EXPECT_EQ(dir.read("dbuuid.json"), token);
}

// --- calls that fail while it runs ---

/// An error at any single call of a batch, of any kind, loses no event and doubles none.
TEST_F(DBFaultsTest, AnErrorAtAnySingleCallLosesNoEvent) {
    openStore();
    OutputCapture capture;
    int added = 0;
    for (const auto& [call, error] : std::vector<std::pair<Call, int>>{{Call::Write, EIO},
                                                                       {Call::Write, ENOSPC},
                                                                       {Call::Sync, EIO},
                                                                       {Call::Sync, ENOSPC},
                                                                       {Call::Read, EIO},
                                                                       {Call::Open, EIO}}) {
        // A connection that is warm opens and reads nothing.
        const bool opensAgain = call == Call::Read || call == Call::Open;
        int struck = 0;
        for (int number = 1; number <= 40; ++number) {
            auto waiting = events(added, 5);
            added += 5;
            StoreFaults faults;
            faults.failOnce(call, error, number);
            if (opensAgain) openStore();
            for (int attempt = 0; attempt < 5 && !waiting.empty(); ++attempt) {
                add(waiting);
                sixSecondsLater();
            }
            EXPECT_TRUE(waiting.empty()) << static_cast<int>(call) << " " << number;
            if (faults.count(call) < number) break;  // there is no further call
            ++struck;
        }
        EXPECT_GE(struck, 1) << static_cast<int>(call) << " " << error;
        EXPECT_LT(struck, 40) << "each of its calls was met";
    }
    capture.stop();
    EXPECT_EQ(count(), std::to_string(added));
    EXPECT_EQ(uniqueCount(), std::to_string(added));
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    EXPECT_FALSE(SqlFiles::isDamaged(path));
}

/// While the disk is full nothing is taken, and the store says that it fails; with room again
/// everything goes on.
TEST_F(DBFaultsTest, AFullDiskTakesNothingUntilThereIsRoom) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    path = disk.file("Db");
    openStore();
    disk.fill();
    OutputCapture capture;
    auto waiting = events(0, 256);
    for (auto& event : waiting) event.data = "{\"t\": \"" + std::string(300, 'x') + "\"}";
    while (add(waiting) > 0) continue;
    EXPECT_FALSE(waiting.empty());
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_FALSE(db->works());
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_FALSE(db->addOverflowEvent({{{1, 1}, 1}, {{1, 1}, 2}}));
    disk.free();
    EXPECT_TRUE(db->works());
    EXPECT_FALSE(DB::m_dbError);
    add(waiting);
    capture.stop();
    EXPECT_TRUE(waiting.empty());
    EXPECT_EQ(count(), "256");
    EXPECT_EQ(uniqueCount(), "256");
}

/// A disk that is full at the start comes up once there is room.
TEST_F(DBFaultsTest, ADiskThatIsFullAtTheStartComesUp) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    path = disk.file("Db");
    disk.fill();
    OutputCapture capture;
    db->open(path, true);
    auto waiting = events(0, 3);
    EXPECT_EQ(add(waiting), 0u);
    disk.free();
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    capture.stop();
    EXPECT_EQ(count(), "3");
    EXPECT_EQ(value("PRAGMA user_version"), "2");
    EXPECT_EQ(value("PRAGMA journal_mode"), "wal");
}

/// A log that is there stays the store's log, though at the start there is no room for its index.
TEST_F(DBFaultsTest, ALogStaysThoughThereIsNoRoomForItsIndexAtTheStart) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    path = disk.file("Db");
    leaveALogBehind();
    disk.fill();
    OutputCapture capture;
    db = std::make_unique<DB>();
    db->open(path, true);
    auto waiting = events(1, 3);
    EXPECT_EQ(add(waiting), 0u);
    disk.free();
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    capture.stop();
    EXPECT_EQ(count(), "4");
    EXPECT_EQ(value("PRAGMA journal_mode"), "wal");
    EXPECT_FALSE(SqlFiles::refusesWal(path));
}

/// An index that cannot be mapped for want of memory or room is no refusal: the log stays.
TEST_F(DBFaultsTest, WantOfMemoryForTheIndexIsNoRefusal) {
    for (const int error : {ENOMEM, ENOSPC, EIO}) {
        path = dir.file("Db" + std::to_string(error));
        leaveALogBehind();
        db = std::make_unique<DB>();
        OutputCapture capture;
        auto waiting = events(1, 3);
        {
            StoreFaults faults;
            faults.failEach(Call::Map, error);
            openStore();
            EXPECT_EQ(add(waiting), 0u) << error;
        }
        sixSecondsLater();
        EXPECT_EQ(add(waiting), 3u) << error;
        capture.stop();
        EXPECT_EQ(count(), "4") << error;
        EXPECT_EQ(value("PRAGMA journal_mode"), "wal") << error;
        EXPECT_FALSE(SqlFiles::refusesWal(path)) << error;
    }
}

/// A store that nobody may change is not taken for damaged, and takes events again afterwards.
TEST_F(DBFaultsTest, AnImmutableFilePasses) {
    openStore();
    db->addEvent(1, 1, 0, "t", "{}");
    const std::string token = dir.read("dbuuid.json");
    db.reset();
    if (!setImmutable(path, true)) GTEST_SKIP() << "no right to make a file immutable here";
    db = std::make_unique<DB>();
    OutputCapture capture;
    db->open(path, true);
    auto waiting = events(1, 3);
    const std::size_t meanwhile = add(waiting);
    const std::string oldest = db->getOldestEvent();
    ASSERT_TRUE(setImmutable(path, false));
    EXPECT_EQ(meanwhile, 0u);
    EXPECT_EQ(oldest, "{}") << "it can be read";
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    capture.stop();
    EXPECT_EQ(count(), "4");
    EXPECT_EQ(dir.read("dbuuid.json"), token);
    EXPECT_FALSE(dir.has("Db.damaged"));
    EXPECT_EQ(value("PRAGMA journal_mode"), "wal");
}

/// A store on a disk that is read-only for a while can be read, keeps its rows, and takes events
/// again afterwards.
TEST_F(DBFaultsTest, AReadOnlyDiskPasses) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    path = disk.file("Db");
    openStore();
    db->addEvent(1, 1, 0, "t", "{}");
    const std::string token = dir.read("dbuuid.json");
    db.reset();
    ASSERT_TRUE(disk.makeReadOnly(true));
    db = std::make_unique<DB>();
    OutputCapture capture;
    openStore();
    auto waiting = events(1, 3);
    EXPECT_EQ(add(waiting), 0u);
    EXPECT_EQ(db->getOldestEvent(), "{}") << "it can be read";
    ASSERT_TRUE(disk.makeReadOnly(false));
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    capture.stop();
    EXPECT_EQ(count(), "4");
    EXPECT_EQ(dir.read("dbuuid.json"), token);
}

/// It takes events again also where other connections of the process have the log open: what they
/// share was opened read-only, and must not stay.
TEST_F(DBFaultsTest, AReadOnlyDiskPassesForAllConnections) {
    const SmallDisk disk(dir.file("disk"), "size=512k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    path = disk.file("Db");
    openStore();
    db->addEvent(1, 1, 0, "t", "{}");
    // As after a kill: the log has not gone into the database.
    for (const char* end : {"", "-wal", "-shm"}) {
        std::filesystem::copy_file(path + end, dir.file("Kept") + end);
    }
    db.reset();
    for (const char* end : {"", "-wal", "-shm"}) {
        std::filesystem::copy_file(dir.file("Kept") + end, path + end,
                                   std::filesystem::copy_options::overwrite_existing);
    }
    ASSERT_TRUE(disk.makeReadOnly(true));
    db = std::make_unique<DB>();
    OutputCapture capture;
    openStore();
    DB other;
    other.open(path, false);
    auto waiting = events(1, 3);
    EXPECT_EQ(add(waiting), 0u);
    EXPECT_EQ(other.getOldestEvent(), "{}");
    ASSERT_TRUE(disk.makeReadOnly(false));
    sixSecondsLater();
    EXPECT_EQ(add(waiting), 3u);
    EXPECT_EQ(other.getNumberOfFiles(), 0);
    capture.stop();
    EXPECT_EQ(count(), "4");
}

/// A file system on which the log's index cannot be mapped gets a rollback journal, whatever the
/// file had before.
TEST_F(DBFaultsTest, WithoutSharedMappingsThereIsARollbackJournal) {
    for (const bool existsAlready : {false, true}) {
        path = dir.file(existsAlready ? "Old" : "New");
        if (existsAlready) {
            openStore();
            db->addEvent(1, 1, 0, "t", "{}");
        }
        db = std::make_unique<DB>();
        StoreFaults faults;
        faults.failEach(Call::Map, ENODEV);
        OutputCapture capture;
        openStore();
        auto waiting = events(1, 3);
        EXPECT_EQ(add(waiting), 3u);
        EXPECT_EQ(db->getEvents(false).isActive(), true);
        capture.stop();
        EXPECT_EQ(capture.err(), "");
        EXPECT_EQ(value("PRAGMA journal_mode"), "delete");
        EXPECT_EQ(count(), existsAlready ? "4" : "3");
        SqlStatement synchronous(DBPeer::connection(*db), "PRAGMA synchronous");
        ASSERT_EQ(synchronous.step(), SQLITE_ROW);
        EXPECT_EQ(synchronous.columnInt64(0), 3) << "EXTRA";
    }
}

// --- locks of other processes ---

/// Another process's lock of a second delays a batch; a longer one leaves it to its owner.
TEST_F(DBFaultsTest, ALockThatEndsInTimeOnlyDelays) {
    openStore();
    std::thread other([this] {
        PlainDatabase locker(path);
        locker.run("BEGIN IMMEDIATE");
        std::this_thread::sleep_for(std::chrono::milliseconds(700));
        locker.run("ROLLBACK");
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    OutputCapture capture;
    auto waiting = events(0, 3);
    EXPECT_EQ(add(waiting), 3u);
    other.join();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

// --- the interface for those who keep what is not taken ---

/// An overflow event that is handed in names its range at its lowest moment and counts.
TEST_F(DBFaultsTest, AnOverflowEventNamesTheRangeThatWasDropped) {
    openStore();
    db->addEvent(2, 0, 9, "t", "{}");
    DB::m_dbError = true;
    EXPECT_TRUE(db->addOverflowEvent({{{1, 2}, 3}, {{1, 4}, 5}}));
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_EQ(rows("SELECT bootCount,standbyCount,kernelTime,type,status FROM Events "
                   "ORDER BY bootCount LIMIT 1"),
              Texts{"1|2|3|logging.overflow|0"});
    const JsonObject data = JsonObject::parse(db->getOldestEvent()).getObject("data");
    EXPECT_EQ(data.dumpAsString(),
              "{\"lowest-boot-count\": 1, \"lowest-standby-count\": 2, \"lowest-kernel-time\": 3, "
              "\"highest-boot-count\": 1, \"highest-standby-count\": 4, "
              "\"highest-kernel-time\": 5}");
    EXPECT_EQ(DB::m_TotalEventSize, std::stol(value("SELECT SUM(length(data)+1)+1 FROM Events")));
}

/// An overflow event above the threshold is pruned for, as any other.
TEST_F(DBFaultsTest, AnOverflowEventAboveTheThresholdStartsAPruner) {
    openStore();
    DBPeer::setPruneSizes(*db, 100, 90);
    EXPECT_TRUE(db->addOverflowEvent({{{1, 2}, 3}, {{1, 4}, 5}}));
    DBPeer::waitForPruners(*db);
    EXPECT_EQ(value("SELECT type FROM Events"), "logging.overflow");
}

/// A store that works says so, clears the error, and has nothing of the question left.
TEST_F(DBFaultsTest, AStoreThatWorksSaysSoAndClearsTheError) {
    openStore();
    DB::m_dbError = true;
    EXPECT_TRUE(db->works());
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_EQ(count(), "0");
    EXPECT_EQ(db->addEvent(1, 1, 1, "t", "x"), 3);
}

/// A store that fails says so and leaves the error as it is recorded.
TEST_F(DBFaultsTest, AStoreThatFailsSaysSo) {
    openStore();
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    EXPECT_FALSE(db->works());
    capture.stop();
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_EQ(DB::lastErrorMessage(), "database is locked");
    EXPECT_FALSE(DB().works()) << "nothing is open";
}

// --- settings ---

/// Every connection has the log, its sync, and what keeps it small.
TEST_F(DBFaultsTest, EveryConnectionHasTheLogAndItsSettings) {
    openStore();
    const auto pragma = [this](const std::string& name) {
        SqlStatement statement(DBPeer::connection(*db), "PRAGMA " + name);
        return statement.step() == SQLITE_ROW ? statement.columnText(0) : "?";
    };
    EXPECT_EQ(pragma("journal_mode"), "wal");
    EXPECT_EQ(pragma("synchronous"), "2");
    EXPECT_EQ(pragma("wal_autocheckpoint"), "256");
    EXPECT_EQ(pragma("journal_size_limit"), "1048576");
    EXPECT_EQ(pragma("cell_size_check"), "1");
    EXPECT_EQ(pragma("trusted_schema"), "0");
}

/// Nothing that a file brings along runs: no trigger, no view.
TEST_F(DBFaultsTest, NothingInAFileRuns) {
    openStore();
    aside("CREATE TRIGGER No BEFORE INSERT ON Events BEGIN DELETE FROM Events; END");
    db->addEvent(1, 1, 1, "t", "a");
    db->addEvent(1, 1, 2, "t", "b");
    EXPECT_EQ(storedData(), (Texts{"a", "b"}));
    aside("CREATE VIEW V AS SELECT 1");
    EXPECT_THROW(onStore("SELECT * FROM V"), std::runtime_error);
    EXPECT_THROW(onStore("PRAGMA writable_schema=ON; DELETE FROM sqlite_master"),
                 std::runtime_error);
}

/// A new store has the mode that the umask leaves of 0644.
TEST_F(DBFaultsTest, ANewStoreTakesTheUmaskIntoAccount) {
    const mode_t before = ::umask(027);
    openStore();
    ::umask(before);
    struct stat facts {};
    ASSERT_EQ(::stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_mode & 0777, 0640U);
}

/// A cursor makes no store where there is none.
TEST_F(DBFaultsTest, ACursorMakesNoStore) {
    EventSet set(dir.file("None"), "SELECT ROWID,data FROM Events");
    EXPECT_FALSE(set.isOpen());
    EXPECT_FALSE(dir.has("None"));
}

}  // namespace
