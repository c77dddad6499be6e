#include "Explanation.h"

#include "EventType.h"
#include "FilterReason.h"

Explanation::Explanation(const Evidence& evidence, const std::string& message) {
    JsonObject event = JsonObject::parse(message);
    const QueueReader& queue = evidence.queue;
    if (queue.known && message.size() > static_cast<std::size_t>(queue.size)) {
        refuse("queue", "larger than a message may be: " + std::to_string(message.size()) + " of " +
                            std::to_string(queue.size) + " bytes");
        return;
    }
    if (!event.isObject()) {
        refuse("text", "it is not a JSON object");
        return;
    }
    event.del("syncsem");
    if (!consentAllows(evidence)) return;
    const auto filter = JsonObject::parse(evidence.configuration.eventFilter);
    const FilterReason::Verdict verdict = FilterReason::judge(filter, event);
    if (!verdict.kept) {
        refuse("event filter", verdict.why);
        return;
    }
    pass("event filter", verdict.why);
    judgeFile(evidence, event);
    judgeStorage(event);
}

void Explanation::refuse(const char* step, const std::string& why) {
    m_kept = false;
    m_decision = std::string(step) + ": " + why;
    m_steps.emplace_back(step, "no: " + why);
}

void Explanation::pass(const char* step, const std::string& why) {
    m_decision = std::string(step) + ": " + why;
    m_steps.emplace_back(step, "yes: " + why);
}

bool Explanation::consentAllows(const Evidence& evidence) {
    const ConsentFile& consent = evidence.consent;
    if (!evidence.configuration.touAccepted) {
        refuse("server's consent", "\"kiv_tou\" is not true in " + evidence.places.config);
        return false;
    }
    pass("server's consent", "\"kiv_tou\" is true");
    if (!consent.missing && !consent.accepted) {
        refuse("user's consent",
               "the user has not accepted the terms of use (" + consent.path + ")");
        return false;
    }
    pass("user's consent", consent.missing ? "no answer yet, so the server's word holds"
                                           : "version " + std::to_string(consent.version));
    return true;
}

void Explanation::judgeFile(const Evidence& evidence, const JsonObject& event) {
    const JsonObject url = event.getObject("oob-url");
    if (url.isNull()) return;
    const std::string before = m_decision;
    const auto filter = JsonObject::parse(evidence.configuration.fileFilter);
    const FilterReason::Verdict verdict = FilterReason::judge(filter, event);
    if (!url.isString())
        m_steps.emplace_back("file", "no: \"oob-url\" is not a text");
    else
        m_steps.emplace_back("file filter", (verdict.kept ? "yes: " : "no: ") + verdict.why);
    m_decision = before;
}

void Explanation::judgeStorage(const JsonObject& event) {
    if (!event.getObject("data").getObject("oob-info").isNull()) {
        m_steps.emplace_back("store", "no row of its own: it travels as its file's information");
        return;
    }
    const EventType type(event.optString("event-type"));
    if (event.getStringRep().find('\'') != std::string::npos) {
        refuse("store", "there is a single quote in it, which the store does not take");
        return;
    }
    m_steps.emplace_back("store", "as type " + std::to_string(type.getId()) + ", " +
                                      (type.getName().empty() ? "without a name" : type.getName()));
}

std::string Explanation::text() const {
    std::string lines = (m_kept ? "kept: " : "not kept: ") + m_decision + "\n";
    for (const auto& [step, why] : m_steps) {
        lines += "  ";
        lines += step;
        lines.append(step.size() < 18 ? 18 - step.size() : 1, ' ');
        lines += why;
        lines += '\n';
    }
    return lines;
}

std::string Explanation::json() const {
    JsonObject steps = JsonObject::createArray();
    for (const auto& [step, why] : m_steps) {
        JsonObject entry = JsonObject::createObject();
        entry.set("step", step);
        entry.set("why", why);
        steps.append(entry);
    }
    JsonObject object = JsonObject::createObject();
    object.set("kept", JsonObject::adopt(json_boolean(m_kept)));
    object.set("why", m_decision);
    object.set("steps", steps);
    return object.dumpAsString() + "\n";
}
