#include "WaitingEvents.h"

#include "ClassLog.h"
#include "support/OutputCapture.h"
#include "support/WaitUntil.h"
#include "support/WaitingEventsPeer.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Handover = WaitingEvents::Handover;
using Rows = WaitingEvents::Rows;
using Types = std::vector<std::string>;

JsonObject event(const std::string& type) {
    return JsonObject::parse(R"({"event-type": ")" + type + "\"}");
}

void onAnotherThread(const std::function<void()>& work) {
    std::thread(work).join();
}

class WaitingEventsTest : public ::testing::Test {
  protected:
    void add(const std::string& type, Handover handover = Handover::Wait) {
        m_waiting.add(event(type), handover);
    }

    void addMany(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) add("e" + std::to_string(i));
    }

    static Types typesOf(const Rows& rows) {
        Types types;
        for (const DB::NewEvent& row : rows) types.push_back(row.type);
        return types;
    }

    /// Has the store take the next batch; nothing was dropped before.
    WaitingEvents::Progress storeWith(const WaitingEvents::Store& store) {
        return m_waiting.storeBatch(store, [](const EventPruner::Range&) {
            ADD_FAILURE() << "nothing is to be named";
            return true;
        });
    }

    /// Stores the next batch whole. @return the types that the store was given
    Types storeBatch() {
        Types given;
        m_progress = storeWith([&](const Rows& rows) {
            given = typesOf(rows);
            return rows.size();
        });
        return given;
    }

    /// Stores the next batch, and does `meanwhile` on another thread before that is done.
    void storeBatchAnd(const std::function<void()>& meanwhile) {
        storeWith([&](const Rows& rows) {
            onAnotherThread(meanwhile);
            return rows.size();
        });
    }

    ClassLog m_log{"kivGateway:"};
    std::deque<JsonObject> m_queue;
    std::mutex m_queueMutex;
    WaitingEvents m_waiting{m_queue, m_queueMutex, m_log};
    WaitingEvents::Progress m_progress{};
};

// --- adding ---------------------------------------------------------------------------------

/// An event that finds the queue free is in it at once.
TEST_F(WaitingEventsTest, QueuesAnEventAtOnceWhereNoBatchIsBeingStored) {
    add("a", Handover::MaySetAside);
    add("b", Handover::Wait);
    EXPECT_EQ(m_waiting.size(), 2u);
    EXPECT_EQ(m_queue.size(), 2u);
    EXPECT_EQ(WaitingEventsPeer::setAside(m_waiting), 0u);
}

/// While a batch is being stored, events are set aside; they follow in their order.
TEST_F(WaitingEventsTest, SetsEventsAsideWhileABatchIsStored) {
    add("a");
    storeBatchAnd([this] {
        add("b", Handover::MaySetAside);
        add("c", Handover::MaySetAside);
        EXPECT_FALSE(m_waiting.handOver(Handover::MaySetAside)) << "still set aside";
    });
    EXPECT_EQ(WaitingEventsPeer::setAside(m_waiting), 2u);
    EXPECT_EQ(m_waiting.size(), 0u);
    EXPECT_TRUE(m_waiting.handOver(Handover::MaySetAside));
    EXPECT_EQ(WaitingEventsPeer::setAside(m_waiting), 0u);
    EXPECT_EQ(storeBatch(), (Types{"b", "c"}));
}

/// While a batch is being stored, events are set aside; they follow in their order.
TEST_F(WaitingEventsTest, QueuesWhatIsSetAsideAheadOfANewerEvent) {
    add("a");
    storeBatchAnd([this] { add("b", Handover::MaySetAside); });
    add("c", Handover::MaySetAside);
    EXPECT_EQ(storeBatch(), (Types{"b", "c"}));
}

