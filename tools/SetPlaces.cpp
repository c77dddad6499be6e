#include "SetPlaces.h"

#include "DaemonReport.h"
#include "StatusOptions.h"

#include <fstream>

#include <stdlib.h>

namespace {

constexpr const char* kFolder = KIV_STATE_DIR "/";

/// The settings that count, with the environment's before the file's.
std::string setting(const char* name) {
    if (const char* value = getenv(name)) return value;
    std::ifstream file(KIV_SETTINGS);
    const std::string key = std::string(name) + "=";
    std::string found;
    for (std::string line; std::getline(file, line);) {
        if (line.compare(0, key.size(), key) != 0) continue;
        found = line.substr(key.size());
        const bool quoted = found.size() > 1 && found.front() == found.back() &&
                            (found.front() == '"' || found.front() == '\'');
        if (quoted) found = found.substr(1, found.size() - 2);
    }
    return found;
}

std::string firstOf(const std::string& option, const std::string& told, const char* name,
                    const std::string& otherwise) {
    if (!option.empty()) return option;
    if (!told.empty()) return told;
    const std::string set = setting(name);
    return set.empty() ? otherwise : set;
}

}  // namespace

std::string SetPlaces::statusFile(const StatusOptions& options) {
    return firstOf(options.statusFile, "", "KIV_STATUS_FILE", "/run/kivApp/status.json");
}

SetPlaces::SetPlaces(const StatusOptions& options, const DaemonReport& daemon)
    : globalInfo(firstOf(options.globalInfo, daemon.file("globalinfo"), "KIV_GLOBALINFO",
                         std::string(kFolder) + "GlobalInfo")),
      bootInfo(firstOf(options.bootInfo, daemon.file("bootinfo"), "KIV_BOOTINFO",
                       std::string(kFolder) + "BootInfo")),
      config(firstOf(options.config, daemon.file("config"), "KIV_CONFIG",
                     std::string(kFolder) + "Config")),
      database(firstOf(options.database, daemon.file("database"), "KIV_DATABASE",
                       std::string(kFolder) + "Db")),
      termsFolder(firstOf(options.termsFolder, daemon.file("toudir"), "KIV_TOUDIR", kFolder)),
      queue(options.queue),
      certificates(setting("CURL_CA_BUNDLE")) {}
