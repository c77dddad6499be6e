#include "EventTable.h"

#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "SqlStatement.h"
#include "support/PoisonedOutput.h"
#include "support/StoreTest.h"
#include "support/WaitUntil.h"

namespace {

class EventTableBatchesTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }

    static std::vector<DB::NewEvent> events(int count, const std::string& data = "e") {
        std::vector<DB::NewEvent> made;
        for (int i = 0; i < count; ++i) made.push_back({1, 1, i, "t", data + std::to_string(i)});
        return made;
    }

    bool transactionIsOpen() { return sqlite3_get_autocommit(DBPeer::connection(*db)) == 0; }
};

// --- batches ---

/// A batch is one transaction of at most 256 events.
TEST_F(EventTableBatchesTest, ABatchStoresAtMost256Events) {
    const auto all = events(600);
    std::size_t taken = 99;
    std::vector<DB::NewEvent> rest = all;
    std::vector<std::size_t> steps;
    while (!rest.empty()) {
        const long total = db->addEvents(rest, taken);
        steps.push_back(taken);
        EXPECT_EQ(total, DB::m_TotalEventSize);
        rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(taken));
    }
    EXPECT_EQ(steps, (std::vector<std::size_t>{256, 256, 88}));
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "600");
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), 600 * 2 + 10 + 90 * 2 + 500 * 3 + 1);
}

/// A batch is one transaction of at most 256 events.
TEST_F(EventTableBatchesTest, AnEmptyBatchIsNothing) {
    DB::m_TotalEventSize = 17;
    std::size_t taken = 99;
    EXPECT_EQ(db->addEvents({}, taken), 17);
    EXPECT_EQ(taken, 0u);
}

/// A batch returns what its last event would have, and ends above the threshold.
TEST_F(EventTableBatchesTest, ABatchReturnsWhatTheLastEventWouldHave) {
    std::size_t taken = 0;
    EXPECT_EQ(db->addEvents(events(3), taken), 3 * 3 + 1);
    EXPECT_EQ(taken, 3u);
}

/// A batch returns what its last event would have, and ends above the threshold.
TEST_F(EventTableBatchesTest, ABatchEndsWhenTheSizePassesTheThreshold) {
    DBPeer::setPruneSizes(*db, 100, 1000000);
    std::size_t taken = 0;
    const long total = db->addEvents(events(200, std::string(18, 'x')), taken);
    EXPECT_EQ(taken, 5u) << "1 + 5 * 20";
    EXPECT_EQ(total, 101);
    EXPECT_EQ(storedData().size(), 5u);
}

/// A batch is one transaction of at most 256 events.
TEST_F(EventTableBatchesTest, ABatchIsOneTransaction) {
    std::atomic<int> commits{0};
    sqlite3_commit_hook(
        DBPeer::connection(*db),
        [](void* counter) {
            ++*static_cast<std::atomic<int>*>(counter);
            return 0;
        },
        &commits);
    std::size_t taken = 0;
    db->addEvents(events(200), taken);
    EXPECT_EQ(commits, 1);
    db->addEvents(events(20), taken);
    EXPECT_EQ(commits, 2);
}

/// An event that fails alone in a batch fails alone.
TEST_F(EventTableBatchesTest, AnEventThatFailsAloneInABatchFailsAlone) {
    auto batch = events(5);
    batch[2].data = "it's";
    batch[4].type = "it's";
    OutputCapture capture;
    std::size_t taken = 0;
    EXPECT_EQ(db->addEvents(batch, taken), 3 * 3 + 1);
    capture.stop();
    EXPECT_EQ(taken, 5u);
    const std::string line = "kivDB: SQL error (insert event): near \"s\": syntax error\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e3"}));
}

