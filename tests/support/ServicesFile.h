#pragma once

#include <sstream>
#include <string>

#include "JsonObject.h"
#include "support/TempDir.h"

/// The services file that this build was made from, as CMake's cache in `binaryDir` names it.
inline JsonObject servicesOfThisBuild(const std::string& sourceDir, const std::string& binaryDir) {
    static const std::string entry = "KIV_SERVICES:STRING=";
    std::string name = "local";
    std::istringstream cache(TempDir::readFile(binaryDir + "/CMakeCache.txt"));
    for (std::string line; std::getline(cache, line);) {
        if (line.compare(0, entry.size(), entry) == 0) name = line.substr(entry.size());
    }
    const bool isPath =
        name.find('/') != std::string::npos || name.find(".json") != std::string::npos;
    return JsonObject::loadFile(isPath ? name : sourceDir + "/services/" + name + ".json");
}
