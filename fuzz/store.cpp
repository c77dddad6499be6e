// A damaged store through a start, an event, a packet, a deletion, and the next start.
//
// Input: a byte that chooses, then the damage.
//   bit 0: the whole file comes from the input; otherwise it is a sound store, patched by the
//   input:
//          three bytes of place, one of length, and so many bytes, again and again
//   bit 1: the store has a write-ahead log, which lies behind it for the patches
//   bit 2: opened as the application opens it, which looks the whole file through
//   bit 3: with the log of that sound store beside a file of the input's

#include "CGlobalInfoImpl.h"
#include "CycleTimes.h"
#include "DB.h"
#include "DBToken.h"
#include "EventSessionHeader.h"
#include "EventTimeRework.h"
#include "EventsPacket.h"
#include "JsonIterator.h"
#include "LocationInfo.h"
#include "Singleton.h"
#include "SqlFiles.h"
#include "TimeMgrImpl.h"
#include "support/AppClockPeer.h"
#include "support/DBPeer.h"
#include "support/EventsPacketPeer.h"
#include "support/Fuzz.h"
#include "support/LocationInfoPeer.h"
#include "support/StoreRescuePeer.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <sqlite3.h>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPacketSize = 16384;
constexpr auto kLongest = std::chrono::seconds(60);  ///< of the clock on the wall, with all tries

/// A store as the daemon leaves it.
struct Sound {
    std::string file;
    std::string log;
};

void forgetEverything() {
    SqlFiles::forgetAll();
    StoreRescuePeer::forgetAttempts();
    DBPeer::forgetDamage();
    DB::m_TotalEventSize = -1;
    DB::m_dbError = false;
    LocationInfoPeer::forget();
    AppClockPeer::forget();
}

void removeFiles() {
    for (const char* name : {"Db", "Db-wal", "Db-shm", "Db-journal", "Db.damaged", "Db.new"}) {
        fuzz::removeFile(name);
    }
}

std::string eventText(int number) {
    return R"({"event-type": "usage.epg", "eventid": 3, "boot-count": )" +
           std::to_string(number / 10) + R"(, "standby-count": 1, "kernel-time": )" +
           std::to_string(1000 + number) + R"(, "data": {"text": ")" +
           std::string(static_cast<std::size_t>(number % 7) * 30, 'x') + "\"}}";
}

void fill(DB& db) {
    std::vector<DB::NewEvent> events;
    for (int i = 0; i < 40; ++i) events.push_back({i / 10, 1, 1000 + i, "usage.epg", eventText(i)});
    std::size_t taken = 0;
    db.addEvents(events, taken);
    fuzz::demand(taken == events.size(), "a sound store takes events");
    for (int i = 0; i < 4; ++i) {
        db.addFile("file" + std::to_string(i), "/tmp/f", R"({"bucketname": "b"})");
        db.setStartTime(i, 1, 1, 1600000000000 + i);
        db.setOpTime(i, 1, 5);
    }
    db.retryUpload("file1");
    db.setLocation(4.35, 50.85, "192.0.2.7", "Brussels", "Brussels Capital", "BE");
}

Sound makeSound(bool withLog) {
    removeFiles();
    forgetEverything();
    Sound sound;
    {
        DB db;
        db.open(fuzz::pathOf("Db"), true);
        fill(db);
        if (withLog) sound = {fuzz::readFile("Db"), fuzz::readFile("Db-wal")};
    }
    if (!withLog) sound.file = fuzz::readFile("Db");
    return sound;
}

void patch(std::string& bytes, const std::uint8_t* data, std::size_t size) {
    while (size > 4) {
        const std::size_t place =
            (std::size_t{data[0]} << 16 | std::size_t{data[1]} << 8 | data[2]) % bytes.size();
        const std::size_t length =
            std::min({std::size_t{data[3]} + 1, size - 4, bytes.size() - place});
        std::copy_n(data + 4, length, bytes.begin() + static_cast<std::ptrdiff_t>(place));
        data += 4 + length;
        size -= 4 + length;
    }
}

/// Puts the damaged store in its place.
void placeStore(const std::uint8_t* data, std::size_t size) {
    static const Sound plain = makeSound(false);
    static const Sound logged = makeSound(true);
    const unsigned int choice = data[0];
    const Sound& sound = (choice & 2) != 0 ? logged : plain;
    std::string bytes(data + 1, data + size);
    std::size_t fileSize = bytes.size();
    if ((choice & 1) == 0) {
        bytes = sound.file + sound.log;
        fileSize = sound.file.size();
        patch(bytes, data + 1, size - 1);
    }
    removeFiles();
    fuzz::writeFile("Db", bytes.substr(0, fileSize));
    if (fileSize < bytes.size()) fuzz::writeFile("Db-wal", bytes.substr(fileSize));
    if ((choice & 8) != 0 && (choice & 1) != 0) fuzz::writeFile("Db-wal", logged.log);
}

