#include "WaitingEvents.h"

#include "ClassLog.h"
#include "support/OutputCapture.h"
#include "support/WaitingEventsPeer.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Handover = WaitingEvents::Handover;
using Rows = WaitingEvents::Rows;
using Range = EventPruner::Range;

constexpr char kFails[] = "kivGateway:Events are kept in memory: the store fails\n";

std::string works(std::size_t kept, std::size_t dropped) {
    return "kivGateway:The store works again: " + std::to_string(kept) + " events kept, " +
           std::to_string(dropped) + " dropped\n";
}

/// Events are numbered from 0; the number is the kernel time. The store's work is recorded in
/// order: "n 3-5" for a named range, "s 6-9" for stored events.
class WaitingEventsFailingTest : public ::testing::Test {
  protected:
    void add(Handover handover = Handover::Wait) {
        JsonObject event = JsonObject::parse(R"({"boot-count": 7, "standby-count": 2})");
        event.set("kernel-time", JsonObject::createInteger(m_added++));
        m_waiting.add(std::move(event), handover);
    }

    void addMany(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) add();
    }

    static std::string text(std::int64_t first, std::int64_t last) {
        return std::to_string(first) + "-" + std::to_string(last);
    }

    void recordStored(const Rows& rows, std::size_t count) {
        if (count == 0) return;
        for (std::size_t i = 1; i < count; ++i)
            EXPECT_EQ(rows[i].kernelTime, rows[i - 1].kernelTime + 1) << "out of order";
        m_work.push_back("s " + text(rows[0].kernelTime, rows[count - 1].kernelTime));
    }

    WaitingEvents::NameLost naming() {
        return [this](const Range& lost) {
            EXPECT_TRUE(lost.lowest.cycle == Cycle(7, 2));
            EXPECT_TRUE(lost.highest.cycle == Cycle(7, 2));
            m_work.push_back("n " + text(lost.lowest.kernelTime, lost.highest.kernelTime));
            return true;
        };
    }

    /// Has the store take up to `most` of the next batch, after `meanwhile`.
    WaitingEvents::Progress storeUpTo(
        std::size_t most, const std::function<void()>& meanwhile = [] {}) {
        return m_waiting.storeBatch(
            [&](const Rows& rows) {
                meanwhile();
                const std::size_t count = std::min(rows.size(), most);
                recordStored(rows, count);
                return count;
            },
            naming());
    }

    /// Stores all that waits.
    void storeAll() {
        while (storeUpTo(WaitingEvents::kMostOfABatch).taken > 0) continue;
    }

    void failOnce() { EXPECT_EQ(storeUpTo(0).taken, 0u); }

    ClassLog m_log{"kivGateway:"};
    std::deque<JsonObject> m_queue;
    std::mutex m_queueMutex;
    WaitingEvents m_waiting{m_queue, m_queueMutex, m_log};
    int m_added = 0;
    std::vector<std::string> m_work;
};

using Work = std::vector<std::string>;

/// What a store that fails does not take is stored in order once it works, at once.
TEST_F(WaitingEventsFailingTest, KeepsEventsUntilTheStoreWorksAndThenStoresThemAtOnce) {
    addMany(300);
    EXPECT_FALSE(m_waiting.isStoreFailing());
    failOnce();
    EXPECT_TRUE(m_waiting.isStoreFailing());
    EXPECT_EQ(m_waiting.size(), 300u);
    failOnce();
    add();
    const auto progress = storeUpTo(WaitingEvents::kMostOfABatch);
    EXPECT_EQ(progress.taken, 256u);
    EXPECT_TRUE(progress.more) << "45 wait: fewer than a batch, and stored at once";
    EXPECT_FALSE(m_waiting.isStoreFailing());
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-255", "s 256-300"}));
}

