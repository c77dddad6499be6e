#include "ClassLog.h"

#include <algorithm>
#include <system_error>

#include <cstddef>
#include <cstdio>

namespace {

constexpr std::size_t kMostForeignCharacters = 256;

bool isContinuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

/// How many bytes the UTF-8 character (RFC 3629) at `at` has; 0 when none begins there. Longer
/// forms than needed, surrogates and numbers beyond U+10FFFF are none.
std::size_t lengthOfCharacter(const std::string& text, std::size_t at) {
    const auto first = static_cast<unsigned char>(text[at]);
    if (first < 0x80) return 1;
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || at + length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if (!isContinuation(text[at + i])) return 0;
    }
    const auto second = static_cast<unsigned char>(text[at + 1]);
    const bool refused = (first == 0xE0 && second < 0xA0) || (first == 0xED && second > 0x9F) ||
                         (first == 0xF0 && second < 0x90) || (first == 0xF4 && second > 0x8F);
    return refused ? 0 : length;
}

bool isPlain(unsigned char byte) {
    return byte >= 0x20 && byte != 0x7F && byte != '\\';
}

void appendEscaped(std::string& line, unsigned char byte) {
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02X", static_cast<unsigned int>(byte));
    line += escaped;
}

}  // namespace

std::string ClassLog::errnoText(int error) {
    return std::generic_category().message(error);
}

std::string ClassLog::foreign(const std::string& text) {
    std::string line;
    std::size_t at = 0;
    for (std::size_t shown = 0; at < text.size() && shown < kMostForeignCharacters; ++shown) {
        const std::size_t length = lengthOfCharacter(text, at);
        if (length > 1 || (length == 1 && isPlain(static_cast<unsigned char>(text[at])))) {
            line.append(text, at, length);
        } else {
            appendEscaped(line, static_cast<unsigned char>(text[at]));
        }
        at += std::max<std::size_t>(length, 1);
    }
    if (at < text.size()) line += "... (" + std::to_string(text.size()) + " bytes)";
    return line;
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
