#include "Credentials.h"

#include "Config.h"
#include "DbgOut.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <optional>
#include <sstream>

#include <cstdio>
#include <cstdlib>

#include <openssl/aes.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

// The scrambled service values of this build: k...Table, one vector for each environment.
#define KIV_SERVICE_TABLES
namespace {
#include "ServiceTables.inc"

constexpr const char* kLogPrefix = "credentials:";
constexpr int AES_128_KEY_SIZE = 16;  // bytes
constexpr int kCharacterOffset = 40;  // what scrambling takes off each character

std::atomic<bool> verboseFlag{false};

using Bytes = std::vector<unsigned char>;

struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;

void logLine(const char* text, const std::string& detail = "") {
    if (verboseFlag) coutdbg << kLogPrefix << text << detail << std::endl;
}

/// Two characters a byte, an odd last one alone; what is no number gives a zero byte.
Bytes bytesOfHex(const std::string& hex) {
    Bytes bytes;
    for (std::size_t at = 0; at < hex.size(); at += 2) {
        std::istringstream pair(hex.substr(at, 2));
        unsigned int value = 0;
        pair >> std::hex >> value;
        bytes.push_back(static_cast<unsigned char>(value));
    }
    return bytes;
}

/// OpenSSL reads 16 bytes whatever is given to it.
Bytes paddedToBlock(Bytes bytes) {
    bytes.resize(std::max<std::size_t>(bytes.size(), AES_BLOCK_SIZE), 0);
    return bytes;
}

void reportUnless(int succeeded) {
    if (succeeded != 1) ERR_print_errors_fp(stderr);
}

Bytes runningSums(const std::vector<signed char>& scrambled) {
    Bytes sums;
    unsigned char sum = 0;
    for (const signed char difference : scrambled) {
        sum = static_cast<unsigned char>(sum + static_cast<unsigned char>(difference));
        sums.push_back(sum);
    }
    return sums;
}

/// The second half of the sums, read from the end, says where each character of the first half
/// belongs; a place that it does not name stays out.
std::string unscramble(const std::vector<signed char>& scrambled) {
    const Bytes sums = runningSums(scrambled);
    const auto half = static_cast<std::ptrdiff_t>(sums.size() / 2);
    std::string text;
    for (std::ptrdiff_t place = 0; place < half; ++place) {
        const auto found = std::find(sums.rbegin(), sums.rbegin() + half, place);
        if (found == sums.rbegin() + half) continue;
        const int character = sums[static_cast<std::size_t>(found - sums.rbegin())];
        text.push_back(static_cast<char>(character + kCharacterOffset));
    }
    return text;
}

/// The value of "KIV_SERVERENV" as an index into the tables; none for an unknown one.
std::optional<int> environmentNamed(const std::string& name) {
    if (name == "prod") return 0;
    if (name == "dev") return 1;
    if (name == "acc") return 2;
    return std::nullopt;
}

}  // namespace

std::mutex Credentials::m_environmentLock;
int Credentials::m_KivServerEnv = 0;
bool Credentials::m_environmentChecked = false;
const std::string Credentials::Keysource = "Release";
std::vector<signed char> Credentials::m_touUrlTable[3] = {kTouUrlTable[0], kTouUrlTable[1],
                                                          kTouUrlTable[2]};
std::vector<signed char> Credentials::m_webTimeUrlTable[3] = {
    kWebTimeUrlTable[0], kWebTimeUrlTable[1], kWebTimeUrlTable[2]};
std::vector<signed char> Credentials::m_configUrlTable[3] = {kConfigUrlTable[0], kConfigUrlTable[1],
                                                             kConfigUrlTable[2]};
std::vector<signed char> Credentials::m_apiKeyTable[3] = {kApiKeyTable[0], kApiKeyTable[1],
                                                          kApiKeyTable[2]};
std::vector<signed char> Credentials::m_storageKeyTable[3] = {
    kStorageKeyTable[0], kStorageKeyTable[1], kStorageKeyTable[2]};

Credentials::~Credentials() = default;