/// A row is the same byte for byte and type for type whether its event came in a batch or alone.
TEST_F(EventTableBatchesTest, RowsOfABatchAreThoseOfSingleEvents) {
    constexpr long long kMost = std::numeric_limits<long long>::max();
    constexpr long long kLeast = std::numeric_limits<long long>::min();
    constexpr auto kBeyond = static_cast<long>(4294967295LL);  // -1 where a long has 32 bits
    constexpr auto kFirstBeyond = static_cast<long>(2147483648LL);
    const std::vector<DB::NewEvent> odd = {
        {1, 1, 1, "t", "plain"},
        {0, 0, 0, "", ""},
        {-1, -2, -3, "t", "negative"},
        {2147483647, kBeyond, kMost, "t", "large"},
        {kBeyond, kFirstBeyond, kLeast, "t", "least"},
        {1, 1, 5, "12", "34"},
        {1, 1, 6, "1e3", "0x10"},
        {1, 1, 7, "t", "NULL"},
        {1, 1, 8, "t", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"},
        {1, 1, 9, "caf\xc3\xa9", "not UTF-8: \xff\xc3("},
        {1, 1, 10, "t", R"({"a": "\u0000 \" \\ ?1 :a @a $a", "b": 1.5e300})"},
        {1, 1, 11, "t", "\"; DROP TABLE Events; -- \n\r\t\x01\x7f"},
        {1, 1, 12, "a type of more than fifteen characters", std::string(20000, 'x')},
        {1, 1, 13, "t", std::string(70000, 'y')},
        {1, 1, 14, "t", "it's"},
        {1, 1, 15, "it's", "t"},
        {1, 1, 16, "t", std::string("a\0b", 3)},
        {1, 1, 17, std::string("a\0b", 3), "t"},
        {1, 1, 18, "t", "the last"},
    };
    const std::string all =
        "SELECT ROWID,typeof(bootCount),bootCount,typeof(standbyCount),standbyCount,"
        "typeof(kernelTime),kernelTime,typeof(type),hex(type),typeof(status),status,typeof(data),"
        "hex(data) FROM Events ORDER BY ROWID";
    DB alone;
    alone.open(dir.file("Alone"), false);
    OutputCapture aloneCapture;
    DB::m_TotalEventSize = -1;
    for (const DB::NewEvent& event : odd) {
        alone.addEvent(event.bootCount, event.standbyCount, event.kernelTime, event.type,
                       event.data);
    }
    const long sizeAlone = DB::m_TotalEventSize;
    aloneCapture.stop();
    OutputCapture capture;
    DB::m_TotalEventSize = -1;
    std::size_t taken = 0;
    db->addEvents(odd, taken);
    capture.stop();
    EXPECT_EQ(taken, odd.size());
    EXPECT_EQ(rows(all), PlainDatabase(dir.file("Alone")).rows(all));
    EXPECT_EQ(rows(all).size(), odd.size() - 4);
    EXPECT_EQ(DB::m_TotalEventSize, sizeAlone);
    EXPECT_EQ(capture.errWithoutPrefixes(), aloneCapture.errWithoutPrefixes());
    EXPECT_NE(capture.err(), "");
}

/// A batch tells of each event, verbose, what a single event tells: the whole statement as text.
TEST_F(EventTableBatchesTest, ABatchTellsTheStatementOfEachEvent) {
    DB::setVerbose(true);
    std::size_t taken = 0;
    OutputCapture capture;
    db->addEvents({{3, 4, 5000000000LL, "t", "{\"a\": 1}"}, {-3, 4, 5, "", "it's"}}, taken);
    capture.stop();
    DB::setVerbose(false);
    const std::string lines = capture.outWithoutPrefixes();
    EXPECT_NE(lines.find("kivDB: Query is INSERT INTO Events (bootCount, standbyCount, kernelTime, "
                         "type, status, data) VALUES (3, 4, 5000000000, 't', 0, '{\"a\": 1}' );\n"),
              std::string::npos)
        << lines;
    EXPECT_NE(lines.find("kivDB: Query is INSERT INTO Events (bootCount, standbyCount, kernelTime, "
                         "type, status, data) VALUES (-3, 4, 5, '', 0, 'it's' );\n"),
              std::string::npos)
        << lines;
}

/// After a batch no statement is left on the connection, so that the store can be closed and
/// replaced; also after one that failed.
TEST_F(EventTableBatchesTest, ABatchLeavesNoStatementBehind) {
    std::size_t taken = 0;
    db->addEvents(events(3), taken);
    EXPECT_EQ(sqlite3_next_stmt(DBPeer::connection(*db), nullptr), nullptr);
    makeTrigger(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e1' "
        "BEGIN SELECT RAISE(ABORT,'refused'); END");
    OutputCapture capture;
    db->addEvents(events(3), taken);
    capture.stop();
    EXPECT_EQ(sqlite3_next_stmt(DBPeer::connection(*db), nullptr), nullptr);
    EXPECT_FALSE(transactionIsOpen());
}

/// A batch into a store whose table somebody took away stays with its owner, with the line of a
/// single event.
TEST_F(EventTableBatchesTest, ABatchWithoutATableStaysWithItsOwner) {
    aside("DROP TABLE Events");
    OutputCapture capture;
    std::size_t taken = 99;
    db->addEvents(events(3), taken);
    capture.stop();
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (insert event): no such table: Events\n");
    EXPECT_FALSE(transactionIsOpen());
}

