#include "EventTypeMap.h"

#include "EventType.h"

#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

const std::vector<std::pair<long, std::string>> kExpected = {
    {1, "status.powerstate.change"},
    {2, "usage.tv.zap"},
    {3, "usage.android"},
    {4, "recommender.view"},
    {5, "usage.smarttv"},
    {6, "usage.epg"},
    {7, "usage.pvr"},
    {8, "usage.contentbrowser"},
    {9, "usage.skype"},
    {10, "usage.miracast"},
    {11, "usage.TAD"},
    {12, "usage.CEC"},
    {13, "usage.3d"},
    {14, "ui.text-entry"},
    {15, "ui.key.press"},
    {16, "ui.pointer"},
    {17, "usage.peripherals"},
    {18, "usage.installation"},
    {19, "usage.favlist"},
    {20, "status.settings.user"},
    {21, "status.settings.user.change"},
    {22, "status.reboot.counters"},
    {23, "status.reboot.details"},
    {24, "status.virgin"},
    {25, "usage.app"},
    {26, "usage.help"},
    {27, "zap.source"},
    {28, "zap.input"},
    {29, "status.boottime"},
    {30, "status.channelinfo"},
    {33, "usage.mhl"},
    {34, "usage.pvr.failed"},
    {35, "usage.pvr.scheduling"},
    {38, "usage.tv-drawer"},
    {40, "usage.demome"},
    {41, "usage.multiview"},
    {42, "usage.moreinfo"},
    {48, "status.channel-lock"},
    {50, "status.channel-filter"},
    {52, "status.format-hdd"},
    {53, "status.tuner"},
    {54, "status.sw-versions"},
    {55, "status.fw-download"},
    {56, "status.consumer-care"},
    {57, "status.connections"},
    {58, "status.fw-install"},
    {59, "usage.emmc"},
    {60, "usage.howto"},
    {61, "usage.offrs"},
    {62, "usage.jbfeature"},
    {63, "usage.messagedialogue"},
    {64, "usage.multifavlist"},
    {65, "usage.channelupdatediff"},
    {66, "usage.installationsetup"},
    {67, "usage.hbbtvapp"},
    {68, "usage.dev_kmsg"},
    {69, "usage.mtk_userspace"},
    {70, "alexa_events"},
    {71, "alexa_commands"},
    {73, "set_alarm"},
    {128, "date_and_time_triggers"},
    {129, "osc_event_triggers"},
    {130, "alarm_trigger"},
    {131, "my_choice_pin_validation"},
    {132, "theme_tv_and_mychoice_list_change"},
    {133, "theme_tv_and_mychoice_usage"},
    {200, "debug.dump"},
    {201, "logging.overflow"},
    {202, "kiv.start"},
    {203, "status.hw.error"},
    {204, "files.overflow"},
    {205, "status.sw.error"},
    {206, "pim.start"},
    {207, "time.updated"},
    {208, "cpu.idle"},
    {213, "ram.availmem"},
    {214, "wifi.quality"},
    {215, "db.error"}};

const EventTypeMap& map() {
    return EventTypeMap::instance();
}

/// Read while this program's own static objects are made.
const std::string kNameBeforeMain = EventTypeMap::instance().getName(202);

/// The list has 78 types in order, no identifier or name twice.
TEST(EventTypeMapTest, ListsTheKnownTypesInOrder) {
    ASSERT_EQ(EventTypeMap::mEventTypeList.size(), 78U);
    ASSERT_EQ(kExpected.size(), 78U);
    for (std::size_t i = 0; i < kExpected.size(); ++i) {
        EXPECT_EQ(EventTypeMap::mEventTypeList[i].first, kExpected[i].first) << i;
        EXPECT_EQ(EventTypeMap::mEventTypeList[i].second, kExpected[i].second) << i;
    }
}

/// The list has 78 types in order, no identifier or name twice.
TEST(EventTypeMapTest, HasNoIdentifierOrNameTwice) {
    std::set<long> ids;
    std::set<std::string> names;
    for (const auto& [id, name] : EventTypeMap::mEventTypeList) {
        EXPECT_TRUE(ids.insert(id).second) << id;
        EXPECT_TRUE(names.insert(name).second) << name;
    }
}

