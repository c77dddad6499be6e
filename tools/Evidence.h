#pragma once

#include "ConfigDocument.h"
#include "ConsentFile.h"
#include "DaemonReport.h"
#include "JsonObject.h"
#include "QueueReader.h"
#include "SetPlaces.h"
#include "StoreReader.h"

#include <cstdint>
#include <string>

struct StatusOptions;

/// Everything that one look at the set finds, before it is judged: the files, the queue, the store,
/// what the daemon says of itself, and what time it is.
///
/// A value; reads when it is made, and changes nothing. Nothing waits: no server is asked.
struct Evidence {
    explicit Evidence(const StatusOptions& options);

    DaemonReport daemon;
    SetPlaces places;
    JsonObject globalInfo;  ///< null when it cannot be read
    std::string deviceId;
    std::uint32_t boot = 0;
    std::uint32_t standby = 0;
    ConsentFile consent;
    JsonObject document;  ///< the configuration; null when it cannot be read
    ConfigDocument::Values configuration;
    QueueReader queue;
    StoreReader store;
    std::int64_t kernelMs;   ///< now, of the monotonic clock
    std::int64_t systemUtc;  ///< seconds of the set's own clock

    /// UTC seconds as the daemon knows them in this cycle; 0 when it does not.
    std::int64_t utc() const;
    bool knowsWebTime() const { return store.webStart != 0; }
    /// UTC seconds of the configuration in force.
    std::int64_t configTime() const;
    bool hasConfiguration() const { return configTime() != 0; }
    /// Seconds until it expires; not positive: it has. By the set's own clock while no other is
    /// known.
    std::int64_t configSecondsLeft() const;
    /// Of the oldest stored event; -1 where it is of another cycle, or there is none.
    std::int64_t oldestAgeMs() const;

    /// Milliseconds as people say them: "5 min".
    static std::string inWords(std::int64_t ms);
    /// A moment of the daemon's: "5 min ago".
    std::string ago(std::int64_t moment) const;
};
