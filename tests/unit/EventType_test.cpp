#include "EventType.h"

#include <string>

#include <gtest/gtest.h>

namespace {

/// A type takes a known name, or a known identifier as text.
TEST(EventTypeTest, TakesAKnownName) {
    const EventType type("usage.epg");
    EXPECT_EQ(type.getId(), 6);
    EXPECT_EQ(type.getName(), "usage.epg");
}

/// A type takes a known name, or a known identifier as text.
TEST(EventTypeTest, TakesAKnownIdentifierAsText) {
    const EventType type("42");
    EXPECT_EQ(type.getId(), 42);
    EXPECT_EQ(type.getName(), "usage.moreinfo");
    EXPECT_EQ(EventType("15").getName(), "ui.key.press");
}

/// A type takes a known name, or a known identifier as text.
TEST(EventTypeTest, ReadsTheNumberAtTheStartOfTheText) {
    const EventType type("15x");
    EXPECT_EQ(type.getId(), 15);
    EXPECT_EQ(type.getName(), "ui.key.press");
}

/// Any other name is kept with identifier 0.
TEST(EventTypeTest, KeepsAnUnknownNameWithIdentifierZero) {
    for (const std::string name : {"31", "abc", "", "-1", "0", "99999999999999999999"}) {
        const EventType type(name);
        EXPECT_EQ(type.getId(), 0) << name;
        EXPECT_EQ(type.getName(), name);
    }
}

/// A type takes any identifier.
TEST(EventTypeTest, TakesAnyIdentifier) {
    EXPECT_EQ(EventType(202L).getId(), 202);
    EXPECT_EQ(EventType(202L).getName(), "kiv.start");
    EXPECT_EQ(EventType(31L).getId(), 31);
    EXPECT_EQ(EventType(31L).getName(), "31");
}

}  // namespace
