#pragma once

#include <string>

#include "Cycle.h"
#include "JsonObject.h"
#include "UtcTimeMs.h"

class CycleTimes;

namespace AwsWrapper {

/// Builds the text of one Firehose record: session blocks of one line each, a header and the
/// events of one cycle (docs/record-format.md), up to a size limit. For the upload thread.
class EventsPacket {
  public:
    /// @param maxSize limit in characters; a sent record has at most maxSize + 1
    explicit EventsPacket(int maxSize);

    /// Adds one stored event. @param time its UTC. @return false when the packet is full or the
    /// event could not be rendered; the packet is then as before.
    bool AddEvent(std::string event, UtcTimeMs time);
    /// The same for an event that was parsed before.
    /// @param event is changed, also when it is not added; a null handle where the text could not
    /// be parsed
    /// @param text the event as it is stored, for the lines
    /// @param times those of this packet, for its headers
    bool AddEvent(JsonObject& event, const std::string& text, UtcTimeMs time, CycleTimes& times);
    bool IsEmpty() const { return m_size == 0; }
    /// Closes the record and puts it to the stream; an empty packet is not sent. @return success
    bool Send();

  private:
    friend struct EventsPacketPeer;

    bool add(JsonObject& event, UtcTimeMs time, CycleTimes& times);
    bool openSession(const Cycle& cycle, UtcTimeMs time, CycleTimes& times,
                     std::string& piece) const;
    static void flatten(JsonObject& event);
    static std::string render(JsonObject& event, UtcTimeMs time);

    std::string m_text;
    int m_size = 0;  ///< characters
    int m_maxSize;
    Cycle m_session{-1, -1};  ///< of the open session; -1 and -1: none
    bool m_needsComma = false;
};

}  // namespace AwsWrapper
