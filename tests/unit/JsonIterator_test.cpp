#include "JsonIterator.h"

#include <string>

#include <gtest/gtest.h>

namespace {

std::size_t references(const JsonObject& value) {
    return value.get()->refcount;
}

}  // namespace

/// `JsonIterator` walks the members in order and keeps the object alive.
TEST(JsonIterator, WalksTheMembersInOrder) {
    std::string seen;
    for (JsonIterator it(JsonObject::parse(R"({"b": 1, "a": "x", "c": null})")); !it.atEnd();
         it.advance()) {
        seen += std::string(it.key()) + "=" + it.value().getStringRep() + ";";
    }
    EXPECT_EQ(seen, "b=1;a=x;c=(json null);");
}

/// `JsonIterator` walks the members in order and keeps the object alive.
TEST(JsonIterator, TakesAReferenceOnTheCurrentValue) {
    const JsonIterator it(JsonObject::parse(R"({"a": {}})"));
    EXPECT_EQ(references(it.value()), 2U);
}

/// `JsonIterator` walks the members in order and keeps the object alive.
TEST(JsonIterator, KeepsTheObjectAlive) {
    JsonObject object = JsonObject::parse(R"({"a": 1})");
    const JsonIterator it(object);
    EXPECT_EQ(references(object), 2U);
    object = JsonObject();
    EXPECT_STREQ(it.key(), "a");
    EXPECT_EQ(it.value().getStringRep(), "1");
}

/// `JsonIterator` is at its end at once without members, and stays there.
TEST(JsonIterator, EndsAtOnceWithoutMembers) {
    EXPECT_TRUE(JsonIterator(JsonObject()).atEnd());
    EXPECT_TRUE(JsonIterator(JsonObject::createObject()).atEnd());
    EXPECT_TRUE(JsonIterator(JsonObject::parse("[1]")).atEnd());
}

/// `JsonIterator` is at its end at once without members, and stays there.
TEST(JsonIterator, StaysAtItsEnd) {
    JsonIterator it(JsonObject::parse(R"({"a": 1})"));
    it.advance();
    it.advance();
    EXPECT_TRUE(it.atEnd());
    EXPECT_STREQ(it.key(), "");
    EXPECT_TRUE(it.value().isNull());
}
