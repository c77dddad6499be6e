#include "EndpointProbe.h"

#include "Descriptor.h"

#include <memory>

#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

namespace {

constexpr int kPatienceMs = 10000;

struct FreeAddresses {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
struct FreeTls {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* session) const { SSL_free(session); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(BIO* memory) const { BIO_free(memory); }
};
template <typename Handle>
using Owned = std::unique_ptr<Handle, FreeTls>;

std::string asUrl(const std::string& address) {
    return address.find("://") == std::string::npos ? "https://" + address : address;
}

bool isHttp(const std::string& url) {
    return url.compare(0, 5, "http:") == 0;
}

/// What a function of OpenSSL writes into a memory.
template <typename Write>
std::string written(Write write) {
    const Owned<BIO> memory(BIO_new(BIO_s_mem()));
    write(memory.get());
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    return text == nullptr ? "" : std::string(text, static_cast<std::size_t>(size));
}

std::string nameText(const X509_NAME* name) {
    return written([name](BIO* out) { X509_NAME_print_ex(out, name, 0, XN_FLAG_ONELINE); });
}

/// "CN = tv.example, issued by CN = Some CA, valid until Jan  1 00:00:00 2030 GMT"
std::string certificateText(const X509* certificate) {
    return nameText(X509_get_subject_name(certificate)) + ", issued by " +
           nameText(X509_get_issuer_name(certificate)) + ", valid until " +
           written(
               [certificate](BIO* out) { ASN1_TIME_print(out, X509_get0_notAfter(certificate)); });
}

void demandName(SSL* session, const std::string& host) {
    X509_VERIFY_PARAM* judge = SSL_get0_param(session);
    if (X509_VERIFY_PARAM_set1_ip_asc(judge, host.c_str()) != 1)
        X509_VERIFY_PARAM_set1_host(judge, host.c_str(), host.size());
}

/// In place of OpenSSL's own verification, which it is, but for the moment. Of the calls that set
/// the moment this one is right on 32-bit ARM whichever width of `time_t` libcrypto was built with.
/// @param moment UTC seconds; 0: dates do not count
int verifyAt(X509_STORE_CTX* verification, void* moment) {
    const std::int64_t utc = *static_cast<const std::int64_t*>(moment);
    if (utc == 0)
        X509_STORE_CTX_set_flags(verification, X509_V_FLAG_NO_CHECK_TIME);
    else
        X509_STORE_CTX_set_time(verification, 0, static_cast<time_t>(utc));
    return X509_verify_cert(verification);
}

void limitWaiting(int connection) {
    const timeval limit = {kPatienceMs / 1000, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    fcntl(connection, F_SETFL, fcntl(connection, F_GETFL) & ~O_NONBLOCK);
}

/// @return 0, or the errno value of the failure
int connectTo(const addrinfo& address, const Descriptor& connection) {
    if (::connect(connection.get(), address.ai_addr, address.ai_addrlen) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    pollfd ready{connection.get(), POLLOUT, 0};
    if (poll(&ready, 1, kPatienceMs) == 0) return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

std::string lastTlsError() {
    const unsigned long code = ERR_get_error();
    const char* reason = code == 0 ? nullptr : ERR_reason_error_string(code);
    return reason == nullptr ? "the connection ended during the TLS handshake"
                             : std::string("TLS handshake: ") + reason;
}

}  // namespace

std::string EndpointProbe::hostOf(const std::string& url) {
    const std::string whole = asUrl(url);
    const std::size_t begin = whole.find("://") + 3;
    std::string host = whole.substr(begin, whole.find('/', begin) - begin);
    if (host.find(':') != std::string::npos) return host;
    return host + (isHttp(whole) ? ":80" : ":443");
}

EndpointProbe::EndpointProbe(const std::string& url, const std::string& certificates,
                             std::int64_t utc) {
    const std::string host = hostOf(url);
    m_host = host.substr(0, host.rfind(':'));
    m_port = host.substr(host.rfind(':') + 1);
    const Descriptor connection = connect();
    if (connection.isOpen() && !isHttp(asUrl(url))) shakeHands(connection, certificates, utc);
}

/// The first of its addresses where somebody answers. @return what is not open where nobody does
Descriptor EndpointProbe::connect() {
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int result = getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &list);
    if (result != 0) {
        fail("the name " + m_host + " has no address: " + gai_strerror(result));
        return {};
    }
    const std::unique_ptr<addrinfo, FreeAddresses> addresses(list);
    for (const addrinfo* one = list; one != nullptr; one = one->ai_next) {
        char text[NI_MAXHOST] = "";
        getnameinfo(one->ai_addr, one->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        m_address = text;
        constexpr int kind = SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK;
        Descriptor connection(socket(one->ai_family, kind, 0));
        const int error = connection.isOpen() ? connectTo(*one, connection) : errno;
        fail(error == 0 ? "" : std::string("no connection: ") + strerror(error));
        if (error != 0) continue;
        limitWaiting(connection.get());
        return connection;
    }
    return {};
}

/// The handshake goes on whatever the certificate is, so that it can be shown; then it is judged.
void EndpointProbe::shakeHands(const Descriptor& connection, const std::string& certificates,
                               std::int64_t utc) {
    const Owned<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
    if (context == nullptr) return fail(lastTlsError());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
    SSL_CTX_set_cert_verify_callback(context.get(), verifyAt, &utc);
    if (certificates.empty())
        SSL_CTX_set_default_verify_paths(context.get());
    else
        SSL_CTX_load_verify_locations(context.get(), certificates.c_str(), nullptr);
    ERR_clear_error();
    const Owned<SSL> session(SSL_new(context.get()));
    if (session == nullptr) return fail(lastTlsError());
    demandName(session.get(), m_host);
    SSL_set_tlsext_host_name(session.get(), m_host.c_str());
    SSL_set_fd(session.get(), connection.get());
    if (SSL_connect(session.get()) != 1) return fail(lastTlsError());
    const Owned<X509> shown(SSL_get1_peer_certificate(session.get()));
    if (shown != nullptr) m_certificate = certificateText(shown.get());
    const long verdict = SSL_get_verify_result(session.get());
    m_distrusted = verdict != X509_V_OK;
    if (m_distrusted)
        fail(std::string("SSL certificate problem: ") + X509_verify_cert_error_string(verdict));
}
