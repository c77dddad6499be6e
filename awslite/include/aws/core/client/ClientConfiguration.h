#pragma once

#include <aws/core/client/RetryStrategy.h>
#include <aws/core/http/Scheme.h>
#include <aws/core/utils/memory/stl/AWSString.h>
#include <aws/core/utils/ratelimiter/RateLimiterInterface.h>

#include <memory>

namespace Aws {
namespace Client {

/// Whether a request goes to the place that an answer names instead.
enum class FollowRedirectsPolicy { DEFAULT, ALWAYS, NEVER };

/// How a client reaches its service; copied by the client's constructor.
struct ClientConfiguration {
    String region = "us-east-1";
    /// A host, with scheme, port and path where needed; "" means the public host of the region.
    String endpointOverride;
    /// The directory with hashed CA names; the bundle (`caFile`, else the system's) stays in use
    /// beside it.
    String caPath;
    String caFile;
    /// For an endpoint that names no scheme itself.
    Http::Scheme scheme = Http::Scheme::HTTPS;
    long connectTimeoutMs = 1000;
    /// A stall limit: a transfer below 1 byte/s for that many whole seconds (1 at least) ends;
    /// 0 means none.
    long requestTimeoutMs = 3000;
    /// The whole call, name resolution and connecting included; 0 means no limit.
    long httpRequestTimeoutMs = 0;
    /// Bytes received and sent; null means no limit.
    std::shared_ptr<Utils::RateLimits::RateLimiterInterface> readRateLimiter;
    std::shared_ptr<Utils::RateLimits::RateLimiterInterface> writeRateLimiter;
    /// Carried, not used: redirects are not followed.
    FollowRedirectsPolicy followRedirects = FollowRedirectsPolicy::DEFAULT;
    /// Carried, not used: one attempt a call.
    std::shared_ptr<RetryStrategy> retryStrategy;
};

}  // namespace Client
}  // namespace Aws
