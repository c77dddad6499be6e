#include "JsonFilterRule.h"

#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/TaggedLines.h"

#include <random>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

namespace {

using Rule = JsonFilterRule;

class JsonFilterRuleTest : public KivTest {
  protected:
    static JsonObject json(const std::string& text) {
        const JsonObject value = JsonObject::parse(text, JSON_DECODE_ANY);
        EXPECT_FALSE(value.isNull()) << text;
        return value;
    }

    static bool matches(const std::string& rule, const std::string& event) {
        return Rule(json(rule)).matches(json(event));
    }

    static bool valuesMatch(const std::string& value, const std::string& ruleValue) {
        return Rule(json("{}")).matchValues(json(value), json(ruleValue));
    }

    static int compare(const std::string& a, const std::string& b) {
        return Rule(json("{}")).compareValues(json(a), json(b));
    }

    /// What the matching writes on the standard error, without the prefixes.
    static std::string errorsOf(const std::string& rule, const std::string& event, bool expected) {
        OutputCapture capture;
        EXPECT_EQ(matches(rule, event), expected) << rule << " on " << event;
        capture.stop();
        EXPECT_EQ(capture.out(), "");
        return capture.errWithoutPrefixes();
    }
};

// ---- A rule and its keys -------------------------------------------------------------------

/// An empty rule matches every event; a rule that is not an object matches none.
TEST_F(JsonFilterRuleTest, MatchesEveryEventByAnEmptyRule) {
    EXPECT_TRUE(matches("{}", "{}"));
    EXPECT_TRUE(matches("{}", R"({"x":1})"));
    EXPECT_TRUE(Rule(json("{}")).matches(JsonObject()));
}

/// An empty rule matches every event; a rule that is not an object matches none.
TEST_F(JsonFilterRuleTest, MatchesNothingByARuleThatIsNoObject) {
    for (const char* rule : {"null", "1", "[]", "true", R"("x")"}) {
        EXPECT_FALSE(matches(rule, R"({"x":1})")) << rule;
    }
    EXPECT_FALSE(Rule(JsonObject()).matches(json("{}")));
}

/// Every key must match; the first that does not ends the evaluation.
TEST_F(JsonFilterRuleTest, MatchesWhenEveryKeyMatches) {
    const std::string rule = R"({"x":1,"y":2})";
    EXPECT_TRUE(matches(rule, R"({"x":1,"y":2})"));
    EXPECT_TRUE(matches(rule, R"({"x":1,"y":2,"z":3})"));
    EXPECT_FALSE(matches(rule, R"({"x":1,"y":3})"));
    EXPECT_FALSE(matches(rule, R"({"x":2,"y":2})"));
    EXPECT_FALSE(matches(rule, R"({"x":1})"));
}

/// Every key must match; the first that does not ends the evaluation.
TEST_F(JsonFilterRuleTest, StopsAtTheFirstKeyThatDoesNotMatch) {
    EXPECT_EQ(errorsOf(R"({"x":2,"y":{"$and":0}})", R"({"x":1,"y":1})", false), "");
}

/// An event that is not an object has no keys.
TEST_F(JsonFilterRuleTest, TakesAnEventThatIsNoObjectAsOneWithoutKeys) {
    EXPECT_FALSE(matches(R"({"x":1})", "[1]"));
    EXPECT_FALSE(matches(R"({"x":1})", "1"));
    EXPECT_TRUE(matches(R"({"x":null})", "[1]"));
    EXPECT_FALSE(Rule(json(R"({"x":1})")).matches(JsonObject()));
    EXPECT_TRUE(Rule(json(R"({"x":null})")).matches(JsonObject()));
}

// ---- One value against one rule value ------------------------------------------------------

/// A rule value that cannot be read never matches.
TEST_F(JsonFilterRuleTest, NeverMatchesANullHandleAsRuleValue) {
    const Rule rule(json("{}"));
    EXPECT_FALSE(rule.matchValues(json("1"), JsonObject()));
    EXPECT_FALSE(rule.matchValues(json("null"), JsonObject()));
    EXPECT_FALSE(rule.matchValues(JsonObject(), JsonObject()));
}

/// A missing key matches JSON null only; a JSON null field is an ordinary value.
TEST_F(JsonFilterRuleTest, MatchesAMissingKeyByJsonNullOnly) {
    EXPECT_TRUE(matches(R"({"x":null})", "{}"));
    EXPECT_FALSE(matches(R"({"x":1})", "{}"));
    EXPECT_FALSE(matches(R"({"x":{"$not":1}})", "{}"));
    EXPECT_FALSE(matches(R"({"x":[null]})", "{}"));
    EXPECT_FALSE(matches(R"({"x":{}})", "{}"));
    EXPECT_FALSE(matches(R"({"x":null})", R"({"x":1})"));
}

/// A missing key matches JSON null only; a JSON null field is an ordinary value.
TEST_F(JsonFilterRuleTest, TakesAJsonNullFieldAsAnOrdinaryValue) {
    EXPECT_TRUE(matches(R"({"x":null})", R"({"x":null})"));
    EXPECT_TRUE(matches(R"({"x":[1,null]})", R"({"x":null})"));
    EXPECT_TRUE(matches(R"({"x":{"$not":1}})", R"({"x":null})"));
    EXPECT_FALSE(matches(R"({"x":1})", R"({"x":null})"));
    EXPECT_TRUE(matches(R"j({"x":{"$regex":"\\(json null\\)"}})j", R"({"x":null})"));
}

/// Equal values of every type match, before anything else is asked.
TEST_F(JsonFilterRuleTest, MatchesEqualValuesOfEveryType) {
    for (const char* value :
         {"1", "2.5", R"("a")", "true", "false", "null", "[]", "[1, 2]", "{}", R"({"k": [1]})"}) {
        EXPECT_TRUE(valuesMatch(value, value)) << value;
    }
}

/// Equal values of every type match, before anything else is asked.
TEST_F(JsonFilterRuleTest, AsksForEqualityBeforeAnythingElse) {
    EXPECT_TRUE(valuesMatch("[]", "[]"));
    EXPECT_TRUE(valuesMatch(R"({"$>": 3})", R"({"$>": 3})"));
    EXPECT_TRUE(valuesMatch("[1, 2]", "[1, 2]"));
}

/// Types are told apart; integers compare in 64 bits, mixed numbers as doubles.
TEST_F(JsonFilterRuleTest, DistinguishesTypes) {
    EXPECT_FALSE(valuesMatch("1", R"("1")"));
    EXPECT_FALSE(valuesMatch(R"("1")", "1"));
    EXPECT_FALSE(valuesMatch("true", "1"));
    EXPECT_FALSE(valuesMatch("1", "true"));
    EXPECT_FALSE(valuesMatch("false", "true"));
    EXPECT_FALSE(valuesMatch("null", "0"));
    EXPECT_FALSE(valuesMatch("0", "null"));
    EXPECT_FALSE(valuesMatch(R"("A")", R"("a")"));
}

/// Types are told apart; integers compare in 64 bits, mixed numbers as doubles.
TEST_F(JsonFilterRuleTest, ComparesNumbersOfBothKindsAsDoubles) {
    EXPECT_TRUE(valuesMatch("3", "3.0"));
    EXPECT_TRUE(valuesMatch("3.0", "3"));
    EXPECT_TRUE(valuesMatch("3.0", "3.0"));
    EXPECT_FALSE(valuesMatch("3", "3.5"));
    EXPECT_FALSE(valuesMatch("3", "4"));
}

/// Types are told apart; integers compare in 64 bits, mixed numbers as doubles.
TEST_F(JsonFilterRuleTest, ComparesIntegersIn64Bits) {
    EXPECT_FALSE(valuesMatch("9007199254740993", "9007199254740992"));
    EXPECT_TRUE(valuesMatch("9223372036854775807", "9223372036854775807"));
    EXPECT_FALSE(valuesMatch("4294967297", "1"));
}

/// An array means any of its elements; an empty one none.
TEST_F(JsonFilterRuleTest, MatchesAnyOfTheAlternatives) {
    const std::string rule = R"({"event-type":["a","b"]})";
    EXPECT_TRUE(matches(rule, R"({"event-type":"a"})"));
    EXPECT_TRUE(matches(rule, R"({"event-type":"b"})"));
    EXPECT_FALSE(matches(rule, R"({"event-type":"c"})"));
    EXPECT_TRUE(matches(R"({"x":[1,{"$>":5}]})", R"({"x":6})"));
    EXPECT_TRUE(matches(R"({"x":[[1,2],3]})", R"({"x":2})"));
    EXPECT_FALSE(matches(R"({"x":[]})", R"({"x":1})"));
}

/// An array means any of its elements; an empty one none.
TEST_F(JsonFilterRuleTest, MatchesNothingInAnArrayThatIsNone) {
    EXPECT_FALSE(Rule(json("{}")).matchWithJsonArray(json("1"), json("1")));
    EXPECT_FALSE(Rule(json("{}")).matchWithJsonArray(json("1"), JsonObject()));
}

/// An object that is not an operator is a nested rule for an object.
TEST_F(JsonFilterRuleTest, MatchesANestedRule) {
    const std::string rule = R"({"d":{"k":1}})";
    EXPECT_TRUE(matches(rule, R"({"d":{"k":1}})"));
    EXPECT_TRUE(matches(rule, R"({"d":{"k":1,"l":2}})"));
    EXPECT_FALSE(matches(rule, R"({"d":{"k":2}})"));
    EXPECT_FALSE(matches(rule, R"({"d":{}})"));
    EXPECT_FALSE(matches(rule, R"({"d":1})"));
    EXPECT_FALSE(matches(rule, R"({"d":[{"k":1}]})"));
}

/// An object that is not an operator is a nested rule for an object.
TEST_F(JsonFilterRuleTest, TakesAnObjectWithoutKeysAsANestedRule) {
    EXPECT_TRUE(matches(R"({"d":{}})", R"({"d":{"k":1}})"));
    EXPECT_FALSE(matches(R"({"d":{}})", R"({"d":1})"));
}

/// An operator counts only as the one key of a value; elsewhere, and unknown ones, are field
/// names.
TEST_F(JsonFilterRuleTest, TakesAnOperatorAmongSeveralKeysAsAFieldName) {
    const std::string rule = R"({"d":{"$>":1,"k":2}})";
    EXPECT_FALSE(matches(rule, R"({"d":5})"));
    EXPECT_TRUE(matches(rule, R"({"d":{"$>":1,"k":2,"l":3}})"));
    EXPECT_FALSE(matches(R"({"x":{"$>":1,"$<":9}})", R"({"x":5})"));
}

/// An operator counts only as the one key of a value; elsewhere, and unknown ones, are field
/// names.
TEST_F(JsonFilterRuleTest, TakesAnUnknownOperatorAsAFieldName) {
    EXPECT_FALSE(matches(R"({"x":{"$like":1}})", R"({"x":1})"));
    EXPECT_TRUE(matches(R"({"x":{"$like":1}})", R"({"x":{"$like":1,"k":2}})"));
}

/// An operator counts only as the one key of a value; elsewhere, and unknown ones, are field
/// names.
TEST_F(JsonFilterRuleTest, TakesAnOperatorAtTheTopOfARuleAsAFieldName) {
    EXPECT_FALSE(matches(R"({"$not":{"x":1}})", R"({"x":2})"));
    EXPECT_TRUE(matches(R"({"$not":1})", R"({"$not":1})"));
}

// ---- Operators -----------------------------------------------------------------------------

/// The eight operators, their numbers, keys and texts, and no other.
TEST_F(JsonFilterRuleTest, KnowsTheOperatorsInTheirOrder) {
    const struct {
        Rule::Operator op;
        int value;
        const char* key;
        const char* text;
    } rows[] = {
        {Rule::NOT, 1, "$not", "not"},
        {Rule::GREATER, 2, "$>", ">"},
        {Rule::GREATER_EQUAL, 3, "$>=", ">="},
        {Rule::LESS, 4, "$<", "<"},
        {Rule::LESS_EQUAL, 5, "$<=", "<="},
        {Rule::AND, 6, "$and", "and"},
        {Rule::CONTAINS, 7, "$contains", "contains"},
        {Rule::REGEX, 8, "$regex", "regex"},
    };
    const Rule rule(json("{}"));
    for (const auto& row : rows) {
        EXPECT_EQ(static_cast<int>(row.op), row.value);
        EXPECT_EQ(rule.toOperator(row.key), row.op) << row.key;
        EXPECT_STREQ(Rule::operatorToString(row.op), row.text);
        std::ostringstream text;
        text << row.op;
        EXPECT_EQ(text.str(), row.text);
    }
}

/// The eight operators, their numbers, keys and texts, and no other.
TEST_F(JsonFilterRuleTest, KnowsNoOtherOperator) {
    const Rule rule(json("{}"));
    EXPECT_EQ(static_cast<int>(Rule::INVOP), 0);
    EXPECT_STREQ(Rule::operatorToString(Rule::INVOP), "INVOP");
    EXPECT_STREQ(Rule::operatorToString(static_cast<Rule::Operator>(9)), "INVOP");
    for (const char* key : {"", "$", "not", "$nota", "$ not", "$=", "$==", "$or", " $not"}) {
        EXPECT_EQ(rule.toOperator(key), Rule::INVOP) << key;
    }
    EXPECT_EQ(rule.toOperator(nullptr), Rule::INVOP);
}

/// Operators are read without regard to case.
TEST_F(JsonFilterRuleTest, ReadsOperatorsWithoutRegardToCase) {
    const Rule rule(json("{}"));
    EXPECT_EQ(rule.toOperator("$NOT"), Rule::NOT);
    EXPECT_EQ(rule.toOperator("$And"), Rule::AND);
    EXPECT_EQ(rule.toOperator("$CONTAINS"), Rule::CONTAINS);
    EXPECT_EQ(rule.toOperator("$RegEx"), Rule::REGEX);
    EXPECT_TRUE(matches(R"({"x":{"$NOT":1}})", R"({"x":2})"));
    EXPECT_FALSE(matches(R"({"x":{"$NOT":1}})", R"({"x":1})"));
}

/// The eight operators, their numbers, keys and texts, and no other.
TEST_F(JsonFilterRuleTest, GivesFalseForNoOperator) {
    const Rule rule(json("{}"));
    OutputCapture capture;
    EXPECT_FALSE(rule.evalOperatorExpr(json("1"), Rule::INVOP, json("1")));
    EXPECT_FALSE(rule.evalOperatorExpr(json("1"), static_cast<Rule::Operator>(9), json("1")));
    capture.stop();
    EXPECT_EQ(capture.err(), "");
}

/// "$not" negates literals, lists, expressions and nested rules.
TEST_F(JsonFilterRuleTest, NegatesLiteralsListsExpressionsAndNestedRules) {
    EXPECT_TRUE(matches(R"({"x":{"$not":1}})", R"({"x":2})"));
    EXPECT_FALSE(matches(R"({"x":{"$not":1}})", R"({"x":1})"));
    EXPECT_TRUE(matches(R"({"x":{"$not":[1,2]}})", R"({"x":3})"));
    EXPECT_FALSE(matches(R"({"x":{"$not":[1,2]}})", R"({"x":2})"));
    EXPECT_TRUE(matches(R"({"x":{"$not":{"$<":0}}})", R"({"x":0})"));
    EXPECT_FALSE(matches(R"({"x":{"$not":{"$<":0}}})", R"({"x":-1})"));
    EXPECT_TRUE(matches(R"({"x":{"$not":{"k":1}}})", R"({"x":{"k":2}})"));
    EXPECT_FALSE(matches(R"({"x":{"$not":{"k":1}}})", R"({"x":{"k":1}})"));
    EXPECT_TRUE(matches(R"({"x":{"$not":{"$not":1}}})", R"({"x":1})"));
}

/// The four comparisons order integers and reals.
TEST_F(JsonFilterRuleTest, ComparesWithTheFourComparisons) {
    const struct {
        const char* op;
        bool below, equal, above;
    } rows[] = {
        {"$>", false, false, true},
        {"$>=", false, true, true},
        {"$<", true, false, false},
        {"$<=", true, true, false},
    };
    for (const auto& row : rows) {
        const std::string rule = std::string(R"({"x":{")") + row.op + R"(":3}})";
        EXPECT_EQ(matches(rule, R"({"x":2})"), row.below) << rule;
        EXPECT_EQ(matches(rule, R"({"x":3})"), row.equal) << rule;
        EXPECT_EQ(matches(rule, R"({"x":3.0})"), row.equal) << rule;
        EXPECT_EQ(matches(rule, R"({"x":4})"), row.above) << rule;
        EXPECT_EQ(matches(rule, R"({"x":3.5})"), row.above) << rule;
        EXPECT_EQ(matches(rule, R"({"x":2.5})"), row.below) << rule;
    }
}

/// The four comparisons order integers and reals.
TEST_F(JsonFilterRuleTest, OrdersNumbers) {
    EXPECT_EQ(compare("2", "1"), 1);
    EXPECT_EQ(compare("1", "2"), -1);
    EXPECT_EQ(compare("2", "2"), 0);
    EXPECT_EQ(compare("2.5", "2"), 1);
    EXPECT_EQ(compare("2", "2.5"), -1);
    EXPECT_EQ(compare("2.0", "2"), 0);
    EXPECT_EQ(compare("-1", "1"), -1);
    EXPECT_EQ(compare("9007199254740993", "9007199254740992"), 1);
    EXPECT_EQ(compare("-9223372036854775808", "9223372036854775807"), -1);
}

/// What is not a number compares as 0 with "compareValues types no numbers: ": "$>=" and "$<=" are
/// true.
TEST_F(JsonFilterRuleTest, WritesALineWhenAComparedValueIsNoNumber) {
    const std::string line = "JsonFilterRule: compareValues types no numbers: ";
    EXPECT_EQ(errorsOf(R"({"x":{"$>":3}})", R"({"x":"7"})", false), line + "7 3\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$<":3}})", R"({"x":"7"})", false), line + "7 3\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$>=":3}})", R"({"x":"7"})", true), line + "7 3\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$<=":3}})", R"({"x":"7"})", true), line + "7 3\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$>":"3"}})", R"({"x":7})", false), line + "7 3\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$>=":[1]}})", R"({"x":null})", true), line + "(json null) [1]\n");
}

