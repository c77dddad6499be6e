#include "kivevent.h"
#include "kivevent.hpp"

#include "support/MessageQueue.h"

#include <chrono>
#include <clocale>
#include <cmath>
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

class KiveventBuilderTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(KIVEVENT_OK, kivevent_builder_open("usage.epg", &builder)); }
    void TearDown() override { kivevent_builder_close(builder); }

    std::string text() { return kivevent_builder_text(builder); }

    kivevent_builder* builder = nullptr;
};

/// A builder makes an event of a type, and of keys and values of each kind, in their order; a key
/// given twice has its last value.
TEST_F(KiveventBuilderTest, MakesAnEventOfKeysAndValues) {
    EXPECT_EQ(R"({"event-type":"usage.epg"})", text());
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_text(builder, "title", "x"));
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_integer(builder, "n", INT64_MIN));
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_number(builder, "level", 0.1));
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_boolean(builder, "on", 7));
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_json(builder, "list", "[1, null, {\"a\": 2}]"));
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_text(builder, "title", "y"));
    EXPECT_EQ(KIVEVENT_OK, kivevent_set_kernel_time(builder, 12345678901234));
    EXPECT_EQ(R"({"event-type":"usage.epg","data":{"title":"y","n":-9223372036854775808,)"
              R"("level":0.1,"on":true,"list":[1,null,{"a":2}]},"kernel-time":12345678901234})",
              text());
}

/// Texts and keys come out so that they read back as they were given.
TEST_F(KiveventBuilderTest, EscapesWhatMustBe) {
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_text(builder, "a\"b", "\\ \" \n\t\x01 K\xc3\xbc"));
    EXPECT_EQ(
        "{\"event-type\":\"usage.epg\",\"data\":{\"a\\\"b\":\"\\\\ \\\" \\n\\t\\u0001 "
        "K\xc3\xbc\"}}",
        text());
}

/// Numbers keep every digit that they need, in every locale, and one that JSON cannot say is
/// refused.
TEST_F(KiveventBuilderTest, WritesNumbersThatReadBack) {
    const char* const before = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
    EXPECT_EQ(KIVEVENT_OK, kivevent_add_number(builder, "x", 0.30000000000000004));
    EXPECT_EQ(R"({"event-type":"usage.epg","data":{"x":0.30000000000000004}})", text());
    if (before != nullptr) std::setlocale(LC_NUMERIC, "C");
    for (double bad : {std::nan(""), std::numeric_limits<double>::infinity()})
        EXPECT_EQ(KIVEVENT_INVALID, kivevent_add_number(builder, "x", bad));
    EXPECT_STREQ("x: not a finite number", kivevent_detail());
}

/// What the daemon could not store is refused where it is added, and the event stays as it was.
TEST_F(KiveventBuilderTest, RefusesWhatCouldNotBeStored) {
    EXPECT_EQ(KIVEVENT_QUOTE, kivevent_add_text(builder, "x", "it's"));
    EXPECT_STREQ("x: single quote, which kivApp cannot store", kivevent_detail());
    EXPECT_EQ(KIVEVENT_QUOTE, kivevent_add_integer(builder, "it's", 1));
    EXPECT_EQ(KIVEVENT_QUOTE, kivevent_add_json(builder, "x", R"({"y":["\u0027"]})"));
    EXPECT_EQ(KIVEVENT_NOT_UTF8, kivevent_add_text(builder, "x", "\xff"));
    EXPECT_STREQ("x: not valid UTF-8", kivevent_detail());
    EXPECT_EQ(KIVEVENT_NOT_UTF8, kivevent_add_boolean(builder, "\xc3", 1));
    EXPECT_EQ(KIVEVENT_NOT_JSON, kivevent_add_json(builder, "x", "{"));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_add_text(builder, "x", nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_add_json(builder, "x", nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_add_text(builder, nullptr, "x"));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_set_kernel_time(builder, -1));
    EXPECT_EQ(KIVEVENT_QUOTE, kivevent_builder_reset(builder, "it's"));
    EXPECT_EQ(R"({"event-type":"usage.epg"})", text());
    kivevent_builder* none = nullptr;
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_builder_open(nullptr, &none));
    EXPECT_EQ(KIVEVENT_NOT_UTF8, kivevent_builder_open("\xff", &none));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_add_text(nullptr, "x", "y"));
    EXPECT_EQ(nullptr, kivevent_builder_text(nullptr));
}

