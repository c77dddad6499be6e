#include "DBToken.h"

#include "AtomicFile.h"
#include "ClassLog.h"

#include <fstream>
#include <iterator>
#include <utility>

#include <uuid/uuid.h>

namespace {

constexpr char kTokenKey[] = "db-uuid";

ClassLog s_log("kivDBUUID: ");

bool isUuid(const std::string& text) {
    uuid_t parsed;
    return uuid_parse(text.c_str(), parsed) == 0;
}

}  // namespace

std::mutex DBToken::mMutex;
std::string DBToken::mFileName;
JsonObject DBToken::mUUIDObject;
bool DBToken::mIsUnwritten = false;

void DBToken::setDBUUIDPath(std::string dir) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mFileName = std::move(dir) + "/dbuuid.json";
}

void DBToken::loadDBUUIDFile(bool forceNew) {
    const std::lock_guard<std::mutex> lock(mMutex);
    load(forceNew);
}

void DBToken::updateDBUUID(std::string uuid) {
    const std::lock_guard<std::mutex> lock(mMutex);
    update(uuid);
}

std::string DBToken::current() {
    const std::lock_guard<std::mutex> lock(mMutex);
    if (mUUIDObject.isNull()) load(false);
    writeUnwritten();
    return mUUIDObject.optString(kTokenKey);
}

std::string DBToken::randomUuid() {
    std::ifstream in("/proc/sys/kernel/random/uuid");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!text.empty()) text.pop_back();
    return text;
}

void DBToken::load(bool forceNew) {
    mIsUnwritten = false;
    mUUIDObject = JsonObject::loadFile(mFileName);
    if (!mUUIDObject.isObject()) mUUIDObject = JsonObject();
    if (!forceNew && isUuid(mUUIDObject.optString(kTokenKey))) return;
    const std::string token = randomUuid();
    if (mUUIDObject.isNull()) mUUIDObject = JsonObject::createObject();
    s_log.info("loadDBUUIDFile : new UUID created: ", token);
    update(token);
}

void DBToken::update(const std::string& uuid) {
    if (mUUIDObject.optString(kTokenKey) == uuid) return;
    if (mUUIDObject.isNull()) mUUIDObject = JsonObject::createObject();
    mUUIDObject.set(kTokenKey, uuid);
    mIsUnwritten = true;
    writeUnwritten();
}

/// Without a path the token lives in memory only. Where the file cannot be written before the
/// daemon ends, the next start makes another token.
void DBToken::writeUnwritten() {
    if (!mIsUnwritten || mFileName.empty()) return;
    mIsUnwritten = !AtomicFile::replace(mFileName, mUUIDObject.dumpAsString()).empty();
}

void DBToken::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool DBToken::GetVerbose() {
    return s_log.isVerbose();
}
