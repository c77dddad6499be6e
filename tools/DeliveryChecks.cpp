#include "DeliveryChecks.h"

#include "SetChecks.h"

#include <algorithm>

namespace {

using Level = Finding::Level;

constexpr std::int64_t kGraceMs =
    600000;  // a time check that could not upload comes again in 5 min
constexpr std::size_t kTypesTold = 4;

std::string number(std::int64_t value) {
    return std::to_string(value);
}

std::string eventsWait(std::int64_t events) {
    return events == 1 ? "1 event waits" : number(events) + " events wait";
}

std::string octal(mode_t mode) {
    std::string text;
    for (int shift = 9; shift >= 0; shift -= 3)
        text += static_cast<char>('0' + ((mode >> shift) & 7));
    return text;
}

}  // namespace

Finding DeliveryChecks::queue() const {
    const QueueReader& queue = m_evidence.queue;
    const std::string& name = m_evidence.places.queue;
    if (!queue.exists) {
        if (!m_evidence.daemon.isRunning()) {
            return {"queue", Level::Waits, name + " is not there: kivApp makes it", ""};
        }
        return {"queue", Level::Broken, "the message queue " + name + " is not there",
                "kivApp could not make it (its lines on standard error say why), or somebody "
                "removed it: restart kivApp."};
    }
    const std::string who =
        queue.mode == 0 ? "who may cannot be seen from here"
                        : "mode " + octal(queue.mode) + ", " + queue.posters() + " may post";
    const std::string depth =
        queue.known ? number(queue.depth) + " of " + number(queue.most) + " messages wait" : "";
    if (!queue.mayPost) {
        return {"queue", Level::Weak, "you may not post on " + name + " (" + who + ")",
                "Run the program that posts as one of these, or have the platform make the queue "
                "with another group before kivApp starts."};
    }
    if (queue.known && queue.depth >= queue.most) {
        return {"queue", Level::Weak,
                "the message queue " + name + " is full (" + depth + "): those who post wait",
                "Where it stays so, kivApp is stopped or its store is slow; look at both."};
    }
    return {"queue", Level::Ok, depth + ", of " + number(queue.size) + " bytes; " + who, ""};
}

/// "12 events (3200 bytes; 10 usage.epg, 2 kiv.start), the oldest 5 min old"
std::string DeliveryChecks::whatIsStored() const {
    const StoreReader& store = m_evidence.store;
    if (store.events == 0) return "no event waits";
    std::string text = eventsWait(store.events) + " (" + number(store.bytes) + " bytes: ";
    for (std::size_t i = 0; i < std::min(store.types.size(), kTypesTold); ++i) {
        text += (i == 0 ? "" : ", ") + number(store.types[i].events) + " " + store.types[i].name;
    }
    text += store.types.size() > kTypesTold ? ", ...)" : ")";
    const std::int64_t age = m_evidence.oldestAgeMs();
    return text + (age < 0 ? ", the oldest of an earlier cycle"
                           : ", the oldest " + Evidence::inWords(age) + " old");
}

Finding DeliveryChecks::store() const {
    const StoreReader& store = m_evidence.store;
    const DaemonReport& daemon = m_evidence.daemon;
    const DaemonReport::Answers answers = daemon.answers("store");
    const std::string& path = m_evidence.places.database;
    if (answers.fails) {
        return {"store", Level::Broken, "the store fails: " + answers.error + " (" + path + ")",
                "Events are kept in memory, 512 at most. Look at the room and the rights there; "
                "kivApp goes on by itself as soon as it works."};
    }
    if (store.missing) {
        return {"store", daemon.isRunning() ? Level::Broken : Level::Waits,
                "there is no store (" + path + ")", "kivApp makes it where it may write."};
    }
    if (!store.error.empty()) {
        return {"store", Level::Broken,
                "the store cannot be read: " + store.error + " (" + path + ")",
                "A damaged one is replaced by kivApp at its next statement, with what can be read; "
                "kivstat doctor looks it through."};
    }
    const std::int64_t pruned = daemon.count("pruned");
    const std::int64_t dropped = daemon.count("dropped");
    std::string lost;
    if (pruned > 0) lost += "; " + number(pruned) + " dropped to make room";
    if (dropped > 0) lost += "; " + number(dropped) + " dropped while it failed";
    return {"store", Level::Ok, whatIsStored() + lost, ""};
}