/// A reset begins the next event with nothing of the last one.
TEST_F(KiveventBuilderTest, BeginsTheNextEvent) {
    kivevent_add_number(builder, "x", 1.5);
    kivevent_set_kernel_time(builder, 5);
    EXPECT_EQ(KIVEVENT_OK, kivevent_builder_reset(builder, "b"));
    EXPECT_EQ(R"({"event-type":"b"})", text());
}

// ---- C++
// -----------------------------------------------------------------------------------------------

/// The C++ event has the C builder's text; what is refused is an exception with code and words.
TEST(KiveventCppTest, BuildsAnEvent) {
    const std::string text = kivevent::Event("a")
                                 .add("text", "x")
                                 .add("string", std::string("y"))
                                 .add("integer", 5)
                                 .add("wide", std::int64_t{1} << 40)
                                 .add("number", 0.5)
                                 .add("on", true)
                                 .addJson("list", "[1]")
                                 .kernelTime(7)
                                 .text();
    EXPECT_EQ(R"({"event-type":"a","data":{"text":"x","string":"y","integer":5,)"
              R"("wide":1099511627776,"number":0.5,"on":true,"list":[1]},"kernel-time":7})",
              text);
    try {
        kivevent::Event("a").add("x", "it's");
        FAIL() << "a quote was taken";
    } catch (const kivevent::Error& error) {
        EXPECT_EQ(KIVEVENT_QUOTE, error.code());
        EXPECT_STREQ("x: single quote, which kivApp cannot store", error.what());
    }
}

/// The C++ queue posts, waits and tells the limit; a missing daemon, a full queue, an event that
/// nobody answers are exceptions, and codes where that is asked for.
TEST(KiveventCppTest, PostsToTheQueue) {
    const std::string name = uniqueName("kiveventcpp");
    kivevent::Queue queue(name);
    EXPECT_EQ(name, queue.name());
    EXPECT_EQ(KIVEVENT_NO_DAEMON, queue.tryPost(R"({"event-type":"a"})"));
    EXPECT_THROW(queue.limit(), kivevent::Error);
    ASSERT_TRUE(makeQueue(name, 2, 200));
    const Queue daemon(name, O_RDWR | O_NONBLOCK);
    EXPECT_EQ(200u, queue.limit());
    queue.post(kivevent::Event("a"));
    EXPECT_THROW(queue.postSync(kivevent::Event("b"), milliseconds(10)), kivevent::Error);
    kivevent::Receipt receipt;
    EXPECT_FALSE(receipt.wait(milliseconds(0)));
    EXPECT_EQ(KIVEVENT_TIMEOUT, queue.tryPost(R"({"event-type":"a"})", milliseconds(10), &receipt));
    EXPECT_EQ(KIVEVENT_INVALID, queue.tryPost(R"({"event-type":"a"})", milliseconds(-1)));
    try {
        queue.post(R"({"event-type":"a"})");
        FAIL() << "there was room";
    } catch (const kivevent::Error& error) {
        EXPECT_EQ(KIVEVENT_FULL, error.code());
        EXPECT_EQ(name + ": full", error.what());
    }
    EXPECT_EQ(2, daemon.attributes().mq_curmsgs);
    kivevent::Queue moved(std::move(queue));
    EXPECT_EQ(200u, moved.limit());
    mq_unlink(name.c_str());
}

}  // namespace
