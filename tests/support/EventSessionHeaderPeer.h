#pragma once

#include <string>

#include "EventSessionHeader.h"

/// The header's single values.
struct EventSessionHeaderPeer {
    static std::string countryOf(const std::string& deviceCountry) {
        return EventSessionHeader::countryOf(deviceCountry);
    }
    static const std::string& dbPath() { return EventSessionHeader::m_DbPath; }
};
