#pragma once

#include <cstdint>
#include <string>

class Descriptor;

/// Whether a server can be reached: its name, the connection, the TLS handshake and the
/// certificate. It ends there: the server is asked for nothing.
///
/// A value; tries when it is made, 10 s at most for each step. With HTTPS the name, chain and
/// signature of the certificate are judged as the daemon judges them, its dates by the given time.
class EndpointProbe {
  public:
    /// @param url an address, or a host alone for HTTPS
    /// @param certificates the CA file; "" for the system's
    /// @param utc seconds that certificates are judged by; 0: their dates do not count
    EndpointProbe(const std::string& url, const std::string& certificates, std::int64_t utc);

    bool works() const { return m_failure.empty(); }
    /// Why it does not.
    const std::string& failure() const { return m_failure; }
    /// The address of its name; "" when it has none.
    const std::string& address() const { return m_address; }
    /// Whose certificate it showed, and until when that is valid; "" without one.
    const std::string& certificate() const { return m_certificate; }
    /// Whether that certificate is not one to be trusted.
    bool isDistrusted() const { return m_distrusted; }

    /// "host:port" of an address.
    static std::string hostOf(const std::string& url);

  private:
    Descriptor connect();
    void shakeHands(const Descriptor& connection, const std::string& certificates,
                    std::int64_t utc);
    void fail(const std::string& why) { m_failure = why; }

    std::string m_host;
    std::string m_port;
    std::string m_address;
    std::string m_failure;
    std::string m_certificate;
    bool m_distrusted = false;
};
