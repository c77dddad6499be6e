#pragma once

#include <mutex>
#include <string>

#include "DBToken.h"

/// What tests see of, and do to, the held token.
struct DBTokenPeer {
    /// As before the first use: no path, nothing held.
    static void forget() {
        const std::lock_guard<std::mutex> lock(DBToken::mMutex);
        DBToken::mFileName.clear();
        DBToken::mUUIDObject = JsonObject();
        DBToken::mIsUnwritten = false;
    }

    static std::string fileName() {
        const std::lock_guard<std::mutex> lock(DBToken::mMutex);
        return DBToken::mFileName;
    }

    static bool holdsNothing() {
        const std::lock_guard<std::mutex> lock(DBToken::mMutex);
        return DBToken::mUUIDObject.isNull();
    }
};
