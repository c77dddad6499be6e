#pragma once

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// An HTTP/1.1 server of the test's own on a free port of 127.0.0.1, plain or TLS. Each request
/// is handed to the test's script, which says what to answer or how to misbehave. One request a
/// connection; connections are served at the same time, each on a thread of its own.
///
/// With TLS the server presents a certificate for "localhost" and 127.0.0.1, valid at any moment,
/// signed by a CA made once a process; `caFile` names the CA's PEM file (in a hashed directory of
/// its own, so that it serves as CA path too).
class ScriptedHttpServer {
  public:
    struct Request {
        std::string method;
        std::string target;  ///< as on the request line, undecoded
        std::vector<std::pair<std::string, std::string>> headers;  ///< names as sent
        std::string body;

        /// The value of the first header of that name (any case), "" when there is none.
        std::string header(const std::string& name) const;
        bool hasHeader(const std::string& name) const;
    };

    struct Response {
        int status = 200;
        /// Sent as they are; Content-Length and Connection are added unless named here. A Date
        /// header is sent only when named here.
        std::vector<std::pair<std::string, std::string>> headers;
        std::string body;
        bool closeWithoutAnswer = false;  ///< close after the request, nothing sent
        bool hang = false;                ///< send nothing until the server is destroyed
        size_t cutAfterBodyBytes = std::string::npos;  ///< close after so many body bytes
        int dripMs = 0;                                ///< pause between single body bytes
    };

    using Script = std::function<Response(const Request&)>;
    enum class Transport { Plain, Tls };

    /// What a TLS server shows; moments in UTC. Valid at any moment, unless a test says otherwise.
    struct Certificate {
        std::string notBefore = "19500101000000Z";
        std::string notAfter = "21991231235959Z";
        std::string host = "localhost";  ///< 127.0.0.1 besides, when it is this one
        bool trusted = true;             ///< signed by the CA of `caFile`, not of `otherCaFile`
        bool forged = false;             ///< bears that CA's name, and another key's signature
    };

    explicit ScriptedHttpServer(Script script, Transport transport = Transport::Plain);
    ScriptedHttpServer(Script script, const Certificate& certificate);  ///< over TLS
    ~ScriptedHttpServer();  ///< ends all connections and joins all threads
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    int port() const;
    /// "http://localhost:<port>" or "https://localhost:<port>", then `path`.
    std::string url(const std::string& path = "") const;
    /// "localhost:<port>"
    std::string host() const;
    /// The requests so far, in the order in which they were complete.
    std::vector<Request> requests() const;

    /// The CA that signs the TLS servers of this process.
    static std::string caFile();
    /// A CA that signs none of them.
    static std::string otherCaFile();

  private:
    struct State;
    std::unique_ptr<State> m_state;
};
