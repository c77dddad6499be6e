#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "support/TempDir.h"

/// Shell commands of the test's own, found before the system's as long as the object lives.
class FakeCommands {
  public:
    FakeCommands() {
        const char* path = std::getenv("PATH");
        m_oldPath = path == nullptr ? "" : path;
        ::setenv("PATH", (m_directory.path() + ":" + m_oldPath).c_str(), 1);
    }
    ~FakeCommands() { ::setenv("PATH", m_oldPath.c_str(), 1); }
    FakeCommands(const FakeCommands&) = delete;
    FakeCommands& operator=(const FakeCommands&) = delete;

    /// `name` notes its arguments and prints `output`.
    void setOutput(const std::string& name, const std::string& output) const {
        const std::string text = m_directory.write(name + ".output", output);
        const std::string calls = m_directory.file(name + ".calls");
        const std::string script = m_directory.write(
            name, "#!/bin/sh\necho \"$*\" >> '" + calls + "'\ncat '" + text + "'\n");
        ::chmod(script.c_str(), 0755);
    }

    /// The arguments of each call of `name` so far.
    std::vector<std::string> calls(const std::string& name) const {
        std::istringstream text(m_directory.read(name + ".calls"));
        std::vector<std::string> lines;
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        return lines;
    }

  private:
    TempDir m_directory;
    std::string m_oldPath;
};
