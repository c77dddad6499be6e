#include "DatabaseReports.h"

#include "AwsWrapperImpl.h"
#include "CGlobalInfoImpl.h"
#include "CertificateClock.h"
#include "Config.h"
#include "CycleTimes.h"
#include "DB.h"
#include "Descriptor.h"
#include "DirectoryListing.h"
#include "EventTimeRework.h"
#include "EventType.h"
#include "EventsPacket.h"
#include "JsonObject.h"
#include "LocationInfo.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UploadLog.h"
#include "UploadSchedule.h"
#include "UtcTime.h"
#include "UtcTimeMs.h"
#include "WebTimeImpl.h"

#include <sstream>

#include <cerrno>
#include <cstdint>

#include <fcntl.h>

namespace {

const ClassLog& s_log = UploadLog::log;

bool isPermitted() {
    return Config()->collectionAllowed();
}

/// Whether the dates of the cloud's certificates can be held against any clock. What is sent waits
/// for that.
bool canJudgeTheCloud() {
    return CertificateClock::now().has_value();
}

/// Creates or truncates, but neither follows a link nor waits for the reader of a pipe.
Descriptor openForWriting(const std::string& path) {
    constexpr int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    return Descriptor(::open(path.c_str(), flags, 0644));
}

bool writeListing(const std::string& directory, const std::string& path) {
    std::ostringstream listing;
    DirectoryListing::listDirectory(directory, listing);
    const Descriptor file = openForWriting(path);
    if (file.isOpen() && file.writeAll(listing.str())) return true;
    s_log.error("Cannot write ", path, ": ", ClassLog::errnoText(errno));
    return false;
}

std::string nameOfListing() {
    const UtcTime today(static_cast<std::int32_t>(Singleton<WebTimeImpl>()->getWebTimeValue()));
    return DatabaseReports::componentFolder() + "/kivApp_databasefull_" +
           Singleton<CGlobalInfoImpl>()->getDeviceId() + "_" + today.getDateString() + ".log";
}

/// The text as JSON can hold it: the database quotes pieces of statements, which may begin or end
/// within a character.
std::string asUtf8(std::string text) {
    if (JsonObject::createObject().set("text", text) == 0) return text;
    for (char& character : text) {
        if (static_cast<unsigned char>(character) >= 0x80) character = '?';
    }
    return text;
}

/// The "db.error" event of this moment; a null handle when it cannot be packed.
JsonObject errorEvent() {
    const TimeReference now;
    const Cycle cycle = now.cycle();
    const std::string message = asUtf8(DB::lastErrorMessage());
    JsonObject event;
    event.Pack("{s:s, s:i, s:i, s:i, s:I, s:s}",                                      //
               "event-type", "db.error",                                              //
               "eventid", static_cast<int>(EventType::getEventIdByName("db.error")),  //
               "boot-count", static_cast<int>(cycle.bootCount),                       //
               "standby-count", static_cast<int>(cycle.standbyCount),                 //
               "kernel-time", static_cast<json_int_t>(now.kernelTime),                //
               "error-msg", message.c_str());
    return event;
}

bool sendAlone(JsonObject event) {
    const std::string text = event.dumpAsString();
    AwsWrapper::EventsPacket packet(Config()->GetMaxSize());
    const Singleton<TimeMgrImpl> timeManager;
    CycleTimes times(*timeManager);
    const UtcTimeMs time = EventTimeRework::reworkEventTime(event, text, true, times);
    return !event.isNull() && packet.AddEvent(event, text, time, times) && packet.Send();
}

}  // namespace

std::string DatabaseReports::componentFolder() {
    const std::string component = Singleton<CGlobalInfoImpl>()->getComponent();
    return component.empty() ? "Unknown" : component;
}

int DatabaseReports::sendFullFile() {
    if (m_fullFileSent || !isPermitted()) return 1;
    // A full store asks at every event that it refuses.
    if (!m_fullFileFailed.isOver() || !canJudgeTheCloud()) return 0;
    m_fullFileFailed.begin();
    m_fullFileSent = sendListing();
    if (!m_fullFileSent) {
        m_fullFileFailed.begin();  // the minute counts from the end
        return 0;
    }
    s_log.info(" Sent full DB file to AWS ");
    return 1;
}

bool DatabaseReports::sendListing() {
    return writeListing(m_listedDirectory, m_listingFile) &&
           m_cloud.UploadFile(nameOfListing(), m_listingFile);
}

void DatabaseReports::sendOwedErrorEvent() {
    if (m_errorEventOwed) sendErrorEvent();
}

void DatabaseReports::sendErrorEvent() {
    if (m_errorEventSent || !isPermitted()) return;
    if (!m_errorEventFailed.isOver()) return;
    m_errorEventOwed = true;
    if (!canJudgeTheCloud()) {
        m_schedule.requestEventsUpload(UploadSchedule::kRetryMs);
        return;
    }
    m_errorEventFailed.begin();
    LocationInfo::getLocation();  // may use the network: before the packet's times are asked for
    m_errorEventSent = sendAlone(errorEvent());
    m_errorEventOwed = !m_errorEventSent;
    if (m_errorEventSent) return;
    m_errorEventFailed.begin();
    m_schedule.requestEventsUpload(UploadSchedule::kRetryMs);
    s_log.error("DB Error event upload failed ");
}