/// An event that fails alone in a batch fails alone.
TEST_F(EventTableBatchesTest, AConstraintThatRefusesOneEventOfABatchCostsNoOther) {
    makeTrigger(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e1' "
        "BEGIN SELECT RAISE(ABORT,'refused'); END");
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(3), taken);
    capture.stop();
    EXPECT_EQ(taken, 3u);
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (insert event): refused\n");
    EXPECT_EQ(storedData(), (Texts{"e0", "e2"}));
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(EventTableBatchesTest, WhatAFullDatabaseTookFromABatchIsStoredSingly) {
    onStore("PRAGMA max_page_count = " + std::to_string(std::stoi(value("PRAGMA page_count")) + 4));
    std::atomic<int> calls{0};
    DB::setFullCallback([&calls] { ++calls; });
    const auto batch = events(50, std::string(1000, 'x'));
    OutputCapture capture;
    std::size_t taken = 0;
    const long total = db->addEvents(batch, taken);
    capture.stop();
    const Texts stored = storedData();
    ASSERT_GT(stored.size(), 5u);
    ASSERT_LT(stored.size(), 50u);
    EXPECT_EQ(taken, stored.size()) << "the one that did not fit may fit later";
    for (std::size_t i = 0; i < stored.size(); ++i) EXPECT_EQ(stored[i], batch[i].data);
    const std::string line = "kivDB: SQL error (insert event): database or disk is full\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(DB::m_dbError);
    EXPECT_FALSE(transactionIsOpen());
    DB::m_TotalEventSize = -1;
    EXPECT_EQ(db->totalEventSize(), total);
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(EventTableBatchesTest, ATransactionEndedBySqliteItselfLosesNoEventOfABatch) {
    makeTrigger(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e3' "
        "BEGIN SELECT RAISE(ROLLBACK,'all gone'); END");
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(6), taken);
    capture.stop();
    EXPECT_EQ(taken, 4u);
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e2"}));
    const std::string line = "kivDB: SQL error (insert event): all gone\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    EXPECT_FALSE(transactionIsOpen());
}

/// When SQLite ends the transaction or the commit fails, the batch is stored again one by one.
TEST_F(EventTableBatchesTest, AFailedCommitOfABatchIsRolledBackAndTriedSingly) {
    // Whatever transaction stores "e2" cannot be committed.
    DBPeer::allowTriggers(*db);
    onStore(
        "PRAGMA foreign_keys=ON;"
        "CREATE TABLE Parent(id INTEGER PRIMARY KEY);"
        "CREATE TABLE Child(id INTEGER REFERENCES Parent(id) DEFERRABLE INITIALLY DEFERRED);"
        "CREATE TRIGGER Orphan AFTER INSERT ON Events WHEN new.data='e2' "
        "BEGIN INSERT INTO Child VALUES(1); END;");
    int rollbacks = 0;
    sqlite3_rollback_hook(
        DBPeer::connection(*db), [](void* counter) { ++*static_cast<int*>(counter); }, &rollbacks);
    OutputCapture capture;
    std::size_t taken = 0;
    const long total = db->addEvents(events(4), taken);
    capture.stop();
    EXPECT_EQ(taken, 4u);
    // Singly, "e2" breaks its own commit only.
    EXPECT_EQ(storedData(), (Texts{"e0", "e1", "e3"}));
    EXPECT_EQ(total, 10);
    EXPECT_GE(rollbacks, 1);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (commit): FOREIGN KEY constraint failed\n"
              "kivDB: SQL error (insert event): FOREIGN KEY constraint failed\n");
    EXPECT_FALSE(transactionIsOpen());
}

/// What is stored singly does not wait for the locks of others: the batch has waited for them.
TEST_F(EventTableBatchesTest, WhatIsStoredSinglyDoesNotWaitForLocks) {
    std::vector<int> timeouts;
    const auto note = [](sqlite3_context* call, int, sqlite3_value**) {
        SqlStatement timeout(sqlite3_context_db_handle(call), "PRAGMA busy_timeout");
        timeout.step();
        static_cast<std::vector<int>*>(sqlite3_user_data(call))
            ->push_back(static_cast<int>(timeout.columnInt64(0)));
    };
    ASSERT_EQ(sqlite3_create_function_v2(DBPeer::connection(*db), "note", 0,
                                         SQLITE_UTF8 | SQLITE_INNOCUOUS, &timeouts, note, nullptr,
                                         nullptr, nullptr),
              SQLITE_OK);
    DBPeer::allowTriggers(*db);
    onStore(
        "CREATE TEMP TRIGGER Note BEFORE INSERT ON Events BEGIN "
        "SELECT note(); SELECT RAISE(ROLLBACK,'all gone') WHERE new.data='e1'; END");
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(2), taken);
    db->addEvents(events(1), taken);
    capture.stop();
    EXPECT_EQ(timeouts, (std::vector<int>{1000, 1000, 0, 0, 1000}));
}

