// filtercost: the time of one event in the event filter, with 10 and with 200 rules none of which
// matches (so that all are asked), in microseconds.

#include "EventFilter.h"
#include "JsonObject.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace {

JsonObject filterOf(int rules) {
    std::string text = R"({"include": [)";
    for (int i = 0; i < rules; ++i) {
        if (i > 0) text += ",";
        text += R"({"event-type": ["usage.app", "usage.epg"], "data": {"channel": {"$>": )" +
                std::to_string(1000 + i) + "}}}";
    }
    return JsonObject::parse(text + "]}");
}

double microsecondsPerEvent(int rules) {
    const EventFilter filter(filterOf(rules));
    const JsonObject event = JsonObject::parse(
        R"({"event-type": "usage.epg", "data": {"channel": 5, "source": "tuner"}})");
    constexpr int repeats = 2000;
    int kept = 0;
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < repeats; ++i) kept += filter.matches(event) ? 1 : 0;
    const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - begin;
    return kept == 0 ? time.count() / repeats : -1;
}

}  // namespace

int main() {
    std::printf("%.2f %.2f\n", microsecondsPerEvent(10), microsecondsPerEvent(200));
    return 0;
}
