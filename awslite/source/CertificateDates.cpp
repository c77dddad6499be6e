#include <awslite/CertificateDates.h>

#include <ctime>
#include <string>

#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace Awslite {

namespace {

/// In place of OpenSSL's own verification, which it is, but for the moment. Of the calls that set
/// the moment this one is right on 32-bit ARM even where libcrypto was built with a `time_t` of 32
/// bits and this file with 64: as the third argument both begin in the same register.
int verifyAt(X509_STORE_CTX* verification, void* moment) {
    X509_STORE_CTX_set_time(verification, 0, *static_cast<const std::time_t*>(moment));
    return X509_verify_cert(verification);
}

}  // namespace

bool canJudgeCertificates() {
    const char* const library = curl_version_info(CURLVERSION_NOW)->ssl_version;
    // Of several libraries the ones that are not in use stand in parentheses.
    return library != nullptr && std::string(library).rfind("OpenSSL/", 0) == 0;
}

CURLcode judgeCertificatesAt(CURL* /*handle*/, void* context, void* moment) {
    SSL_CTX_set_cert_verify_callback(static_cast<SSL_CTX*>(context), verifyAt, moment);
    return CURLE_OK;
}

}  // namespace Awslite