/// A reader delays no batch, however long it reads.
TEST_F(EventTableBatchesTest, AReaderDelaysNoBatch) {
    db->addEvent(1, 1, 0, "t", "first");
    PlainDatabase other(path);
    other.run("BEGIN");
    EXPECT_EQ(other.value("SELECT COUNT(*) FROM Events"), "1");
    OutputCapture capture;
    std::size_t taken = 0;
    EXPECT_EQ(db->addEvents(events(2), taken), 7 + 6);
    capture.stop();
    EXPECT_EQ(taken, 2u);
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(other.value("SELECT COUNT(*) FROM Events"), "1") << "it goes on reading what it read";
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), "3");
}

/// Where there can only be a rollback journal, a reader delays a batch and costs no event.
TEST_F(EventTableBatchesTest, WithARollbackJournalAReaderMakesTheBatchWait) {
    useRollbackJournal();
    db->addEvent(1, 1, 0, "t", "first");
    auto reader = std::make_unique<PlainDatabase>(path);
    reader->run("BEGIN");
    reader->rows("SELECT * FROM Events");
    OutputCapture capture;
    std::size_t taken = 7;
    const long total = db->addEvents(events(2), taken);
    capture.stop();
    EXPECT_EQ(taken, 0u) << "to be tried again, nothing is lost";
    EXPECT_EQ(total, 7);
    EXPECT_EQ(capture.errWithoutPrefixes(), "kivDB: SQL error (commit): database is locked\n");
    reader.reset();
    EXPECT_EQ(storedData(), Texts{"first"});
    EXPECT_FALSE(transactionIsOpen());
    db->addEvents(events(2), taken);
    EXPECT_EQ(taken, 2u);
    EXPECT_EQ(storedData().size(), 3u);
}

/// Other readers and writers delay a batch and cost no event.
TEST_F(EventTableBatchesTest, AWriterThatBlocksTheBeginForLongMakesTheBatchWait) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    std::size_t taken = 7;
    EXPECT_EQ(db->addEvents(events(2), taken), -1);
    capture.stop();
    locker.run("ROLLBACK");
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): database is locked\n");
}

/// Other readers and writers delay a batch and cost no event.
TEST_F(EventTableBatchesTest, AReaderThatReadsForAMomentDelaysTheBatchOnly) {
    db->addEvent(1, 1, 0, "t", "first");
    std::atomic<bool> reading{false};
    std::thread reader([&] {
        PlainDatabase other(path);
        other.run("BEGIN");
        other.rows("SELECT * FROM Events");
        reading = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        other.run("ROLLBACK");
    });
    EXPECT_TRUE(WaitUntil([&] { return reading.load(); }));
    OutputCapture capture;
    std::size_t taken = 0;
    db->addEvents(events(2), taken);
    reader.join();
    capture.stop();
    EXPECT_EQ(taken, 2u);
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(storedData().size(), 3u);
}

/// Other writers delay a batch for as long as they hold the lock, and cost no event.
TEST_F(EventTableBatchesTest, AForeignLockCostsNoEventHoweverLongItLasts) {
    PlainDatabase locker(path);
    locker.run("BEGIN IMMEDIATE");
    OutputCapture capture;
    std::size_t taken = 0;
    for (int attempt = 0; attempt < 3; ++attempt) {
        DBPeer::letTimePassSinceOpening(*db, std::chrono::seconds(60));
        taken = 7;
        db->addEvents(events(2), taken);
        EXPECT_EQ(taken, 0u);
    }
    locker.run("ROLLBACK");
    db->addEvents(events(2), taken);
    capture.stop();
    EXPECT_EQ(taken, 2u);
    const std::string line = "kivDB: SQL error (begin transaction): database is locked\n";
    EXPECT_EQ(capture.errWithoutPrefixes(), line + line + line);
    EXPECT_EQ(storedData(), (Texts{"e0", "e1"}));
}

