#include "ConsentFile.h"

#include "JsonObject.h"
#include "RegularFile.h"

#include <limits>
#include <sstream>

#include <stdlib.h>

namespace {

std::int64_t versionOf(const std::string& word) {
    using Limits = std::numeric_limits<std::int32_t>;
    char* end = nullptr;
    const long long value = strtoll(word.c_str(), &end, 10);
    const bool whole = !word.empty() && *end == '\0' && end == word.c_str() + word.size();
    return whole && value >= Limits::min() && value <= Limits::max() ? value : 0;
}

}  // namespace

ConsentFile::ConsentFile(const std::string& folder) : path(folder + "current_tou.txt") {
    const RegularFile file(path);
    missing = file.isMissing();
    readable = file.isRead();
    demanded = JsonObject::loadFile(folder + "tou_server_answer.txt").optInteger("version", 0);
    std::istringstream words(file.text());
    std::string name;
    std::string number;
    std::string answer;
    if (!(words >> name >> number >> answer) || name != "CUL-TOU") return;
    version = versionOf(number);
    accepted = version >= 1 && answer == "TRUE" && demanded <= version;
}
