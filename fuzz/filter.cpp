// A filter of the configuration, and an event that it meets.
//
// Input: the filter (JSON: an array of rules, or one rule), a line of four dashes, the event.

#include "EventFilter.h"
#include "JsonArrayIterator.h"
#include "JsonFilter.h"
#include "JsonFilterRule.h"
#include "JsonIterator.h"
#include "support/Fuzz.h"

#include <string>

namespace {

JsonObject documentOf(const char* member, const JsonObject& rules) {
    JsonObject document = JsonObject::createObject();
    document.set(member, rules);
    return document;
}

/// A list matches where one of its rules does, and what is not an object is not a rule.
void checkList(const JsonObject& rules, const JsonObject& event, bool matched) {
    bool any = false;
    for (JsonArrayIterator rule(rules); rule; ++rule) {
        any = any || (rule.current().isObject() && JsonFilterRule(rule.current()).matches(event));
    }
    fuzz::demand(any == matched, "a list matches where one of its rules does");
}

/// "$not" is the opposite, key by key.
void checkOpposites(const JsonObject& rule, const JsonObject& event) {
    for (JsonIterator member(rule); !member.atEnd(); member.advance()) {
        const JsonObject value = event.getObject(member.key());
        if (value.isNull() || value.isObject()) continue;  // an object may equal the rule itself
        JsonObject plain = JsonObject::createObject();
        plain.set(member.key(), member.value());
        JsonObject opposite = JsonObject::createObject();
        opposite.set(member.key(), documentOf("$not", member.value()));
        fuzz::demand(
            JsonFilterRule(plain).matches(event) != JsonFilterRule(opposite).matches(event),
            "$not is the opposite", member.key());
    }
}

void check(const JsonObject& rules, const JsonObject& event) {
    const std::string rulesBefore = rules.getStringRep();
    const std::string eventBefore = event.getStringRep();
    const bool matched = JsonFilter(rules).matches(event);
    fuzz::demand(EventFilter(documentOf("include", rules)).matches(event) == matched,
                 "include keeps what matches, and the verdict is the same again");
    fuzz::demand(EventFilter(documentOf("exclude", rules)).matches(event) != matched,
                 "exclude drops what matches");
    fuzz::demand(rules.isArray() || !matched, "what is not a list matches nothing");
    checkList(rules, event, matched);
    for (JsonArrayIterator rule(rules); rule; ++rule) checkOpposites(rule.current(), event);
    fuzz::demand(rules.getStringRep() == rulesBefore, "the rules stay as they are");
    fuzz::demand(event.getStringRep() == eventBefore, "the event stays as it is");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::partsOf(data, size, 2);
    const JsonObject given = JsonObject::parse(parts[0]);
    const JsonObject event = JsonObject::parse(parts[1]);
    if (given.isNull() || !event.isObject()) return -1;
    JsonObject rules = given;
    if (given.isObject()) {
        rules = JsonObject::createArray();
        rules.append(given);
    }
    const fuzz::TimeBound bound(10);
    check(rules, event);
    return 0;
}
