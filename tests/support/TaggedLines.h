#pragma once

#include <sstream>
#include <string>

#include "support/OutputCapture.h"

/// The lines of `text` that begin with `tag`, whole, each with its line end.
inline std::string taggedLines(const std::string& text, const std::string& tag) {
    std::istringstream lines(text);
    std::string tagged;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, tag.size(), tag) == 0) tagged += line + "\n";
    }
    return tagged;
}

/// The lines of `text` that begin with the prefix "[ms](pid,tid) " and then with `tag`, each with
/// its line end but without the prefix. A line without the prefix is not among them.
inline std::string prefixedLines(const std::string& text, const std::string& tag) {
    std::istringstream lines(text);
    std::string prefixed;
    for (std::string line; std::getline(lines, line);) {
        const std::size_t length = OutputCapture::prefixLength(line);
        if (length > 0 && line.compare(length, tag.size(), tag) == 0) {
            prefixed += line.substr(length) + "\n";
        }
    }
    return prefixed;
}
