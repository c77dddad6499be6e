// What somebody writes into the pipe of the middleware's time, message by message.
//
// Input: the messages, one a line; a line of four dashes ends the run of one watcher.

#include "CGlobalInfoImpl.h"
#include "ClassLog.h"
#include "MiddlewareTime.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "support/AppClockPeer.h"
#include "support/Fuzz.h"
#include "support/MiddlewareTimePeer.h"
#include "support/TimeMgrImplPeer.h"

#include <cerrno>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <string>

namespace {

constexpr std::size_t kLongestMessage = 1024;  // what one read takes

/// The number at the message's beginning, as C reads it.
std::optional<long long> numberOf(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long long number = std::strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || errno == ERANGE) return std::nullopt;
    return number;
}

/// The watcher with a report of this target's own.
void checkWatcher(const std::string& messages) {
    static const ClassLog log("TimeMgr: ");
    long long previous = 0;
    std::optional<long long> received;
    std::size_t reports = 0;
    MiddlewareTime watcher(log, [&](long long previousTime, long long newTime) {
        ++reports;
        fuzz::demand(previousTime == previous, "the time before is the last one that was read");
        fuzz::demand(received && newTime == *received, "what is reported is what was sent");
        const auto jump = UtcTimeMs(newTime).distanceTo(previousTime);
        fuzz::demand(jump > 60000, "up to a minute is not a jump");
    });
    MiddlewareTimePeer::Previous state;
    std::istringstream in(messages);
    fuzz::errorLines();
    std::size_t invalid = 0;
    for (std::string message; std::getline(in, message);) {
        message.resize(std::min(message.size(), kLongestMessage));
        received = numberOf(message);
        const std::size_t before = reports;
        MiddlewareTimePeer::handleMessage(watcher, message, state);
        fuzz::demand(received || reports == before, "what is not a number is not reported");
        if (received) previous = *received;
        invalid += received ? 0 : 1;
        fuzz::demand(state.time == previous, "the last one that was read is remembered");
    }
    const std::size_t lines = fuzz::errorLines();
    fuzz::demand(lines <= 10, "at most ten lines in 10 s", std::to_string(lines));
    fuzz::demand(invalid == 0 || lines > 0, "what cannot be read has its line");
}

/// The watcher of the time manager, which judges and stores.
void checkManager(const std::string& messages) {
    const auto& manager = fuzz::forever<Singleton<TimeMgrImpl>>();
    const auto& device = fuzz::forever<Singleton<CGlobalInfoImpl>>();
    static bool isOpen = false;
    if (!isOpen) {
        device->setBootCounts(7, 2);
        manager->setDBPath(fuzz::pathOf("Db"));
    }
    isOpen = true;
    manager->setTime(TimeSourceSystem, TimeReference(), 0);
    AppClockPeer::forget();
    MiddlewareTime& watcher = TimeMgrImplPeer::watch(*manager);
    MiddlewareTimePeer::Previous state;
    std::istringstream in(messages);
    std::size_t handled = 0;
    for (std::string message; handled < 20 && std::getline(in, message); ++handled) {
        message.resize(std::min(message.size(), kLongestMessage));
        MiddlewareTimePeer::handleMessage(watcher, message, state);
        const UtcTimeMs now = manager->getTime();
        now.getString();
        kivAppNow();
    }
    fuzz::errorLines();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::partsOf(data, size, 2);
    const fuzz::TimeBound bound(2);
    checkWatcher(parts[0]);
    checkManager(parts[1]);
    return 0;
}
