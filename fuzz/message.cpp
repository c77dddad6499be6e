// A message of the queue, on the gateway's own road: filters, completion, the waiting events, the
// store; then the row is read back.
//
// Input: the message.

#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "DBToken.h"
#include "GatewayImpl.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "support/AppClockPeer.h"
#include "support/Fuzz.h"
#include "support/GatewayImplPeer.h"
#include "support/UploadImplPeer.h"

#include <memory>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace {

constexpr int kBoot = 7;
constexpr int kStandby = 2;
/// What the queue lets through, and what the configuration keeps of it.
constexpr char kDocument[] = R"({"kiv_tou": true, "upload_events": {"min-size": 100000},
    "event-filter": {"exclude": [{"event-type": "test.excluded"},
                                 {"data": {"secret": {"$regex": "(yes|no)+"}}},
                                 {"data": {"level": {"$>": 8}}}]},
    "file-filter": {"exclude": [{"data": {"oob-info": {"private": true}}}]}})";

struct Row {
    std::string bootCount;
    std::string standbyCount;
    std::string kernelTime;
    std::string type;
    std::string data;
};

/// A gateway without threads, consent given, the device's facts known.
class World {
  public:
    World() {
        m_device->Load(fuzz::writeFile(
            "info", R"({"deviceid": "dev1", "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})"));
        m_device->setBootCounts(kBoot, kStandby);
        m_config->parseConfig(JsonObject::parse(kDocument));
        DBToken::setDBUUIDPath(fuzz::folder());
        PimAppVersion::setPimVersionPath(fuzz::folder());
        GatewayImplPeer::setQueueName("/kivfuzz");
        m_gateway = std::make_unique<GatewayImpl>();
        m_gateway->Init(fuzz::pathOf("Db"));
        sqlite3* connection = nullptr;
        fuzz::demand(sqlite3_open(fuzz::pathOf("Db").c_str(), &connection) == SQLITE_OK,
                     "the store can be opened");
        m_connection.reset(connection);
    }

    /// Handles the message, and has it stored.
    void handle(const std::string& message) {
        GatewayImplPeer::handleReceived(*m_gateway, message);
        GatewayImplPeer::isAnySetAside(*m_gateway);
        GatewayImplPeer::storeWaiting(*m_gateway);
        GatewayImplPeer::storeWaiting(*m_gateway);
        UploadImplPeer::take(*m_upload);
    }

    bool isMatchedByFilter(const JsonObject& event) const {
        return EventFilter(JsonObject::parse(m_config->GetEventFilter())).matches(event);
    }

    std::vector<Row> rows() {
        std::vector<Row> found;
        const auto collect = [](void* target, int, char** values, char**) {
            const auto text = [values](int i) { return values[i] ? values[i] : "NULL"; };
            static_cast<std::vector<Row>*>(target)->push_back(
                {text(0), text(1), text(2), text(3), text(4)});
            return 0;
        };
        run("SELECT bootCount, standbyCount, kernelTime, type, data FROM Events", collect, &found);
        return found;
    }

    long number(const char* query) {
        long result = -1;
        const auto take = [](void* target, int, char** values, char**) {
            *static_cast<long*>(target) = std::stol(values[0]);
            return 0;
        };
        run(query, take, &result);
        return result;
    }

    void clear() {
        run("DELETE FROM Events", nullptr, nullptr);
        DB::m_TotalEventSize = -1;
        DB::m_dbError = false;
    }

  private:
    struct Close {
        void operator()(sqlite3* connection) const { sqlite3_close(connection); }
    };
    void run(const char* sql, int (*callback)(void*, int, char**, char**), void* target) {
        char* error = nullptr;
        const int code = sqlite3_exec(m_connection.get(), sql, callback, target, &error);
        fuzz::demand(code == SQLITE_OK, "the rows can be read", error != nullptr ? error : sql);
    }

    Config m_config;
    Singleton<CGlobalInfoImpl> m_device;
    Singleton<UploadImpl> m_upload;
    std::unique_ptr<GatewayImpl> m_gateway;
    std::unique_ptr<sqlite3, Close> m_connection;
};

/// What is stored of an event that the filter keeps.
void checkRow(const Row& row, const JsonObject& event) {
    const JsonObject stored = JsonObject::parse(row.data);
    fuzz::demand(stored.isObject(), "what the row holds parses", row.data);
    fuzz::demand(row.data.find('\'') == std::string::npos, "no row has a quote", row.data);
    fuzz::demand(row.type.find('\'') == std::string::npos, "no type has a quote", row.type);
    fuzz::demand(row.type == stored.optString("event-type"), "the type stands twice", row.type);
    fuzz::demand(stored.getObject("eventid").isInteger(), "the event has its number", row.data);
    fuzz::demand(stored.getObject("syncsem").isNull(), "the semaphore stays here", row.data);
    fuzz::demand(
        row.bootCount == std::to_string(kBoot) && row.standbyCount == std::to_string(kStandby),
        "the row belongs to this cycle", row.bootCount + " " + row.standbyCount);
    const long long kernelTime = stored.optInteger("kernel-time", 0);
    fuzz::demand(kernelTime > 0, "the event has a kernel time", row.data);
    fuzz::demand(row.kernelTime == std::to_string(kernelTime), "and so has the row",
                 row.kernelTime);
    fuzz::demand(stored.getObject("data").isNull() == event.getObject("data").isNull() &&
                     (stored.getObject("data").isNull() ||
                      stored.getObject("data").equals(event.getObject("data"))),
                 "the sender's data are untouched", row.data);
}

World& world() {
    return fuzz::forever<World>();
}

void checkFiles() {
    fuzz::demand(world().number("SELECT COUNT(*) FROM Files") <= 256, "at most 256 files wait");
    constexpr char kBytes[] =
        "SELECT IFNULL(SUM(length(CAST(id AS BLOB)) + length(CAST(url AS BLOB)) + "
        "IFNULL(length(CAST(info AS BLOB)), 0)), 0) FROM Files";
    fuzz::demand(world().number(kBytes) <= 256 * 1024, "their rows take at most 256 KiB");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    world();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string message(data, data + size);
    fuzz::errorLines();
    {
        const fuzz::TimeBound bound(10);
        world().handle(message);
    }
    const std::size_t lines = fuzz::errorLines();
    const std::vector<Row> rows = world().rows();
    const JsonObject event = JsonObject::parse(message);
    fuzz::demand(rows.size() <= 1, "one message makes at most one row", message);
    fuzz::demand(event.isObject() || (rows.empty() && lines > 0), "a refusal has its line",
                 message);
    const bool travelsAsFile = !event.getObject("data").getObject("oob-info").isNull();
    const bool kept = event.isObject() && world().isMatchedByFilter(event) && !travelsAsFile;
    fuzz::demand(kept || rows.empty(), "what the filter drops is not stored", message);
    fuzz::demand(!kept || !rows.empty() || lines > 0, "a refusal has its line", message);
    if (!rows.empty()) {
        checkRow(rows[0], event);
        fuzz::demand(
            DB::m_TotalEventSize == static_cast<long>(rows[0].data.size()) + 2 ||
                world().number("SELECT SUM(length(data)+1)+1 FROM Events") == DB::m_TotalEventSize,
            "the size is that of the rows", std::to_string(DB::m_TotalEventSize));
        world().clear();
    }
    if (!event.getObject("oob-url").isNull()) checkFiles();
    return 0;
}
