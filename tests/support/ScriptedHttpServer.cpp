#include "support/ScriptedHttpServer.h"

#include "Descriptor.h"
#include "support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <cstdio>
#include <cstdlib>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace {

constexpr size_t kMaxHeaderBytes = 64 * 1024;
constexpr size_t kMaxBodyBytes = 64 * 1024 * 1024;
/// How long a connection waits for the client to close its side before it is dropped.
constexpr int kLingerMs = 2000;

struct OpenSslFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const { X509_free(certificate); }
    void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
    void operator()(SSL* tls) const { SSL_free(tls); }
};
struct StdioClose {
    void operator()(FILE* file) const { std::fclose(file); }
};
using Key = std::unique_ptr<EVP_PKEY, OpenSslFree>;
using Certificate = std::unique_ptr<X509, OpenSslFree>;

void require(bool done, const char* what) {
    if (!done) throw std::runtime_error(std::string("ScriptedHttpServer: cannot ") + what);
}

// ---- Certificates ------------------------------------------------------------------------

Key makeKey() {
    Key key(EVP_EC_gen("P-256"));
    require(key != nullptr, "make a key");
    return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    const std::unique_ptr<X509_EXTENSION, OpenSslFree> extension(
        X509V3_EXT_conf_nid(nullptr, &context, nid, value));
    require(extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1,
            "add a certificate extension");
}

using Wishes = ScriptedHttpServer::Certificate;

