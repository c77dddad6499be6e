#pragma once

#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/utils/memory/stl/AWSStreamFwd.h>

#include <cstdint>
#include <map>
#include <string>

namespace Awslite {

/// One request as it goes out. Header names are in lower case; each is sent once.
struct HttpRequest {
    std::string method;  ///< "GET", "POST" or "PUT"
    std::string scheme;  ///< "http" or "https"
    std::string host;    ///< with the port when it is not the scheme's own
    std::string path;    ///< begins with a slash, encoded as it goes out
    std::map<std::string, std::string> headers;
    std::string body;                       ///< when there is no `bodyStream`
    Aws::IOStream* bodyStream = nullptr;    ///< borrowed; read from its beginning
    std::int64_t bodySize = 0;              ///< of `body` or `bodyStream`, in bytes
    Aws::IOStream* answerStream = nullptr;  ///< borrowed; null: the answer's body is kept as text
    bool expectContinue = false;            ///< ask before a body that is not empty
};

struct HttpAnswer {
    int status = -1;             ///< -1 when no whole answer came
    std::string failure;         ///< "curlCode: ..." when no whole answer came
    std::string errorType;       ///< the header "x-amzn-errortype"
    std::string etag;            ///< the header "etag", quotes included
    std::string body;            ///< without an `answerStream`; at most 1 MiB
    std::int64_t bodyBytes = 0;  ///< received, wherever they went

    bool succeeded() const { return status >= 200 && status <= 299; }
};

/// RFC 3986 percent-encoding of all but unreserved characters and the slash.
std::string encodePath(const std::string& path);

/// Fills `scheme`, `host` and the beginning of `path` (without a slash at its end) from the
/// configuration's endpoint; `publicHost` serves when it has none.
void addressRequest(HttpRequest& request, const Aws::Client::ClientConfiguration& configuration,
                    const std::string& publicHost);

/// Whether every header can be sent as one line.
bool headersAreSound(const HttpRequest& request);

/// Sends the request and waits for the answer: one attempt, one connection, no redirects, no
/// proxy. Where a request clock is set it judges the dates of the server's certificates. The rate
/// limiters of the configuration sleep on the calling thread.
HttpAnswer performRequest(const HttpRequest& request,
                          const Aws::Client::ClientConfiguration& configuration);

}  // namespace Awslite
