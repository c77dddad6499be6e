#pragma once

#include <ostream>

#include "JsonObject.h"

/// One filter rule: a JSON object whose keys name fields of an event and whose values say what
/// those fields must be (docs/configuration.md has the language). Never throws, never changes its
/// values; a malformed rule does not match, and gets an error line.
class JsonFilterRule {
  public:
    enum Operator { INVOP, NOT, GREATER, GREATER_EQUAL, LESS, LESS_EQUAL, AND, CONTAINS, REGEX };

    explicit JsonFilterRule(const JsonObject& rule);

    /// Whether every key of the rule matches the event.
    bool matches(const JsonObject& event) const;
    /// One field (a null handle when the event has none) against one rule value.
    bool matchValues(const JsonObject& value, const JsonObject& ruleValue) const;
    bool matchWithJsonArray(const JsonObject& value, const JsonObject& alternatives) const;
    bool evalOperatorExpr(const JsonObject& value, Operator op, const JsonObject& operand) const;
    bool evalAndOperator(const JsonObject& value, const JsonObject& operand) const;
    bool evalContainsOperator(const JsonObject& value, const JsonObject& operand) const;
    bool evalRegexOperator(const JsonObject& value, const JsonObject& operand) const;
    /// -1, 0 or 1; 0 with an error line when either is not a number.
    int compareValues(const JsonObject& a, const JsonObject& b) const;

    Operator toOperator(const char* key) const;  ///< case does not matter; INVOP: not an operator
    static const char* operatorToString(Operator op);

    static bool m_verbose;

  private:
    bool matchAllKeys(const JsonObject& event) const;
    bool matchWithJsonObject(const JsonObject& value, const JsonObject& ruleValue) const;
    bool anyElementMatches(const JsonObject& array, const JsonObject& ruleValue) const;

    JsonObject m_rule;
};

std::ostream& operator<<(std::ostream& out, JsonFilterRule::Operator op);