/// A certificate without extensions and signature.
Certificate bareCertificate(const std::string& commonName, long serial, EVP_PKEY* key,
                            const Wishes& wishes = Wishes()) {
    Certificate certificate(X509_new());
    require(certificate != nullptr, "make a certificate");
    X509_set_version(certificate.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
    require(ASN1_TIME_set_string_X509(X509_getm_notBefore(certificate.get()),
                                      wishes.notBefore.c_str()) == 1 &&
                ASN1_TIME_set_string_X509(X509_getm_notAfter(certificate.get()),
                                          wishes.notAfter.c_str()) == 1,
            "date a certificate");
    X509_set_pubkey(certificate.get(), key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate.get()), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    return certificate;
}

/// A CA with its PEM file in a directory of its own, beside the hashed name that a CA path needs.
class Authority {
  public:
    explicit Authority(const char* commonName)
        : m_key(makeKey()), m_certificate(bareCertificate(commonName, 1, m_key.get())) {
        X509* certificate = m_certificate.get();
        X509_set_issuer_name(certificate, X509_get_subject_name(certificate));
        addExtension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE");
        addExtension(certificate, certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
        addExtension(certificate, certificate, NID_subject_key_identifier, "hash");
        sign(certificate, m_key.get());
        writePem("ca.pem");
        char hashed[32];
        std::snprintf(hashed, sizeof hashed, "%08lx.0", X509_subject_name_hash(certificate));
        writePem(hashed);
    }

    std::string file() const { return m_directory.file("ca.pem"); }

    Certificate certify(EVP_PKEY* key, const Wishes& wishes) const {
        Certificate certificate = bareCertificate(wishes.host, 2, key, wishes);
        X509_set_issuer_name(certificate.get(), X509_get_subject_name(m_certificate.get()));
        X509* issuer = m_certificate.get();
        addExtension(certificate.get(), issuer, NID_basic_constraints, "critical,CA:FALSE");
        const std::string names =
            "DNS:" + wishes.host + (wishes.host == Wishes().host ? ",IP:127.0.0.1" : "");
        addExtension(certificate.get(), issuer, NID_subject_alt_name, names.c_str());
        addExtension(certificate.get(), issuer, NID_ext_key_usage, "serverAuth");
        addExtension(certificate.get(), issuer, NID_authority_key_identifier, "keyid");
        sign(certificate.get(), wishes.forged ? key : m_key.get());
        return certificate;
    }

  private:
    static void sign(X509* certificate, EVP_PKEY* key) {
        require(X509_sign(certificate, key, EVP_sha256()) > 0, "sign a certificate");
    }

    void writePem(const std::string& name) const {
        const std::unique_ptr<FILE, StdioClose> file(
            std::fopen(m_directory.file(name).c_str(), "w"));
        require(file != nullptr && PEM_write_X509(file.get(), m_certificate.get()) == 1,
                "write a certificate");
    }

    TempDir m_directory;
    Key m_key;
    Certificate m_certificate;
};

/// The process's two authorities and the key of its servers. A forked child that leaves
/// through exit() must not remove the parent's files, so the owner is freed by the maker only.
struct Authorities {
    Authorities() {
        trusted = std::make_unique<Authority>("kiv test CA");
        other = std::make_unique<Authority>("kiv other test CA");
        serverKey = makeKey();
    }
    ~Authorities() {
        if (::getpid() == m_maker) return;
        static_cast<void>(trusted.release());
        static_cast<void>(other.release());
    }
    Authorities(const Authorities&) = delete;
    Authorities& operator=(const Authorities&) = delete;

    std::unique_ptr<Authority> trusted;
    std::unique_ptr<Authority> other;
    Key serverKey;

  private:
    pid_t m_maker = ::getpid();
};

const Authorities& authorities() {
    static const Authorities made;
    return made;
}

std::unique_ptr<SSL_CTX, OpenSslFree> makeServerContext(const Wishes& wishes) {
    std::unique_ptr<SSL_CTX, OpenSslFree> context(SSL_CTX_new(TLS_server_method()));
    require(context != nullptr, "make a TLS context");
    SSL_CTX_set_num_tickets(context.get(), 0);
    const Authority& issuer = wishes.trusted ? *authorities().trusted : *authorities().other;
    const Certificate certificate = issuer.certify(authorities().serverKey.get(), wishes);
    require(SSL_CTX_use_certificate(context.get(), certificate.get()) == 1 &&
                SSL_CTX_use_PrivateKey(context.get(), authorities().serverKey.get()) == 1,
            "use the server's certificate");
    return context;
}

// ---- One connection ----------------------------------------------------------------------

/// A non-blocking connection, plain or TLS. Each wait ends at once when the stop event is set;
/// then, and on any error, the calls return false.
class Connection {
  public:
    Connection(int fd, int stopFd, SSL_CTX* context) : m_fd(fd), m_stopFd(stopFd) {
        if (context == nullptr) return;
        m_tls.reset(SSL_new(context));
        if (m_tls != nullptr) SSL_set_fd(m_tls.get(), fd);
    }

    bool handshake() {
        if (m_tls == nullptr) return true;
        int accepted = 0;
        return untilDone([this] { return SSL_accept(m_tls.get()); }, POLLIN, accepted);
    }

    /// Appends what has come to `text`; false at the end of the stream.
    bool readSome(std::string& text) {
        char buffer[16384];
        int got = 0;
        const bool read = untilDone(
            [&] {
                if (m_tls != nullptr) return SSL_read(m_tls.get(), buffer, sizeof buffer);
                return static_cast<int>(::recv(m_fd.get(), buffer, sizeof buffer, 0));
            },
            POLLIN, got);
        if (!read || got == 0) return false;
        text.append(buffer, static_cast<size_t>(got));
        return true;
    }

    bool write(const char* data, size_t size) {
        while (size > 0) {
            const int part = static_cast<int>(std::min<size_t>(size, 65536));
            int sent = 0;
            const bool wrote = untilDone(
                [&] {
                    if (m_tls != nullptr) return SSL_write(m_tls.get(), data, part);
                    return static_cast<int>(
                        ::send(m_fd.get(), data, static_cast<size_t>(part), MSG_NOSIGNAL));
                },
                POLLOUT, sent);
            if (!wrote) return false;
            data += sent;
            size -= static_cast<size_t>(sent);
        }
        return true;
    }

    bool write(const std::string& text) { return write(text.data(), text.size()); }

    /// Waits without reading: false when the server stops meanwhile.
    bool pause(int milliseconds) const {
        pollfd stop{m_stopFd, POLLIN, 0};
        int ready;
        do {
            ready = ::poll(&stop, 1, milliseconds);
        } while (ready < 0 && errno == EINTR);
        return ready == 0;
    }

    /// Waits until the server stops or the client goes away.
    void hang() const { waitFor(POLLRDHUP, -1); }

    /// Ends the sending side and gives the client a moment to take what was sent: closing with
    /// unread input would reset the connection under it.
    void finish() {
        if (m_tls != nullptr && SSL_is_init_finished(m_tls.get())) SSL_shutdown(m_tls.get());
        ::shutdown(m_fd.get(), SHUT_WR);
        char rest[4096];
        while (waitFor(POLLIN, kLingerMs) && ::recv(m_fd.get(), rest, sizeof rest, 0) > 0) {
        }
        ::shutdown(m_fd.get(), SHUT_RDWR);
    }

  private:
    bool waitFor(short events, int milliseconds) const {
        pollfd waits[2] = {{m_fd.get(), events, 0}, {m_stopFd, POLLIN, 0}};
        int ready;
        do {
            ready = ::poll(waits, 2, milliseconds);
        } while (ready < 0 && errno == EINTR);
        return ready > 0 && waits[1].revents == 0;
    }

    /// Repeats `step` until it has done something, waiting for what it asks for in between; a
    /// plain connection asks for `event`.
    template <typename Step>
    bool untilDone(Step step, short event, int& result) {
        for (;;) {
            result = step();
            if (result > 0 || (result == 0 && m_tls == nullptr)) return true;
            if (m_tls != nullptr) event = tlsEvent(result);
            if (m_tls == nullptr && errno != EAGAIN && errno != EINTR) return false;
            if (event == 0 || !waitFor(event, -1)) return false;
        }
    }

    short tlsEvent(int failed) const {
        const int error = SSL_get_error(m_tls.get(), failed);
        if (error == SSL_ERROR_WANT_READ) return POLLIN;
        return error == SSL_ERROR_WANT_WRITE ? POLLOUT : short{0};
    }

    Descriptor m_fd;
    int m_stopFd;
    std::unique_ptr<SSL, OpenSslFree> m_tls;
};

// ---- HTTP --------------------------------------------------------------------------------

const char* reason(int status) {
    switch (status) {
        case 200:
            return "OK";
        case 301:
            return "Moved Permanently";
        case 302:
            return "Found";
        case 400:
            return "Bad Request";
        case 403:
            return "Forbidden";
        case 404:
            return "Not Found";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Status";
    }
}

std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

ScriptedHttpServer::Request parseHead(const std::string& head) {
    ScriptedHttpServer::Request request;
    const size_t lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const size_t first = line.find(' ');
    const size_t last = line.rfind(' ');
    if (first != std::string::npos) request.method = line.substr(0, first);
    if (last > first) request.target = line.substr(first + 1, last - first - 1);
    size_t at = lineEnd == std::string::npos ? head.size() : lineEnd + 2;
    while (at < head.size()) {
        const size_t end = std::min(head.find("\r\n", at), head.size());
        const std::string field = head.substr(at, end - at);
        const size_t colon = field.find(':');
        if (colon != std::string::npos) {
            request.headers.emplace_back(field.substr(0, colon), trimmed(field.substr(colon + 1)));
        }
        at = end + 2;
    }
    return request;
}

/// Reads one request, granting "Expect: 100-continue" on the way.
bool readRequest(Connection& connection, ScriptedHttpServer::Request& request) {
    std::string text;
    size_t headEnd;
    while ((headEnd = text.find("\r\n\r\n")) == std::string::npos) {
        if (text.size() > kMaxHeaderBytes || !connection.readSome(text)) return false;
    }
    request = parseHead(text.substr(0, headEnd));
    text.erase(0, headEnd + 4);
    const size_t size = std::strtoul(request.header("Content-Length").c_str(), nullptr, 10);
    if (size > kMaxBodyBytes) return false;
    const bool asks = ::strcasecmp(request.header("Expect").c_str(), "100-continue") == 0;
    if (asks && !connection.write("HTTP/1.1 100 Continue\r\n\r\n")) return false;
    text.reserve(size);
    while (text.size() < size) {
        if (!connection.readSome(text)) return false;
    }
    text.resize(size);
    request.body = std::move(text);
    return true;
}

bool names(const ScriptedHttpServer::Response& response, const char* name) {
    for (const auto& header : response.headers) {
        if (::strcasecmp(header.first.c_str(), name) == 0) return true;
    }
    return false;
}

bool bodyAllowed(int status) {
    return status >= 200 && status != 204 && status != 304;
}

std::string responseHead(const ScriptedHttpServer::Response& response) {
    std::string head =
        "HTTP/1.1 " + std::to_string(response.status) + " " + reason(response.status) + "\r\n";
    for (const auto& [name, value] : response.headers) head += name + ": " + value + "\r\n";
    if (bodyAllowed(response.status) && !names(response, "Content-Length")) {
        head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
    }
    if (!names(response, "Connection")) head += "Connection: close\r\n";
    return head + "\r\n";
}

void sendBody(Connection& connection, const ScriptedHttpServer::Response& response) {
    const size_t size = std::min(response.body.size(), response.cutAfterBodyBytes);
    if (response.dripMs <= 0) {
        connection.write(response.body.data(), size);
        return;
    }
    for (size_t at = 0; at < size; ++at) {
        if (at > 0 && !connection.pause(response.dripMs)) return;
        if (!connection.write(&response.body[at], 1)) return;
    }
}

void answer(Connection& connection, const std::string& method,
            const ScriptedHttpServer::Response& response) {
    if (response.hang) {
        connection.hang();
        return;
    }
    if (response.closeWithoutAnswer || !connection.write(responseHead(response))) return;
    if (method != "HEAD" && bodyAllowed(response.status)) sendBody(connection, response);
}

/// Blocks every signal in the threads started during its life: the signals of the process under
/// test go to its own threads, and a write to a closed TLS connection raises nothing.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t all;
        ::sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  private:
    sigset_t m_before{};
};

}  // namespace

