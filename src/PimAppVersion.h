#pragma once

#include <mutex>
#include <string>

#include "JsonObject.h"

/// The version of the sibling client component, kept in "pimversion.json" beside the
/// configuration. Class-wide state under a mutex of its own; usable from any thread.
class PimAppVersion {
  public:
    struct Version {
        std::string version;    ///< "pim-version", "" when absent
        std::string buildDate;  ///< "pim-builddate", "" when absent
    };

    /// Names the directory of the version file and loads it.
    static void setPimVersionPath(std::string dir);
    /// Loads the version file; a missing one, or one that is not a JSON object, gives two empty
    /// strings.
    static void loadPimVersionFile();
    /// Takes over a new version and rewrites the file (atomically); nothing happens when the
    /// version is the one already held. Write errors are not reported: what could not be written
    /// is written by a later call, of this function or of `current`.
    static void updatePimVersion(std::string version, std::string buildDate);
    /// A copy of what is held; loads the file first when nothing is held yet. Each record that is
    /// made asks for it.
    static Version current();

  private:
    friend struct PimAppVersionPeer;

    static void load();            // with mMutex held
    static void writeUnwritten();  // with mMutex held

    static std::mutex mMutex;  ///< guards the members below
    static std::string mFileName;
    static JsonObject mVersionObject;
    static bool mIsUnwritten;  ///< what is held is not in the file
};
