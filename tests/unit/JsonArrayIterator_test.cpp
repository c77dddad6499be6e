#include "JsonArrayIterator.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::size_t references(const JsonObject& value) {
    return value.get()->refcount;
}

}  // namespace

/// `JsonArrayIterator` walks the elements in order and keeps the array alive.
TEST(JsonArrayIterator, WalksTheElementsInOrder) {
    std::string seen;
    for (JsonArrayIterator it(JsonObject::parse(R"([1, "x", null])")); it; ++it) {
        seen += it.current().getStringRep() + ";";
    }
    EXPECT_EQ(seen, "1;x;(json null);");
}

/// `JsonArrayIterator` is false at once over null and what is not an array.
TEST(JsonArrayIterator, IsFalseAtOnceOverAnythingThatIsNoArray) {
    EXPECT_FALSE(JsonArrayIterator(JsonObject()));
    EXPECT_FALSE(JsonArrayIterator(JsonObject::parse(R"({"a": 1})")));
    EXPECT_FALSE(JsonArrayIterator(JsonObject::createArray()));
    EXPECT_TRUE(JsonArrayIterator(JsonObject()).current().isNull());
}

/// Advanced past the end, its index stays at the size.
TEST(JsonArrayIterator, StaysAtTheSizeWhenAdvancedPastTheEnd) {
    JsonArrayIterator it(JsonObject::parse("[1, 2]"));
    EXPECT_EQ(it.index(), 0U);
    for (int i = 0; i < 5; ++i) ++it;
    EXPECT_EQ(it.index(), 2U);
    EXPECT_FALSE(it);
    EXPECT_TRUE(it.current().isNull());
}

/// `JsonArrayIterator` walks the elements in order and keeps the array alive.
TEST(JsonArrayIterator, KeepsTheArrayAliveAndCountsItsValues) {
    JsonObject array = JsonObject::parse("[{}]");
    const JsonArrayIterator it(array);
    EXPECT_EQ(references(array), 2U);
    array = JsonObject();
    EXPECT_EQ(references(it.current()), 2U);
}
