#include "EventFilter.h"

#include "DbgOut.h"
#include "JsonFilter.h"

namespace {

const char* const kTag = "EventFilter: ";

}  // namespace

bool EventFilter::m_verbose = false;

EventFilter::EventFilter(const JsonObject& filterConfig)
    : m_include(filterConfig.getObject("include")), m_exclude(filterConfig.getObject("exclude")) {}

bool EventFilter::matches(const JsonObject& event) const {
    const JsonFilter include(m_include);
    const JsonFilter exclude(m_exclude);
    if (m_verbose) {
        coutdbg << kTag << "Match " << event << " with include filter " << m_include
                << " and exclude filter " << m_exclude << std::endl;
    }
    const bool included = m_include.isNull() || include.matches(event);
    if (m_exclude.isNull() || !included) return included;
    return !exclude.matches(event);
}
