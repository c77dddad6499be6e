#pragma once

#include <curl/curl.h>

namespace Awslite {

/// Whether a transfer's certificates can be judged at another moment than the system clock's: only
/// where libcurl speaks TLS through OpenSSL, whose context it then hands out.
bool canJudgeCertificates();

/// For CURLOPT_SSL_CTX_FUNCTION: of the certificates of this transfer the dates are judged at
/// `moment`, a `const std::time_t*` that must live until the transfer is over. Chain, signatures
/// and host name are judged as ever.
CURLcode judgeCertificatesAt(CURL* handle, void* context, void* moment);

}  // namespace Awslite
