#pragma once

#include "Finding.h"
#include "JsonObject.h"

#include <string>

/// How findings are written: a line each for people, with what to do below it, or an array for
/// programs. Only functions.
class FindingsText {
  public:
    static std::string table(const Findings& findings);
    static JsonObject json(const Findings& findings);
};
