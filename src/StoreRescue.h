#pragma once

#include <chrono>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <cstddef>
#include <cstdint>

class SqlConnection;

/// Replaces a damaged store: reads out of it, row by row, what can still be read, into a new file;
/// keeps the old one as "<file>.damaged" and puts the new one in its place.
///
/// A power cut at any moment leaves the old file with its log, or the new one: the new file, whole
/// and on the disk, gets the name "<file>.rescued", and from then on counts as the store. Only then
/// the old log goes, and the new file gets its place, now or before the next opening (`finish`).
///
/// It neither finds damage nor opens the store again. Whoever uses it has closed all connections of
/// the process to the file and holds the lock that keeps them closed. Any byte of the file may be
/// anything: the reading is bounded in time and in rows. Errors are results; nothing is thrown.
class StoreRescue {
  public:
    struct Result {
        /// Why the file was not replaced, and then stays as it was; "" when it was.
        std::string problem;
        std::vector<std::int64_t> eventRows;  ///< the ROWIDs of the events carried over, ascending
        std::size_t files = 0;
        std::size_t otherRows = 0;  ///< of the three small tables
        bool isEmpty() const { return eventRows.empty() && files == 0 && otherRows == 0; }
    };

    /// @param file its absolute path without links
    /// @param maxBytes what the new file may take
    StoreRescue(std::string file, std::int32_t maxBytes);

    /// Whether the file's turn has come: 5 s after the last attempt, in this process, to replace
    /// it.
    static bool isDue(const std::string& file);
    /// A file that was replaced less than a minute ago is replaced by an empty one: what was
    /// carried over may be what damages it.
    Result run();

    /// Puts the new file of an exchange that was cut off in its place. To be called before `file`
    /// is opened. @return why that failed, and then it must not be opened; "" when there is nothing
    /// to do
    static std::string finish(const std::string& path);

    static std::string damagedName(const std::string& file) { return file + ".damaged"; }

  private:
    friend struct StoreRescuePeer;

    struct Kept;
    class Reader;
    /// When each file was tried, and replaced, last.
    struct History {
        struct Times {
            std::optional<std::chrono::steady_clock::time_point> tried;
            std::optional<std::chrono::steady_clock::time_point> replaced;
        };
        std::mutex mutex;  ///< guards times; a leaf
        std::map<std::string, Times> times;
    };

    static History& history();

    void carryOver();
    void carry(const SqlConnection& source, SqlConnection& copy, const Kept& table);
    bool hasRoom(const SqlConnection& copy) const;
    void makeEmptyFile();
    void finishNewFile();
    void exchange();
    void declareWhole();
    void putAside();
    void fail(const char* action);
    bool failed() const { return !m_result.problem.empty(); }
    bool isInTime() const { return std::chrono::steady_clock::now() < m_deadline; }

    const std::string m_file;
    const std::string m_newFile;
    const std::string m_wholeFile;
    const std::int32_t m_maxBytes;
    std::chrono::steady_clock::time_point m_deadline;
    Result m_result;
};
