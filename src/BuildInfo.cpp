#include "BuildInfo.h"

#include <cstdio>

#include <time.h>

std::string BuildInfo::revisionText() {
    char text[11];
    std::snprintf(text, sizeof text, "#0x%07x", revision);
    return text;
}

std::string BuildInfo::buildTimeText() {
    ::tzset();  // localtime_r alone need not notice a new zone
    const time_t seconds = buildTime;
    struct tm local {};
    char text[80];
    if (::localtime_r(&seconds, &local) == nullptr ||
        ::strftime(text, sizeof text, "%a %Y-%m-%d %H:%M:%S %Z", &local) == 0) {
        return "";
    }
    return text;
}
