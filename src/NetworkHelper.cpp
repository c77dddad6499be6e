#include "NetworkHelper.h"

#include "BuildInfo.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "ClassLog.h"
#include "KernelTime.h"
#include "PimAppVersion.h"
#include "Services.h"
#include "Singleton.h"

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <utility>

#include <cstdio>
#include <cstdlib>

#include <strings.h>
#include <sys/socket.h>

#include <curl/curl.h>

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

bool beginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

}  // namespace

struct NetworkHelper::Request {
    explicit Request(std::string where)
        : url(std::move(where)),
          start(KernelTime::getTimeMonotonicAsInt64()),
          curl(curl_easy_init()) {}

    std::int64_t elapsedMs() const { return KernelTime::getTimeMonotonicAsInt64() - start; }

    const std::string url;
    const std::int64_t start;  ///< monotonic ms
    TextList headers;
    TextList pinned;  ///< the address to use instead of resolving the name
    CurlHandle curl;  ///< declared after the lists that it uses, so freed before
};

NetworkHelper::Limits NetworkHelper::m_limits = {30000, 1, 60, 1048576, 65536};
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
    initializeCurl();
    Request request(std::move(url));
    if (request.curl == nullptr) {
        s_log.error(" No curl handler, curl_easy_init() failed: ",
                    curl_easy_strerror(CURLE_FAILED_INIT));
        return false;
    }
    s_log.info(" Request Server URL: ", request.url, "...");
    if (!apiKey.empty()) appendHeader(request.headers, "x-api-key", apiKey);
    if (deviceHeaders) appendDeviceHeaders(request.headers, GetMac());
    setOptions(request);
    const CURLcode result = curl_easy_perform(request.curl.get());
    s_log.always(" Request Server URL ", request.url, " took ", request.elapsedMs(), "ms");
    if (result == CURLE_OK) return succeed();
    if (result == CURLE_COULDNT_RESOLVE_HOST) return performWithResolvedAddress(request);
    s_log.error(" Error from server, curl_easy_perform() failed: ", curl_easy_strerror(result));
    return false;
}

void NetworkHelper::clearResults() {
    static_cast<url_data&>(*this) = url_data();
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
}

bool NetworkHelper::succeed() const {
    s_log.info(" Got answer from server ", data);
    return true;
}

bool NetworkHelper::performWithResolvedAddress(Request& request) {
    const std::string domain = StringExtractBetween(request.url, "//", "/");
    s_log.info("Trying to resolve DOMAIN ", domain);
    const std::string answer = ShellCommand::ping(domain);
    if (s_log.isVerbose()) std::printf("%sPing got answer: %s\n", s_log.tag(), answer.c_str());
    const std::string ip = StringExtractBetween(answer, "(", ")");
    s_log.info("IP is : ", ip);
    if (ip.empty()) {
        s_log.info("IP is invalid, returning false...");
        return false;
    }
    const std::string port = beginsWith(request.url, "https://") ? ":443:" : ":80:";
    s_log.info("PORT is : ", port);

    append(request.pinned, domain + port + ip);
    setOption(request.curl.get(), CURLOPT_RESOLVE, request.pinned.get());
    clearResults();
    const CURLcode result = curl_easy_perform(request.curl.get());
    s_log.always("Request Server URL ", request.url, " extended to ", request.elapsedMs(), "ms");
    if (result == CURLE_OK) return succeed();
    s_log.error(" No answer from server, curl_easy_perform() failed: ", curl_easy_strerror(result));
    return false;
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
    d->date.erase(std::remove_if(d->date.begin(), d->date.end(),
                                 [](char c) { return c == '\r' || c == '\n'; }),
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