/// One line tells that the store begins to fail, one that it works again, with the counts.
TEST_F(WaitingEventsFailingTest, TellsOnceThatTheStoreFailsAndOnceThatItWorks) {
    OutputCapture capture;
    addMany(3);
    for (int i = 0; i < 5; ++i) failOnce();
    EXPECT_EQ(capture.errWithoutPrefixes(), kFails);
    storeAll();
    EXPECT_EQ(capture.errWithoutPrefixes(), kFails + works(3, 0));
    addMany(512);
    failOnce();
    addMany(10);
    storeAll();
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), kFails + works(3, 0) + kFails + works(512, 10));
}

/// Beyond 512 events the oldest go; their range is named ahead of the others.
TEST_F(WaitingEventsFailingTest, DropsTheOldestBeyond512AndNamesThemAheadOfTheOthers) {
    add();
    failOnce();
    addMany(599);
    EXPECT_EQ(m_waiting.size(), 512u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"n 0-87", "s 88-343", "s 344-599"}));
}

/// Also of what waited before the store began to fail no more than 512 events stay.
TEST_F(WaitingEventsFailingTest, DropsWhatIsBeyond512WhenTheStoreBeginsToFail) {
    addMany(700);
    failOnce();
    EXPECT_EQ(m_waiting.size(), 512u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"n 0-187", "s 188-255", "s 256-511", "s 512-699"}));
}

/// Any order of moments gives the lowest and the highest.
TEST_F(WaitingEventsFailingTest, NamesTheLowestAndTheHighestMomentOfTheDropped) {
    const auto addAt = [this](int boot, int standby, int kernelTime) {
        JsonObject event;
        event.Pack("{s:i, s:i, s:i}", "boot-count", boot,  //
                   "standby-count", standby,               //
                   "kernel-time", kernelTime);
        m_waiting.add(std::move(event), Handover::Wait);
    };
    addAt(2, 1, 50);
    addAt(1, 9, 99);
    addAt(2, 3, 7);
    addAt(2, 2, 80);
    for (int i = 0; i < 512; ++i) addAt(3, 1, i);
    failOnce();
    std::vector<Range> named;
    m_waiting.storeBatch([](const Rows& rows) { return rows.size(); },
                         [&](const Range& lost) {
                             named.push_back(lost);
                             return true;
                         });
    ASSERT_EQ(named.size(), 1u);
    EXPECT_TRUE(named[0].lowest.cycle == Cycle(1, 9));
    EXPECT_EQ(named[0].lowest.kernelTime, 99);
    EXPECT_TRUE(named[0].highest.cycle == Cycle(2, 3));
    EXPECT_EQ(named[0].highest.kernelTime, 7);
}

/// While a store that fails is tried, nobody waits and nothing is set aside.
TEST_F(WaitingEventsFailingTest, HasNobodyWaitWhileAStoreThatFailsIsTried) {
    add();
    failOnce();
    storeUpTo(0, [this] {
        std::thread([this] {
            add(Handover::Wait);
            add(Handover::MaySetAside);
        }).join();
        EXPECT_EQ(m_waiting.size(), 3u);
        EXPECT_EQ(WaitingEventsPeer::setAside(m_waiting), 0u);
    });
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-0", "s 1-2"}));
}

/// With a store that fails it is never crowded; with one that works again it is, as before.
TEST_F(WaitingEventsFailingTest, IsNotCrowdedWhileTheStoreFails) {
    addMany(512);
    EXPECT_TRUE(m_waiting.isCrowded());
    failOnce();
    EXPECT_FALSE(m_waiting.isCrowded());
    addMany(100);
    EXPECT_FALSE(m_waiting.isCrowded());
    storeUpTo(1);
    addMany(1);
    EXPECT_TRUE(m_waiting.isCrowded());
}

// --- what is dropped while an attempt is under way
// ------------------------------------------------

/// An event that is dropped while it is being stored is not lost when it was stored.
TEST_F(WaitingEventsFailingTest, DoesNotNameADroppedEventThatTheAttemptStored) {
    addMany(512);
    failOnce();
    OutputCapture capture;
    storeUpTo(256, [this] { addMany(10); });
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), works(522, 0));
    EXPECT_EQ(m_waiting.size(), 266u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-255", "s 256-511", "s 512-521"}));
}