/// Every type converts both ways; identifiers in the gaps are unknown.
TEST(EventTypeMapTest, ConvertsEveryTypeBothWays) {
    for (const auto& [id, name] : kExpected) {
        EXPECT_TRUE(map().isKnownId(id)) << id;
        EXPECT_TRUE(map().isKnownName(name.c_str())) << name;
        EXPECT_EQ(map().getId(name.c_str()), id);
        EXPECT_EQ(map().getName(id), name);
        EXPECT_EQ(EventType::getEventNameById(id), name);
        EXPECT_EQ(EventType::getEventIdByName(name), id);
    }
}

/// Every type converts both ways; identifiers in the gaps are unknown.
TEST(EventTypeMapTest, KnowsNoIdentifierInTheGaps) {
    std::set<long> known;
    for (const auto& row : kExpected) known.insert(row.first);
    for (long id = -5; id <= 300; ++id) {
        EXPECT_EQ(map().isKnownId(id), known.count(id) == 1) << id;
    }
}

/// Names are compared with regard to case.
TEST(EventTypeMapTest, ComparesNamesWithRegardToCase) {
    EXPECT_TRUE(map().isKnownName("usage.TAD"));
    EXPECT_FALSE(map().isKnownName("usage.tad"));
    EXPECT_FALSE(map().isKnownName("usage.TAD "));
    EXPECT_FALSE(map().isKnownName(""));
    EXPECT_FALSE(map().isKnownName(nullptr));
    EXPECT_FALSE(map().isKnownName("15"));
}

/// An unknown name is read as a decimal number; one that is not a number is 0.
TEST(EventTypeMapTest, ReadsAnUnknownNameAsANumber) {
    EXPECT_EQ(map().getId("usage.epg"), 6);
    EXPECT_EQ(map().getId("42"), 42);
    EXPECT_EQ(map().getId("31"), 31);
    EXPECT_EQ(map().getId("7x"), 7);
    EXPECT_EQ(map().getId("  8"), 8);
    EXPECT_EQ(map().getId("-9"), -9);
    EXPECT_EQ(map().getId("+9"), 9);
    EXPECT_EQ(map().getId("010"), 10);
    EXPECT_EQ(map().getId("0x10"), 0);
}

/// An unknown name is read as a decimal number; one that is not a number is 0.
TEST(EventTypeMapTest, GivesZeroForANameThatIsNoNumber) {
    EXPECT_EQ(map().getId("abc"), 0);
    EXPECT_EQ(map().getId(""), 0);
    EXPECT_EQ(map().getId("-"), 0);
    EXPECT_EQ(map().getId("x7"), 0);
    EXPECT_EQ(map().getId("99999999999999999999"), 0);
    EXPECT_EQ(map().getId("-99999999999999999999"), 0);
    EXPECT_EQ(map().getId(nullptr), 0);
}

/// An unknown name is read as a decimal number; one that is not a number is 0.
TEST(EventTypeMapTest, TakesNumbersOf32BitsOnEveryHost) {
    EXPECT_EQ(map().getId("2147483647"), 2147483647);
    EXPECT_EQ(map().getId("-2147483648"), -2147483647L - 1);
    EXPECT_EQ(map().getId("2147483648"), 0);
    EXPECT_EQ(map().getId("-2147483649"), 0);
    EXPECT_EQ(map().getId("3000000000"), 0);
    EXPECT_EQ(map().getId("-3000000000"), 0);
}

/// An unknown identifier is written as decimal text, which stays valid.
TEST(EventTypeMapTest, WritesAnUnknownIdentifierAsDecimalText) {
    EXPECT_STREQ(map().getName(31), "31");
    EXPECT_STREQ(map().getName(0), "0");
    EXPECT_STREQ(map().getName(-4), "-4");
    EXPECT_EQ(EventType::getEventNameById(100000), "100000");
}

/// An unknown identifier is written as decimal text, which stays valid.
TEST(EventTypeMapTest, KeepsTheTextOfAnUnknownIdentifier) {
    const char* first = map().getName(31);
    const char* second = map().getName(32);
    std::thread([] { EXPECT_STREQ(map().getName(36), "36"); }).join();
    EXPECT_STREQ(first, "31");
    EXPECT_STREQ(second, "32");
}

/// The map is ready before main, and every new one holds the whole list.
TEST(EventTypeMapTest, IsReadyBeforeMain) {
    EXPECT_EQ(kNameBeforeMain, "kiv.start");
}

/// The map is ready before main, and every new one holds the whole list.
TEST(EventTypeMapTest, EveryNewMapHoldsTheWholeList) {
    const EventTypeMap another;
    EXPECT_EQ(another.getId("db.error"), 215);
    EXPECT_STREQ(another.getName(1), "status.powerstate.change");
}

}  // namespace
