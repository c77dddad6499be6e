#pragma once

#include <string>

#include "JsonObject.h"
#include "UtcTimeMs.h"

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
    bool IsEmpty() const { return m_size == 0; }
    /// Closes the record and puts it to the stream; an empty packet is not sent. @return success
    bool Send();

  private:
    friend struct EventsPacketPeer;

    bool openSession(int bootCount, int standbyCount, UtcTimeMs time, std::string& piece) const;
    static void flatten(JsonObject& event);
    static std::string render(JsonObject& event, UtcTimeMs time);

    std::string m_text;
    int m_size = 0;  ///< characters
    int m_maxSize;
    int m_bootCount = -1;     ///< of the open session; -1: none
    int m_standbyCount = -1;  ///< of the open session; -1: none
    bool m_needsComma = false;
};

}  // namespace AwsWrapper
