#include "Look.h"

#include "DeliveryChecks.h"
#include "FindingsText.h"
#include "SetChecks.h"

namespace {

using Level = Finding::Level;

void setNumber(JsonObject& object, const char* key, std::int64_t value) {
    object.set(key, JsonObject::createInteger(value));
}

void setFlag(JsonObject& object, const char* key, bool value) {
    object.set(key, JsonObject::adopt(json_boolean(value)));
}

JsonObject asJson(const StoreReader& store, std::int64_t oldestAgeMs) {
    JsonObject types = JsonObject::createObject();
    for (const StoreReader::Type& type : store.types) {
        JsonObject numbers = JsonObject::createObject();
        setNumber(numbers, "events", type.events);
        setNumber(numbers, "bytes", type.bytes);
        types.set(type.name.c_str(), numbers);
    }
    JsonObject files = JsonObject::createArray();
    for (const StoreReader::File& file : store.files) {
        JsonObject entry = JsonObject::createObject();
        entry.set("id", file.id);
        entry.set("url", file.url);
        setNumber(entry, "tries", file.retries);
        files.append(entry);
    }
    JsonObject object = JsonObject::createObject();
    setNumber(object, "events", store.events);
    setNumber(object, "bytes", store.bytes);
    setNumber(object, "file-bytes", store.fileBytes);
    setNumber(object, "oldest-age-ms", oldestAgeMs);
    object.set("types", types);
    object.set("files", files);
    if (!store.error.empty()) object.set("error", store.error);
    return object;
}

JsonObject asJson(const QueueReader& queue) {
    JsonObject object = JsonObject::createObject();
    setFlag(object, "exists", queue.exists);
    setFlag(object, "may-post", queue.mayPost);
    setNumber(object, "depth", queue.depth);
    setNumber(object, "most", queue.most);
    setNumber(object, "message-bytes", queue.size);
    setNumber(object, "mode", queue.mode);
    return object;
}

}  // namespace

Look::Look(const StatusOptions& options) : m_evidence(options) {
    const SetChecks set(m_evidence);
    const DeliveryChecks delivery(m_evidence);
    m_findings = {set.daemon(),        set.deviceFiles(),   set.userConsent(), set.serverConsent(),
                  set.configuration(), set.filter(),        set.credentials(), set.clock(),
                  set.network(),       delivery.queue(),    delivery.store(),  delivery.events(),
                  delivery.files(),    delivery.lastError()};
}

const Finding* Look::first(Level level) const {
    for (const Finding& finding : m_findings) {
        if (finding.level == level) return &finding;
    }
    return nullptr;
}

Look::Status Look::status() const {
    if (!m_evidence.daemon.isRunning()) return NotRunning;
    const bool allOk = !first(Level::Broken) && !first(Level::Weak) && !first(Level::Waits);
    return allOk ? Delivers : Degraded;
}

std::string Look::verdict() const {
    if (!m_evidence.daemon.isRunning()) return "not running: " + first(Level::Broken)->text;
    if (const Finding* cause = first(Level::Broken)) return "not delivering: " + cause->text;
    if (const Finding* cause = first(Level::Waits)) return "not delivering yet: " + cause->text;
    if (const Finding* cause = first(Level::Weak)) return "delivering, but " + cause->text;
    return "delivering: " + summary();
}

std::string Look::summary() const {
    const DaemonReport& daemon = m_evidence.daemon;
    const std::string waiting = std::to_string(m_evidence.store.events) +
                                (m_evidence.store.events == 1 ? " waits" : " wait");
    if (daemon.fact("last-record") == 0) return "nothing was sent yet, " + waiting;
    return std::to_string(daemon.count("events-sent")) + " events sent, the last " +
           m_evidence.ago(daemon.fact("last-record")) + ", " + waiting;
}

std::string Look::table() const {
    return verdict() + "\n\n" + FindingsText::table(m_findings);
}

std::string Look::json() const {
    JsonObject object = JsonObject::createObject();
    object.set("verdict", verdict());
    setNumber(object, "status", status());
    setFlag(object, "delivers", status() == Delivers);
    object.set("findings", FindingsText::json(m_findings));
    object.set("store", asJson(m_evidence.store, m_evidence.oldestAgeMs()));
    object.set("queue", asJson(m_evidence.queue));
    setNumber(object, "now", m_evidence.kernelMs);
    setNumber(object, "utc", m_evidence.utc());
    setNumber(object, "config-seconds-left",
              m_evidence.hasConfiguration() ? m_evidence.configSecondsLeft() : 0);
    if (m_evidence.daemon.speaks()) object.set("daemon", m_evidence.daemon.document());
    return object.dumpAsString() + "\n";
}
