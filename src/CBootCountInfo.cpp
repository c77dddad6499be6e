#include "CBootCountInfo.h"

#include "JsonObject.h"

#include <cstdio>

bool CBootCountInfo::LoadFile(const char* path) {
    const JsonObject file = JsonObject::loadFile(path != nullptr ? path : "");
    m_bootCount = readCount(file, "boot-count");
    m_standbyCount = readCount(file, "standby-count");
    return !file.isNull();
}

std::uint32_t CBootCountInfo::readCount(const JsonObject& file, const char* key) {
    const long long count = file.optInteger(key, 0);
    if (count < 0) {
        std::fprintf(stderr, "CBootCountInfo : Negative values not allowed. key %s is %lld\n", key,
                     count);
        return 0;
    }
    return static_cast<std::uint32_t>(count);
}