/// Fewer events than a batch are set aside: with the one that makes a batch its thread waits.
TEST_F(WaitingEventsTest, WaitsWithTheEventThatMakesABatch) {
    add("first");
    std::atomic<std::size_t> added{0};
    std::thread adder;
    storeWith([&](const Rows& rows) {
        adder = std::thread([&] {
            for (; added < WaitingEvents::kMostOfABatch; ++added)
                add("later", Handover::MaySetAside);
        });
        EXPECT_TRUE(WaitUntil([&] { return added == WaitingEvents::kMostOfABatch - 1; }));
        EXPECT_FALSE(WaitUntil([&] { return added == WaitingEvents::kMostOfABatch; },
                               std::chrono::milliseconds(50)));
        return rows.size();
    });
    adder.join();
    EXPECT_EQ(WaitingEventsPeer::setAside(m_waiting), 0u);
    EXPECT_EQ(m_waiting.size(), WaitingEvents::kMostOfABatch);
}

/// A thread that is told to wait, waits for the batch.
TEST_F(WaitingEventsTest, WaitsForTheBatchWhereItIsTold) {
    add("a");
    std::atomic<bool> added{false};
    std::thread adder;
    storeWith([&](const Rows& rows) {
        adder = std::thread([&] {
            add("b", Handover::Wait);
            added = true;
        });
        EXPECT_FALSE(WaitUntil([&] { return added.load(); }, std::chrono::milliseconds(50)));
        return rows.size();
    });
    adder.join();
    EXPECT_EQ(storeBatch(), Types{"b"});
}

/// With 512 events in the queue it is crowded, until a batch has left.
TEST_F(WaitingEventsTest, IsCrowdedWithFiveHundredAndTwelveEvents) {
    EXPECT_FALSE(m_waiting.isCrowded());
    addMany(511);
    EXPECT_FALSE(m_waiting.isCrowded());
    add("last");
    EXPECT_TRUE(m_waiting.isCrowded());
    EXPECT_TRUE(m_waiting.isCrowded()) << "also when asked again";
    storeBatch();
    EXPECT_FALSE(m_waiting.isCrowded());
}

// --- storing --------------------------------------------------------------------------------

/// A row has the event's counts, time and type, 0 or empty where they are absent, and its text.
TEST_F(WaitingEventsTest, MakesTheRowsOfTheEvents) {
    const std::string full = R"({"event-type": "x", "boot-count": 4294967295, )"
                             R"("standby-count": 2, "kernel-time": 9223372036854775807})";
    m_waiting.add(JsonObject::parse(full), Handover::Wait);
    m_waiting.add(JsonObject::parse("{}"), Handover::Wait);
    Rows given;
    storeWith([&](const Rows& rows) {
        given = rows;
        return rows.size();
    });
    ASSERT_EQ(given.size(), 2u);
    EXPECT_EQ(given[0].bootCount, static_cast<long>(4294967295));
    EXPECT_EQ(given[0].standbyCount, 2);
    EXPECT_EQ(given[0].kernelTime, 9223372036854775807);
    EXPECT_EQ(given[0].type, "x");
    EXPECT_EQ(given[0].data, full);
    EXPECT_EQ(given[1].bootCount, 0);
    EXPECT_EQ(given[1].standbyCount, 0);
    EXPECT_EQ(given[1].kernelTime, 0);
    EXPECT_EQ(given[1].type, "");
    EXPECT_EQ(given[1].data, "{}");
}

/// A batch has at most 256 events; whether another full one waits is told.
TEST_F(WaitingEventsTest, StoresABacklogInFullBatches) {
    addMany(600);
    EXPECT_EQ(storeBatch().size(), 256u);
    EXPECT_EQ(m_progress.taken, 256u);
    EXPECT_TRUE(m_progress.more) << "344 wait";
    EXPECT_EQ(storeBatch().size(), 256u);
    EXPECT_FALSE(m_progress.more) << "88 wait";
    const Types last = storeBatch();
    EXPECT_EQ(last.size(), 88u);
    EXPECT_EQ(last.front(), "e512");
    EXPECT_EQ(last.back(), "e599");
    EXPECT_EQ(m_waiting.size(), 0u);
}

