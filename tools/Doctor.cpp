#include "Doctor.h"

#include "CertificateClock.h"
#include "DeliveryChecks.h"
#include "EndpointProbe.h"
#include "FindingsText.h"
#include "ServiceTables.h"
#include "Services.h"
#include "SetChecks.h"

#include <algorithm>
#include <utility>
#include <vector>

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace {

using Level = Finding::Level;

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

}  // namespace

Doctor::Doctor(const Evidence& evidence) : m_evidence(evidence) {
    const SetChecks set(m_evidence);
    m_findings = {set.deviceFiles(),   set.userConsent(), set.serverConsent(),
                  set.configuration(), set.filter(),      set.credentials()};
    checkFolders();
    checkClock();
    checkCertificates();
    checkServers();
    m_findings.push_back(DeliveryChecks(m_evidence).queue());
    checkStore();
}

void Doctor::add(const char* subject, Level level, const std::string& text,
                 const std::string& mend) {
    m_findings.push_back({subject, level, text, mend});
}

void Doctor::checkFolders() {
    const SetPlaces& places = m_evidence.places;
    std::vector<std::string> folders = {folderOf(places.config), folderOf(places.database),
                                        folderOf(places.termsFolder)};
    std::sort(folders.begin(), folders.end());
    folders.erase(std::unique(folders.begin(), folders.end()), folders.end());
    for (const std::string& folder : folders) {
        if (access(folder.c_str(), W_OK | X_OK) == 0) {
            add("folder", Level::Ok, folder + " can be written");
            continue;
        }
        add("folder", Level::Broken, folder + " cannot be written: " + strerror(errno),
            "kivApp keeps its files there. Where only you may not write, run this as kivApp's "
            "user.");
    }
}

void Doctor::checkClock() {
    if (CertificateClock::isBelievable(m_evidence.systemUtc)) {
        add("clock", Level::Ok, "the set's own clock can be right");
        return;
    }
    add("clock", Level::Weak,
        "the set's own clock is before this program was made, or 25 years after",
        "kivApp asks the web server for the time by itself; other programs of the set may need the "
        "right one.");
}

void Doctor::checkCertificates() {
    const std::string& path = m_evidence.places.certificates;
    if (path.empty()) {
        add("CA file", Level::Ok, "the system's (CURL_CA_BUNDLE is not set)");
    } else if (access(path.c_str(), R_OK) == 0) {
        add("CA file", Level::Ok, path);
    } else {
        add("CA file", Level::Broken, path + " cannot be read: " + strerror(errno),
            "CURL_CA_BUNDLE names it; no server is trusted without it.");
    }
}

/// Each host once, under the names of all that it serves.
void Doctor::checkServers() {
    const ConfigDocument::Values& values = m_evidence.configuration;
    const std::pair<const char*, std::string> servers[] = {
        {"configuration", ServiceTables::getConfigUrl()},
        {"terms of use", ServiceTables::getTouUrl()},
        {"time", ServiceTables::getWebTimeUrl()},
        {"place", Services::geolocationUrl()},
        {"events", values.firehoseEndpoint},
        {"files", values.s3Endpoint},
    };
    std::vector<std::pair<std::string, std::string>> hosts;  // address, names
    for (const auto& [name, url] : servers) {
        if (url.empty()) {
            add("server", Level::Broken, std::string("the configuration names none for ") + name,
                "The operator of the server has to put it into this set's configuration.");
            continue;
        }
        const auto known =
            std::find_if(hosts.begin(), hosts.end(), [&, &at = url](const auto& host) {
                return EndpointProbe::hostOf(host.first) == EndpointProbe::hostOf(at);
            });
        if (known == hosts.end())
            hosts.emplace_back(url, name);
        else
            known->second += std::string(", ") + name;
    }
    for (const auto& [url, names] : hosts) checkServer(names, url);
}

void Doctor::checkServer(const std::string& whose, const std::string& url) {
    const std::int64_t known = m_evidence.utc();
    const bool believable = CertificateClock::isBelievable(m_evidence.systemUtc);
    const std::int64_t clock = known != 0 ? known : believable ? m_evidence.systemUtc : 0;
    const EndpointProbe probe(url, m_evidence.places.certificates, clock);
    const std::string name = EndpointProbe::hostOf(url) + " (" + whose + ")";
    const std::string certificate =
        probe.certificate().empty() ? "" : "; its certificate: " + probe.certificate();
    if (probe.works()) {
        add("server", Level::Ok, name + " at " + probe.address() + certificate);
    } else if (probe.address().empty()) {
        add("server", Level::Broken, name + ": " + probe.failure(),
            "Look at the name servers in /etc/resolv.conf, and at the connection.");
    } else if (probe.isDistrusted()) {
        add("server", Level::Broken, name + ": " + probe.failure() + certificate,
            "Either the CA file is not the right one, or something stands in between; or it is too "
            "old for this server.");
    } else {
        add("server", Level::Broken, name + " at " + probe.address() + ": " + probe.failure(),
            "The name is known, but nobody answers there as expected: a firewall, a portal, or the "
            "server itself.");
    }
}

void Doctor::checkStore() {
    const std::string& path = m_evidence.places.database;
    if (m_evidence.store.missing) {
        add("store", Level::Waits, "there is none yet (" + path + ")", "kivApp makes it.");
        return;
    }
    const std::string integrity = StoreReader::integrity(path, m_evidence.daemon.isRunning());
    const std::string size = std::to_string(m_evidence.store.fileBytes) + " bytes";
    if (integrity == "ok") {
        add("store", Level::Ok, path + " is whole, " + size);
    } else {
        add("store", Level::Broken, path + ", " + size + ": " + integrity,
            "kivApp replaces a damaged store by what can be read of it, and keeps it as " + path +
                ".damaged.");
    }
}

bool Doctor::isAllInOrder() const {
    return std::all_of(m_findings.begin(), m_findings.end(),
                       [](const Finding& finding) { return finding.level == Level::Ok; });
}

std::string Doctor::table() const {
    return FindingsText::table(m_findings);
}

std::string Doctor::json() const {
    JsonObject object = JsonObject::createObject();
    object.set("in-order", JsonObject::adopt(json_boolean(isAllInOrder())));
    object.set("findings", FindingsText::json(m_findings));
    return object.dumpAsString() + "\n";
}
