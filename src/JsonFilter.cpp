#include "JsonFilter.h"

#include "ClassLog.h"
#include "JsonArrayIterator.h"
#include "JsonFilterRule.h"

bool JsonFilter::m_verbose = false;

namespace {

const ClassLog s_log("JsonFilter: ", JsonFilter::m_verbose);

}  // namespace

JsonFilter::JsonFilter(const JsonObject& filter) : m_filter(filter) {}

bool JsonFilter::matches(const JsonObject& event) const {
    if (m_filter.isNull()) return true;
    if (!m_filter.isArray()) return false;
    for (JsonArrayIterator rule(m_filter); rule; ++rule) {
        const JsonObject element = rule.current();
        // A value that is not an object has no keys: as a rule it would match every event.
        if (!element.isObject()) {
            s_log.error("Invalid json object in filter array",
                        ClassLog::foreign(m_filter.dumpAsString()));
            continue;
        }
        if (JsonFilterRule(element).matches(event)) return true;
    }
    return false;
}
