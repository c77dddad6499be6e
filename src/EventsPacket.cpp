#include "EventsPacket.h"

#include "AwsWrapperImpl.h"
#include "CloudLog.h"
#include "CycleTimes.h"
#include "EventSessionHeader.h"
#include "JsonIterator.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"

namespace {

const ClassLog& s_log = CloudLog::log;

}  // namespace

namespace AwsWrapper {

EventsPacket::EventsPacket(int maxSize) : m_maxSize(maxSize) {}

bool EventsPacket::AddEvent(std::string event, UtcTimeMs time) {
    s_log.info(" Add ", event, " to packet");
    const Singleton<TimeMgrImpl> timeManager;
    CycleTimes times(*timeManager);
    JsonObject json = JsonObject::parse(event);
    return add(json, time, times);
}

bool EventsPacket::AddEvent(JsonObject& event, const std::string& text, UtcTimeMs time,
                            CycleTimes& times) {
    s_log.info(
        " Add ", [&] { return event.isNull() ? text : event.dumpAsString(); }, " to packet");
    return add(event, time, times);
}

bool EventsPacket::add(JsonObject& event, UtcTimeMs time, CycleTimes& times) {
    const Cycle cycle(event.optInteger("boot-count", 0), event.optInteger("standby-count", 0));
    std::string piece;
    const bool sameSession = cycle == m_session;
    if (!sameSession && !openSession(cycle, time, times, piece)) return false;
    bool needsComma = sameSession && m_needsComma;
    flatten(event);
    s_log.info(" Rework Event ");
    if (!event.isNull()) {
        const std::string text = render(event, time);
        if (text.empty()) return false;
        if (needsComma) piece += ",";
        piece += text;
        needsComma = true;
    }
    s_log.info(" Checking buffersize ");
    const std::size_t size = static_cast<std::size_t>(m_size) + piece.size();
    if (m_maxSize < 0 || size + 1 >= static_cast<std::size_t>(m_maxSize)) return false;
    m_size = static_cast<int>(size);
    m_text += piece;
    m_session = cycle;
    m_needsComma = needsComma;
    s_log.info(" Event Added to packet");
    return true;
}

/// Appends the end of the open block and the beginning of a new one to `piece`. @return false
/// when the header could not be made
bool EventsPacket::openSession(const Cycle& cycle, UtcTimeMs time, CycleTimes& times,
                               std::string& piece) const {
    if (m_size > 0) piece += "]}\n";
    const EventSessionHeader header(cycle, time, times);
    if (header.text().empty()) return false;
    s_log.info(" EventSessionHeader created ");
    piece.append(header.text(), 0, header.text().size() - 1);
    piece += ",\"events\":[";
    return true;
}

void EventsPacket::flatten(JsonObject& event) {
    const JsonObject data = event.getObject("data");
    if (!data.isObject()) return;
    for (JsonIterator member(data); !member.atEnd(); member.advance()) {
        event.set(member.key(), member.value());
    }
    event.del("data");
}

/// The text as it goes out; "" when it could not be made.
std::string EventsPacket::render(JsonObject& event, UtcTimeMs time) {
    const long long kernelTime = event.optInteger("kernel-time", -1);
    event.del("boot-count");
    event.del("standby-count");
    event.del("kernel-time");
    event.set("time", time.getString());
    event.set("ts", JsonObject::createInteger(kernelTime));
    event.del("utc-time");
    const std::string text = event.dumpAsString();
    const bool isJson = !text.empty() && text.front() != '(';
    return isJson ? text : std::string();
}

bool EventsPacket::Send() {
    if (m_size == 0) return true;
    m_text += "]}\n";
    s_log.info(" Sending eventpacket ", m_text, " to AWS");
    return Singleton<AwsWrapperImpl>()->UploadToKinesisFirehose(m_text);
}

}  // namespace AwsWrapper