std::string DeliveryChecks::nextUpload() const {
    const DaemonReport& daemon = m_evidence.daemon;
    std::int64_t next = daemon.fact("next-events");
    const std::int64_t check = daemon.fact("next-time-check");
    if (next < m_evidence.kernelMs || (check > m_evidence.kernelMs && check < next)) next = check;
    std::string above = "above " + number(m_evidence.configuration.minSize) + " bytes at once";
    if (next <= m_evidence.kernelMs) return above;
    return "next in " + Evidence::inWords(next - m_evidence.kernelMs) + ", " + above;
}

Finding DeliveryChecks::events() const {
    const DaemonReport& daemon = m_evidence.daemon;
    const StoreReader& store = m_evidence.store;
    const ConfigDocument::Values& values = m_evidence.configuration;
    const DaemonReport::Answers stream = daemon.answers("stream");
    if (stream.fails && !SetChecks::speaksOfCredentials(stream.error)) {
        return {"events", Level::Broken, "the stream does not take the events: " + stream.error,
                "Tried again every minute; nothing is lost meanwhile. kivstat doctor tries " +
                    values.firehoseEndpoint + "; the stream is " + values.firehoseStream + "."};
    }
    if (stream.fails) return {"events", Level::Waits, "not taken: see the credentials", ""};
    if (store.events > 0 && values.maxDelay < 1 && store.bytes <= values.minSize) {
        return {"events", Level::Weak,
                eventsWait(store.events) + " for the upload minimum (" + number(store.bytes) +
                    " of " + number(values.minSize) +
                    " bytes), however long that takes: \"max-delay\" is off",
                "That is so by the configuration: \"upload_events\" in " +
                    m_evidence.places.config + "."};
    }
    const std::int64_t age = m_evidence.oldestAgeMs();
    if (values.maxDelay > 0 && age > values.maxDelay * 1000 + kGraceMs) {
        return {"events", Level::Weak,
                "the oldest event waits for " + Evidence::inWords(age) +
                    " already, longer than \"max-delay\" says",
                "What keeps it is one of the lines above, or was until a moment ago."};
    }
    if (!daemon.speaks()) return {"events", Level::Ok, "not known without the daemon", ""};
    return {"events", Level::Ok,
            number(daemon.count("events-sent")) + " sent in " +
                number(daemon.count("records-sent")) + " records, the last " +
                m_evidence.ago(daemon.fact("last-record")) + "; " + nextUpload(),
            ""};
}

Finding DeliveryChecks::files() const {
    const DaemonReport& daemon = m_evidence.daemon;
    const auto& files = m_evidence.store.files;
    const std::string sent = number(daemon.count("files-sent")) + " sent";
    if (files.empty()) return {"files", Level::Ok, sent + ", none waits", ""};
    const auto most =
        std::max_element(files.begin(), files.end(),
                         [](const auto& a, const auto& b) { return a.retries < b.retries; });
    std::string text =
        files.size() == 1 ? "1 waits" : number(static_cast<std::int64_t>(files.size())) + " wait";
    if (most->retries == 0) return {"files", Level::Ok, sent + ", " + text, ""};
    text += ", " + most->url + " was tried " +
            (most->retries == 1 ? "once" : number(most->retries) + " times");
    return {"files", Level::Weak, "announced files are not taken: " + text,
            "Tried again every minute. " + daemon.answers("objects").error +
                "; kivstat doctor tries " + m_evidence.configuration.s3Endpoint + "."};
}

Finding DeliveryChecks::lastError() const {
    const DaemonReport& daemon = m_evidence.daemon;
    if (!daemon.speaks()) return {"last error", Level::Ok, "not known without the daemon", ""};
    const char* whose = nullptr;
    DaemonReport::Answers latest;
    for (const char* target : {"config", "tou", "time", "geo", "stream", "objects", "store"}) {
        const DaemonReport::Answers answers = daemon.answers(target);
        if (answers.lastFailure <= latest.lastFailure) continue;
        latest = answers;
        whose = target;
    }
    if (whose == nullptr) return {"last error", Level::Ok, "none since the start", ""};
    return {"last error", Level::Ok,
            std::string(whose) + ", " + m_evidence.ago(latest.lastFailure) + ": " + latest.error +
                (latest.fails ? "" : " (it works again)"),
            ""};
}
