#pragma once

#include "Evidence.h"

#include <string>
#include <utility>
#include <vector>

/// What would become of one event on this set, step by step as the daemon handles it, with its own
/// filter classes on the set's configuration. Nothing is posted.
///
/// A value. An event that is not a JSON object is one that is not kept.
class Explanation {
  public:
    Explanation(const Evidence& evidence, const std::string& message);

    bool isKept() const { return m_kept; }
    /// "kept: ..." or "not kept: ...", then a line for each step.
    std::string text() const;
    std::string json() const;

  private:
    void refuse(const char* step, const std::string& why);
    void pass(const char* step, const std::string& why);
    bool consentAllows(const Evidence& evidence);
    void judgeFile(const Evidence& evidence, const JsonObject& event);
    void judgeStorage(const JsonObject& event);

    bool m_kept = true;
    std::string m_decision;
    std::vector<std::pair<std::string, std::string>> m_steps;
};
