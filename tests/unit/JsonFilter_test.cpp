#include "JsonFilter.h"

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"

#include <string>

#include <gtest/gtest.h>

namespace {

class JsonFilterTest : public KivTest {
  protected:
    static JsonObject json(const std::string& text) {
        const JsonObject value = JsonObject::parse(text, JSON_DECODE_ANY);
        EXPECT_FALSE(value.isNull()) << text;
        return value;
    }

    static bool matches(const std::string& filter, const std::string& event) {
        return JsonFilter(json(filter)).matches(json(event));
    }
};

/// A null filter matches everything.
TEST_F(JsonFilterTest, MatchesEverythingByANullHandle) {
    EXPECT_TRUE(JsonFilter(JsonObject()).matches(json("{}")));
    EXPECT_TRUE(JsonFilter(JsonObject()).matches(JsonObject()));
}

/// An empty array, and what is not an array, match nothing.
TEST_F(JsonFilterTest, MatchesNothingByAnEmptyArray) {
    EXPECT_FALSE(matches("[]", "{}"));
    EXPECT_FALSE(matches("[]", R"({"x":1})"));
}

/// An empty array, and what is not an array, match nothing.
TEST_F(JsonFilterTest, MatchesNothingByAValueThatIsNoArray) {
    for (const char* filter : {"{}", R"({"x":1})", "null", "true", "3", "2.5", R"("x")"}) {
        EXPECT_FALSE(matches(filter, R"({"x":1})")) << filter;
    }
}

/// Any rule may match; they are asked in order up to the first that does.
TEST_F(JsonFilterTest, MatchesWhenAnyRuleMatches) {
    const std::string filter = R"([{"x":1},{"x":2}])";
    EXPECT_TRUE(matches(filter, R"({"x":1})"));
    EXPECT_TRUE(matches(filter, R"({"x":2})"));
    EXPECT_FALSE(matches(filter, R"({"x":3})"));
}

/// Any rule may match; they are asked in order up to the first that does.
TEST_F(JsonFilterTest, MatchesEverythingByAnEmptyRule) {
    EXPECT_TRUE(matches("[{}]", R"({"x":1})"));
    EXPECT_TRUE(matches("[{}]", "{}"));
}

/// Any rule may match; they are asked in order up to the first that does.
TEST_F(JsonFilterTest, EndsAtTheFirstRuleThatMatches) {
    OutputCapture capture;
    EXPECT_TRUE(matches(R"([{"x":1},{"x":{"$and":2}}])", R"({"x":1})"));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// Any rule may match; they are asked in order up to the first that does.
TEST_F(JsonFilterTest, AsksTheRulesInOrder) {
    OutputCapture capture;
    EXPECT_TRUE(matches(R"([{"x":{"$and":2}},{"x":1}])", R"({"x":1})"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: evalAndOperator rhs not an array: 2\n");
}

/// An element that is not a rule gets "Invalid json object in filter array" and is passed over.
TEST_F(JsonFilterTest, PassesOverElementsThatAreNoObject) {
    for (const char* element : {"null", "3", "true", "[]", R"("x")"}) {
        OutputCapture capture;
        const std::string filter = std::string("[") + element + R"(, {"x": 1}])";
        EXPECT_TRUE(matches(filter, R"({"x":1})")) << element;
        EXPECT_FALSE(matches(filter, R"({"x":2})")) << element;
        capture.stop();
        const std::string line = "JsonFilter: Invalid json object in filter array" + filter + "\n";
        EXPECT_EQ(capture.errWithoutPrefixes(), line + line);
    }
}

/// Of a long filter the line shows the beginning.
TEST_F(JsonFilterTest, ShowsALongFilterCut) {
    OutputCapture capture;
    EXPECT_FALSE(matches("[\"" + std::string(10000, 'x') + "\"]", "{}"));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "JsonFilter: Invalid json object in filter array[\"" +
                                                std::string(254, 'x') + "... (10004 bytes)\n");
}

/// An element that is not a rule gets "Invalid json object in filter array" and is passed over.
TEST_F(JsonFilterTest, ItsLineCarriesTheDiagnosticPrefix) {
    OutputCapture capture;
    EXPECT_FALSE(matches("[3]", "{}"));
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.err(), "JsonFilter: "),
              "JsonFilter: Invalid json object in filter array[3]\n");
}

/// It keeps its rules alive and changes neither them nor the event.
TEST_F(JsonFilterTest, KeepsItsRulesAlive) {
    JsonObject rules = json(R"([{"x":1}])");
    const JsonFilter filter(rules);
    rules = JsonObject();
    EXPECT_TRUE(filter.matches(json(R"({"x":1})")));
}

/// It keeps its rules alive and changes neither them nor the event.
TEST_F(JsonFilterTest, ChangesNeitherFilterNorEvent) {
    const JsonObject rules = json(R"([{"x":{"$not":[1,{"$>":3}]}},{"y":{"$regex":"a+"}}])");
    const JsonObject event = json(R"({"x":1,"y":"b"})");
    const std::string before = rules.getStringRep() + event.getStringRep();
    EXPECT_FALSE(JsonFilter(rules).matches(event));
    EXPECT_EQ(rules.getStringRep() + event.getStringRep(), before);
}

}  // namespace
