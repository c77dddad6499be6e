// The answer of the geolocation service, its row, and what a header makes of it.
//
// Input: the HTTP status, a line of four dashes, the body; another one, and the place of a former
// run as the daemon writes it (JSON).

#include "DB.h"
#include "LocationInfo.h"
#include "support/Fuzz.h"
#include "support/LocationInfoPeer.h"
#include "support/NoNetwork.h"

#include <cmath>
#include <cstdlib>
#include <string>

namespace {

constexpr std::size_t kMostCharacters = 128;

bool isWithin(const JsonObject& place, const char* member, double limit) {
    const double value = place.optDouble(member, 0);
    return (value >= -limit && value <= limit) || value == 999.99;
}

std::size_t charactersOf(const std::string& text) {
    std::size_t count = 0;
    for (const char byte : text) count += (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
    return count;
}

/// What every header may hold.
void checkPlace(const LocationInfo& place) {
    const JsonObject json = place.toJSON();
    fuzz::demand(json.isObject(), "a place can be written");
    const std::string text = json.dumpAsString();
    fuzz::demand(JsonObject::parse(text).equals(json), "and read again", text);
    fuzz::demand(isWithin(json, "lat", 90) && isWithin(json, "lng", 180), "it is on the earth",
                 text);
    for (const char* member : {"ip", "city", "region", "country-code"}) {
        fuzz::demand(charactersOf(json.optString(member)) <= kMostCharacters,
                     "no text takes the room of the events", text);
    }
    if (json.optString("country").empty()) return;
    const auto again = LocationInfo::fromJSON(json);
    fuzz::demand(again != nullptr, "a known country is known again", text);
    fuzz::demand(again->toJSON().optString("country") == json.optString("country"),
                 "and the same one", text);
}

void checkAnswer(const url_data& answer) {
    fuzz::answerWith(answer);
    LocationInfoPeer::beginNewRun();
    const auto found = LocationInfo::getLocation();
    const auto storedFirst = LocationInfo::getKnownLocation();
    if (found == nullptr) {
        fuzz::demand(storedFirst == nullptr, "nothing is known without an answer and a row");
        return;
    }
    checkPlace(*found);
    fuzz::demand(storedFirst != nullptr && storedFirst->toJSON().equals(found->toJSON()),
                 "a run has one place");
    if (answer.status < 200 || answer.status > 299) return;
    if (!JsonObject::parse(answer.data).isObject()) return;
    // The next run, without an answer, knows it from its row.
    LocationInfoPeer::beginNewRun();
    fuzz::answerWith(url_data());
    const auto stored = LocationInfo::getLocation();
    fuzz::demand(stored == nullptr || stored->toJSON().equals(found->toJSON()),
                 "the row holds the place", found->toJSON().dumpAsString());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    ::unsetenv("LOC_NETWORK");
    LocationInfo::setDbPath(fuzz::pathOf("Db"));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::partsOf(data, size, 3);
    const fuzz::TimeBound bound(2);
    const auto former = LocationInfo::fromJSON(JsonObject::parse(parts[2]));
    if (former != nullptr && charactersOf(parts[2]) <= kMostCharacters) checkPlace(*former);
    url_data answer;
    answer.status = std::atol(parts[0].c_str());
    answer.data = parts[1];
    checkAnswer(answer);
    return 0;
}
