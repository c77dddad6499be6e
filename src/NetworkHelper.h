#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

#include "ShellCommand.h"

/// What one HTTP request brought. The leading part of a `NetworkHelper`; libcurl's callbacks get
/// it as their user pointer.
struct url_data {
    std::string data;             ///< the response body
    std::string second;           ///< cleared with each request, never filled
    std::string third;            ///< cleared with each request, never filled
    std::string date;             ///< value of the response's Date header, "" when there was none
    std::size_t headerBytes = 0;  ///< counted against the limit on headers
};

/// One HTTP(S) request, and facts about the network.
///
/// Short-lived: made on the stack for one request by one thread. Any number may run at once. The
/// network status and the MAC address are class-wide, each under a lock of its own. Never looks at
/// the HTTP status. A silent or endless server ends the request: connect time-out 30 s, below
/// 1 byte/s for 60 s, body above 1 MiB, headers above 64 KiB. Its commands run in `ShellCommand`.
class NetworkHelper : public url_data {
  public:
    /// GETs `url`. With `deviceHeaders` sends the device's identification, with a non-empty
    /// `apiKey` the header "x-api-key:". When the name does not resolve, asks `ping` for the
    /// address and tries once more. @return whether an answer arrived (any status); otherwise one
    /// line on `cerrdbg`.
    bool UrlRequest(std::string url, bool deviceHeaders, std::string apiKey);

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
    };

    void clearResults();
    void setOptions(Request& request);
    bool performWithResolvedAddress(Request& request);
    bool succeed() const;

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