/// What is not a number compares as 0 with "compareValues types no numbers: ": "$>=" and "$<=" are
/// true.
TEST_F(JsonFilterRuleTest, GivesZeroForValuesThatAreNoNumbers) {
    OutputCapture capture;
    EXPECT_EQ(compare(R"("b")", R"("a")"), 0);
    EXPECT_EQ(Rule(json("{}")).compareValues(JsonObject(), json("1")), 0);
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "JsonFilterRule: compareValues types no numbers: b a\n"
              "JsonFilterRule: compareValues types no numbers: (invalid json obj) 1\n");
}

/// Only the four comparisons compare.
TEST_F(JsonFilterRuleTest, ComparesForTheFourComparisonsOnly) {
    EXPECT_EQ(errorsOf(R"({"x":{"$not":"a"}})", R"({"x":"b"})", true), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$and":["b"]}})", R"({"x":"b"})", true), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$contains":["b"]}})", R"({"x":["b"]})", true), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$regex":"b"}})", R"({"x":"b"})", true), "");
}

/// "$and" needs every element, stops at the first that fails, and is true when empty.
TEST_F(JsonFilterRuleTest, MatchesWhenEveryElementOfAndMatches) {
    const std::string rule = R"({"x":{"$and":[{"$>":1},{"$<":9},{"$not":5}]}})";
    EXPECT_TRUE(matches(rule, R"({"x":4})"));
    EXPECT_FALSE(matches(rule, R"({"x":5})"));
    EXPECT_FALSE(matches(rule, R"({"x":1})"));
    EXPECT_FALSE(matches(rule, R"({"x":9})"));
    EXPECT_TRUE(matches(R"({"x":{"$and":[]}})", R"({"x":1})"));
}

