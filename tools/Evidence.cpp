#include "Evidence.h"

#include "ClassLog.h"
#include "KernelTime.h"
#include "StatusOptions.h"

#include <ctime>

namespace {

const ClassLog s_silent("kivstat: ");

/// Zero in a missing or bad file; unlike the daemon's own reading it writes no line.
std::uint32_t countIn(const std::string& path, const char* name) {
    const long long count = JsonObject::loadFile(path).optInteger(name, 0);
    return count < 0 ? 0 : static_cast<std::uint32_t>(count);
}

}  // namespace

Evidence::Evidence(const StatusOptions& options)
    : daemon(SetPlaces::statusFile(options)),
      places(options, daemon),
      globalInfo(JsonObject::loadFile(places.globalInfo)),
      deviceId(globalInfo.optString("deviceid")),
      boot(countIn(places.bootInfo, "boot-count")),
      standby(countIn(places.bootInfo, "standby-count")),
      consent(places.termsFolder),
      document(JsonObject::loadFile(places.config)),
      queue(places.queue),
      store(places.database, boot, standby, daemon.isRunning()),
      kernelMs(KernelTime::getTimeMonotonicAsInt64()),
      systemUtc(std::time(nullptr)) {
    if (document.isObject()) ConfigDocument::parse(document, configuration, s_silent);
}

std::int64_t Evidence::utc() const {
    const std::int64_t start = store.webStart != 0 ? store.webStart : store.systemStart;
    return start == 0 ? 0 : (start + kernelMs) / 1000;
}

std::int64_t Evidence::configTime() const {
    const std::int64_t told = daemon.fact("config-time");
    return told != 0 ? told : configuration.utcTime;
}

std::int64_t Evidence::configSecondsLeft() const {
    const std::int64_t age = (utc() != 0 ? utc() : systemUtc) - configTime();
    return age < 0 ? 0 : configuration.expiryTou - age;
}

std::int64_t Evidence::oldestAgeMs() const {
    const bool ours = store.events > 0 && store.oldest.boot == static_cast<std::int32_t>(boot) &&
                      store.oldest.standby == static_cast<std::int32_t>(standby);
    return ours ? kernelMs - store.oldest.kernelMs : -1;
}

std::string Evidence::inWords(std::int64_t ms) {
    const std::int64_t seconds = ms / 1000;
    if (seconds < 120) return std::to_string(seconds) + " s";
    if (seconds < 7200) return std::to_string(seconds / 60) + " min";
    if (seconds < 172800) return std::to_string(seconds / 3600) + " h";
    return std::to_string(seconds / 86400) + " days";
}

std::string Evidence::ago(std::int64_t moment) const {
    return moment == 0 ? "never" : inWords(kernelMs - moment) + " ago";
}
