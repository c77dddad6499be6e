#include <awslite/HttpCall.h>

#include <awslite/CertificateDates.h>
#include <awslite/SigV4.h>

#include <algorithm>
#include <ctime>
#include <istream>
#include <memory>
#include <optional>

#include <string.h>
#include <strings.h>

#include <curl/curl.h>

namespace Awslite {

namespace {

using Aws::Client::ClientConfiguration;
using Aws::Utils::RateLimits::RateLimiterInterface;

constexpr size_t kMaxTextBytes = 1U << 20;
constexpr size_t kMaxHeaderBytes = 1U << 16;

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using HeaderList = std::unique_ptr<curl_slist, CurlFree>;

/// An easy handle that remembers the first option that libcurl refused.
class Easy {
  public:
    Easy() : m_handle(curl_easy_init()) {
        if (m_handle == nullptr) m_refusal = CURLE_FAILED_INIT;
    }

    template <typename Value>
    void set(CURLoption option, Value value) {
        if (m_refusal == CURLE_OK) m_refusal = curl_easy_setopt(m_handle.get(), option, value);
    }

    /// Without effect where libcurl does not know the option.
    template <typename Value>
    void offer(CURLoption option, Value value) {
        if (m_refusal == CURLE_OK)
            static_cast<void>(curl_easy_setopt(m_handle.get(), option, value));
    }

    CURLcode perform() const {
        return m_refusal == CURLE_OK ? curl_easy_perform(m_handle.get()) : m_refusal;
    }

    int status() const {
        long status = 0;
        curl_easy_getinfo(m_handle.get(), CURLINFO_RESPONSE_CODE, &status);
        return static_cast<int>(status);
    }

  private:
    std::unique_ptr<CURL, CurlFree> m_handle;
    CURLcode m_refusal = CURLE_OK;
};

void pay(RateLimiterInterface* limiter, size_t bytes) {
    if (limiter != nullptr && bytes > 0) limiter->ApplyAndPayForCost(static_cast<int64_t>(bytes));
}

/// When the header line begins with `name`, colon included, its value goes into `value`, without
/// the blanks around it.
void takeValue(const std::string& name, const char* line, size_t size, std::string& value) {
    if (size <= name.size() || ::strncasecmp(line, name.c_str(), name.size()) != 0) return;
    value.assign(line + name.size(), size - name.size());
    value.erase(0, value.find_first_not_of(" \t"));
    value.erase(value.find_last_not_of(" \t\r\n") + 1);
}

/// What the callbacks of one call work on. When a stream throws, the call fails: the exception
/// must not pass through libcurl, which is written in C.
struct Exchange {
    const HttpRequest& request;
    const ClientConfiguration& configuration;
    HttpAnswer answer;
    std::int64_t sent = 0;
    size_t headerBytes = 0;

    size_t takeHeader(const char* line, size_t size) {
        headerBytes += size;
        if (headerBytes > kMaxHeaderBytes) return 0;
        takeValue("x-amzn-errortype:", line, size, answer.errorType);
        takeValue("etag:", line, size, answer.etag);
        return size;
    }

    size_t take(const char* data, size_t size) {
        if (request.answerStream == nullptr) {
            if (answer.body.size() + size > kMaxTextBytes) return 0;
            answer.body.append(data, size);
        } else if (!request.answerStream->write(data, static_cast<std::streamsize>(size))) {
            return 0;
        }
        answer.bodyBytes += static_cast<std::int64_t>(size);
        pay(configuration.readRateLimiter.get(), size);
        return size;
    }

    /// A body that ends before its announced size ends the call: the server would wait for ever.
    size_t give(char* buffer, size_t room) {
        const auto left = static_cast<std::uint64_t>(request.bodySize - sent);
        const auto size = static_cast<size_t>(std::min<std::uint64_t>(left, room));
        if (request.bodyStream == nullptr) {
            ::memcpy(buffer, request.body.data() + sent, size);
        } else if (!request.bodyStream->read(buffer, static_cast<std::streamsize>(size))) {
            return CURL_READFUNC_ABORT;
        }
        sent += static_cast<std::int64_t>(size);
        pay(configuration.writeRateLimiter.get(), size);
        return size;
    }