/// "$and" needs every element, stops at the first that fails, and is true when empty.
TEST_F(JsonFilterRuleTest, StopsAndAtTheFirstElementThatDoesNotMatch) {
    EXPECT_EQ(errorsOf(R"({"x":{"$and":[2,{"$and":0}]}})", R"({"x":1})", false), "");
}

/// "$and" without an array is false with "evalAndOperator rhs not an array: ".
TEST_F(JsonFilterRuleTest, WritesALineWhenAndHasNoArray) {
    const std::string line = "JsonFilterRule: evalAndOperator rhs not an array: ";
    EXPECT_EQ(errorsOf(R"({"x":{"$and":{"$>":1}}})", R"({"x":4})", false), line + "{\"$>\": 1}\n");
    EXPECT_EQ(errorsOf(R"({"x":{"$and":true}})", R"({"x":4})", false), line + "(true)\n");
}

/// Values from outside stand cut and escaped in its lines.
TEST_F(JsonFilterRuleTest, CutsAndEscapesForeignTextInItsLines) {
    const std::string text(300, 'y');
    const std::string cut = std::string(256, 'y') + "... (300 bytes)\n";
    EXPECT_EQ(errorsOf(R"({"x":{"$and":")" + text + R"("}})", R"({"x":4})", false),
              "JsonFilterRule: evalAndOperator rhs not an array: " + cut);
    EXPECT_EQ(errorsOf(R"({"x":{"$>":"a\nb"}})", R"({"x":")" + text + R"("})", false),
              "JsonFilterRule: compareValues types no numbers: " + std::string(256, 'y') +
                  "... (300 bytes) a\\x0Ab\n");
    const std::string errors = errorsOf(R"({"x":{"$regex":"(\n"}})", R"({"x":"y"})", false);
    EXPECT_NE(errors.find(") on regexp (\\x0A\n"), std::string::npos) << errors;
}

/// "$contains" finds every required element; none required, or not arrays, is false.
TEST_F(JsonFilterRuleTest, FindsEveryRequiredElement) {
    const std::string rule = R"({"tags":{"$contains":["a","b"]}})";
    EXPECT_TRUE(matches(rule, R"({"tags":["b","c","a"]})"));
    EXPECT_FALSE(matches(rule, R"({"tags":["a"]})"));
    EXPECT_FALSE(matches(rule, R"({"tags":[]})"));
    EXPECT_FALSE(matches(rule, R"({"tags":"ab"})"));
    EXPECT_TRUE(matches(R"({"t":{"$contains":[{"$>":5}]}})", R"({"t":[1,9]})"));
    EXPECT_TRUE(matches(R"({"t":{"$contains":["a","a"]}})", R"({"t":["a"]})"));
}

/// "$contains" finds every required element; none required, or not arrays, is false.
TEST_F(JsonFilterRuleTest, ContainsNothingWithoutRequiredElements) {
    EXPECT_FALSE(matches(R"({"tags":{"$contains":[]}})", R"({"tags":["a"]})"));
    EXPECT_FALSE(matches(R"({"tags":{"$contains":[]}})", R"({"tags":[]})"));
    EXPECT_FALSE(matches(R"({"tags":{"$contains":"a"}})", R"({"tags":["a"]})"));
    EXPECT_FALSE(matches(R"({"tags":{"$contains":{}}})", R"({"tags":["a"]})"));
}

/// "$regex" matches the whole printable form.
TEST_F(JsonFilterRuleTest, MatchesAWholeTextByARegularExpression) {
    const std::string rule = R"({"name":{"$regex":"ab.*"}})";
    EXPECT_TRUE(matches(rule, R"({"name":"abc"})"));
    EXPECT_TRUE(matches(rule, R"({"name":"ab"})"));
    EXPECT_FALSE(matches(rule, R"({"name":"xabc"})"));
    EXPECT_FALSE(matches(rule, "{}"));
}

/// "$regex" matches the whole printable form.
TEST_F(JsonFilterRuleTest, MatchesThePrintableFormByARegularExpression) {
    EXPECT_TRUE(matches(R"({"x":{"$regex":"4[0-9]"}})", R"({"x":42})"));
    EXPECT_TRUE(matches(R"({"x":{"$regex":"2\\.5"}})", R"({"x":2.5})"));
    EXPECT_TRUE(matches(R"j({"x":{"$regex":"\\(true\\)"}})j", R"({"x":true})"));
    EXPECT_TRUE(matches(R"({"x":{"$regex":"\\[1, 2\\]"}})", R"({"x":[1,2]})"));
}

/// A pattern that is not a string is false; one that does not compile gets "Caught exception: ".
TEST_F(JsonFilterRuleTest, MatchesNothingByAPatternThatIsNoString) {
    EXPECT_EQ(errorsOf(R"({"x":{"$regex":1}})", R"({"x":1})", false), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$regex":["1"]}})", R"({"x":1})", false), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$regex":null}})", R"({"x":1})", false), "");
}

