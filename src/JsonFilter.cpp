#include "JsonFilter.h"

#include "DbgOut.h"
#include "JsonArrayIterator.h"
#include "JsonFilterRule.h"

namespace {

const char* const kTag = "JsonFilter: ";

}  // namespace

bool JsonFilter::m_verbose = false;

JsonFilter::JsonFilter(const JsonObject& filter) : m_filter(filter) {}

bool JsonFilter::matches(const JsonObject& event) const {
    if (m_filter.isNull()) return true;
    if (!m_filter.isArray()) return false;
    for (JsonArrayIterator rule(m_filter); rule; ++rule) {
        const JsonObject element = rule.current();
        // What is no object holds no keys: as a rule it would match every event.
        if (!element.isObject()) {
            cerrdbg << kTag << "Invalid json object in filter array" << m_filter << std::endl;
            continue;
        }
        if (JsonFilterRule(element).matches(event)) return true;
    }
    return false;
}
