// A configuration document: read from its text, as the server's answer, and as the file that is
// kept of it; the getters, the filters and the credentials afterwards.
//
// Input: the HTTP status, a line of four dashes, the Date header's value, another one, the
// document.

#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "Credentials.h"
#include "EventFilter.h"
#include "Singleton.h"
#include "support/AppClockPeer.h"
#include "support/CTouImplPeer.h"
#include "support/Fuzz.h"
#include "support/NoNetwork.h"

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

std::vector<std::string> valuesOf(const ConfigImpl& config) {
    return {config.GetTouAccepted() ? "true" : "false",
            std::to_string(config.GetExpiryTou()),
            config.GetEventFilter(),
            config.GetFileFilter(),
            std::to_string(config.GetMaxDelay()),
            std::to_string(config.GetMaxSize()),
            std::to_string(config.GetMinSize()),
            config.GetFirehoseEndpoint(),
            config.GetS3Endpoint(),
            config.GetFirehoseStream(),
            config.GetS3Bucket(),
            config.GetIV(),
            config.GetAccessKeyId(),
            config.GetSecretAccessKey(),
            config.GetSessionToken(),
            config.GetLastModified(),
            std::to_string(config.GetUtcTime())};
}

/// What the rest of the daemon makes of the values.
void use(ConfigImpl& config) {
    for (const std::string& text : {config.GetEventFilter(), config.GetFileFilter()}) {
        const JsonObject filter = JsonObject::parse(text);
        fuzz::demand(filter.isObject(), "a filter is an object's text", text);
        static const JsonObject event =
            JsonObject::parse(R"({"event-type": "usage.epg", "data": {"channel": 5}})");
        EventFilter(filter).matches(event);
    }
    config.configIsExpired();
    config.isDownloadRequired();
    config.collectionAllowed();
    fuzz::demand(config.MinimumSizeReached(1L << 31), "no threshold is above 31 bits");
    const std::string cipher = config.GetAccessKeyId();
    const auto credentials = Credentials().GetAWSCredentials();
    fuzz::demand(credentials.GetAWSAccessKeyId().size() <= cipher.size() / 2 + 1,
                 "a key is as long as its text says", cipher);
}

/// The document as a text that somebody parsed.
void checkText(const JsonObject& document) {
    const Config holder;
    ConfigImpl& config = *holder;
    config.parseConfig(document);
    const auto once = valuesOf(config);
    config.parseConfig(document);
    fuzz::demand(valuesOf(config) == once, "reading it again changes nothing");
    use(config);
    if (!document.isObject()) return;
    config.Load(fuzz::pathOf("Config"));  // names the file
    config.saveConfig(document);
    ConfigImpl fromFile;
    fromFile.Load(fuzz::pathOf("Config"));
    ConfigImpl fromText;
    fromText.parseConfig(document);
    fuzz::demand(valuesOf(fromFile) == valuesOf(fromText), "the file holds what was saved",
                 document.dumpAsString());
}

/// The document as the server's answer.
void checkAnswer(const url_data& answer) {
    const Config holder;
    ConfigImpl& config = *holder;
    fuzz::removeFile("Config");
    config.Load(fuzz::pathOf("Config"));
    const auto before = valuesOf(config);
    const std::string fileBefore = fuzz::readFile("Config");
    fuzz::answerWith(answer);
    const bool taken = config.Refresh(true);
    fuzz::demand(fuzz::askedUrl().find("dev1") != std::string::npos, "the server was asked");
    const bool good = answer.status >= 200 && answer.status <= 299;
    fuzz::demand(!taken || good || answer.status >= 400, "other statuses bring no answer");
    if (!taken || !good) {
        auto after = valuesOf(config);
        after.back() = before.back();  // an error answer dates the configuration in force
        fuzz::demand(after == before, "what is not a configuration changes nothing", answer.data);
        fuzz::demand(fuzz::readFile("Config") == fileBefore, "nor the file", answer.data);
        return;
    }
    use(config);
    ConfigImpl fromFile;
    fromFile.Load(fuzz::pathOf("Config"));
    auto kept = valuesOf(fromFile);
    auto inForce = valuesOf(config);
    if (ConfigDocument::isErrorAnswer(JsonObject::parse(answer.data))) {
        kept.back() = inForce.back();  // the date of the one in force is in memory alone
    }
    // What a document leaves out keeps its value in memory, which was the default before.
    fuzz::demand(inForce[0] == kept[0] && inForce[2] == kept[2], "the file holds the answer",
                 answer.data);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto& device = fuzz::forever<Singleton<CGlobalInfoImpl>>();
    const auto& terms = fuzz::forever<Singleton<CTouImpl>>();
    if (device->getDeviceId().empty()) {
        device->Load(fuzz::writeFile("info", R"({"deviceid": "dev1"})"));
        CTouImplPeer::setConsent(*terms, true, 3);
    }
    const auto parts = fuzz::partsOf(data, size, 3);
    AppClockPeer::forget();
    url_data answer;
    answer.status = std::atol(parts[0].c_str());
    answer.date = parts[1];
    answer.data = parts[2];
    const fuzz::TimeBound bound(10);
    checkText(JsonObject::parse(answer.data));
    checkAnswer(answer);
    return 0;
}
