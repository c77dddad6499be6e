#include "FilterReason.h"

#include "EventFilter.h"
#include "JsonArrayIterator.h"
#include "JsonFilter.h"
#include "JsonFilterRule.h"

namespace {

/// The place of the first rule that matches, from 1 on; 0 when none does.
unsigned int matchingRule(const JsonObject& rules, const JsonObject& event) {
    for (JsonArrayIterator rule(rules); rule; ++rule) {
        const JsonObject element = rule.current();
        if (element.isObject() && JsonFilterRule(element).matches(event)) return rule.index() + 1;
    }
    return 0;
}

std::string ruleMatches(unsigned int rule, const char* list) {
    return "rule " + std::to_string(rule) + " of " + list + " matches";
}

/// What decided, in words; `kept` is the filter's own verdict.
std::string reason(const JsonObject& filter, const JsonObject& event, bool kept) {
    const JsonObject include = filter.getObject("include");
    const JsonObject exclude = filter.getObject("exclude");
    const bool included = include.isNull() || JsonFilter(include).matches(event);
    if (included && !kept) return ruleMatches(matchingRule(exclude, event), "exclude");
    if (include.isNull()) return "there is no include, and no rule of exclude matches";
    if (included) return ruleMatches(matchingRule(include, event), "include");
    return include.isArray() ? "no rule of include matches"
                             : "include is not an array: it matches nothing";
}

}  // namespace

FilterReason::Verdict FilterReason::judge(const JsonObject& filter, const JsonObject& event) {
    const bool kept = EventFilter(filter).matches(event);
    return {kept, reason(filter, event, kept)};
}
