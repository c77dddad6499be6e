#include "PimAppVersion.h"

#include "AtomicFile.h"

#include <utility>

std::mutex PimAppVersion::mMutex;
std::string PimAppVersion::mFileName;
JsonObject PimAppVersion::mVersionObject;
bool PimAppVersion::mIsUnwritten = false;

void PimAppVersion::setPimVersionPath(std::string dir) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mFileName = std::move(dir) + "/pimversion.json";
    load();
}

void PimAppVersion::loadPimVersionFile() {
    const std::lock_guard<std::mutex> lock(mMutex);
    load();
}

void PimAppVersion::updatePimVersion(std::string version, std::string buildDate) {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mVersionObject.isNull()) load();
    if (mVersionObject.optString("pim-version") == version) return writeUnwritten();

    if (mVersionObject.set("pim-version", version) != 0 ||
        mVersionObject.set("pim-builddate", buildDate) != 0) {
        return;  // not UTF-8: no JSON file could hold it
    }
    mIsUnwritten = true;
    writeUnwritten();
}

void PimAppVersion::writeUnwritten() {
    if (!mIsUnwritten || mFileName.empty()) return;
    mIsUnwritten = !AtomicFile::replace(mFileName, mVersionObject.dumpAsString()).empty();
}

PimAppVersion::Version PimAppVersion::current() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mVersionObject.isNull()) load();
    writeUnwritten();
    return {mVersionObject.optString("pim-version"), mVersionObject.optString("pim-builddate")};
}

void PimAppVersion::load() {
    mIsUnwritten = false;
    mVersionObject = JsonObject::loadFile(mFileName);
    if (!mVersionObject.isObject()) {
        mVersionObject.Pack("{s:s, s:s}",       //
                            "pim-version", "",  //
                            "pim-builddate", "");
    }
}
