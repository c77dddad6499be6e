#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;

/// What waits in the event store, read beside the running daemon: it takes no lock that a writer
/// waits for, and writes nothing, not even the files of a log that are not there.
///
/// A value; reads when it is made, in one transaction. A store that cannot be read says why.
struct StoreReader {
    struct Type {
        std::string name;
        std::int64_t events = 0;
        std::int64_t bytes = 0;
    };
    struct File {
        std::string id;
        std::string url;
        std::int64_t retries = 0;
    };
    struct Moment {
        std::int64_t boot = 0;
        std::int64_t standby = 0;
        std::int64_t kernelMs = 0;
    };

    /// @param boot, standby the running cycle, whose times are wanted
    /// @param daemonRuns without it a store that has no log is read without any lock
    StoreReader(const std::string& path, std::int64_t boot, std::int64_t standby, bool daemonRuns);

    /// Has SQLite look the whole file through. @return "ok", or what is wrong
    static std::string integrity(const std::string& path, bool daemonRuns);

    bool missing = false;
    std::string error;        ///< "" when everything was read
    std::vector<Type> types;  ///< the most first
    std::int64_t events = 0;
    std::int64_t bytes = 0;      ///< as the daemon counts them
    std::int64_t fileBytes = 0;  ///< of the database's file
    Moment oldest;
    std::vector<File> files;       ///< announced ones
    std::int64_t webStart = 0;     ///< UTC ms of kernel time 0 by web time; 0: not known
    std::int64_t systemStart = 0;  ///< the same by the set's middleware

  private:
    void read(sqlite3* store, std::int64_t boot, std::int64_t standby);
};