/// An exception among events that are stored singly costs that event alone.
TEST_F(EventTableBatchesTest, AnExceptionAmidSinglyStoredEventsCostsThatEventAlone) {
    makeTrigger(
        "CREATE TRIGGER No BEFORE INSERT ON Events WHEN new.data='e2' "
        "BEGIN SELECT RAISE(ROLLBACK,'all gone'); END");
    // Only what is stored singly, after the batch was rolled back, meets the poison.
    bool first = true;
    sqlite3_rollback_hook(
        DBPeer::connection(*db),
        [](void* isFirst) {
            if (std::exchange(*static_cast<bool*>(isFirst), false)) DB::setVerbose(true);
        },
        &first);
    std::size_t taken = 0;
    OutputCapture capture;
    {
        const PoisonedOutput output("'e1'", [] { DB::setVerbose(false); });
        db->addEvents(events(3), taken);
    }
    DB::setVerbose(false);
    capture.stop();
    EXPECT_EQ(taken, 3u) << "none is tried again";
    const std::string line = "kivDB: SQL error (insert event): all gone\n";
    EXPECT_EQ(capture.errWithoutPrefixes(),
              line + "kivDB: Event could not be stored: poisoned\n" + line);
    EXPECT_EQ(storedData(), Texts{"e0"});
    SqlStatement timeout(DBPeer::connection(*db), "PRAGMA busy_timeout");
    ASSERT_EQ(timeout.step(), SQLITE_ROW);
    EXPECT_EQ(timeout.columnInt64(0), 1000) << "statements wait for other writers again";
}

/// An exception amid a batch rolls it back; the batch is stored once, later.
TEST_F(EventTableBatchesTest, AnExceptionAmidABatchLeavesNothingOfItAndNoTransaction) {
    db->addEvent(1, 1, 0, "t", "first");
    std::size_t taken = 0;
    DB::setVerbose(true);
    {
        const PoisonedOutput output("'e2'", [] { DB::setVerbose(false); });
        EXPECT_THROW(db->addEvents(events(4), taken), std::runtime_error);
    }
    EXPECT_FALSE(transactionIsOpen());
    EXPECT_EQ(DB::m_TotalEventSize, -1);
    EXPECT_EQ(storedData(), Texts{"first"});
    db->addEvents(events(4), taken);
    EXPECT_EQ(storedData(), (Texts{"first", "e0", "e1", "e2", "e3"}));
}

/// Without a connection a batch is left to its owner.
TEST_F(EventTableBatchesTest, ABatchWithoutAConnectionIsLeftToItsOwner) {
    DB closed;
    OutputCapture capture;
    std::size_t taken = 7;
    EXPECT_EQ(closed.addEvents(events(1), taken), -1);
    capture.stop();
    EXPECT_EQ(taken, 0u);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "kivDB: SQL error (begin transaction): bad parameter or other API misuse\n");
}

/// A killed writer leaves whole batches and a sound file.
TEST_F(EventTableBatchesTest, AKilledWriterLeavesWholeBatchesOnly) {
    constexpr int kBatch = 100;
    db.reset();
    int progress[2];
    ASSERT_EQ(::pipe(progress), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        DB writer;
        DBPeer::setPruneSizes(writer, 100000000, 100000000);
        writer.open(path, false);
        for (;;) {
            std::size_t taken = 0;
            writer.addEvents(events(kBatch), taken);
            const char done = taken == kBatch ? '.' : '!';
            if (::write(progress[1], &done, 1) != 1) ::_exit(1);
        }
    }
    ::close(progress[1]);
    int whole = 0;
    char done = 0;
    while (whole < 20 && ::read(progress[0], &done, 1) == 1 && done == '.') ++whole;
    EXPECT_EQ(whole, 20);
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    while (::read(progress[0], &done, 1) == 1 && done == '.') ++whole;
    ::close(progress[0]);

    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
    const int stored = std::stoi(value("SELECT COUNT(*) FROM Events"));
    EXPECT_EQ(stored % kBatch, 0);
    EXPECT_GE(stored, whole * kBatch);
    EXPECT_LE(stored, (whole + 1) * kBatch);
    DB again;
    again.open(path, false);
    const long total = again.addEvent(9, 9, 9, "t", "usable");
    EXPECT_EQ(total, std::stol(value("SELECT SUM(length(data)+1)+1 FROM Events")));
}

/// Connections of several threads lose no event.
TEST_F(EventTableBatchesTest, ConnectionsOfSeveralThreadsLoseNoEvent) {
    constexpr int kThreads = 4;
    constexpr int kEach = 60;
    OutputCapture capture;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([this, t] {
            DB own;
            own.open(path, false);
            for (int i = 0; i < kEach; ++i) {
                own.addEvent(t, 1, i, "t", "x");
                own.setStartTime(t, 1, 0, i);
                own.totalEventSize();
            }
        });
    }
    for (auto& thread : threads) thread.join();
    capture.stop();
    EXPECT_EQ(capture.err(), "");
    EXPECT_EQ(value("SELECT COUNT(*) FROM Events"), std::to_string(kThreads * kEach));
    EXPECT_EQ(value("PRAGMA integrity_check"), "ok");
}

}  // namespace