    int rewind(std::int64_t offset) {
        if (request.bodyStream != nullptr) {
            request.bodyStream->clear();
            if (!request.bodyStream->seekg(offset)) return CURL_SEEKFUNC_FAIL;
        }
        sent = offset;
        return CURL_SEEKFUNC_OK;
    }
};

template <typename Step, typename Result>
Result guarded(Step step, Result failure) {
    try {
        return step();
    } catch (const std::exception&) {
        return failure;
    }
}

size_t onBody(char* data, size_t size, size_t count, void* exchange) {
    return guarded([&] { return static_cast<Exchange*>(exchange)->take(data, size * count); },
                   size_t{0});
}

size_t onRead(char* buffer, size_t size, size_t count, void* exchange) {
    return guarded([&] { return static_cast<Exchange*>(exchange)->give(buffer, size * count); },
                   size_t{CURL_READFUNC_ABORT});
}

int onSeek(void* exchange, curl_off_t offset, int origin) {
    if (origin != SEEK_SET) return CURL_SEEKFUNC_CANTSEEK;
    return guarded([&] { return static_cast<Exchange*>(exchange)->rewind(offset); },
                   CURL_SEEKFUNC_FAIL);
}

size_t onHeader(char* data, size_t size, size_t count, void* exchange) {
    return guarded([&] { return static_cast<Exchange*>(exchange)->takeHeader(data, size * count); },
                   size_t{0});
}

bool append(HeaderList& list, const std::string& line) {
    curl_slist* longer = curl_slist_append(list.get(), line.c_str());
    if (longer == nullptr) return false;
    static_cast<void>(list.release());
    list.reset(longer);
    return true;
}

/// Null when memory is short. libcurl would drop "Name:", so an empty value is "Name;".
HeaderList headerList(const HttpRequest& request) {
    HeaderList list;
    for (const auto& [name, value] : request.headers) {
        std::string line = name;
        line += value.empty() ? ";" : ": ";
        line += value;
        if (!append(list, line)) return nullptr;
    }
    const bool asks = request.expectContinue && request.bodySize > 0;
    if (!append(list, asks ? "Expect: 100-continue" : "Expect:")) return nullptr;
    return list;
}

void setAddress(Easy& easy, const std::string& url) {
    easy.set(CURLOPT_URL, url.c_str());
    easy.set(CURLOPT_PATH_AS_IS, 1L);
    easy.set(CURLOPT_PROXY, "");
    easy.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
#if LIBCURL_VERSION_NUM >= 0x075500
    easy.set(CURLOPT_PROTOCOLS_STR, "http,https");
#else
    easy.set(CURLOPT_PROTOCOLS, static_cast<long>(CURLPROTO_HTTP | CURLPROTO_HTTPS));
#endif
    easy.set(CURLOPT_USERAGENT, "awslite/1.0");
}

void setLimits(Easy& easy, const ClientConfiguration& configuration) {
    easy.set(CURLOPT_NOSIGNAL, 1L);
    easy.set(CURLOPT_CONNECTTIMEOUT_MS, configuration.connectTimeoutMs);
#if LIBCURL_VERSION_NUM >= 0x075700
    easy.set(CURLOPT_QUICK_EXIT, 1L);  // waits for no name server after the time-out
#endif
    easy.set(CURLOPT_TIMEOUT_MS, configuration.httpRequestTimeoutMs);
    if (configuration.requestTimeoutMs > 0) {
        easy.set(CURLOPT_LOW_SPEED_LIMIT, 1L);
        easy.set(CURLOPT_LOW_SPEED_TIME, std::max(configuration.requestTimeoutMs / 1000, 1L));
    }
}

void setTrust(Easy& easy, const ClientConfiguration& configuration) {
    if (!configuration.caPath.empty()) easy.set(CURLOPT_CAPATH, configuration.caPath.c_str());
    if (!configuration.caFile.empty()) easy.set(CURLOPT_CAINFO, configuration.caFile.c_str());
}

/// A certificate that is not valid yet, or no longer, by a system clock that is wrong is as good as
/// any where the request clock knows better. `moment` is needed until the transfer is over.
void setMoment(Easy& easy, const std::optional<std::time_t>& moment) {
    if (!moment.has_value() || !canJudgeCertificates()) return;
    easy.offer(CURLOPT_SSL_CTX_FUNCTION, judgeCertificatesAt);
    easy.offer(CURLOPT_SSL_CTX_DATA, &*moment);
}

std::optional<std::time_t> momentOfRequest() {
    const auto moment = requestClock();
    if (!moment.has_value()) return std::nullopt;
    return std::chrono::system_clock::to_time_t(*moment);
}

void setMethod(Easy& easy, const HttpRequest& request) {
    if (request.method == "PUT") {
        easy.set(CURLOPT_UPLOAD, 1L);
        easy.set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
    } else if (request.method == "POST") {
        easy.set(CURLOPT_POST, 1L);
        easy.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.bodySize));
    }
}