/// What a batch leaves goes into the next one, alone.
TEST_F(WaitingEventsTest, StoresTheRestOfABatchAheadOfTheOthers) {
    for (const char* type : {"a", "b", "c"}) add(type);
    const auto progress = storeWith([](const Rows&) { return std::size_t{2}; });
    EXPECT_EQ(progress.taken, 2u);
    EXPECT_TRUE(progress.more);
    EXPECT_EQ(m_waiting.size(), 1u);
    add("d");
    EXPECT_EQ(storeBatch(), Types{"c"});
    EXPECT_EQ(storeBatch(), Types{"d"});
}

/// What the store does not take now, or throws at, stays, and is stored once later.
TEST_F(WaitingEventsTest, KeepsWhatTheStoreDoesNotTakeNow) {
    add("a");
    const OutputCapture capture;
    const auto progress = storeWith([](const Rows&) { return std::size_t{0}; });
    EXPECT_EQ(progress.taken, 0u);
    EXPECT_FALSE(progress.more) << "not at once";
    EXPECT_EQ(m_waiting.size(), 1u);
    EXPECT_EQ(storeBatch(), Types{"a"});
    EXPECT_EQ(storeBatch(), Types{});
}

/// What the store does not take now, or throws at, stays, and is stored once later.
TEST_F(WaitingEventsTest, KeepsWhatTheStoreThrowsAt) {
    add("a");
    add("b");
    EXPECT_THROW(storeWith([](const Rows&) -> std::size_t { throw std::runtime_error("no"); }),
                 std::runtime_error);
    EXPECT_EQ(m_waiting.size(), 2u) << "and the lock is free";
    EXPECT_EQ(storeBatch(), (Types{"a", "b"}));
    EXPECT_EQ(storeBatch(), Types{});
}

/// With nothing in the queue the store is not asked.
TEST_F(WaitingEventsTest, DoesNotAskTheStoreForNothing) {
    const auto progress = storeWith([](const Rows&) -> std::size_t {
        ADD_FAILURE() << "asked";
        return 0;
    });
    EXPECT_EQ(progress.taken, 0u);
    EXPECT_FALSE(progress.more);
}

/// Stored events are freed by the next thread that adds one, or when nothing waits.
TEST_F(WaitingEventsTest, LeavesStoredEventsToTheThreadThatAddsTheNext) {
    add("a");
    add("b");
    storeBatch();
    EXPECT_EQ(WaitingEventsPeer::storedInMemory(m_waiting), 2u);
    add("c");
    EXPECT_EQ(WaitingEventsPeer::storedInMemory(m_waiting), 0u);
}

/// Stored events are freed by the next thread that adds one, or when nothing waits.
TEST_F(WaitingEventsTest, FreesStoredEventsWhenNothingWaits) {
    add("a");
    storeBatch();
    EXPECT_EQ(WaitingEventsPeer::storedInMemory(m_waiting), 1u);
    storeBatch();
    EXPECT_EQ(WaitingEventsPeer::storedInMemory(m_waiting), 0u);
}

/// Verbose, each event is told once when its row is made.
TEST_F(WaitingEventsTest, TellsOfEachEventOnceWhenVerbose) {
    m_log.setVerbose(true);
    add("a");
    add("b");
    OutputCapture capture;
    storeWith([](const Rows&) { return std::size_t{1}; });
    storeBatch();
    capture.stop();
    EXPECT_EQ(capture.out(),
              "kivGateway: message read from queue: {\"event-type\": \"a\"}\n"
              "kivGateway: message read from queue: {\"event-type\": \"b\"}\n");
}

/// What is discarded is not stored, the rest of a batch neither.
TEST_F(WaitingEventsTest, DiscardsWhatWaits) {
    for (const char* type : {"a", "b", "c"}) add(type);
    storeWith([](const Rows&) { return std::size_t{1}; });
    m_waiting.discard();
    EXPECT_EQ(m_waiting.size(), 0u);
    add("d");
    EXPECT_EQ(storeBatch(), Types{"d"});
}

}  // namespace
