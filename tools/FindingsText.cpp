#include "FindingsText.h"

#include <iomanip>
#include <sstream>

namespace {

const char* word(Finding::Level level) {
    switch (level) {
        case Finding::Level::Ok:
            return "ok";
        case Finding::Level::Waits:
            return "waits";
        case Finding::Level::Weak:
            return "weak";
        default:
            return "broken";
    }
}

}  // namespace

std::string FindingsText::table(const Findings& findings) {
    std::ostringstream out;
    for (const Finding& finding : findings) {
        out << std::left << std::setw(18) << finding.subject << std::setw(8) << word(finding.level)
            << finding.text << "\n";
        if (!finding.mend.empty()) out << std::string(26, ' ') << "-> " << finding.mend << "\n";
    }
    return out.str();
}

JsonObject FindingsText::json(const Findings& findings) {
    JsonObject array = JsonObject::createArray();
    for (const Finding& finding : findings) {
        JsonObject object = JsonObject::createObject();
        object.set("subject", finding.subject);
        object.set("level", word(finding.level));
        object.set("text", finding.text);
        if (!finding.mend.empty()) object.set("mend", finding.mend);
        array.append(object);
    }
    return array;
}