void setCallbacks(Easy& easy, Exchange& exchange) {
    easy.set(CURLOPT_WRITEFUNCTION, onBody);
    easy.set(CURLOPT_WRITEDATA, &exchange);
    easy.set(CURLOPT_HEADERFUNCTION, onHeader);
    easy.set(CURLOPT_HEADERDATA, &exchange);
    easy.set(CURLOPT_READFUNCTION, onRead);
    easy.set(CURLOPT_READDATA, &exchange);
    easy.set(CURLOPT_SEEKFUNCTION, onSeek);
    easy.set(CURLOPT_SEEKDATA, &exchange);
}

std::string failureText(CURLcode code) {
    const char* text = curl_easy_strerror(code);
    return "curlCode: " + std::to_string(static_cast<int>(code)) + ", " +
           (text == nullptr ? "" : text);
}

CURLcode transfer(Easy& easy, const HttpRequest& request, Exchange& exchange) {
    const HeaderList headers = headerList(request);
    if (headers == nullptr) return CURLE_OUT_OF_MEMORY;
    setAddress(easy, request.scheme + "://" + request.host + request.path);
    setLimits(easy, exchange.configuration);
    setTrust(easy, exchange.configuration);
    const auto moment = momentOfRequest();
    setMoment(easy, moment);
    setMethod(easy, request);
    setCallbacks(easy, exchange);
    easy.set(CURLOPT_HTTPHEADER, headers.get());
    if (request.answerStream != nullptr && !*request.answerStream) return CURLE_WRITE_ERROR;
    if (onSeek(&exchange, 0, SEEK_SET) != CURL_SEEKFUNC_OK) return CURLE_READ_ERROR;
    const CURLcode code = easy.perform();
    if (code != CURLE_OK || request.answerStream == nullptr) return code;
    return request.answerStream->flush() ? CURLE_OK : CURLE_WRITE_ERROR;
}

bool endsWith(const std::string& text, const char* end) {
    const size_t size = ::strlen(end);
    return text.size() >= size && text.compare(text.size() - size, size, end) == 0;
}

}  // namespace

std::string encodePath(const std::string& path) {
    static constexpr char digits[] = "0123456789ABCDEF";
    static constexpr char unreserved[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~/";
    std::string encoded;
    encoded.reserve(path.size());
    for (const char c : path) {
        if (c != '\0' && ::strchr(unreserved, c) != nullptr) {
            encoded += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        encoded += '%';
        encoded += digits[byte >> 4];
        encoded += digits[byte & 15];
    }
    return encoded;
}

void addressRequest(HttpRequest& request, const ClientConfiguration& configuration,
                    const std::string& publicHost) {
    std::string endpoint = configuration.endpointOverride;
    if (endpoint.empty()) endpoint = publicHost;
    request.scheme = configuration.scheme == Aws::Http::Scheme::HTTP ? "http" : "https";
    const size_t mark = endpoint.find("://");
    if (mark != std::string::npos) {
        request.scheme = endpoint.substr(0, mark);
        endpoint.erase(0, mark + 3);
    }
    request.host = endpoint.substr(0, endpoint.find('/'));
    request.path = endpoint.substr(request.host.size());
    request.path.erase(request.path.find_last_not_of('/') + 1);
    const char* ownPort = request.scheme == "http" ? ":80" : ":443";
    if (endsWith(request.host, ownPort)) {
        request.host.erase(request.host.size() - ::strlen(ownPort));
    }
}

bool headersAreSound(const HttpRequest& request) {
    return std::none_of(request.headers.begin(), request.headers.end(), [](const auto& header) {
        return header.second.find_first_of(std::string("\r\n\0", 3)) != std::string::npos;
    });
}

HttpAnswer performRequest(const HttpRequest& request, const ClientConfiguration& configuration) {
    Exchange exchange{request, configuration, {}, 0, 0};
    Easy easy;
    const CURLcode code = transfer(easy, request, exchange);
    if (code == CURLE_OK) {
        exchange.answer.status = easy.status();
    } else {
        exchange.answer.failure = failureText(code);
    }
    return std::move(exchange.answer);
}

}  // namespace Awslite
