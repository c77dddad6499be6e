#pragma once

#include <sqlite3.h>

/// As long as it lives, fails system calls that SQLite makes, on any thread, when told to. One at a
/// time.
class StoreFaults {
  public:
    enum class Call { Open, Read, Write, Sync, Map };

    StoreFaults();
    ~StoreFaults();
    StoreFaults(const StoreFaults&) = delete;
    StoreFaults& operator=(const StoreFaults&) = delete;

    /// From now on each such call fails with `error`, a value of errno.
    void failEach(Call call, int error) { failOnce(call, error, 1, true); }
    /// The `number`th such call from now on fails, 1 being the next.
    void failOnce(Call call, int error, int number) { failOnce(call, error, number, false); }
    /// From now on no call fails.
    void heal();
    /// How many such calls there were since the last of the above.
    int count(Call call) const;

  private:
    void failOnce(Call call, int error, int number, bool andAllAfter);
};
