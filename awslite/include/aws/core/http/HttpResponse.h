#pragma once

namespace Aws {
namespace Http {

/// The status of an answer, as a number of RFC 9110; any number may occur.
enum class HttpResponseCode : int {
    REQUEST_NOT_MADE = -1,  ///< no whole answer came
    OK = 200,
    MOVED_PERMANENTLY = 301,
    TEMPORARY_REDIRECT = 307,
    BAD_REQUEST = 400,
    UNAUTHORIZED = 401,
    FORBIDDEN = 403,
    NOT_FOUND = 404,
    REQUEST_TIMEOUT = 408,
    AUTHENTICATION_TIMEOUT = 419,
    TOO_MANY_REQUESTS = 429,
    LOGIN_TIMEOUT = 440,
    INTERNAL_SERVER_ERROR = 500,
    BAD_GATEWAY = 502,
    SERVICE_UNAVAILABLE = 503,
    GATEWAY_TIMEOUT = 504,
    BANDWIDTH_LIMIT_EXCEEDED = 509,
    NETWORK_READ_TIMEOUT = 598,
    NETWORK_CONNECT_TIMEOUT = 599
};

}  // namespace Http
}  // namespace Aws
