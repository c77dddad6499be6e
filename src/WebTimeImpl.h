#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "RetryPause.h"

class ClassLog;

/// Obtains the UTC time of the current cycle from a web server's Date header and hands it to the
/// time manager. It does not judge the time (the time manager does) and does not ask again by
/// itself. Reached through `Singleton<WebTimeImpl>`; used on the upload thread. A failure leaves
/// the time unknown, with an error line, and begins a pause: 10 s, doubling to 300 s.
class WebTimeImpl {
  public:
    /// Makes sure that web time is known for the current cycle: asks the server only while it is
    /// not, and never within a pause. @return whether it was known already; the call that fetches
    /// it returns false.
    bool getWebTime();
    /// UTC seconds as last read from the time manager; 0 when unknown.
    long long getWebTimeValue();
    /// Whether web time is known for the current cycle. Asks no server.
    static bool isKnown() { return knownSeconds() != 0; }
    /// Milliseconds until the server may be asked again; 0: now, or nothing has failed.
    static std::int64_t msUntilNextTry() { return m_pause.leftMs(); }
    /// Takes a server's date, an HTTP one, over as web time. The line about it is the caller's.
    /// @return it in UTC seconds; 0 when it cannot be now
    static std::int32_t takeDate(const std::string& date, const ClassLog& log);

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

    static std::atomic<std::int64_t> m_WebTime;  ///< UTC seconds; 0 when unknown

  private:
    friend struct WebTimeImplPeer;

    static void takeTimeFromServer();
    static std::int64_t knownSeconds();

    static RetryPause m_pause;
};
