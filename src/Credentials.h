#pragma once

#include <string>
#include <vector>

#include <aws/core/auth/AWSCredentialsProvider.h>

#include "ServiceTables.h"

/// The provider of the cloud credentials, which the configuration delivers encrypted, and the
/// public names of the server addresses and keys. It keeps neither: the addresses, the keys and
/// the choice of the server environment are those of `ServiceTables`.
///
/// Stateless objects, any number of them. Usable from any thread, the cloud client's included.
class Credentials : public Aws::Auth::AWSCredentialsProvider, private ServiceTables {
  public:
    ~Credentials() override;

    /// Decrypts the key id, secret and session token of the current configuration (AES-128-CTR,
    /// hexadecimal). Wrong keys give garbage, which the cloud refuses.
    Aws::Auth::AWSCredentials GetAWSCredentials() override;

    std::string getConfigUrl() const;  ///< without the device identifier that follows it
    std::string getWebTimeUrl() const;
    std::string getTouUrl() const;
    std::string getLambdaKey() const;  ///< the API key sent as "x-api-key:"

    /// Unscrambles the table's value for the chosen environment.
    std::string decrypt(const std::vector<signed char> (&table)[3]) const;
    /// AES-128-CTR (NIST SP 800-38A) with the storage key; both arguments hexadecimal. The result
    /// ends at the first zero byte. OpenSSL's errors go to standard error.
    std::string decryptAES(std::string ivHex, std::string cipherHex) const;

    /// Forgets the chosen environment: the next use reads the environment variable again.
    static void resetStagingEnv();
    static void SetVerbose(bool verbose);
    static bool GetVerbose();

  private:
    friend struct CredentialsPeer;

    using ServiceTables::Keysource;
    using ServiceTables::m_KivServerEnv;

    /// Ends the process through OpenSSL's die routine unless `condition` holds.
    static void assertHolds(bool condition, const char* assertion, int line);
};
