#include "ClassLog.h"

#include <system_error>

std::string ClassLog::errnoText(int error) {
    return std::generic_category().message(error);
}

void ClassLog::put(std::ostream& line, const char* text) {
    line << (text != nullptr ? text : "");
}

void ClassLog::put(std::ostream& line, const std::string& text) {
    line << text;
}

void ClassLog::end(std::ostream& line) {
    line << std::endl;
}