// ---- The server --------------------------------------------------------------------------

struct ScriptedHttpServer::State {
    State(Script theScript, Transport transport, const Wishes& certificate)
        : script(std::move(theScript)),
          listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)),
          stopEvent(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        if (transport == Transport::Tls) context = makeServerContext(certificate);
        require(listener.get() >= 0 && stopEvent.get() >= 0, "open its descriptors");
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        require(::bind(listener.get(), generic, length) == 0 &&
                    ::listen(listener.get(), SOMAXCONN) == 0 &&
                    ::getsockname(listener.get(), generic, &length) == 0,
                "listen");
        port = ntohs(address.sin_port);
        const SignalsBlocked blocked;
        acceptor = std::thread([this] { acceptAll(); });
    }

    ~State() {
        const std::uint64_t one = 1;
        static_cast<void>(!::write(stopEvent.get(), &one, sizeof one));
        acceptor.join();
        for (Worker& worker : workers) worker.thread.join();
    }
    State(const State&) = delete;
    State& operator=(const State&) = delete;

    void acceptAll() {
        for (;;) {
            pollfd waits[2] = {{listener.get(), POLLIN, 0}, {stopEvent.get(), POLLIN, 0}};
            if (::poll(waits, 2, -1) < 0 && errno != EINTR) return;
            if (waits[1].revents != 0) return;
            const int fd =
                ::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            joinFinished();
            if (fd < 0) continue;
            Worker& worker = workers.emplace_back();
            worker.thread = std::thread([this, fd, &worker] {
                serve(fd);
                worker.done = true;
            });
        }
    }

    void joinFinished() {
        workers.remove_if([](Worker& worker) {
            if (!worker.done) return false;
            worker.thread.join();
            return true;
        });
    }

    void serve(int fd) {
        Connection connection(fd, stopEvent.get(), context.get());
        Request request;
        if (connection.handshake() && readRequest(connection, request)) {
            const std::string method = request.method;
            answer(connection, method, respond(std::move(request)));
        }
        connection.finish();
    }

    Response respond(Request request) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            seen.push_back(request);
        }
        try {
            return script(request);
        } catch (const std::exception& error) {
            Response failed;
            failed.status = 500;
            failed.body = std::string("the test's script failed: ") + error.what();
            return failed;
        }
    }

    struct Worker {
        std::thread thread;
        std::atomic<bool> done{false};
    };

    const Script script;
    std::unique_ptr<SSL_CTX, OpenSslFree> context;
    Descriptor listener;
    Descriptor stopEvent;  ///< readable from the beginning of the end on, for ever
    int port = 0;

    mutable std::mutex mutex;
    std::vector<Request> seen;  ///< guarded by `mutex`

    std::list<Worker> workers;  ///< of the acceptor's thread, then of the destructor
    std::thread acceptor;
};

