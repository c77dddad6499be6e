#include "NetworkHelper.h"

#include "BuildInfo.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "CertificateClock.h"
#include "ClassLog.h"
#include "KernelTime.h"
#include "PimAppVersion.h"
#include "Services.h"
#include "Singleton.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <utility>

#include <cstdio>
#include <cstdlib>

#include <strings.h>
#include <sys/socket.h>
#include <time.h>

#include <curl/curl.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace {

ClassLog s_log("kivNetwork:");

struct CurlDelete {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct ListDelete {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlHandle = std::unique_ptr<CURL, CurlDelete>;
using TextList = std::unique_ptr<curl_slist, ListDelete>;

/// Appends a copy of `text`; without memory the list stays as it is.
void append(TextList& list, const std::string& text) {
    curl_slist* longer = curl_slist_append(list.get(), text.c_str());
    if (longer == nullptr) return;
    static_cast<void>(list.release());
    list.reset(longer);
}

/// One field line without a blank after the colon. Line ends would begin a line of their own and
/// are left out. libcurl drops a field without value unless it is written "Name;".
void appendHeader(TextList& list, const std::string& name, std::string value) {
    value.erase(
        std::remove_if(value.begin(), value.end(), [](char c) { return c == '\r' || c == '\n'; }),
        value.end());
    const bool empty = value.find_first_not_of(" \t\v\f") == std::string::npos;
    append(list, empty ? name + ";" : name + ":" + value);
}

std::string currentTou() {
    const Singleton<CTouImpl> tou;
    return tou->isAccepted() ? std::to_string(tou->getVersion()) : "-1";
}

void appendDeviceHeaders(TextList& list, const std::string& mac) {
    const Singleton<CGlobalInfoImpl> info;
    appendHeader(list, "X-swversion", info->getSwVersion());
    appendHeader(list, "X-CTN", info->getCtn());
    appendHeader(list, "X-platform", info->getComponent());
    appendHeader(list, "Accept-Language", info->getMenuLanguage() + "-" + info->getCountry());
    appendHeader(list, "X-mac", mac);
    appendHeader(list, "X-serial", info->getSerial());
    appendHeader(list, "X-kivversion", BuildInfo::revisionText());
    appendHeader(list, "X-pimversion", PimAppVersion::current().version);
    appendHeader(list, "X-currentTou", currentTou());
}

/// Sets an option; a refusal is written and the transfer left to show what it means.
template <typename Value>
void setOption(CURL* handle, CURLoption option, Value value) {
    const CURLcode code = curl_easy_setopt(handle, option, value);
    if (code == CURLE_OK) return;
    s_log.error(" Option ", static_cast<int>(option),
                " refused, curl_easy_setopt() failed: ", curl_easy_strerror(code));
}

/// A socket that commands started meanwhile do not inherit.
curl_socket_t openSocket(void*, curlsocktype, curl_sockaddr* address) {
    return ::socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

/// libcurl's set-up, once and before the first handle of any thread.
void initializeCurl() {
    [[maybe_unused]] static const CURLcode done = curl_global_init(CURL_GLOBAL_ALL);
}

bool isHttps(const std::string& url) {
    const std::string scheme = "https://";
    return ::strncasecmp(url.c_str(), scheme.c_str(), scheme.size()) == 0;
}

/// A host as a URL names it, with its port or with the scheme's.
struct HostAndPort {
    HostAndPort(const std::string& domain, bool https) : host(domain), port(https ? "443" : "80") {
        const std::size_t colon = domain.rfind(':');
        if (colon == std::string::npos || colon + 1 == domain.size()) return;
        host = domain.substr(0, colon);
        port = domain.substr(colon + 1);
    }
    std::string host;
    std::string port;
};

/// Whether libcurl hands out contexts that are OpenSSL's; others have ones of their own.
bool usesOpenSsl() {
    const char* library = curl_version_info(CURLVERSION_NOW)->ssl_version;
    return library != nullptr && std::string(library).compare(0, 7, "OpenSSL") == 0;
}

/// In place of OpenSSL's own verification, which it is, but for the moment. Of the calls that set
/// the moment this one is right on 32-bit ARM even where libcrypto was built with a `time_t` of 32
/// bits and this file with 64: as the third argument both begin in the same register.
/// @param moment the clock's UTC seconds; none: no date is held against a certificate
int verifyAt(X509_STORE_CTX* verification, void* moment) {
    const auto& now = *static_cast<const std::optional<std::int64_t>*>(moment);
    if (now) {
        constexpr std::int64_t latest = std::numeric_limits<time_t>::max();
        X509_STORE_CTX_set_time(verification, 0, static_cast<time_t>(std::min(*now, latest)));
    } else {
        X509_STORE_CTX_set_flags(verification, X509_V_FLAG_NO_CHECK_TIME);
    }
    return X509_verify_cert(verification);
}

/// libcurl's callback with a connection's OpenSSL context.
CURLcode judgeDates(CURL*, void* context, void* moment) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(context), verifyAt, moment);
    return CURLE_OK;
}

bool beginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

}  // namespace

