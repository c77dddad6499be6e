#pragma once

#include <mutex>
#include <string>

#include "PimAppVersion.h"

/// What tests see of, and do to, the held version.
struct PimAppVersionPeer {
    /// As before the first use: no path, nothing held.
    static void forget() {
        const std::lock_guard<std::mutex> lock(PimAppVersion::mMutex);
        PimAppVersion::mFileName.clear();
        PimAppVersion::mVersionObject = JsonObject();
        PimAppVersion::mIsUnwritten = false;
    }

    /// Names the file without loading it.
    static void setFileName(const std::string& path) {
        const std::lock_guard<std::mutex> lock(PimAppVersion::mMutex);
        PimAppVersion::mFileName = path;
    }

    static std::string fileName() {
        const std::lock_guard<std::mutex> lock(PimAppVersion::mMutex);
        return PimAppVersion::mFileName;
    }

    static std::string heldText() {
        const std::lock_guard<std::mutex> lock(PimAppVersion::mMutex);
        return PimAppVersion::mVersionObject.getStringRep();
    }
};
