#pragma once

#include <cstddef>
#include <string>

#include "RegexCache.h"

/// What the cache of compiled patterns holds.
struct RegexCachePeer {
    static constexpr std::size_t maxPatterns = RegexCache::kMaxPatterns;

    static constexpr std::size_t maxSize = RegexCache::kMaxSize;

    static bool holds(const std::string& pattern) { return RegexCache::holds(pattern); }
    static std::size_t size() { return RegexCache::size(); }
    static void clear() { RegexCache::clear(); }
};
