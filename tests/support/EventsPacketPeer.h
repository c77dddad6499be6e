#pragma once

#include <string>

#include "EventsPacket.h"

namespace AwsWrapper {

/// What a packet holds so far.
struct EventsPacketPeer {
    static const std::string& text(const EventsPacket& packet) { return packet.m_text; }
    static int size(const EventsPacket& packet) { return packet.m_size; }
    static int bootCount(const EventsPacket& packet) { return packet.m_session.bootCount; }
    static int standbyCount(const EventsPacket& packet) { return packet.m_session.standbyCount; }
};

}  // namespace AwsWrapper
