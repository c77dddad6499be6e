#pragma once

#include <ostream>
#include <string>

/// The listing of a directory tree for the database-full report.
class DirectoryListing {
  public:
    /// Writes a line for each file (name, tab, size) and a total for each directory, then the
    /// subdirectories the same way. Links are not followed; a directory that cannot be opened
    /// writes nothing.
    static void listDirectory(const std::string& dir, std::ostream& out);
};