Aws::Auth::AWSCredentials Credentials::GetAWSCredentials() {
    const Config config;
    std::string token;
    const std::string encryptedToken = config->GetSessionToken();
    if (!encryptedToken.empty()) token = decryptAES(config->GetIV(), encryptedToken);
    const std::string keyId = decryptAES(config->GetIV(), config->GetAccessKeyId());
    const std::string secret = decryptAES(config->GetIV(), config->GetSecretAccessKey());
    // By pointer, as Aws::String is a type of its own in some versions of the SDK.
    // NOLINTNEXTLINE(readability-redundant-string-cstr)
    return Aws::Auth::AWSCredentials(keyId.c_str(), secret.c_str(), token.c_str());
}

std::string Credentials::getConfigUrl() const {
    logLine(" Returning Config file URL for ", Keysource);
    return decrypt(m_configUrlTable);
}

std::string Credentials::getWebTimeUrl() const {
    logLine(" Returning web time URL for ", Keysource);
    return decrypt(m_webTimeUrlTable);
}

std::string Credentials::getTouUrl() const {
    logLine(" Returning Tou file URL for ", Keysource);
    return decrypt(m_touUrlTable);
}

std::string Credentials::getLambdaKey() const {
    logLine(" Returning Lambda key for ", Keysource);
    return decrypt(m_apiKeyTable);
}

std::string Credentials::decrypt(const std::vector<signed char> (&table)[3]) const {
    return unscramble(table[chosenEnvironment()]);
}

std::string Credentials::decryptAES(std::string ivHex, std::string cipherHex) const {
    const Bytes cipherText = bytesOfHex(cipherHex);
    const Bytes iv = paddedToBlock(bytesOfHex(ivHex));
    const std::string keyText = decrypt(m_storageKeyTable);
    const Bytes key = paddedToBlock(Bytes(keyText.begin(), keyText.end()));
    const EVP_CIPHER* const cipher = EVP_aes_128_ctr();
    Bytes plainText(cipherText.size() + static_cast<std::size_t>(EVP_CIPHER_block_size(cipher)));

    const CipherContext context(EVP_CIPHER_CTX_new());
    EVP_CIPHER_CTX* const ctx = context.get();
    if (ctx == nullptr) {
        ERR_print_errors_fp(stderr);
        return "";
    }
    reportUnless(EVP_DecryptInit_ex(ctx, cipher, nullptr, nullptr, nullptr));
    assertHolds(EVP_CIPHER_CTX_key_length(ctx) == AES_128_KEY_SIZE,
                "EVP_CIPHER_CTX_key_length(ctx) == AES_128_KEY_SIZE", __LINE__);
    assertHolds(EVP_CIPHER_CTX_iv_length(ctx) == AES_BLOCK_SIZE,
                "EVP_CIPHER_CTX_iv_length(ctx) == AES_BLOCK_SIZE", __LINE__);
    reportUnless(EVP_DecryptInit_ex(ctx, nullptr, nullptr, key.data(), iv.data()));

    int updated = 0;
    int finished = 0;
    reportUnless(EVP_DecryptUpdate(ctx, plainText.data(), &updated, cipherText.data(),
                                   static_cast<int>(cipherText.size())));
    reportUnless(EVP_DecryptFinal_ex(ctx, plainText.data() + updated, &finished));
    plainText[static_cast<std::size_t>(updated) + static_cast<std::size_t>(finished)] = '\0';
    return reinterpret_cast<const char*>(plainText.data());
}

void Credentials::assertHolds(bool condition, const char* assertion, int line) {
    if (condition) return;
    const std::string message = std::string("assertion failed: ") + assertion;
    OPENSSL_die(message.c_str(), "src/Credentials", line);
}

int Credentials::chosenEnvironment() {
    const std::lock_guard<std::mutex> lock(m_environmentLock);
    if (m_environmentChecked) return m_KivServerEnv;
    const char* const name = std::getenv("KIV_SERVERENV");
    if (name != nullptr) {
        logLine(" Move staging environment to ", name);
        m_KivServerEnv = environmentNamed(name).value_or(m_KivServerEnv);
    } else {
        m_KivServerEnv = 0;
        logLine(" Restoring default ENV to prod");
    }
    m_environmentChecked = true;
    return m_KivServerEnv;
}

void Credentials::resetStagingEnv() {
    const std::lock_guard<std::mutex> lock(m_environmentLock);
    m_environmentChecked = false;
}

void Credentials::SetVerbose(bool verbose) {
    verboseFlag = verbose;
}

bool Credentials::GetVerbose() {
    return verboseFlag;
}