/// A pattern that is not a string is false; one that does not compile gets "Caught exception: ".
TEST_F(JsonFilterRuleTest, WritesALineWhenAPatternDoesNotCompile) {
    std::string what;
    int code = 0;
    try {
        const std::regex bad("(");
    } catch (const std::regex_error& error) {
        what = error.what();
        code = static_cast<int>(error.code());
    }
    EXPECT_EQ(errorsOf(R"({"name":{"$regex":"("}})", R"({"name":"("})", false),
              "JsonFilterRule: Caught exception: " + what + " (code " + std::to_string(code) +
                  ") on regexp (\n");
}

/// A pattern that is not a string is false; one that does not compile gets "Caught exception: ".
TEST_F(JsonFilterRuleTest, DoesNotMatchAPatternThatIsTooLong) {
    const std::string pattern(1025, 'a');
    const std::string errors = errorsOf(R"({"x":{"$regex":")" + pattern + R"("}})",
                                        R"({"x":")" + pattern + R"("})", false);
    EXPECT_EQ(errors, "JsonFilterRule: Pattern of 1025 characters is too long (limit 1024): " +
                          std::string(256, 'a') + "... (1025 bytes)\n");
}

// ---- Traces --------------------------------------------------------------------------------

/// Verbose, each step is traced, also the result after an early stop.
TEST_F(JsonFilterRuleTest, TracesAMatchWhenVerbose) {
    Rule::m_verbose = true;
    OutputCapture capture;
    EXPECT_TRUE(matches(R"({"x":{"$>=":3}})", R"({"x":4})"));
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "JsonFilterRule: Match {\"x\": 4} with rule {\"x\": {\"$>=\": 3}}\n"
              "JsonFilterRule: Check key x\n"
              "JsonFilterRule: Match value of 4 with {\"$>=\": 3}\n"
              "JsonFilterRule: Match 4 >= 3\n"
              "JsonFilterRule: Match: yes\n");
    EXPECT_EQ(capture.err(), "");
}

/// By default nothing is traced; every line carries the diagnostic prefix.
TEST_F(JsonFilterRuleTest, ItsLinesCarryTheDiagnosticPrefix) {
    Rule::m_verbose = true;
    OutputCapture capture;
    Rule(json("{}")).evalOperatorExpr(json("1"), Rule::AND, json("2"));
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "JsonFilterRule: "), "JsonFilterRule: Match 1 and 2\n");
    EXPECT_EQ(prefixedLines(capture.err(), "JsonFilterRule: "),
              "JsonFilterRule: evalAndOperator rhs not an array: 2\n");
}

