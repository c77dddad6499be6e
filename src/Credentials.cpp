#include "Credentials.h"

#include "Config.h"

#include <algorithm>
#include <memory>
#include <sstream>

#include <cstdio>

#include <openssl/aes.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>

namespace {

constexpr int AES_128_KEY_SIZE = 16;  // bytes

using Bytes = std::vector<unsigned char>;

struct FreeCipherContext {
    void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
};
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, FreeCipherContext>;

/// Two characters a byte, an odd last one alone; what is not a number gives a zero byte.
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

}  // namespace

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
    return ServiceTables::getConfigUrl();
}

std::string Credentials::getWebTimeUrl() const {
    return ServiceTables::getWebTimeUrl();
}

std::string Credentials::getTouUrl() const {
    return ServiceTables::getTouUrl();
}

std::string Credentials::getLambdaKey() const {
    return ServiceTables::getLambdaKey();
}

std::string Credentials::decrypt(const std::vector<signed char> (&table)[3]) const {
    return ServiceTables::decrypt(table);
}

std::string Credentials::decryptAES(std::string ivHex, std::string cipherHex) const {
    const Bytes cipherText = bytesOfHex(cipherHex);
    const Bytes iv = paddedToBlock(bytesOfHex(ivHex));
    const std::string keyText = getStorageKey();
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

void Credentials::resetStagingEnv() {
    forgetEnvironment();
}

void Credentials::SetVerbose(bool verbose) {
    setVerbose(verbose);
}

bool Credentials::GetVerbose() {
    return isVerbose();
}
