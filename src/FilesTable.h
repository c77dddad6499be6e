#pragma once

#include <memory>
#include <string>

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

    static constexpr std::size_t kMostRows = 256;
    static constexpr std::size_t kMostBytes = 262144;  ///< of id, url and info together
    static constexpr std::size_t kLongestInfo = 4096;  ///< bytes

    explicit FilesTable(SqlConnection& connection) : m_connection(connection) {}
    FilesTable(const FilesTable&) = delete;
    FilesTable& operator=(const FilesTable&) = delete;

    int count() const;
    /// The file whose last failure is oldest; null when there is none.
    std::unique_ptr<PendingUpload> first() const;
    /// @return whether it is registered, also from before; not when it is longer than the bounds
    /// allow
    bool add(const std::string& id, const std::string& url, const std::string& info);
    /// @return whether the row is gone, also when there was none
    bool remove(const std::string& id);
    /// Counts a failed attempt, dated now in kernel milliseconds.
    void countFailure(const std::string& id);

  private:
    bool insert(const std::string& id, const std::string& url, const std::string& info);
    bool has(const std::string& id) const;
    bool makeRoom(std::size_t bytes);
    bool isRoomFor(std::size_t bytes) const;
    bool dropOldest();

    SqlConnection& m_connection;
};
