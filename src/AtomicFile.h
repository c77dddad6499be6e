#pragma once

#include <string>

/// Replaces small files so that a power cut leaves either the old or the new text, never less.
class AtomicFile {
  public:
    /// Makes `text` the whole content of `path`: a temporary file in the same directory, `fsync`,
    /// `rename`, `fsync` of the directory. A symbolic link is followed and the file beside its
    /// target replaced; the mode of an existing file is kept (else 0644). Where no temporary file
    /// can be made, writes in place.
    /// @return "" on success, otherwise what failed and why, for the caller's error line.
    static std::string replace(const std::string& path, const std::string& text);
};
