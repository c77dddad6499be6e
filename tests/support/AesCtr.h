#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/evp.h>

/// AES-128-CTR for tests, as the configuration server uses it.
struct AesCtr {
    static std::string bytesOfHex(const std::string& hex) {
        std::string bytes;
        for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
            bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
        }
        return bytes;
    }

    static std::string hexOfBytes(const std::string& bytes) {
        static const char digits[] = "0123456789abcdef";
        std::string hex;
        for (const char c : bytes) {
            const auto byte = static_cast<unsigned char>(c);
            hex.push_back(digits[byte >> 4]);
            hex.push_back(digits[byte & 15]);
        }
        return hex;
    }

    /// The cipher text of `plain` in hexadecimal; `key` are 16 bytes, `ivHex` 32 digits.
    static std::string encrypt(const std::string& key, const std::string& ivHex,
                               const std::string& plain) {
        const std::string iv = bytesOfHex(ivHex);
        if (key.size() != 16 || iv.size() != 16) throw std::invalid_argument("key or IV");
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(
            EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
        std::string cipher(plain.size(), '\0');
        int length = 0;
        if (EVP_EncryptInit_ex(context.get(), EVP_aes_128_ctr(), nullptr, data(key), data(iv)) != 1)
            throw std::runtime_error("EVP_EncryptInit_ex");
        if (EVP_EncryptUpdate(context.get(), reinterpret_cast<unsigned char*>(cipher.data()),
                              &length, data(plain), static_cast<int>(plain.size())) != 1)
            throw std::runtime_error("EVP_EncryptUpdate");
        return hexOfBytes(cipher);
    }

  private:
    static const unsigned char* data(const std::string& bytes) {
        return reinterpret_cast<const unsigned char*>(bytes.data());
    }
};