struct NetworkHelper::Request {
    explicit Request(std::string where)
        : url(std::move(where)),
          start(KernelTime::getTimeMonotonicAsInt64()),
          clock(CertificateClock::now()),
          curl(curl_easy_init()) {}

    std::int64_t elapsedMs() const { return KernelTime::getTimeMonotonicAsInt64() - start; }

    const std::string url;
    const std::int64_t start;                 ///< monotonic ms
    const std::optional<std::int64_t> clock;  ///< what judges certificates: UTC seconds
    char detail[CURL_ERROR_SIZE] = {};        ///< libcurl's own words on a failure
    TextList headers;
    TextList pinned;  ///< the address to use instead of resolving the name
    CurlHandle curl;  ///< declared after the lists that it uses, so freed before
};

NetworkHelper::Limits NetworkHelper::m_limits = {30000, 1, 60, 1048576, 65536, 120000};
std::mutex NetworkHelper::m_NetworkStatusLock;
bool NetworkHelper::m_NetworkAvailable = false;
std::int32_t NetworkHelper::m_TimeAtLastNetworkPoll = 0;
std::mutex NetworkHelper::m_MacLock;
std::string NetworkHelper::m_MacAddress;

void NetworkHelper::SetVerbose(bool verbose) {
    s_log.setVerbose(verbose);
}

bool NetworkHelper::GetVerbose() {
    return s_log.isVerbose();
}

bool NetworkHelper::UrlRequest(std::string url, bool deviceHeaders, std::string apiKey) {
    clearResults();
    Status::asked(m_target);
    initializeCurl();
    Request request(std::move(url));
    if (request.curl == nullptr) {
        s_log.error(" No curl handler, curl_easy_init() failed: ",
                    curl_easy_strerror(CURLE_FAILED_INIT));
        return false;
    }
    s_log.info(" Request Server URL: ", request.url, "...");
    m_waitsForTime = isHttps(request.url) && !request.clock && !m_timeMayBeUnknown;
    if (m_waitsForTime) {
        s_log.error(" Request of ", ClassLog::foreign(request.url),
                    " not made: the time is not known, so no certificate can be judged");
        Status::failed(m_target, "the time is not known, so no certificate can be judged");
        return false;
    }
    if (!apiKey.empty()) appendHeader(request.headers, "x-api-key", apiKey);
    if (deviceHeaders) appendDeviceHeaders(request.headers, GetMac());
    setOptions(request);
    const auto result = static_cast<CURLcode>(perform(request));
    s_log.always(" Request Server URL ", request.url, " took ", request.elapsedMs(), "ms");
    if (result == CURLE_OK) return succeed(request);
    if (result == CURLE_COULDNT_RESOLVE_HOST) return performWithResolvedAddress(request);
    s_log.error(" Error from server, curl_easy_perform() failed: ", curl_easy_strerror(result));
    return fail(request);
}

