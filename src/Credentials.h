#pragma once

#include <mutex>
#include <string>
#include <vector>

#include <aws/core/auth/AWSCredentialsProvider.h>

/// The addresses and keys of the servers, kept scrambled in the program image and readable only
/// while in use, and the provider of the cloud credentials that the configuration delivers
/// encrypted. One value of each kind for each server environment (production, development,
/// acceptance), chosen by the environment variable "KIV_SERVERENV" at first use.
///
/// Stateless objects, any number of them; the class-wide choice is guarded. Usable from any
/// thread, the cloud client's included.
class Credentials : public Aws::Auth::AWSCredentialsProvider {
  public:
    ~Credentials() override;

    /// Decrypts the key id, secret and session token of the current configuration (AES-128-CTR,
    /// hexadecimal). Wrong keys give garbage, which the cloud refuses.
    Aws::Auth::AWSCredentials GetAWSCredentials() override;

    std::string getConfigUrl() const;  ///< without the device identifier that goes behind it
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

    static int chosenEnvironment();
    /// Ends the process through OpenSSL's die routine unless `condition` holds.
    static void assertHolds(bool condition, const char* assertion, int line);

    static std::mutex m_environmentLock;  ///< guards the two members below
    static int m_KivServerEnv;            ///< 0 production, 1 development, 2 acceptance
    static bool m_environmentChecked;
    static const std::string Keysource;
    static std::vector<signed char> m_touUrlTable[3];
    static std::vector<signed char> m_webTimeUrlTable[3];
    static std::vector<signed char> m_configUrlTable[3];
    static std::vector<signed char> m_apiKeyTable[3];
    static std::vector<signed char> m_storageKeyTable[3];
};
