#include "EventsPacket.h"

#include "AwsWrapperImpl.h"
#include "DbgOut.h"
#include "EventSessionHeader.h"
#include "JsonIterator.h"
#include "Singleton.h"

namespace {

constexpr char kTag[] = "kivAWSWrapper: ";

template <typename... Parts>
void logLine(const Parts&... parts) {
    if (AwsWrapperImpl::GetVerbose()) ((coutdbg << kTag) << ... << parts) << std::endl;
}

}  // namespace

namespace AwsWrapper {

EventsPacket::EventsPacket(int maxSize) : m_maxSize(maxSize) {}

bool EventsPacket::AddEvent(std::string event, UtcTimeMs time) {
    logLine(" Add ", event, " to packet");
    JsonObject json = JsonObject::parse(event);
    const int bootCount = static_cast<int>(json.optInteger("boot-count", 0));
    const int standbyCount = static_cast<int>(json.optInteger("standby-count", 0));

    std::string piece;
    const bool sameSession = bootCount == m_bootCount && standbyCount == m_standbyCount;
    if (!sameSession && !openSession(bootCount, standbyCount, time, piece)) return false;
    bool needsComma = sameSession && m_needsComma;
    flatten(json);
    logLine(" Rework Event ");
    if (!json.isNull()) {
        const std::string text = render(json, time);
        if (text.empty()) return false;
        if (needsComma) piece += ",";
        piece += text;
        needsComma = true;
    }
    logLine(" Checking buffersize ");
    const std::size_t size = static_cast<std::size_t>(m_size) + piece.size();
    if (m_maxSize < 0 || size + 1 >= static_cast<std::size_t>(m_maxSize)) return false;
    m_size = static_cast<int>(size);
    m_text += piece;
    m_bootCount = bootCount;
    m_standbyCount = standbyCount;
    m_needsComma = needsComma;
    logLine(" Event Added to packet");
    return true;
}

/// Appends the end of the open block and the beginning of a new one to `piece`. @return false
/// when the header could not be made
bool EventsPacket::openSession(int bootCount, int standbyCount, UtcTimeMs time,
                               std::string& piece) const {
    if (m_size > 0) piece += "]}\n";
    const EventSessionHeader header(static_cast<unsigned int>(bootCount),
                                    static_cast<unsigned int>(standbyCount), time);
    if (header.text().empty()) return false;
    logLine(" EventSessionHeader created ");
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
    logLine(" Sending eventpacket ", m_text, " to AWS");
    return Singleton<AwsWrapperImpl>()->UploadToKinesisFirehose(m_text);
}

}  // namespace AwsWrapper