/// Verbose, each step is traced, also the result after an early stop.
TEST_F(JsonFilterRuleTest, TracesTheResultAfterAnEarlyStop) {
    Rule::m_verbose = true;
    OutputCapture capture;
    EXPECT_FALSE(matches(R"({"x":"a","y":1})", R"({"y":1})"));
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "JsonFilterRule: Match {\"y\": 1} with rule {\"x\": \"a\", \"y\": 1}\n"
              "JsonFilterRule: Check key x\n"
              "JsonFilterRule: Match value of (invalid json obj) with a\n"
              "JsonFilterRule: Match: no\n");
}

/// Verbose, each step is traced, also the result after an early stop.
TEST_F(JsonFilterRuleTest, TracesEachOperatorByItsText) {
    Rule::m_verbose = true;
    OutputCapture capture;
    const Rule rule(json("{}"));
    rule.evalOperatorExpr(json("1"), Rule::AND, json("[]"));
    rule.evalOperatorExpr(json("1"), Rule::CONTAINS, json("[]"));
    rule.evalOperatorExpr(json("1"), Rule::REGEX, json("2"));
    rule.evalOperatorExpr(json("1"), Rule::INVOP, json("2"));
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "JsonFilterRule: Match 1 and []\n"
              "JsonFilterRule: Match 1 contains []\n"
              "JsonFilterRule: Match 1 regex 2\n"
              "JsonFilterRule: Match 1 INVOP 2\n");
}

