#include "EventTypeMap.h"

#include <iterator>
#include <limits>
#include <stdexcept>

#include <cstdint>

namespace {

/// A constant, so that static objects of other files may use the map before `main`.
constexpr std::pair<long, const char*> kEventTypes[] = {
    {1, "status.powerstate.change"},
    {2, "usage.tv.zap"},
    {3, "usage.android"},
    {4, "recommender.view"},
    {5, "usage.smarttv"},
    {6, "usage.epg"},
    {7, "usage.pvr"},
    {8, "usage.contentbrowser"},
    {9, "usage.skype"},
    {10, "usage.miracast"},
    {11, "usage.TAD"},
    {12, "usage.CEC"},
    {13, "usage.3d"},
    {14, "ui.text-entry"},
    {15, "ui.key.press"},
    {16, "ui.pointer"},
    {17, "usage.peripherals"},
    {18, "usage.installation"},
    {19, "usage.favlist"},
    {20, "status.settings.user"},
    {21, "status.settings.user.change"},
    {22, "status.reboot.counters"},
    {23, "status.reboot.details"},
    {24, "status.virgin"},
    {25, "usage.app"},
    {26, "usage.help"},
    {27, "zap.source"},
    {28, "zap.input"},
    {29, "status.boottime"},
    {30, "status.channelinfo"},
    {33, "usage.mhl"},
    {34, "usage.pvr.failed"},
    {35, "usage.pvr.scheduling"},
    {38, "usage.tv-drawer"},
    {40, "usage.demome"},
    {41, "usage.multiview"},
    {42, "usage.moreinfo"},
    {48, "status.channel-lock"},
    {50, "status.channel-filter"},
    {52, "status.format-hdd"},
    {53, "status.tuner"},
    {54, "status.sw-versions"},
    {55, "status.fw-download"},
    {56, "status.consumer-care"},
    {57, "status.connections"},
    {58, "status.fw-install"},
    {59, "usage.emmc"},
    {60, "usage.howto"},
    {61, "usage.offrs"},
    {62, "usage.jbfeature"},
    {63, "usage.messagedialogue"},
    {64, "usage.multifavlist"},
    {65, "usage.channelupdatediff"},
    {66, "usage.installationsetup"},
    {67, "usage.hbbtvapp"},
    {68, "usage.dev_kmsg"},
    {69, "usage.mtk_userspace"},
    {70, "alexa_events"},
    {71, "alexa_commands"},
    {73, "set_alarm"},
    {128, "date_and_time_triggers"},
    {129, "osc_event_triggers"},
    {130, "alarm_trigger"},
    {131, "my_choice_pin_validation"},
    {132, "theme_tv_and_mychoice_list_change"},
    {133, "theme_tv_and_mychoice_usage"},
    {200, "debug.dump"},
    {201, "logging.overflow"},
    {202, "kiv.start"},
    {203, "status.hw.error"},
    {204, "files.overflow"},
    {205, "status.sw.error"},
    {206, "pim.start"},
    {207, "time.updated"},
    {208, "cpu.idle"},
    {213, "ram.availmem"},
    {214, "wifi.quality"},
    {215, "db.error"},
};

/// The number at the start of `text`; 0 when there is none or it is out of range.
long readNumber(const char* text) {
    try {
        const long number = std::stol(text);
        // Numbers are those of the set, whose long has 32 bits, on every host.
        const bool fits = number >= std::numeric_limits<std::int32_t>::min() &&
                          number <= std::numeric_limits<std::int32_t>::max();
        return fits ? number : 0;
    } catch (const std::invalid_argument&) {
        return 0;
    } catch (const std::out_of_range&) {
        return 0;
    }
}

/// Makes the map before `main` starts any thread.
[[maybe_unused]] const EventTypeMap& readyBeforeMain = EventTypeMap::instance();

}  // namespace

const std::vector<std::pair<long, const char*>> EventTypeMap::mEventTypeList(
    std::begin(kEventTypes), std::end(kEventTypes));

EventTypeMap::EventTypeMap() {
    for (const auto& [id, name] : kEventTypes) {
        m_names.emplace(id, name);
        m_ids[name] = id;
    }
}

bool EventTypeMap::isKnownId(long id) const {
    return m_names.count(id) != 0;
}

bool EventTypeMap::isKnownName(const char* name) const {
    return name != nullptr && m_ids.count(name) != 0;
}

long EventTypeMap::getId(const char* name) const {
    if (name == nullptr) return 0;
    const auto known = m_ids.find(name);
    return known != m_ids.end() ? known->second : readNumber(name);
}

const char* EventTypeMap::getName(long id) const {
    const auto known = m_names.find(id);
    if (known != m_names.end()) return known->second;
    static thread_local std::map<long, std::string> unknownNames;
    std::string& text = unknownNames[id];
    if (text.empty()) text = std::to_string(id);
    return text.c_str();
}

const EventTypeMap& EventTypeMap::instance() {
    static const EventTypeMap map;
    return map;
}