std::string ScriptedHttpServer::Request::header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (::strcasecmp(key.c_str(), name.c_str()) == 0) return value;
    }
    return "";
}

bool ScriptedHttpServer::Request::hasHeader(const std::string& name) const {
    for (const auto& field : headers) {
        if (::strcasecmp(field.first.c_str(), name.c_str()) == 0) return true;
    }
    return false;
}

ScriptedHttpServer::ScriptedHttpServer(Script script, Transport transport)
    : m_state(std::make_unique<State>(std::move(script), transport, Certificate())) {}

ScriptedHttpServer::ScriptedHttpServer(Script script, const Certificate& certificate)
    : m_state(std::make_unique<State>(std::move(script), Transport::Tls, certificate)) {}

ScriptedHttpServer::~ScriptedHttpServer() = default;

int ScriptedHttpServer::port() const {
    return m_state->port;
}

std::string ScriptedHttpServer::url(const std::string& path) const {
    return (m_state->context != nullptr ? "https://" : "http://") + host() + path;
}

std::string ScriptedHttpServer::host() const {
    return "localhost:" + std::to_string(m_state->port);
}

std::vector<ScriptedHttpServer::Request> ScriptedHttpServer::requests() const {
    const std::lock_guard<std::mutex> lock(m_state->mutex);
    return m_state->seen;
}

std::string ScriptedHttpServer::caFile() {
    return authorities().trusted->file();
}

std::string ScriptedHttpServer::otherCaFile() {
    return authorities().other->file();
}
