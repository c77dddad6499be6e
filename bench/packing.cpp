// packing [ROUNDS]: what the events upload takes to put a full store into one packet. The store
// holds 128 KiB of 300-byte events, in 1, 3 and 30 cycles of which web time is known. The record
// is refused at once (test mode without its file), so that nothing is sent and nothing deleted:
// each round packs the same events. Prints the CPU time of the job and its SELECTs, then has the
// record taken: unless every event was in it, the program fails.

#include "AwsWrapperImpl.h"
#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "DB.h"
#include "EventSessionHeader.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "TimeReference.h"
#include "UploadImpl.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <strings.h>
#include <time.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

constexpr std::size_t kEventSize = 300;       // characters
constexpr int kEvents = 131072 / 301;         // a row counts one more
constexpr std::int64_t kNow = 1551953702000;  // 2019-03-07T10:15:02Z

long selects = 0;

int countSelect(unsigned int /*event*/, void* /*context*/, void* statement, void* /*text*/) {
    const char* const sql = sqlite3_sql(static_cast<sqlite3_stmt*>(statement));
    if (sql != nullptr && ::strncasecmp(sql, "SELECT", 6) == 0) ++selects;
    return 0;
}

int watchConnection(sqlite3* connection, char** /*error*/, const sqlite3_api_routines* /*api*/) {
    return sqlite3_trace_v2(connection, SQLITE_TRACE_STMT, countSelect, nullptr);
}

/// From now on every connection that is opened has its SELECTs counted.
void countSelects() {
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
}

void stopCounting() {
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
}

std::string eventOf(int cycle, std::int64_t kernelTime) {
    const std::string head =
        R"({"event-type": "app.usage", "eventid": 42, "boot-count": )" + std::to_string(cycle) +
        R"(, "standby-count": 0, "kernel-time": )" + std::to_string(kernelTime) +
        R"(, "data": {"app": "video", "volume": 0.25, "list": [1, 2, 3], "title": ")";
    const std::string tail = "\"}}";
    return head + std::string(kEventSize - head.size() - tail.size(), 'x') + tail;
}

/// A television that may upload, and a directory for its store.
class Set {
  public:
    explicit Set(int cycles) {
        std::string pattern = std::filesystem::temp_directory_path() / "packing.XXXXXX";
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("no directory");
        m_directory = pattern;
        DB().open(database(), true);
        std::ofstream(m_directory / "info") << R"({"deviceid": "dev1", "component": "Board"})";
        m_device->Load(m_directory / "info");
        m_device->setBootCounts(static_cast<unsigned int>(cycles), 0);
        m_config->Load(m_directory / "Config");
        m_config->parseConfig(JsonObject::parse(
            R"({"kiv_tou": true, "expiry_tou": 100000, "UTC-Time": 1551953000, )"
            R"("Last-Modified": "Thu, 07 Mar 2019 10:03:20 GMT", )"
            R"("upload_events": {"max-delay": 3600, "max-size": 262144, "min-size": 16384}})"));
        EventSessionHeader::setDbPath(database());
        AwsWrapperImpl::SetTestMode(m_directory / "record");
        m_times->setDBPath(database());
        fill(cycles);
    }
    ~Set() {
        m_times->setDBPath("");
        std::error_code error;
        std::filesystem::remove_all(m_directory, error);
    }
    Set(const Set&) = delete;
    Set& operator=(const Set&) = delete;

    std::string database() const { return m_directory / "Db"; }
    /// Opens the time manager's connection anew.
    void reopen() { m_times->setDBPath(database()); }
    /// From now on records are taken.
    void takeRecords() const { std::ofstream(m_directory / "record") << "{}"; }

  private:
    /// The cycles 1 ... `cycles`, the last of which runs; one day apart.
    void fill(int cycles) {
        const std::int64_t kernelNow = KernelTime::getTimeMonotonicAsInt64();
        for (int cycle = 1; cycle <= cycles; ++cycle) {
            const std::int64_t moment = kNow - std::int64_t{86400000} * (cycles - cycle);
            m_times->setTime(TimeSourceWeb,
                             TimeReference(static_cast<std::uint32_t>(cycle), 0, kernelNow),
                             moment);
        }
        std::vector<DB::NewEvent> events;
        for (int i = 0; i < kEvents; ++i) {
            const int cycle = 1 + i * cycles / kEvents;
            events.push_back({cycle, 0, 1000 + i, "app.usage", eventOf(cycle, 1000 + i)});
        }
        DB store;
        store.open(database(), false);
        while (!events.empty()) {
            std::size_t taken = 0;
            store.addEvents(events, taken);
            events.erase(events.begin(), events.begin() + static_cast<std::ptrdiff_t>(taken));
        }
    }

    std::filesystem::path m_directory;
    const Singleton<CGlobalInfoImpl> m_device;
    const Config m_config;
    const Singleton<TimeMgrImpl> m_times;
};

double cpuMicroseconds() {
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

/// One upload that is refused. @return the CPU time of this thread, in microseconds
double pack(UploadImpl& upload, const Set& set) {
    upload.Init(set.database());  // forgets the last failure
    const double begin = cpuMicroseconds();
    upload.uploadEvents();
    return cpuMicroseconds() - begin;
}

/// @return whether all events were packed
bool measure(int cycles, int rounds) {
    Set set(cycles);
    UploadImpl upload;
    upload.stopThread();
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) times.push_back(pack(upload, set));
    std::sort(times.begin(), times.end());

    countSelects();
    set.reopen();
    upload.Init(set.database());
    selects = 0;
    upload.uploadEvents();
    stopCounting();
    std::printf("| %d | %d | %.2f | %ld |\n", cycles, kEvents, times[times.size() / 2] / kEvents,
                selects);

    set.takeRecords();
    upload.Init(set.database());
    DB store;
    store.open(set.database(), false);
    return upload.uploadEvents() != 0 && store.getOldestEvent().empty();
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(std::atoi(argv[1]), 1) : 51;
    ::setenv("LOC_NETWORK", "false", 1);  // the geolocation service is not asked
    std::cerr.rdbuf(nullptr);             // each refused record gets its lines
    std::printf(
        "| cycles | events | CPU us an event, median of %d | SELECTs |\n|---|---|---|---|\n",
        rounds);
    bool complete = true;
    for (const int cycles : {1, 3, 30}) complete = measure(cycles, rounds) && complete;
    if (!complete) std::printf("The packets did not hold all events.\n");
    return complete ? 0 : 1;
}