/// Adds an event, with the tries that the gateway makes.
void add(DB& db, const std::string& data) {
    const std::vector<DB::NewEvent> events = {{9, 1, 1, "t", data}};
    std::size_t taken = 0;
    for (int attempt = 0; attempt < 3 && taken == 0; ++attempt) {
        db.addEvents(events, taken);
        DBPeer::letTimePassSinceOpening(db, std::chrono::seconds(6));
        if (attempt > 0) StoreRescuePeer::letTimePass(std::chrono::seconds(6));
    }
    fuzz::demand(taken == 1, "the store takes events again", DB::lastErrorMessage());
}

/// What goes out: a block a line, each with its events.
void checkPacket(const AwsWrapper::EventsPacket& packet) {
    const std::string& text = AwsWrapper::EventsPacketPeer::text(packet);
    fuzz::demand(text.size() < static_cast<std::size_t>(kPacketSize), "a packet has its bound");
    if (packet.IsEmpty()) return;
    std::istringstream blocks(text + "]}\n");
    for (std::string block; std::getline(blocks, block);) {
        const JsonObject json = JsonObject::parse(block);
        fuzz::demand(json.getObject("events").isArray(), "each line of a packet is a block", block);
    }
}

/// One upload: as the upload thread makes it, without the cloud. @return whether the sent rows
/// are gone
bool upload(DB& db) {
    const Singleton<TimeMgrImpl> manager;
    CycleTimes times(*manager);
    AwsWrapper::EventsPacket packet(kPacketSize);
    DB::EventSet events = db.getEvents(false);
    for (std::string text = events.getNextAndMark(); !text.empty();
         text = events.getNextAndMark()) {
        JsonObject event = JsonObject::parse(text);
        const UtcTimeMs time = EventTimeRework::reworkEventTime(event, text, true, times);
        if (packet.AddEvent(event, text, time, times)) continue;
        events.unmarkLast();
        break;
    }
    events.close();
    checkPacket(packet);
    return db.deleteMarkedEvents(events);
}

/// The other tables, as their users read and write them.
void useOtherTables(DB& db) {
    for (int i = 0; i < 3; ++i) {
        const auto file = db.getFirstUpload();
        if (file == nullptr) break;
        db.retryUpload(file->id);
        db.removeUpload(file->id);
    }
    fuzz::demand(db.getNumberOfFiles() <= 100000, "files can be counted");
    db.addFile("new", "/tmp/new", "");
    db.getOpTime(1, 1);
    db.setOpTime(9, 1, 7);
    db.getStartTime(1, 1, 1);
    db.setStartTime(9, 1, 0, 1600000000000);
    const auto place = LocationInfo::getKnownLocation();
    if (place != nullptr) place->toJSON();
    std::string oldest = db.getOldestEvent();
    if (!oldest.empty()) EventTimeRework::reworkEventTime(oldest, false);
}

std::string valueOf(const char* query) {
    sqlite3* connection = nullptr;
    sqlite3_open(fuzz::pathOf("Db").c_str(), &connection);
    std::string value = "(none)";
    const auto take = [](void* target, int, char** values, char**) {
        *static_cast<std::string*>(target) = values[0] != nullptr ? values[0] : "NULL";
        return 0;
    };
    if (sqlite3_exec(connection, query, take, &value, nullptr) != SQLITE_OK) {
        value = sqlite3_errmsg(connection);
    }
    sqlite3_close(connection);
    return value;
}

/// A run of the daemon on the store, until an event that was added at its end is in.
void run(bool asTheApplication) {
    DB db;
    db.open(fuzz::pathOf("Db"), asTheApplication);
    const auto& manager = fuzz::forever<Singleton<TimeMgrImpl>>();
    manager->setDBPath(fuzz::pathOf("Db"));
    add(db, R"({"n": "before"})");
    useOtherTables(db);
    for (int attempt = 0; attempt < 3 && !upload(db); ++attempt) {
        DBPeer::letTimePassSinceOpening(db, std::chrono::seconds(6));
    }
    db.pruneAboveSize(200);
    add(db, R"({"n": "after"})");
    manager->setDBPath("");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto& device = fuzz::forever<Singleton<CGlobalInfoImpl>>();
    device->setBootCounts(9, 1);
    DBToken::setDBUUIDPath(fuzz::folder());
    LocationInfo::setDbPath(fuzz::pathOf("Db"));
    EventSessionHeader::setDbPath(fuzz::pathOf("Db"));
    if (size < 1) return -1;
    placeStore(data, size);
    forgetEverything();
    LocationInfo::setDbPath(fuzz::pathOf("Db"));
    const Clock::time_point begin = Clock::now();
    const fuzz::TimeBound bound(20);
    run((data[0] & 4) != 0);
    forgetEverything();
    {
        DB nextStart;
        nextStart.open(fuzz::pathOf("Db"), true);
    }
    fuzz::demand(valueOf("PRAGMA integrity_check") == "ok", "the next start leaves a sound store",
                 valueOf("PRAGMA integrity_check"));
    fuzz::demand(valueOf("SELECT COUNT(*) FROM Events WHERE data='{\"n\": \"after\"}'") == "1",
                 "what was stored last is there",
                 valueOf("SELECT COUNT(*) FROM Events WHERE data='{\"n\": \"after\"}'"));
    fuzz::demand(valueOf("PRAGMA user_version") == "2", "it has its version");
    fuzz::demand(Clock::now() - begin < kLongest, "it takes its time at most");
    return 0;
}
