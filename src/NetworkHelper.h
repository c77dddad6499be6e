#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "ShellCommand.h"
#include "Status.h"

/// What one HTTP request brought. The leading part of a `NetworkHelper`; libcurl's callbacks get
/// it as their user pointer.
struct url_data {
    std::string data;             ///< the response body
    std::string second;           ///< cleared with each request, never filled
    std::string third;            ///< cleared with each request, never filled
    std::string date;             ///< value of the response's Date header, "" when there was none
    std::size_t headerBytes = 0;  ///< counted against the limit on headers
    long status = 0;              ///< HTTP status of the answer; 0 when there was none
};

/// One HTTP(S) request, and facts about the network.
///
/// Short-lived: made on the stack for one request by one thread. Any number may run at once. The
/// network status and the MAC address are class-wide, each under a lock of its own. An answer of
/// any HTTP status is one; its caller asks `isGoodAnswer`. Redirects are not followed. A request
/// ends after 120 s in all, and before that with a silent or endless server: connect time-out 30 s,
/// below 1 byte/s for 60 s, body above 1 MiB, headers above 64 KiB. Its commands run in
/// `ShellCommand`.
///
/// The dates of a server's certificate are judged by `CertificateClock` (where libcurl has OpenSSL;
/// by the system clock elsewhere, with a line). While no clock can be believed an HTTPS request is
/// not made, but for one that may bring the time: there dates are not held against a certificate.
/// Name, chain and signature always are.
class NetworkHelper : public url_data {
  public:
    /// GETs `url`. With `deviceHeaders` sends the device's identification, with a non-empty
    /// `apiKey` the header "x-api-key:". When the name does not resolve, asks `ping` for the
    /// address and tries once more. @return whether an answer arrived (any status); otherwise a
    /// line on `cerrdbg`. Without a good answer one more, with URL, status and libcurl's own
    /// detail.
    bool UrlRequest(std::string url, bool deviceHeaders, std::string apiKey);
    /// The request may be made while the time is not known: its answer may tell it.
    void allowUnknownTime() { m_timeMayBeUnknown = true; }
    /// Counts the request, and how it is answered, as one of that target.
    void countFor(Status::Target target) { m_target = target; }
    /// Whether the last request was not made because the time is not known.
    bool waitsForTime() const { return m_waitsForTime; }
    /// Whether the server gave what it was asked for: a status of 200 to 299.
    bool isGoodAnswer() const { return status >= 200 && status <= 299; }

    static std::size_t dataCallback(char* ptr, std::size_t size, std::size_t nmemb, url_data* d);
    static std::size_t headerCallback(char* ptr, std::size_t size, std::size_t nmemb, url_data* d);

    /// Whether the connectivity host answers to its name; asked at most once in the poll interval
    /// unless `force`. Runs `ping` under the status lock.
    bool IsNetworkAvailable(bool force = false);
    /// The name servers of a resolv.conf(5) file, separated by ",".
    std::string GetDNS(const std::string& resolvConf = "/etc/resolv.conf");
    /// The MAC address of eth0 as `ifconfig` prints it; "" while unknown.
    std::string GetMac();
    /// `cb` is called once when the network is seen available.
    void RegisterCallback(std::function<void()> cb);

    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct NetworkHelperPeer;
    struct Request;

    /// What ends a request as failed.
    struct Limits {
        long connectMs;            ///< until the connection stands
        long lowSpeed;             ///< bytes/s; a transfer below it ...
        long lowSpeedSeconds;      ///< ... for so long ends
        std::size_t bodyBytes;     ///< of one response
        std::size_t headersBytes;  ///< of one response, all lines together
        std::int64_t totalMs;      ///< of the whole request, its second try included
    };

    void clearResults();
    void setOptions(Request& request);
    static void setCertificateOptions(Request& request);
    int perform(Request& request);
    bool performWithResolvedAddress(Request& request);
    bool succeed(const Request& request) const;
    bool fail(const Request& request) const;

    bool m_timeMayBeUnknown = false;
    bool m_waitsForTime = false;
    Status::Target m_target = Status::Nobody;
    std::function<void()> m_callback;
    bool m_callbackPending = true;
    std::int32_t m_pollIntervalMs = 60000;

    static Limits m_limits;                 ///< constant while requests run
    static std::mutex m_NetworkStatusLock;  ///< guards the two members below
    static bool m_NetworkAvailable;
    static std::int32_t m_TimeAtLastNetworkPoll;  ///< monotonic ms, low 32 bits; 0 = never
    static std::mutex m_MacLock;                  ///< guards m_MacAddress
    static std::string m_MacAddress;
};
