#include "SetChecks.h"

#include "Services.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>

namespace {

using Level = Finding::Level;

constexpr const char* kFromServer = "It is fetched by itself; kivstat doctor tries the server.";

std::string utcText(std::int64_t seconds) {
    char text[32] = "";
    const auto moment = static_cast<time_t>(seconds);
    tm parts = {};
    if (gmtime_r(&moment, &parts) == nullptr) return std::to_string(seconds);
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

std::string aged(std::int64_t seconds) {
    return Evidence::inWords(seconds * 1000);
}

}  // namespace

Finding SetChecks::daemon() const {
    const DaemonReport& daemon = m_evidence.daemon;
    if (!daemon.isRunning()) {
        return {"daemon", Level::Broken, "kivApp does not run",
                "Start it: systemctl start kivApp, or /etc/init.d/kivApp start."};
    }
    const std::string process = "process " + std::to_string(daemon.process());
    if (!daemon.speaks()) {
        return {"daemon", Level::Weak,
                process + " runs, but says nothing of itself in " + daemon.path(),
                "Set KIV_STATUS_FILE for the daemon to a file in memory, or name the one that it "
                "has with --status."};
    }
    return {"daemon", Level::Ok,
            process + ", version " + daemon.version() + ", has run for " +
                Evidence::inWords(m_evidence.kernelMs - daemon.started()),
            ""};
}

Finding SetChecks::deviceFiles() const {
    const SetPlaces& places = m_evidence.places;
    if (m_evidence.globalInfo.isNull()) {
        return {"device files", Level::Broken,
                "the device information cannot be read (" + places.globalInfo + ")",
                "The platform writes this JSON file before kivApp starts."};
    }
    if (m_evidence.deviceId.empty()) {
        return {"device files", Level::Broken,
                "the device information names no \"deviceid\" (" + places.globalInfo + ")",
                "Without it no configuration is asked for; the platform writes it."};
    }
    if (m_evidence.boot == 0 || m_evidence.standby == 0) {
        return {"device files", Level::Weak,
                "the boot counts cannot be read, or are 0 (" + places.bootInfo + ")",
                "Times of different cycles are mixed up without them; the platform writes both "
                "from 1 on."};
    }
    return {"device files", Level::Ok,
            m_evidence.deviceId + ", boot " + std::to_string(m_evidence.boot) + ", standby " +
                std::to_string(m_evidence.standby),
            ""};
}

Finding SetChecks::userConsent() const {
    const ConsentFile& consent = m_evidence.consent;
    const std::int64_t asRead = m_evidence.daemon.fact("user-consent");
    if (consent.missing) {
        return {"user's consent", Level::Broken,
                "the user has not answered the terms of use (" + consent.path + " is missing)",
                "The user interface asks the user, and writes the file; it is looked at again "
                "with the next try, every 10 min."};
    }
    if (consent.accepted && asRead == -1) {
        return {"user's consent", Level::Broken,
                "the user has accepted the terms of use, but only after kivApp was started",
                "Restart kivApp, or wait for the next start."};
    }
    if (consent.accepted) {
        return {"user's consent", Level::Ok, "version " + std::to_string(consent.version), ""};
    }
    if (consent.version >= 1 && consent.demanded > consent.version) {
        return {"user's consent", Level::Broken,
                "the user has accepted version " + std::to_string(consent.version) +
                    " of the terms of use, the server demands version " +
                    std::to_string(consent.demanded) + " (" + consent.path + ")",
                "The user interface asks the user; the address of the new terms is in "
                "show_new_tou.txt."};
    }
    if (m_evidence.daemon.speaks() && asRead == 1) {
        return {"user's consent", Level::Weak,
                "the user has withdrawn the consent, which counts from the next start on (" +
                    consent.path + ")",
                "Restart kivApp for it to count now."};
    }
    return {"user's consent", Level::Broken,
            "the user has not accepted the terms of use (" + consent.path + ")",
            "Only the user can: \"CUL-TOU <version> TRUE\" is a yes. It counts from the next "
            "start of kivApp on."};
}

Finding SetChecks::serverConsent() const {
    if (!m_evidence.hasConfiguration()) {
        return {"server's consent", Level::Waits, "not known without a configuration", ""};
    }
    if (m_evidence.configuration.touAccepted) {
        return {"server's consent", Level::Ok, "\"kiv_tou\" is true", ""};
    }
    return {"server's consent", Level::Broken,
            "the server has no consent of this user on record (\"kiv_tou\" is not true in " +
                m_evidence.places.config + ")",
            "The server learns of a yes with a request for the configuration: the next is due "
            "when this one expires. If it stays so, ask the operator of the server."};
}

/// Why no server can be reached, in the daemon's words; "" where that is not so.
std::string SetChecks::unreachable() const {
    for (const char* target : {"time", "config", "tou"}) {
        const DaemonReport::Answers answers = m_evidence.daemon.answers(target);
        if (answers.fails && answers.unreachable) return answers.error;
    }
    return "";
}

Finding SetChecks::configuration() const {
    const DaemonReport::Answers server = m_evidence.daemon.answers("config");
    const std::int64_t left = m_evidence.configSecondsLeft();
    const bool has = m_evidence.hasConfiguration();
    const std::string age =
        aged(std::max<std::int64_t>(m_evidence.configuration.expiryTou - left, 0));
    if (has && left > 0) {
        const std::string text = "fetched " + age + " ago, valid for another " + aged(left);
        if (!server.fails) return {"configuration", Level::Ok, text, ""};
        return {"configuration", Level::Weak, text + ", but the server: " + server.error,
                "The operator of the server knows why it refuses this set."};
    }
    const std::string state = !has ? "no configuration has been received"
                              : left == 0 && age == "0 s"
                                  ? "the configuration is dated ahead of the clock"
                                  : "the configuration expired " + aged(-left) + " ago";
    const bool noNetwork =
        m_evidence.daemon.fact("network") == -1 || (server.fails && server.unreachable);
    if (noNetwork || !unreachable().empty() || m_evidence.consent.missing) {
        return {"configuration", Level::Waits, state, kFromServer};
    }
    if (server.fails) {
        return {"configuration", Level::Broken,
                state + ", and the server gives no new one: " + server.error,
                "The operator of the server knows why; asked again every 10 min."};
    }
    return {"configuration", m_evidence.daemon.isRunning() ? Level::Waits : Level::Broken, state,
            kFromServer};
}

Finding SetChecks::filter() const {
    const DaemonReport& daemon = m_evidence.daemon;
    const JsonObject filter = m_evidence.document.getObject(ConfigDocument::keyEventFilter);
    const JsonObject include = filter.getObject("include");
    const std::string mend =
        "Look at \"event-filter\" in " + m_evidence.places.config +
        "; kivstat explain EVENT.json tells which rule decides. A new filter counts from the next "
        "start of kivApp on.";
    if (!include.isNull() && include.getArraySize() == 0) {
        return {"event filter", Level::Broken,
                "the event filter keeps nothing: its include is empty", mend};
    }
    const std::int64_t refused = daemon.count("refused-by-filter");
    const std::int64_t judged = daemon.count("received") - daemon.count("not-an-event") -
                                daemon.count("refused-by-consent");
    const std::string of = std::to_string(refused) + " of " + std::to_string(judged);
    if (refused > 0 && refused >= judged) {
        return {"event filter", Level::Broken,
                "the event filter has kept nothing: it refused all " + std::to_string(refused) +
                    " events since the start",
                mend};
    }
    return {"event filter", Level::Ok, daemon.speaks() ? "refused " + of + " events" : "has rules",
            ""};
}

bool SetChecks::speaksOfCredentials(const std::string& error) {
    std::string lower = error;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    for (const char* word : {"token", "signature", "credential", "access key", "authoriz"}) {
        if (lower.find(word) != std::string::npos) return true;
    }
    return false;
}

Finding SetChecks::credentials() const {
    const ConfigDocument::Values& values = m_evidence.configuration;
    if (!m_evidence.hasConfiguration()) {
        return {"credentials", Level::Waits, "not known without a configuration", ""};
    }
    if (values.accessKeyId.empty() || values.secretAccessKey.empty() || values.iv.empty()) {
        return {"credentials", Level::Broken, "the configuration brings no credentials",
                "The operator of the server has to put them into this set's configuration."};
    }
    const DaemonReport::Answers stream = m_evidence.daemon.answers("stream");
    if (stream.fails && speaksOfCredentials(stream.error)) {
        return {"credentials", Level::Broken, "the stream refuses the credentials: " + stream.error,
                "They come with the configuration: the next one may bring better ones. If it stays "
                "so, ask the operator; and whether KIV_SERVERENV fits this set."};
    }
    return {"credentials", Level::Ok, "present", ""};
}

Finding SetChecks::clock() const {
    const DaemonReport::Answers server = m_evidence.daemon.answers("time");
    if (m_evidence.knowsWebTime()) {
        const std::int64_t ahead = m_evidence.systemUtc - m_evidence.utc();
        const std::string off = ahead > 60 ? ", the set's own clock is " + aged(ahead) + " ahead"
                                : ahead < -60
                                    ? ", the set's own clock is " + aged(-ahead) + " behind"
                                    : "";
        return {"clock", Level::Ok, utcText(m_evidence.utc()) + " by web time" + off, ""};
    }
    const std::string known = m_evidence.utc() == 0
                                  ? "the time is not known"
                                  : "the time is known from the set's middleware only";
    const bool noNetwork = m_evidence.daemon.fact("network") == -1 || !unreachable().empty();
    if (server.fails && !noNetwork) {
        return {"clock", Level::Broken, known + ": " + server.error,
                "The time comes from the web server, asked again after 10 s to 5 min. The set's "
                "own clock (" +
                    utcText(m_evidence.systemUtc) + ") does not count."};
    }
    return {"clock", Level::Waits, known, "It comes from the web server by itself."};
}

Finding SetChecks::network() const {
    const DaemonReport& daemon = m_evidence.daemon;
    const std::string reason = unreachable();
    if (daemon.fact("network") == -1 && !m_evidence.knowsWebTime()) {
        return {"network", Level::Broken,
                "no network: ping gets no answer to the name " + Services::connectivityHost(),
                "Look at the connection, and at the name servers in /etc/resolv.conf; kivstat "
                "doctor tries each name."};
    }
    if (!reason.empty()) {
        const bool certificate = reason.find("ertificate") != std::string::npos;
        return {"network", Level::Broken, "a server cannot be reached: " + reason,
                certificate ? "Look at the CA file that CURL_CA_BUNDLE names; kivstat doctor shows "
                              "whose certificate each server has."
                            : "kivstat doctor tries each server."};
    }
    if (!daemon.speaks()) return {"network", Level::Ok, "not known without the daemon", ""};
    return {"network", Level::Ok, "the servers answer", ""};
}
