#include "EventTable.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <cstdint>

#include "SqlConnection.h"
#include "support/EventTablePeer.h"
#include "support/StoreTest.h"
#include "support/WaitUntil.h"

namespace {

/// A table on a connection of its own, with a lock, a size and an error flag of its own.
class EventTableTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();  // makes the tables
        db.reset();
        ASSERT_EQ(connection.open(path, SqlConnection::OnLock::Wait), "");
    }

    std::recursive_mutex lock;
    std::atomic<std::int32_t> size{-1};
    std::atomic<bool> failed{false};
    Texts recorded;
    SqlConnection connection{[this](const char* message) { recorded.emplace_back(message); }};
    EventTable events{connection, {lock, size, failed}};
};

/// The table counts and clears in what it was handed, and in nothing else.
TEST_F(EventTableTest, KeepsSizeAndErrorWhereItWasToldTo) {
    DB::m_TotalEventSize = 4711;
    DB::m_dbError = true;
    failed = true;
    EXPECT_EQ(events.addEvent({1, 1, 1, "t", "0123456789"}), 12);
    EXPECT_EQ(size, 12);
    EXPECT_FALSE(failed);
    EXPECT_EQ(events.incrementEventSize(5), 17);
    size = -1;
    EXPECT_EQ(events.totalEventSize(), 12);
    EXPECT_EQ(DB::m_TotalEventSize, 4711);
    EXPECT_TRUE(DB::m_dbError);
}

/// A failure is recorded by the connection's owner.
TEST_F(EventTableTest, AFailureIsRecordedByTheConnectionsOwner) {
    OutputCapture capture;
    events.addEvent({1, 1, 1, "t", "it's"});
    connection.execute("DROP TABLE Events", "");
    events.addEvent({1, 1, 1, "t", "x"});
    capture.stop();
    EXPECT_EQ(recorded, (Texts{"near \"s\": syntax error", "no such table: Events"}));
    EXPECT_EQ(DB::lastErrorMessage(), "");
}

/// Each operation takes the lock that the table was handed.
TEST_F(EventTableTest, EachOperationTakesTheLockThatItWasHanded) {
    events.addEvent({1, 1, 1, "t", "x"});
    std::size_t taken = 0;
    const EventSet marked = events.getEvents(false);
    const std::vector<std::function<void()>> operations = {
        [&] {
            events.addEvent({1, 1, 2, "t", "y"});
        },
        [&] {
            events.addEvents({{1, 1, 3, "t", "z"}}, taken);
        },
        [&] { events.getEvents(true).close(); },
        [&] { events.deleteMarkedEvents(marked); },
        [&] { events.totalEventSize(); },
        [&] { events.incrementEventSize(1); },
        [&] { events.getOldestEvent(); },
        [&] { events.pruneAboveSize(100000); },
        [&] { events.pruneSessionBasedTable("OpTimes"); },
    };
    for (std::size_t i = 0; i < operations.size(); ++i) {
        std::unique_lock<std::recursive_mutex> held(lock);
        std::atomic<bool> done{false};
        std::thread other([&] {
            operations[i]();
            done = true;
        });
        EXPECT_FALSE(WaitUntil([&] { return done.load(); }, std::chrono::milliseconds(20))) << i;
        held.unlock();
        other.join();
    }
}

/// A batch is no larger than its one constant says, for the store as for its table.
TEST_F(EventTableTest, ABatchIsAsLargeAsItsConstantSays) {
    const std::vector<EventTable::NewEvent> many(EventTable::kMostEventsOfABatch + 1,
                                                 {1, 1, 1, "t", "x"});
    std::size_t taken = 0;
    events.addEvents(many, taken);
    EXPECT_EQ(taken, EventTable::kMostEventsOfABatch);
    EXPECT_EQ(DB::kMostEventsOfABatch, EventTable::kMostEventsOfABatch);
    EXPECT_EQ(DB::kMostEventsOfABatch, 256u);
}

/// Its end waits for its pruning threads.
TEST_F(EventTableTest, DestructionWaitsForThePruningThreads) {
    auto table = std::make_unique<EventTable>(connection, EventTable::Shared{lock, size, failed});
    EventTablePeer::setPruneSizes(*table, 100, 50);
    std::unique_lock<std::recursive_mutex> held(lock);
    table->addEvent({1, 1, 1, "t", std::string(200, 'x')});
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        table.reset();
        destroyed = true;
    });
    EXPECT_FALSE(WaitUntil([&] { return destroyed.load(); }, std::chrono::milliseconds(50)));
    held.unlock();
    destroyer.join();
    EXPECT_EQ(value("SELECT type FROM Events"), "logging.overflow") << "the pruner had its turn";
}

}  // namespace
