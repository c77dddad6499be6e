#include "JsonFilterRule.h"

#include "ClassLog.h"
#include "JsonArrayIterator.h"
#include "JsonIterator.h"
#include "RegexCache.h"

#include <regex>

#include <strings.h>

bool JsonFilterRule::m_verbose = false;

namespace {

const ClassLog s_log("JsonFilterRule: ", JsonFilterRule::m_verbose);

using Operator = JsonFilterRule::Operator;

struct OperatorName {
    Operator op;
    const char* key;
    const char* text;
};

constexpr OperatorName kOperators[] = {
    {Operator::NOT, "$not", "not"},
    {Operator::GREATER, "$>", ">"},
    {Operator::GREATER_EQUAL, "$>=", ">="},
    {Operator::LESS, "$<", "<"},
    {Operator::LESS_EQUAL, "$<=", "<="},
    {Operator::AND, "$and", "and"},
    {Operator::CONTAINS, "$contains", "contains"},
    {Operator::REGEX, "$regex", "regex"},
};

/// -1, 0 or 1; a NaN counts as equal to anything.
template <typename Number>
int sign(Number a, Number b) {
    if (a > b) return 1;
    return a < b ? -1 : 0;
}

int compareNumbers(const JsonObject& a, const JsonObject& b) {
    if (a.isInteger() && b.isInteger()) return sign(a.getAsInteger(), b.getAsInteger());
    return sign(a.getAsNumber(), b.getAsNumber());
}

bool equalNumbers(const JsonObject& a, const JsonObject& b) {
    if (a.isInteger() && b.isInteger()) return a.getAsInteger() == b.getAsInteger();
    return a.getAsNumber() == b.getAsNumber();
}

/// The key of an object with one member; null for any other.
const char* onlyKey(const JsonObject& object) {
    JsonIterator member(object);
    if (member.atEnd()) return nullptr;
    const char* key = member.key();
    member.advance();
    return member.atEnd() ? key : nullptr;
}

}  // namespace

JsonFilterRule::JsonFilterRule(const JsonObject& rule) : m_rule(rule) {}

bool JsonFilterRule::matches(const JsonObject& event) const {
    s_log.info("Match ", event, " with rule ", m_rule);
    const bool result = m_rule.isObject() && matchAllKeys(event);
    s_log.info("Match: ", result ? "yes" : "no");
    return result;
}

bool JsonFilterRule::matchAllKeys(const JsonObject& event) const {
    for (JsonIterator member(m_rule); !member.atEnd(); member.advance()) {
        s_log.info("Check key ", member.key());
        if (!matchValues(event.getObject(member.key()), member.value())) return false;
    }
    return true;
}

bool JsonFilterRule::matchValues(const JsonObject& value, const JsonObject& ruleValue) const {
    s_log.info("Match value of ", value, " with ", ruleValue);
    if (ruleValue.isNull()) return false;
    if (value.isNull()) return ruleValue.isJsonNull();
    if (value.equals(ruleValue)) return true;
    if (ruleValue.isObject()) return matchWithJsonObject(value, ruleValue);
    if (ruleValue.isArray()) return matchWithJsonArray(value, ruleValue);
    return ruleValue.isNumber() && value.isNumber() && equalNumbers(value, ruleValue);
}

bool JsonFilterRule::matchWithJsonObject(const JsonObject& value,
                                         const JsonObject& ruleValue) const {
    const char* key = onlyKey(ruleValue);
    const Operator op = key == nullptr ? INVOP : toOperator(key);
    if (op != INVOP) return evalOperatorExpr(value, op, ruleValue.getObject(key));
    return value.isObject() && JsonFilterRule(ruleValue).matches(value);
}

bool JsonFilterRule::matchWithJsonArray(const JsonObject& value,
                                        const JsonObject& alternatives) const {
    for (JsonArrayIterator element(alternatives); element; ++element) {
        if (matchValues(value, element.current())) return true;
    }
    return false;
}

bool JsonFilterRule::evalOperatorExpr(const JsonObject& value, Operator op,
                                      const JsonObject& operand) const {
    s_log.info("Match ", value, " ", op, " ", operand);
    switch (op) {
        case NOT:
            return !matchValues(value, operand);
        case GREATER:
            return compareValues(value, operand) > 0;
        case GREATER_EQUAL:
            return compareValues(value, operand) >= 0;
        case LESS:
            return compareValues(value, operand) < 0;
        case LESS_EQUAL:
            return compareValues(value, operand) <= 0;
        case AND:
            return evalAndOperator(value, operand);
        case CONTAINS:
            return evalContainsOperator(value, operand);
        case REGEX:
            return evalRegexOperator(value, operand);
        case INVOP:
            break;
    }
    return false;
}

bool JsonFilterRule::evalAndOperator(const JsonObject& value, const JsonObject& operand) const {
    if (!operand.isArray()) {
        s_log.error("evalAndOperator rhs not an array: ",
                    ClassLog::foreign(operand.getStringRep()));
        return false;
    }
    for (JsonArrayIterator element(operand); element; ++element) {
        if (!matchValues(value, element.current())) return false;
    }
    return true;
}

bool JsonFilterRule::evalContainsOperator(const JsonObject& value,
                                          const JsonObject& operand) const {
    if (!value.isArray() || !operand.isArray()) return false;
    for (JsonArrayIterator required(operand); required; ++required) {
        if (!anyElementMatches(value, required.current())) return false;
    }
    return operand.getArraySize() > 0;
}

bool JsonFilterRule::anyElementMatches(const JsonObject& array, const JsonObject& ruleValue) const {
    for (JsonArrayIterator element(array); element; ++element) {
        if (matchValues(element.current(), ruleValue)) return true;
    }
    return false;
}

bool JsonFilterRule::evalRegexOperator(const JsonObject& value, const JsonObject& operand) const {
    if (!operand.isString()) return false;
    const std::string pattern = operand.getAsString();
    try {
        return RegexCache::matches(pattern, value.getStringRep());
    } catch (const std::regex_error& error) {
        s_log.error("Caught exception: ", error.what(), " (code ", static_cast<int>(error.code()),
                    ") on regexp ", ClassLog::foreign(pattern));
        return false;
    }
}

int JsonFilterRule::compareValues(const JsonObject& a, const JsonObject& b) const {
    if (!a.isNumber() || !b.isNumber()) {
        s_log.error("compareValues types no numbers: ", ClassLog::foreign(a.getStringRep()), " ",
                    ClassLog::foreign(b.getStringRep()));
        return 0;
    }
    return compareNumbers(a, b);
}

JsonFilterRule::Operator JsonFilterRule::toOperator(const char* key) const {
    if (key == nullptr) return INVOP;
    for (const OperatorName& name : kOperators) {
        if (::strcasecmp(key, name.key) == 0) return name.op;
    }
    return INVOP;
}

const char* JsonFilterRule::operatorToString(Operator op) {
    for (const OperatorName& name : kOperators) {
        if (name.op == op) return name.text;
    }
    return "INVOP";
}

std::ostream& operator<<(std::ostream& out, JsonFilterRule::Operator op) {
    return out << JsonFilterRule::operatorToString(op);
}
