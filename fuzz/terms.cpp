// The user's answer to the terms of use, the server's last answer that was kept, and a new one.
//
// Input: "current_tou.txt", a line of four dashes, "tou_server_answer.txt", another one, the status
// of the new answer, another one, its body.

#include "CTouImpl.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "support/Fuzz.h"
#include "support/NoNetwork.h"

#include <cstdlib>
#include <sstream>
#include <string>

namespace {

constexpr char kConsent[] = "current_tou.txt";
constexpr char kAnnouncement[] = "show_new_tou.txt";
constexpr char kServerAnswer[] = "tou_server_answer.txt";

/// The version that the kept answer demands; 0 where there is none to be read.
long long demandedVersion() {
    return JsonObject::loadFile(fuzz::pathOf(kServerAnswer)).optInteger("version", 0);
}

/// Whether the words are a yes.
bool saysYes(const std::string& text) {
    std::istringstream in(text);
    std::string name;
    std::string version;
    std::string answer;
    return in >> name >> version >> answer && name == "CUL-TOU" && answer == "TRUE";
}

void load(CTouImpl& terms) {
    terms.Load(fuzz::folder() + "/");
    fuzz::demand(terms.refused() != terms.isAccepted(), "the file is there: it is a yes or a no");
}

void checkConsent(CTouImpl& terms, const std::string& consent) {
    const long long demanded = demandedVersion();
    load(terms);
    const bool accepted = terms.isAccepted();
    const long version = terms.getVersion();
    fuzz::demand(!accepted || (version >= 1 && saysYes(consent)), "only a yes is a yes", consent);
    fuzz::demand(!accepted || version >= demanded, "not the version that the server demands",
                 consent);
    fuzz::demand(version == static_cast<std::int32_t>(version), "a version has 32 bits");
    load(terms);
    fuzz::demand(terms.isAccepted() == accepted && terms.getVersion() == version,
                 "loading it again changes nothing", consent);
}

void checkAnswer(CTouImpl& terms, const url_data& answer) {
    const bool accepted = terms.isAccepted();
    const long version = terms.getVersion();
    const std::string keptBefore = fuzz::readFile(kServerAnswer);
    fuzz::removeFile(kAnnouncement);
    fuzz::answerWith(answer);
    const bool usable = terms.Refresh();
    fuzz::demand(terms.isAccepted() == accepted && terms.getVersion() == version,
                 "an answer never changes the consent", answer.data);
    const JsonObject document = JsonObject::parse(answer.data);
    const bool announced = fuzz::hasFile(kAnnouncement);
    fuzz::demand(!usable || document.isObject(), "only an object is an answer", answer.data);
    fuzz::demand(!usable || (answer.status >= 200 && answer.status <= 299), "only a good status");
    fuzz::demand(announced == (usable && document.optInteger("version", 0) > version),
                 "newer terms are announced, and no others", answer.data);
    fuzz::demand(!announced || fuzz::readFile(kAnnouncement) == document.optString("url"),
                 "by their address", answer.data);
    const std::string kept = fuzz::readFile(kServerAnswer);
    const bool mandatory = announced && document.getObject("mandatory").isTrue();
    fuzz::demand(mandatory ? JsonObject::parse(kept).equals(document) : kept == keptBefore,
                 "mandatory terms are kept, and no others", answer.data);
    if (!mandatory) return;
    load(terms);
    fuzz::demand(!terms.isAccepted(), "new mandatory terms end an older yes", answer.data);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    fuzz::beSilent();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto parts = fuzz::partsOf(data, size, 4);
    fuzz::writeFile(kConsent, parts[0]);
    fuzz::removeFile(kServerAnswer);
    if (!parts[1].empty()) fuzz::writeFile(kServerAnswer, parts[1]);
    url_data answer;
    answer.status = std::atol(parts[2].c_str());
    answer.data = parts[3];
    const fuzz::TimeBound bound(2);
    CTouImpl terms;
    checkConsent(terms, parts[0]);
    checkAnswer(terms, answer);
    return 0;
}