/// Those that it did not store are, ahead of the next ones.
TEST_F(WaitingEventsFailingTest, NamesADroppedEventThatTheAttemptDidNotStore) {
    addMany(512);
    failOnce();
    storeUpTo(4, [this] { addMany(10); });
    EXPECT_EQ(m_waiting.size(), 512u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-3", "n 4-9", "s 10-255", "s 256-511", "s 512-521"}));
}

/// An attempt that stored more than was dropped leaves none of it behind.
TEST_F(WaitingEventsFailingTest, TakesOutWhatAnAttemptStoredBeyondTheDropped) {
    addMany(512);
    failOnce();
    storeUpTo(20, [this] { addMany(10); });
    EXPECT_EQ(m_waiting.size(), 502u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-19", "s 20-255", "s 256-511", "s 512-521"}));
}

/// More may be dropped than an attempt has in its hands.
TEST_F(WaitingEventsFailingTest, NamesWhatWasDroppedBeyondTheBatchUnderWay) {
    addMany(512);
    failOnce();
    storeUpTo(256, [this] { addMany(300); });
    storeAll();
    EXPECT_EQ(m_work, (Work{"s 0-255", "n 256-299", "s 300-555", "s 556-811"}));
}

/// What was dropped while an attempt failed is named by the next one, once.
TEST_F(WaitingEventsFailingTest, NamesWhatWasDroppedWhileAnAttemptFailed) {
    addMany(512);
    failOnce();
    for (int i = 0; i < 2; ++i) storeUpTo(0, [this] { addMany(300); });
    storeAll();
    EXPECT_EQ(m_work, (Work{"n 0-299", "n 300-599", "s 600-855", "s 856-1111"}));
}

/// A range that cannot be named waits, wider, and no event is stored ahead of it.
TEST_F(WaitingEventsFailingTest, StoresNothingAheadOfARangeThatCannotBeNamed) {
    addMany(520);
    failOnce();
    const auto failNaming = [this] {
        m_waiting.storeBatch(
            [](const Rows& rows) {
                ADD_FAILURE() << "asked";
                return rows.size();
            },
            [this](const Range& lost) {
                m_work.push_back("? " + text(lost.lowest.kernelTime, lost.highest.kernelTime));
                return false;
            });
    };
    failNaming();
    addMany(4);
    failNaming();
    storeAll();
    EXPECT_EQ(m_work, (Work{"? 0-7", "? 0-11", "n 0-11", "s 12-255", "s 256-511", "s 512-523"}));
}

/// A range that was named is not named again when the events after it fail.
TEST_F(WaitingEventsFailingTest, NamesARangeOnceAlsoWhenTheEventsAfterItFail) {
    addMany(520);
    failOnce();
    failOnce();
    failOnce();
    storeAll();
    EXPECT_EQ(m_work, (Work{"n 0-7", "s 8-255", "s 256-511", "s 512-519"}));
}

/// What throws in an attempt changes nothing, whatever was dropped meanwhile.
TEST_F(WaitingEventsFailingTest, LosesNothingToAnException) {
    addMany(520);
    failOnce();
    const auto throwing = [this](const Rows&) -> std::size_t {
        addMany(2);
        throw std::runtime_error("no");
    };
    EXPECT_THROW(m_waiting.storeBatch(throwing, naming()), std::runtime_error);
    EXPECT_THROW(m_waiting.storeBatch(throwing,
                                      [](const Range&) -> bool { throw std::runtime_error("no"); }),
                 std::runtime_error);
    EXPECT_TRUE(m_waiting.isStoreFailing());
    EXPECT_EQ(m_waiting.size(), 512u);
    storeAll();
    EXPECT_EQ(m_work, (Work{"n 0-7", "n 8-9", "s 10-255", "s 256-511", "s 512-521"}));
}

/// What is discarded is neither stored nor named.
TEST_F(WaitingEventsFailingTest, DiscardsWhatIsToBeNamedToo) {
    addMany(520);
    failOnce();
    m_waiting.discard();
    add();
    storeAll();
    EXPECT_EQ(m_work, Work{"s 520-520"});
}

}  // namespace
