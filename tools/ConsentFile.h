#pragma once

#include <cstdint>
#include <string>

/// What the user answered to the terms of use, as the daemon would read it now; without what the
/// daemon's own reading changes in the folder.
///
/// A value; reads when it is made.
struct ConsentFile {
    /// @param folder ends in "/"
    explicit ConsentFile(const std::string& folder);

    std::string path;
    bool missing = false;   ///< there is no answer yet
    bool readable = false;  ///< it is a file that can be read
    bool accepted = false;
    std::int64_t version = 0;   ///< that the user answered
    std::int64_t demanded = 0;  ///< by the server; 0: none in particular
};
