#include "ClassLog.h"

#include <algorithm>
#include <system_error>

#include <cstddef>
#include <cstdio>

namespace {

constexpr std::size_t kMostForeignCharacters = 256;

/// The well-formed characters of UTF-8 beyond ASCII (RFC 3629), by the ranges of their first two
/// bytes; the bytes after them are 0x80 to 0xBF.
struct Utf8Form {
    unsigned char firstLow, firstHigh, secondLow, secondHigh;
    std::size_t length;
};
constexpr Utf8Form kUtf8Forms[] = {
    {0xC2, 0xDF, 0x80, 0xBF, 2}, {0xE0, 0xE0, 0xA0, 0xBF, 3}, {0xE1, 0xEC, 0x80, 0xBF, 3},
    {0xED, 0xED, 0x80, 0x9F, 3}, {0xEE, 0xEF, 0x80, 0xBF, 3}, {0xF0, 0xF0, 0x90, 0xBF, 4},
    {0xF1, 0xF3, 0x80, 0xBF, 4}, {0xF4, 0xF4, 0x80, 0x8F, 4},
};

bool isWithin(char byte, unsigned char low, unsigned char high) {
    const auto value = static_cast<unsigned char>(byte);
    return value >= low && value <= high;
}

bool stands(const Utf8Form& form, const std::string& text, std::size_t at) {
    if (at + form.length > text.size()) return false;
    if (!isWithin(text[at + 1], form.secondLow, form.secondHigh)) return false;
    return std::all_of(text.begin() + static_cast<std::ptrdiff_t>(at + 2),
                       text.begin() + static_cast<std::ptrdiff_t>(at + form.length),
                       [](char byte) { return isWithin(byte, 0x80, 0xBF); });
}

/// How many bytes the character at `at` has; 0 when none begins there.
std::size_t lengthOfCharacter(const std::string& text, std::size_t at) {
    if (isWithin(text[at], 0, 0x7F)) return 1;
    for (const Utf8Form& form : kUtf8Forms) {
        if (!isWithin(text[at], form.firstLow, form.firstHigh)) continue;
        return stands(form, text, at) ? form.length : 0;
    }
    return 0;
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
