#pragma once

#include <string>

/// Facts read off file names.
class Filename {
  public:
    /// The extension with its dot, "" when there is none. The first character is never examined:
    /// ".hidden" has no extension.
    static std::string getFileExt(const std::string& name);
};
