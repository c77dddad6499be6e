#include "EventFilter.h"

#include "ClassLog.h"
#include "JsonFilter.h"

bool EventFilter::m_verbose = false;

namespace {

const ClassLog s_log("EventFilter: ", EventFilter::m_verbose);

}  // namespace

EventFilter::EventFilter(const JsonObject& filterConfig)
    : m_include(filterConfig.getObject("include")), m_exclude(filterConfig.getObject("exclude")) {}

bool EventFilter::matches(const JsonObject& event) const {
    const JsonFilter include(m_include);
    const JsonFilter exclude(m_exclude);
    s_log.info("Match ", event, " with include filter ", m_include, " and exclude filter ",
               m_exclude);
    const bool included = m_include.isNull() || include.matches(event);
    if (m_exclude.isNull() || !included) return included;
    return !exclude.matches(event);
}
