#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

/// A fresh directory of the test's own, removed with everything in it at the end.
class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "kivtest.XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        m_path = pattern;
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    /// The directory, without a slash at its end.
    const std::string& path() const { return m_path; }

    /// The path of `name` inside the directory.
    std::string file(const std::string& name) const { return m_path + "/" + name; }

    /// Writes `text` into the file `name` and returns its path.
    std::string write(const std::string& name, const std::string& text) const {
        std::ofstream(file(name), std::ios::binary | std::ios::trunc) << text;
        return file(name);
    }

    /// The whole text of the file `name`; empty when there is none.
    std::string read(const std::string& name) const { return readFile(file(name)); }

    bool has(const std::string& name) const { return std::filesystem::exists(file(name)); }

    static std::string readFile(const std::string& path) {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

  private:
    std::string m_path;
};
