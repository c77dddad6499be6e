#pragma once

#include <string>

/// Replaces small files so that a power cut leaves either the old or the new text, never less.
class AtomicFile {
  public:
    /// Makes `text` the whole content of `path`: a temporary file in the same directory, `fsync`,
    /// `rename`, `fsync` of the directory. A symbolic link is followed and the file beside its
    /// target replaced; the mode of an existing file is kept (else 0644 less the umask). Where the
    /// directory takes no new file (it is read-only, or not ours), or the file cannot be replaced
    /// (it is not a regular one, a mount point, or somebody else's in a sticky directory), writes
    /// in place, the end that needs room first. Any other failure, such as no room, there too,
    /// leaves the old text.
    /// @return "" on success, otherwise what failed and why, for the caller's error line.
    static std::string replace(const std::string& path, const std::string& text);
    /// The temporary file of that path: each has one fixed name, so that power cuts leave at most
    /// one file behind.
    static std::string temporaryFor(const std::string& path);
};
