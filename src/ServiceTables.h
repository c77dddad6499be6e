#pragma once

#include <mutex>
#include <string>
#include <vector>

/// The addresses and keys of the servers, kept scrambled in the program image and readable only
/// while in use: one value of each kind for each server environment (production, development,
/// acceptance). The environment is chosen by the environment variable "KIV_SERVERENV" at first use.
/// It opens nothing that a server delivers: that is for `Credentials`, which also names these
/// values under their public names.
///
/// Only class-wide state: the tables, constant while the program runs, and the choice, which has a
/// lock of its own. Usable from any thread.
class ServiceTables {
  public:
    /// One scrambled value for each environment, in the order production, development, acceptance.
    using Table = std::vector<signed char>[3];

    static std::string getConfigUrl();  ///< without the device identifier that follows it
    static std::string getWebTimeUrl();
    static std::string getTouUrl();
    static std::string getLambdaKey();   ///< the API key sent as "x-api-key:"
    static std::string getStorageKey();  ///< the bytes of an AES-128 key

    /// Unscrambles the table's value for the chosen environment.
    static std::string decrypt(const Table& table);

    /// Forgets the chosen environment: the next use reads the environment variable again.
    static void forgetEnvironment();
    static void setVerbose(bool verbose);
    static bool isVerbose();

  protected:
    static const std::string Keysource;  ///< the label of this build's key set, for the lines
    static int m_KivServerEnv;           ///< 0 production, 1 development, 2 acceptance

  private:
    friend struct ServiceTablesPeer;

    static int chosenEnvironment();

    static std::mutex m_environmentLock;  ///< guards m_KivServerEnv and the member below
    static bool m_environmentChecked;
    static std::vector<signed char> m_touUrlTable[3];
    static std::vector<signed char> m_webTimeUrlTable[3];
    static std::vector<signed char> m_configUrlTable[3];
    static std::vector<signed char> m_apiKeyTable[3];
    static std::vector<signed char> m_storageKeyTable[3];
};