/// By default nothing is traced; every line carries the diagnostic prefix.
TEST_F(JsonFilterRuleTest, IsSilentByDefault) {
    EXPECT_EQ(errorsOf(R"({"x":{"$>=":3}})", R"({"x":4})", true), "");
    EXPECT_EQ(errorsOf(R"({"x":{"$>=":3}})", R"({"x":2})", false), "");
}

// ---- Hostile rules -------------------------------------------------------------------------

/// Rules may be as deep as the parser allows.
TEST_F(JsonFilterRuleTest, TakesRulesAsDeepAsTheParserAllows) {
    std::string rule = "1";
    for (int depth = 0; depth < 2000; ++depth) rule = R"({"$not":)" + rule + "}";
    bool result = false;
    std::thread([&] { result = matches(R"({"x":)" + rule + "}", R"({"x":1})"); }).join();
    EXPECT_TRUE(result);
}

// ---- Against a second reading of the language ----------------------------------------------

/// Evaluates rules over small integers, lists and objects directly on jansson's values.
class PlainReading {
  public:
    static bool rule(const json_t* event, json_t* keys) {
        const char* key;
        json_t* wanted;
        json_object_foreach(keys, key, wanted) {
            if (!value(json_object_get(event, key), wanted)) return false;
        }
        return true;
    }

