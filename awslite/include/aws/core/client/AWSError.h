#pragma once

#include <aws/core/client/CoreErrors.h>
#include <aws/core/http/HttpResponse.h>
#include <aws/core/utils/memory/stl/AWSString.h>

#include <utility>

namespace Aws {
namespace Client {

/// Why a call failed. `ERROR_TYPE` is `CoreErrors` or the enumeration of one service, whose
/// numbers continue it.
template <typename ERROR_TYPE>
class AWSError {
  public:
    AWSError() = default;
    AWSError(ERROR_TYPE errorType, String exceptionName, String message, bool isRetryable)
        : m_errorType(errorType),
          m_exceptionName(std::move(exceptionName)),
          m_message(std::move(message)),
          m_isRetryable(isRetryable) {}

    template <typename OTHER>
    AWSError(const AWSError<OTHER>& other)
        : m_errorType(static_cast<ERROR_TYPE>(other.GetErrorType())),
          m_exceptionName(other.GetExceptionName()),
          m_message(other.GetMessage()),
          m_responseCode(other.GetResponseCode()),
          m_isRetryable(other.ShouldRetry()) {}

    ERROR_TYPE GetErrorType() const { return m_errorType; }
    /// The service's name of the error, "" when the answer named none.
    const String& GetExceptionName() const { return m_exceptionName; }
    const String& GetMessage() const { return m_message; }
    /// REQUEST_NOT_MADE when no whole answer came.
    Http::HttpResponseCode GetResponseCode() const { return m_responseCode; }
    void SetResponseCode(Http::HttpResponseCode code) { m_responseCode = code; }
    /// Whether the same call may succeed later.
    bool ShouldRetry() const { return m_isRetryable; }

  private:
    ERROR_TYPE m_errorType = static_cast<ERROR_TYPE>(CoreErrors::UNKNOWN);
    String m_exceptionName;
    String m_message;
    Http::HttpResponseCode m_responseCode = Http::HttpResponseCode::REQUEST_NOT_MADE;
    bool m_isRetryable = false;
};

}  // namespace Client
}  // namespace Aws
