#include "UtcTimeMs.h"

#include "UtcTime.h"

#include <cstdio>

std::string UtcTimeMs::getString() const {
    std::string text = UtcTime(static_cast<std::int32_t>(m_ms / 1000)).getString();
    // The span begins one character before the dot, so that the texts always differ.
    if (text.size() > 4 && text.compare(text.size() - 6, 5, ".000Z") != 0) {
        // A remainder below zero is cut to the first three digits of its unsigned form.
        char milliseconds[4];
        const int wanted = std::snprintf(milliseconds, sizeof milliseconds, "%03u",
                                         static_cast<unsigned int>(m_ms % 1000));
        if (wanted > 0) text.replace(text.size() - 4, 3, milliseconds);
    }
    return text;
}

std::uint64_t UtcTimeMs::distanceTo(UtcTimeMs other) const {
    const auto difference =
        static_cast<std::uint64_t>(m_ms) - static_cast<std::uint64_t>(other.m_ms);
    return m_ms >= other.m_ms ? difference : 0 - difference;
}
