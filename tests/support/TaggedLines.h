#pragma once

#include <sstream>
#include <string>

/// The lines of `text` that begin with `tag`, whole, each with its line end.
inline std::string taggedLines(const std::string& text, const std::string& tag) {
    std::istringstream lines(text);
    std::string tagged;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, tag.size(), tag) == 0) tagged += line + "\n";
    }
    return tagged;
}
