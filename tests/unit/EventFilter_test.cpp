#include "EventFilter.h"

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"

#include <string>

#include <gtest/gtest.h>

namespace {

class EventFilterTest : public KivTest {
  protected:
    static JsonObject json(const std::string& text) {
        const JsonObject value = JsonObject::parse(text);
        EXPECT_FALSE(value.isNull()) << text;
        return value;
    }

    static bool keeps(const std::string& filter, const std::string& event) {
        return EventFilter(json(filter)).matches(json(event));
    }
};

/// Without rules every event is kept.
TEST_F(EventFilterTest, KeepsEverythingWithoutRules) {
    EXPECT_TRUE(keeps("{}", R"({"event-type":"a"})"));
    EXPECT_TRUE(keeps("{}", "{}"));
    EXPECT_TRUE(EventFilter(JsonObject()).matches(json("{}")));
}

/// Include alone keeps what it matches, exclude alone drops what it matches.
TEST_F(EventFilterTest, KeepsOnlyWhatIncludeMatches) {
    const std::string filter = R"({"include":[{"event-type":"a"},{"event-type":"b"}]})";
    EXPECT_TRUE(keeps(filter, R"({"event-type":"a"})"));
    EXPECT_TRUE(keeps(filter, R"({"event-type":"b"})"));
    EXPECT_FALSE(keeps(filter, R"({"event-type":"c"})"));
}

/// Include alone keeps what it matches, exclude alone drops what it matches.
TEST_F(EventFilterTest, DropsWhatExcludeMatches) {
    const std::string filter = R"({"exclude":[{"event-type":"a"}]})";
    EXPECT_FALSE(keeps(filter, R"({"event-type":"a"})"));
    EXPECT_TRUE(keeps(filter, R"({"event-type":"b"})"));
    EXPECT_TRUE(keeps(filter, "{}"));
}

/// With both, an event must be included and not excluded.
TEST_F(EventFilterTest, KeepsWhatIncludeMatchesAndExcludeDoesNot) {
    const std::string filter = R"({"include":[{"t":"a"}],"exclude":[{"x":1}]})";
    EXPECT_TRUE(keeps(filter, R"({"t":"a","x":2})"));
    EXPECT_FALSE(keeps(filter, R"({"t":"a","x":1})"));
    EXPECT_FALSE(keeps(filter, R"({"t":"b","x":2})"));
    EXPECT_FALSE(keeps(filter, R"({"t":"b","x":1})"));
}

/// Exclude is not asked about what include rejected.
TEST_F(EventFilterTest, DoesNotAskExcludeAboutWhatIncludeRejected) {
    const std::string complaining = R"([{"x":{"$and":1}}])";
    OutputCapture capture;
    EXPECT_FALSE(
        keeps(R"({"include":[{"t":"a"}],"exclude":)" + complaining + "}", R"({"t":"b","x":1})"));
    EXPECT_EQ(capture.err(), "");
    EXPECT_TRUE(
        keeps(R"({"include":[{"t":"a"}],"exclude":)" + complaining + "}", R"({"t":"a","x":1})"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: evalAndOperator rhs not an array: 1\n");
}

/// Rules that are not an array, JSON null included, match nothing.
TEST_F(EventFilterTest, MatchesNothingByRulesThatAreNoArray) {
    EXPECT_FALSE(keeps(R"({"include":{"t":"a"}})", R"({"t":"a"})"));
    EXPECT_TRUE(keeps(R"({"exclude":{"t":"a"}})", R"({"t":"a"})"));
    EXPECT_FALSE(keeps(R"({"include":null})", R"({"t":"a"})"));
    EXPECT_TRUE(keeps(R"({"exclude":null})", R"({"t":"a"})"));
    EXPECT_FALSE(keeps(R"({"include":[]})", R"({"t":"a"})"));
    EXPECT_TRUE(keeps(R"({"exclude":[]})", R"({"t":"a"})"));
}

/// Without rules every event is kept.
TEST_F(EventFilterTest, KeepsEverythingByAConfigurationThatIsNoObject) {
    EXPECT_TRUE(keeps("[]", R"({"t":"a"})"));
    EXPECT_TRUE(keeps(R"(["include"])", R"({"t":"a"})"));
}

/// It outlives the configuration it was made from.
TEST_F(EventFilterTest, OutlivesTheConfigurationItWasMadeFrom) {
    JsonObject config = json(R"({"include":[{"t":"a"}]})");
    const EventFilter filter(config);
    config = JsonObject();
    EXPECT_TRUE(filter.matches(json(R"({"t":"a"})")));
    EXPECT_FALSE(filter.matches(json(R"({"t":"b"})")));
}

/// Its trace names event and both filters, and is off by default.
TEST_F(EventFilterTest, TracesWhenVerbose) {
    EventFilter::m_verbose = true;
    OutputCapture capture;
    keeps(R"({"include":[{"t":"a"}],"exclude":[]})", R"({"t":"a"})");
    keeps("{}", R"({"t":"a"})");
    capture.stop();
    EXPECT_EQ(
        capture.outWithoutPrefixes(),
        "EventFilter: Match {\"t\": \"a\"} with include filter [{\"t\": \"a\"}] and exclude "
        "filter []\n"
        "EventFilter: Match {\"t\": \"a\"} with include filter (invalid json obj) and exclude "
        "filter (invalid json obj)\n");
    EXPECT_EQ(capture.err(), "");
}

/// Its trace names event and both filters, and is off by default.
TEST_F(EventFilterTest, ItsLineCarriesTheDiagnosticPrefix) {
    EventFilter::m_verbose = true;
    OutputCapture capture;
    keeps(R"({"include":[],"exclude":[]})", "{}");
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "EventFilter: "),
              "EventFilter: Match {} with include filter [] and exclude filter []\n");
}

/// Its trace names event and both filters, and is off by default.
TEST_F(EventFilterTest, IsSilentByDefault) {
    OutputCapture capture;
    keeps(R"({"include":[{"t":"a"}],"exclude":[{"t":"a"}]})", R"({"t":"a"})");
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
}

}  // namespace
