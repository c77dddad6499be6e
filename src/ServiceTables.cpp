#include "ServiceTables.h"

#include "ClassLog.h"

#include <algorithm>
#include <optional>

#include <cstdlib>

// The scrambled service values of this build: k...Table, one vector for each environment.
namespace {
#include "ServiceTables.inc"

constexpr int kCharacterOffset = 40;  // what scrambling takes off each character

ClassLog s_log("credentials:");  // the public names of the values are in Credentials

using Bytes = std::vector<unsigned char>;

Bytes runningSums(const std::vector<signed char>& scrambled) {
    Bytes sums;
    unsigned char sum = 0;
    for (const signed char difference : scrambled) {
        sum = static_cast<unsigned char>(sum + static_cast<unsigned char>(difference));
        sums.push_back(sum);
    }
    return sums;
}

/// The second half of the sums, read from the end, says where each character of the first half
/// belongs; a place that it does not name stays out.
std::string unscramble(const std::vector<signed char>& scrambled) {
    const Bytes sums = runningSums(scrambled);
    const auto half = static_cast<std::ptrdiff_t>(sums.size() / 2);
    std::string text;
    for (std::ptrdiff_t place = 0; place < half; ++place) {
        const auto found = std::find(sums.rbegin(), sums.rbegin() + half, place);
        if (found == sums.rbegin() + half) continue;
        const int character = sums[static_cast<std::size_t>(found - sums.rbegin())];
        text.push_back(static_cast<char>(character + kCharacterOffset));
    }
    return text;
}

/// The value of "KIV_SERVERENV" as an index into the tables; none for an unknown one.
std::optional<int> environmentNamed(const std::string& name) {
    if (name == "prod") return 0;
    if (name == "dev") return 1;
    if (name == "acc") return 2;
    return std::nullopt;
}

}  // namespace

const std::string ServiceTables::Keysource = "Release";
int ServiceTables::m_KivServerEnv = 0;
std::mutex ServiceTables::m_environmentLock;
bool ServiceTables::m_environmentChecked = false;
std::vector<signed char> ServiceTables::m_touUrlTable[3] = {kTouUrlTable[0], kTouUrlTable[1],
                                                            kTouUrlTable[2]};
std::vector<signed char> ServiceTables::m_webTimeUrlTable[3] = {
    kWebTimeUrlTable[0], kWebTimeUrlTable[1], kWebTimeUrlTable[2]};
std::vector<signed char> ServiceTables::m_configUrlTable[3] = {
    kConfigUrlTable[0], kConfigUrlTable[1], kConfigUrlTable[2]};
std::vector<signed char> ServiceTables::m_apiKeyTable[3] = {kApiKeyTable[0], kApiKeyTable[1],
                                                            kApiKeyTable[2]};
std::vector<signed char> ServiceTables::m_storageKeyTable[3] = {
    kStorageKeyTable[0], kStorageKeyTable[1], kStorageKeyTable[2]};

std::string ServiceTables::getConfigUrl() {
    s_log.info(" Returning Config file URL for ", Keysource);
    return decrypt(m_configUrlTable);
}

std::string ServiceTables::getWebTimeUrl() {
    s_log.info(" Returning web time URL for ", Keysource);
    return decrypt(m_webTimeUrlTable);
}

std::string ServiceTables::getTouUrl() {
    s_log.info(" Returning Tou file URL for ", Keysource);
    return decrypt(m_touUrlTable);
}

std::string ServiceTables::getLambdaKey() {
    s_log.info(" Returning Lambda key for ", Keysource);
    return decrypt(m_apiKeyTable);
}

std::string ServiceTables::getStorageKey() {
    return decrypt(m_storageKeyTable);
}

std::string ServiceTables::decrypt(const Table& table) {
    return unscramble(table[chosenEnvironment()]);
}

int ServiceTables::chosenEnvironment() {
    const std::lock_guard<std::mutex> lock(m_environmentLock);
    if (m_environmentChecked) return m_KivServerEnv;
    const char* const name = std::getenv("KIV_SERVERENV");
    if (name != nullptr) {
        s_log.info(" Move staging environment to ", name);
        m_KivServerEnv = environmentNamed(name).value_or(m_KivServerEnv);
    } else {
        m_KivServerEnv = 0;
        s_log.info(" Restoring default ENV to prod");
    }
    m_environmentChecked = true;
    return m_KivServerEnv;
}

void ServiceTables::forgetEnvironment() {
    const std::lock_guard<std::mutex> lock(m_environmentLock);
    m_environmentChecked = false;
}

void ServiceTables::setVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool ServiceTables::isVerbose() {
    return s_log.isVerbose();
}