  private:
    static bool value(json_t* have, json_t* wanted) {
        if (have == nullptr) return json_is_null(wanted);
        if (json_equal(have, wanted)) return true;
        if (json_is_array(wanted)) return anyOf(have, wanted);
        if (!json_is_object(wanted)) return false;
        void* only = json_object_size(wanted) == 1 ? json_object_iter(wanted) : nullptr;
        const std::string key = only != nullptr ? json_object_iter_key(only) : "";
        if (key.empty() || key[0] != '$') return json_is_object(have) && rule(have, wanted);
        return expression(have, key, json_object_iter_value(only));
    }

    static bool anyOf(json_t* have, json_t* list) {
        size_t i;
        json_t* item;
        json_array_foreach(list, i, item) {
            if (value(have, item)) return true;
        }
        return false;
    }

    static bool expression(json_t* have, const std::string& key, json_t* operand) {
        if (key == "$not") return !value(have, operand);
        if (key == "$and") {
            size_t i;
            json_t* item;
            json_array_foreach(operand, i, item) {
                if (!value(have, item)) return false;
            }
            return true;
        }
        if (key == "$contains") return contains(have, operand);
        const bool numbers = json_is_integer(have) && json_is_integer(operand);
        const json_int_t a = numbers ? json_integer_value(have) : 0;
        const json_int_t b = numbers ? json_integer_value(operand) : 0;
        if (key == "$>") return a > b;
        if (key == "$>=") return a >= b;
        if (key == "$<") return a < b;
        return a <= b;
    }

