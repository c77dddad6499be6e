#pragma once

#include <mutex>
#include <string>

#include "JsonObject.h"

/// The random identity (UUID, RFC 4122 text form) of this incarnation of the event database, kept
/// in "dbuuid.json" beside the configuration. Class-wide state under a mutex of its own; usable
/// from any thread. File errors are not reported: an unreadable file yields a new token, and one
/// that could not be written is written by a later call of `current`, which each record asks for.
class DBToken {
  public:
    /// Names the directory of the token file; reads nothing.
    static void setDBUUIDPath(std::string dir);
    /// Loads the token file; makes and writes a new token when `forceNew`, or when the file is
    /// missing or holds no valid UUID.
    static void loadDBUUIDFile(bool forceNew);
    /// Stores `uuid` and rewrites the file (atomically), unless it is the one already held.
    static void updateDBUUID(std::string uuid);
    /// The "db-uuid" text; loads the file first when nothing is held yet.
    static std::string current();
    /// A fresh random UUID from the kernel, without its line end; "" when it cannot be read.
    static std::string randomUuid();

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct DBTokenPeer;

    static void load(bool forceNew);              // with mMutex held
    static void update(const std::string& uuid);  // with mMutex held
    static void writeUnwritten();                 // with mMutex held

    static std::mutex mMutex;  ///< guards the members below
    static std::string mFileName;
    static JsonObject mUUIDObject;
    static bool mIsUnwritten;  ///< what is held is not in the file
};
