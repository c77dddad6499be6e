#include "EventPruner.h"

#include <string>
#include <vector>

#include "EventType.h"
#include "support/StoreTest.h"

namespace {

class EventPrunerTest : public StoreTest {
  protected:
    void SetUp() override {
        StoreTest::SetUp();
        openStore();
    }
    const SqlConnection& connection() { return DBPeer::sql(*db); }
};

using Rows = std::vector<std::int64_t>;

/// The oldest events are chosen until the rest is at or below the limit.
TEST_F(EventPrunerTest, SelectsTheOldestUntilTheRestIsAtOrBelowTheLimit) {
    db->addEvent(2, 1, 1, "t", "123456789");
    db->addEvent(1, 1, 2, "t", "123456789");
    db->addEvent(1, 1, 1, "t", "123456789");
    EXPECT_EQ(EventPruner(connection(), 31, 31).rows(), Rows{});
    EXPECT_EQ(EventPruner(connection(), 31, 30).rows(), Rows{3});
    EXPECT_EQ(EventPruner(connection(), 31, 21).rows(), Rows{3});
    EXPECT_EQ(EventPruner(connection(), 31, 20).rows(), (Rows{3, 2}));
    EXPECT_EQ(EventPruner(connection(), 31, 20).freed(), 20);
    EXPECT_EQ(EventPruner(connection(), 31, 0).rows(), (Rows{3, 2, 1}));
}

/// The overflow event names the first and the last lost moment and stands at the first.
TEST_F(EventPrunerTest, NamesTheRangeInTheOverflowEvent) {
    db->addEvent(1, 2, 5000000000LL, "t", "a");
    db->addEvent(3, 0, 6, "t", "b");
    const EventPruner pruner(connection(), 5, 0);
    EXPECT_EQ(pruner.lowest().cycle.bootCount, 1);
    EXPECT_EQ(pruner.lowest().cycle.standbyCount, 2);
    EXPECT_EQ(pruner.lowest().kernelTime, 5000000000LL);
    EXPECT_EQ(pruner.overflowEvent().dumpAsString(),
              "{\"event-type\": \"logging.overflow\", \"eventid\": " +
                  std::to_string(EventType("logging.overflow").getId()) +
                  ", \"boot-count\": 1, \"standby-count\": 2, \"kernel-time\": 5000000000, "
                  "\"data\": {\"lowest-boot-count\": 1, \"lowest-standby-count\": 2, "
                  "\"lowest-kernel-time\": 5000000000, \"highest-boot-count\": 3, "
                  "\"highest-standby-count\": 0, \"highest-kernel-time\": 6}}");
    EXPECT_NE(EventType("logging.overflow").getId(), 0);
}

/// An overflow event that is pruned hands its range on.
TEST_F(EventPrunerTest, AnOverflowEventHandsItsRangeOn) {
    db->addEvent(1, 1, 1, EventPruner::overflowType(),
                 "{\"data\": {\"highest-boot-count\": 4, \"highest-standby-count\": 5, "
                 "\"highest-kernel-time\": 6}}");
    const JsonObject range = EventPruner(connection(), 1000, 999).overflowEvent().getObject("data");
    EXPECT_EQ(range.optInteger("lowest-boot-count", -1), 1);
    EXPECT_EQ(range.optInteger("highest-boot-count", -1), 4);
    EXPECT_EQ(range.optInteger("highest-standby-count", -1), 5);
    EXPECT_EQ(range.optInteger("highest-kernel-time", -1), 6);
}

/// An overflow event that is pruned hands its range on.
TEST_F(EventPrunerTest, EachOverflowEventAmongThoseSelectedHandsItsRangeOn) {
    const auto naming = [](int highest) {
        return "{\"data\": {\"highest-boot-count\": 1, \"highest-standby-count\": 1, "
               "\"highest-kernel-time\": " +
               std::to_string(highest) + "}}";
    };
    db->addEvent(1, 1, 9, EventPruner::overflowType(), naming(99));  // is not selected
    db->addEvent(1, 1, 1, "t", "first");
    db->addEvent(1, 1, 2, EventPruner::overflowType(), naming(5));
    db->addEvent(1, 1, 3, EventPruner::overflowType(), naming(7));
    const long ofThree = 6 + 2 * (static_cast<long>(naming(5).size()) + 1);
    const EventPruner pruner(connection(), 1000, 1000 - ofThree);
    EXPECT_EQ(pruner.rows(), (Rows{2, 3, 4}));
    EXPECT_EQ(pruner.lowest().kernelTime, 1);
    const JsonObject range = pruner.overflowEvent().getObject("data");
    EXPECT_EQ(range.optInteger("highest-kernel-time", -1), 7);
}

/// Only a later end counts; broken overflow events hand nothing on.
TEST_F(EventPrunerTest, ARangeThatEndsBeforeTheLastEventChangesNothing) {
    db->addEvent(1, 1, 1, EventPruner::overflowType(),
                 "{\"data\": {\"highest-boot-count\": 1, \"highest-standby-count\": 1, "
                 "\"highest-kernel-time\": 6}}");
    db->addEvent(1, 1, 7, "t", "x");
    const JsonObject range = EventPruner(connection(), 1000, 0).overflowEvent().getObject("data");
    EXPECT_EQ(range.optInteger("highest-kernel-time", -1), 7);
}

/// Only a later end counts; broken overflow events hand nothing on.
TEST_F(EventPrunerTest, OnlyOverflowEventsHandRangesOnAndBrokenOnesDoNot) {
    const std::string range = "{\"data\": {\"highest-boot-count\": 9}}";
    db->addEvent(1, 1, 1, "some.event", range);
    for (const char* broken : {"", "{", "[]", "{\"data\": 5}", "{\"data\": {}}",
                               "{\"data\": {\"highest-boot-count\": \"9\"}}"}) {
        db->addEvent(1, 1, 2, EventPruner::overflowType(), broken);
    }
    const JsonObject named = EventPruner(connection(), 1000, 0).overflowEvent().getObject("data");
    EXPECT_EQ(named.optInteger("highest-boot-count", -1), 1);
    EXPECT_EQ(named.optInteger("highest-kernel-time", -1), 2);
}

/// Without a connection or a table nothing is chosen.
TEST_F(EventPrunerTest, WithoutAConnectionOrATableItSelectsNothing) {
    const SqlConnection closed;
    EXPECT_TRUE(EventPruner(closed, 10, 0).rows().empty());
    onStore("DROP TABLE Events");
    EXPECT_TRUE(EventPruner(connection(), 10, 0).rows().empty());
    EXPECT_TRUE(EventPruner::rowsOfForgottenCycles(closed, "OpTimes").empty());
}

}  // namespace