void NetworkHelper::clearResults() {
    static_cast<url_data&>(*this) = url_data();
}

/// One transfer within what is left of the time for the whole. @return libcurl's CURLcode
int NetworkHelper::perform(Request& request) {
    CURL* curl = request.curl.get();
    clearResults();
    const std::int64_t left = std::max<std::int64_t>(m_limits.totalMs - request.elapsedMs(), 1);
    setOption(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(left));
    const CURLcode result = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    return result;
}

void NetworkHelper::setOptions(Request& request) {
    CURL* curl = request.curl.get();
    url_data* results = this;
    setOption(curl, CURLOPT_URL, request.url.c_str());
    setOption(curl, CURLOPT_HTTPHEADER, request.headers.get());
    setOption(curl, CURLOPT_HEADERFUNCTION, &NetworkHelper::headerCallback);
    setOption(curl, CURLOPT_HEADERDATA, results);
    setOption(curl, CURLOPT_WRITEFUNCTION, &NetworkHelper::dataCallback);
    setOption(curl, CURLOPT_WRITEDATA, results);
    if (const char* bundle = std::getenv("CURL_CA_BUNDLE")) {
        setOption(curl, CURLOPT_CAINFO, bundle);
    }
    setOption(curl, CURLOPT_ERRORBUFFER, request.detail);
    setOption(curl, CURLOPT_NOSIGNAL, 1L);  // no alarms: threads run requests
    setOption(curl, CURLOPT_CONNECTTIMEOUT_MS, m_limits.connectMs);
    setOption(curl, CURLOPT_LOW_SPEED_LIMIT, m_limits.lowSpeed);
    setOption(curl, CURLOPT_LOW_SPEED_TIME, m_limits.lowSpeedSeconds);
    setOption(curl, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
#if LIBCURL_VERSION_NUM >= 0x075500
    setOption(curl, CURLOPT_PROTOCOLS_STR, "http,https");
#else
    setOption(curl, CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
#if LIBCURL_VERSION_NUM >= 0x075700
    setOption(curl, CURLOPT_QUICK_EXIT, 1L);  // waits for no name server after the time-out
#endif
    if (isHttps(request.url)) setCertificateOptions(request);
}

void NetworkHelper::setCertificateOptions(Request& request) {
    if (!usesOpenSsl()) {
        s_log.error(" libcurl has another TLS library than OpenSSL: the system clock judges the",
                    " dates of certificates");
        return;
    }
    setOption(request.curl.get(), CURLOPT_SSL_CTX_FUNCTION, &judgeDates);
    setOption(request.curl.get(), CURLOPT_SSL_CTX_DATA, &request.clock);
}

bool NetworkHelper::succeed(const Request& request) const {
    s_log.info(" Got answer from server ", data);
    if (!isGoodAnswer()) {
        fail(request);
    } else {
        Status::succeeded(m_target);
    }
    return true;
}

/// The line that says what went wrong with which request. @return false
bool NetworkHelper::fail(const Request& request) const {
    const std::string detail = ClassLog::foreign(request.detail);
    s_log.error(" Request of ", ClassLog::foreign(request.url), " failed: HTTP status ", status,
                detail.empty() ? "" : ", ", detail);
    const std::string answer = "HTTP status " + std::to_string(status);
    Status::failed(m_target, status == 0 ? request.detail : answer, status == 0);
    return false;
}

bool NetworkHelper::performWithResolvedAddress(Request& request) {
    const std::string domain = StringExtractBetween(request.url, "//", "/");
    s_log.info("Trying to resolve DOMAIN ", domain);
    const HostAndPort at(domain, beginsWith(request.url, "https://"));
    const std::string answer = ShellCommand::ping(at.host);
    if (s_log.isVerbose()) std::printf("%sPing got answer: %s\n", s_log.tag(), answer.c_str());
    const std::string ip = StringExtractBetween(answer, "(", ")");
    s_log.info("IP is : ", ip);
    if (ip.empty()) {
        s_log.info("IP is invalid, returning false...");
        return fail(request);
    }
    const std::string port = ":" + at.port + ":";
    s_log.info("PORT is : ", port);

    append(request.pinned, at.host + port + ip);
    setOption(request.curl.get(), CURLOPT_RESOLVE, request.pinned.get());
    const auto result = static_cast<CURLcode>(perform(request));
    s_log.always("Request Server URL ", request.url, " extended to ", request.elapsedMs(), "ms");
    if (result == CURLE_OK) return succeed(request);
    s_log.error(" No answer from server, curl_easy_perform() failed: ", curl_easy_strerror(result));
    return fail(request);
}

std::size_t NetworkHelper::dataCallback(char* ptr, std::size_t size, std::size_t nmemb,
                                        url_data* d) {
    const std::size_t length = size * nmemb;
    if (length > m_limits.bodyBytes - std::min(d->data.size(), m_limits.bodyBytes)) return 0;
    d->data.append(ptr, length);
    return length;
}

std::size_t NetworkHelper::headerCallback(char* ptr, std::size_t size, std::size_t nmemb,
                                          url_data* d) {
    const std::size_t length = size * nmemb;
    d->headerBytes += length;
    if (d->headerBytes > m_limits.headersBytes) return 0;
    // Over HTTP/2 the name comes in lower case.
    const std::string name = "Date: ";
    if (length < name.size() || ::strncasecmp(ptr, name.c_str(), name.size()) != 0) return length;
    d->date.assign(ptr + name.size(), length - name.size());
    // A zero byte could be written into the configuration's file, but not read again.
    d->date.erase(std::remove_if(d->date.begin(), d->date.end(),
                                 [](char c) { return c == '\r' || c == '\n' || c == '\0'; }),
                  d->date.end());
    return length;
}

bool NetworkHelper::IsNetworkAvailable(bool force) {
    const std::lock_guard<std::mutex> lock(m_NetworkStatusLock);
    // Both are the low 32 bits of the clock: the distance is right across their overflow.
    const auto now = static_cast<std::uint32_t>(KernelTime::getTimeMonotonicAsInt64());
    const std::uint32_t sinceLastPoll = now - static_cast<std::uint32_t>(m_TimeAtLastNetworkPoll);
    if (!force && m_TimeAtLastNetworkPoll != 0 &&
        static_cast<std::uint32_t>(m_pollIntervalMs) >= sinceLastPoll) {
        s_log.info("No ping needed");
        return m_NetworkAvailable;
    }
    const std::string host = Services::connectivityHost();
    const std::string output = ShellCommand::ping(host);
    s_log.info("ping result : ", output);
    const bool available = beginsWith(output, "PING " + host);
    if (available && m_callback && m_callbackPending) {
        m_callback();
        m_callbackPending = false;
    }
    m_NetworkAvailable = available;
    Status::set(Status::Network, available ? 1 : -1);
    m_TimeAtLastNetworkPoll = static_cast<std::int32_t>(now);
    return available;
}

std::string NetworkHelper::GetDNS(const std::string& resolvConf) {
    std::string servers;
    std::ifstream file(resolvConf);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string key;
        std::string value;
        if (!(words >> key >> value)) break;
        if (key != "nameserver") continue;
        if (!servers.empty()) servers += ",";
        servers += value;
    }
    s_log.info("DNS list is : ", servers);
    return servers;
}

std::string NetworkHelper::GetMac() {
    {
        const std::lock_guard<std::mutex> lock(m_MacLock);
        if (!m_MacAddress.empty()) return m_MacAddress;
    }
    // Two threads may ask at the same time; both find the same.
    const std::string mac = ShellCommand::macAddressOf("eth0");
    if (mac.empty()) return "";
    s_log.info("MAC is : ", mac);
    const std::lock_guard<std::mutex> lock(m_MacLock);
    m_MacAddress = mac;
    return m_MacAddress;
}

void NetworkHelper::RegisterCallback(std::function<void()> cb) {
    m_callback = std::move(cb);
}
