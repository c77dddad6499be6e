// steps DATABASE [EVENTS]: what each step of the intake takes of one thread, for 300-byte events
// and a store at its limit. Prints the microseconds of CPU an event; no other thread takes part, so
// that the instructions can be counted, too (valgrind --tool=callgrind).

#include "CGlobalInfoImpl.h"
#include "DB.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "support/DBPeer.h"

#include <deque>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

constexpr long kBatch = 256;
constexpr int kThreshold = 131072;
constexpr int kTarget = 94208;

/// The CPU that steps take, added up.
class Meter {
  public:
    void countFor(double& step) {
        const double now = cpu();
        step += now - m_last;
        m_last = now;
    }

  private:
    static double cpu() {
        timespec time{};
        ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
    }

    double m_last = cpu();
};

std::string message(long number) {
    static const std::string text(160, 'x');
    return R"({"event-type":"usage.epg","data":{"n":)" + std::to_string(10000000 + number) +
           R"(,"text":")" + text + "\"}}";
}

/// As the gateway completes it.
JsonObject completed(const std::string& text, long number) {
    JsonObject event = JsonObject::parse(text);
    event.set("eventid", JsonObject::createInteger(17));
    event.set("event-type", std::string("usage.epg"));
    event.set("boot-count", JsonObject::createInteger(1));
    event.set("standby-count", JsonObject::createInteger(1));
    event.set("kernel-time", JsonObject::createInteger(1000000 + number));
    return event;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 2;
    const long count = argc > 2 ? std::atol(argv[2]) : 50000;
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(1, 1);
    DB store;
    store.open(argv[1], true);
    constexpr auto never = std::numeric_limits<std::int32_t>::max();
    DBPeer::setPruneSizes(store, never, never);  // no thread: it is pruned below
    double made = 0, read = 0, written = 0, stored = 0, pruned = 0, freed = 0;
    Meter meter;
    long number = 0;
    while (number < count) {
        std::vector<std::string> messages;
        for (long i = 0; i < kBatch; ++i) messages.push_back(message(number + i));
        meter.countFor(made);
        std::deque<JsonObject> events;
        for (const std::string& text : messages) events.push_back(completed(text, ++number));
        meter.countFor(read);
        std::vector<DB::NewEvent> rows;
        for (const JsonObject& event : events) {
            rows.push_back({1, 1, event.optInteger("kernel-time", 0), event.optString("event-type"),
                            event.getStringRep()});
        }
        meter.countFor(written);
        std::size_t taken = 0;
        store.addEvents(rows, taken);
        if (taken != rows.size()) return 1;
        meter.countFor(stored);
        if (store.totalEventSize() > kThreshold) store.pruneAboveSize(kTarget);
        meter.countFor(pruned);
        events.clear();
        rows.clear();
        meter.countFor(freed);
    }
    const double each = 1e6 / static_cast<double>(number);
    std::printf("read and complete %.2f, write %.2f, store %.2f, prune %.2f, free %.2f us\n",
                read * each, written * each, stored * each, pruned * each, freed * each);
    return 0;
}
