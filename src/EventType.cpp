#include "EventType.h"

#include "EventTypeMap.h"

EventType::EventType(long id) : m_id(id), m_name(getEventNameById(id)) {}

EventType::EventType(const std::string& name) : m_id(getEventIdByName(name)), m_name(name) {
    if (EventTypeMap::instance().isKnownId(m_id)) {
        m_name = getEventNameById(m_id);
    } else {
        m_id = 0;
    }
}

std::string EventType::getEventNameById(long id) {
    return EventTypeMap::instance().getName(id);
}

long EventType::getEventIdByName(const std::string& name) {
    return EventTypeMap::instance().getId(name.c_str());
}
