#pragma once

#include <functional>
#include <string>
#include <vector>

#include <curl/curl.h>

/// Watches and bends what the process asks of libcurl and of the network, as long as the object
/// lives; one at a time. Everything that it is not told to bend goes its usual way.
class NetworkHooks {
  public:
    NetworkHooks();
    ~NetworkHooks();
    NetworkHooks(const NetworkHooks&) = delete;
    NetworkHooks& operator=(const NetworkHooks&) = delete;

    /// `curl_easy_init` gives no handle.
    void failEasyInit();
    /// `posix_spawn` starts nothing.
    void failCommands();
    /// `curl_easy_setopt` refuses `option` with CURLE_UNKNOWN_OPTION.
    void refuse(CURLoption option);
    /// `action` runs whenever `option` is set, on the thread that sets it, without a lock held.
    void whenSet(CURLoption option, std::function<void()> action);
    /// Every IPv4 connection to port `from` of this machine goes to port `to` instead.
    void redirectPort(int from, int to);

    struct Option {
        CURLoption option;
        long number;                     ///< of options that take a long
        bool null;                       ///< of options that take a pointer
        std::string text;                ///< of options that take a string
        std::vector<std::string> texts;  ///< of options that take a list
    };
    /// The options set so far, in order.
    std::vector<Option> options() const;
    /// The last setting of `option`; fails the test when there is none.
    Option option(CURLoption option) const;
    bool wasSet(CURLoption option) const;
};
