#pragma once

#include <memory>
#include <string>
#include <vector>

#include <cstddef>
#include <cstdint>

class SqlConnection;

/// The announced files that wait for upload, on one connection. They are bounded in number and in
/// bytes, so that they can never fill the store: a new one pushes out those that were announced
/// first.
///
/// It does not look at the files themselves. A part of `DB`, which holds its lock around each call
/// and hands in the connection, which outlives it. Failures are results and error lines.
class FilesTable {
  public:
    /// An announced file waiting for upload.
    struct PendingUpload {
        std::string id;
        std::string url;
        int status = 0;
        int retries = 0;
        std::int64_t lastfail = 0;  ///< kernel milliseconds of the last failure, 0 for none
        std::string info;           ///< JSON text or ""
    };

    /// A file that another process announces.
    struct Announcement {
        std::string id;
        std::string url;
        std::string info;  ///< JSON text or ""

        std::size_t bytes() const { return id.size() + url.size() + info.size(); }
    };
    /// What became of an announcement.
    enum class Outcome {
        Registered,  ///< also when it was before
        Refused,     ///< for a reason of its own
        NotNow,      ///< the store fails, and may work later
    };

    static constexpr std::size_t kMostRows = 256;
    static constexpr std::size_t kMostBytes = 262144;  ///< of id, url and info together
    static constexpr std::size_t kLongestInfo = 4096;  ///< bytes

    explicit FilesTable(SqlConnection& connection) : m_connection(connection) {}
    FilesTable(const FilesTable&) = delete;
    FilesTable& operator=(const FilesTable&) = delete;

    int count() const;
    /// The file whose last failure is oldest; null when there is none.
    std::unique_ptr<PendingUpload> first() const;
    /// Whether the table may ever take it. One that is longer than the bounds allow gets a line.
    static bool accepts(const Announcement& file);
    Outcome add(const Announcement& file);
    /// @return whether the row is gone, also when there was none
    bool remove(const std::string& id);
    /// @return whether there is surely no such row; not when that cannot be read
    bool isGone(const std::string& id) const;
    /// Counts a failed attempt, dated now in kernel milliseconds.
    void countFailure(const std::string& id);

  private:
    Outcome insert(const Announcement& file);
    Outcome exchange(const Announcement& file);
    Outcome outcomeOfFailure() const;
    bool isMissing();
    bool has(const std::string& id) const;
    bool makeRoom(std::size_t bytes, std::vector<std::string>& dropped);
    bool isRoomFor(std::size_t bytes) const;
    bool dropOldest(std::vector<std::string>& dropped);

    SqlConnection& m_connection;
};