    static bool contains(json_t* have, json_t* operand) {
        if (!json_is_array(have) || json_array_size(operand) == 0) return false;
        size_t i, j;
        json_t *required, *item;
        json_array_foreach(operand, i, required) {
            bool found = false;
            json_array_foreach(have, j, item) found = found || value(item, required);
            if (!found) return false;
        }
        return true;
    }
};

/// Makes events and rules from few values, so that about as many match as do not.
class Generator {
  public:
    explicit Generator(unsigned int seed) : m_random(seed) {}

    std::string event(int depth = 2) {
        return object([&] { return literal(depth); });
    }
    std::string rule(int depth = 3) {
        return object([&] { return ruleValue(depth); });
    }

  private:
    int below(int limit) { return static_cast<int>(m_random() % static_cast<unsigned>(limit)); }

    template <typename Value>
    std::string object(Value value) {
        std::string text;
        for (const char* key : {"a", "b", "c"}) {
            if (below(3) == 0) continue;
            text += (text.empty() ? "\"" : ",\"") + std::string(key) + "\":" + value();
        }
        return "{" + text + "}";
    }

    template <typename Value>
    std::string array(Value value) {
        std::string text;
        for (int i = below(4); i > 0; --i) text += (text.empty() ? "" : ",") + value();
        return "[" + text + "]";
    }

    std::string literal(int depth) {
        const int kind = below(depth > 0 ? 6 : 4);
        if (kind == 5) return event(depth - 1);
        if (kind == 4) return array([&] { return literal(depth - 1); });
        if (kind == 3) return below(2) == 0 ? "null" : "\"s\"";
        return std::to_string(below(3));
    }

    std::string ruleValue(int depth) {
        const int kind = below(depth > 0 ? 6 : 2);
        if (kind == 2) return array([&] { return ruleValue(depth - 1); });
        if (kind == 3) return rule(depth - 1);
        if (kind >= 4) return expression(depth - 1);
        return literal(depth > 0 ? 1 : 0);
    }

    std::string expression(int depth) {
        static const char* const kComparisons[] = {"$>", "$>=", "$<", "$<="};
        const int kind = below(5);
        const auto operand = [&] { return ruleValue(depth); };
        if (kind == 0) return R"({"$not":)" + operand() + "}";
        if (kind == 1) return R"({"$and":)" + array(operand) + "}";
        if (kind == 2) return R"({"$contains":)" + array(operand) + "}";
        return std::string("{\"") + kComparisons[below(4)] + "\":" + std::to_string(below(3)) + "}";
    }

    std::mt19937 m_random;
};

/// Random rules are evaluated as a plain reading of the language would.
TEST_F(JsonFilterRuleTest, AgreesWithAPlainReadingOfTheLanguage) {
    OutputCapture capture;  // comparisons of what is not a number write lines
    Generator make(20190307);
    int matched = 0;
    constexpr int rounds = 4000;
    for (int i = 0; i < rounds; ++i) {
        const std::string rule = make.rule();
        const std::string event = make.event();
        const JsonObject parsedRule = json(rule);
        const JsonObject parsedEvent = json(event);
        const bool expected = PlainReading::rule(parsedEvent.get(), parsedRule.get());
        ASSERT_EQ(Rule(parsedRule).matches(parsedEvent), expected) << rule << " on " << event;
        matched += expected ? 1 : 0;
    }
    capture.stop();
    EXPECT_GT(matched, rounds / 20);
    EXPECT_LT(matched, rounds - rounds / 20);
}

}  // namespace
