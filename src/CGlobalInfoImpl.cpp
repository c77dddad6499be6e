#include "CGlobalInfoImpl.h"

#include "JsonObject.h"

namespace {

constexpr std::uint32_t kMinutesPerHour = 60;

std::int32_t readOpMinutes(const JsonObject& info) {
    // Unsigned, so that a nonsensical number of hours wraps instead of overflowing.
    const auto hours = static_cast<std::uint32_t>(info.optInteger("op_hour", 0));
    return static_cast<std::int32_t>(hours * kMinutesPerHour);
}

}  // namespace

void CGlobalInfoImpl::Load(std::string path) {
    const JsonObject info = JsonObject::loadFile(path, JSON_DECODE_ANY);
    if (!info.isNull()) {
        m_buildDate = info.optString("builddate", m_buildDate);
        m_deviceId = info.optString("deviceid", m_deviceId);
        m_component = info.optString("component", m_component);
        m_swVersion = info.optString("ufversion", m_swVersion);
        m_country = info.optString("country", m_country);
        m_ctn = info.optString("ctn", m_ctn);
        m_menuLanguage = info.optString("menu-language", m_menuLanguage);
        m_serial = info.optString("serial", m_serial);
        m_opMinutes = readOpMinutes(info);
    }
    updateBuildTime();
}

void CGlobalInfoImpl::updateBuildTime() {
    m_buildTime = UtcTime(m_buildDate);
}

void CGlobalInfoImpl::setBootCounts(std::uint32_t bootCount, std::uint32_t standbyCount) {
    m_bootCount = bootCount;
    m_standbyCount = standbyCount;
}
