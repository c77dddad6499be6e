#include <aws/core/utils/HashingUtils.h>

#include <istream>
#include <memory>

#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace Aws {
namespace Utils {

namespace {

struct DigestFree {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

/// A digest fed piece by piece; once a step has failed the result is empty.
class Digest {
  public:
    explicit Digest(const EVP_MD* kind) : m_context(EVP_MD_CTX_new()) {
        m_sound = m_context && EVP_DigestInit_ex(m_context.get(), kind, nullptr) == 1;
    }

    void add(const void* data, size_t size) {
        m_sound = m_sound && EVP_DigestUpdate(m_context.get(), data, size) == 1;
    }

    ByteBuffer finish() {
        unsigned char value[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        m_sound = m_sound && EVP_DigestFinal_ex(m_context.get(), value, &size) == 1;
        return m_sound ? ByteBuffer(value, size) : ByteBuffer();
    }

  private:
    std::unique_ptr<EVP_MD_CTX, DigestFree> m_context;
    bool m_sound = false;
};

ByteBuffer digestOf(const String& text, const EVP_MD* kind) {
    Digest digest(kind);
    digest.add(text.data(), text.size());
    return digest.finish();
}

ByteBuffer digestOf(IOStream& stream, const EVP_MD* kind) {
    const std::streamoff before = stream.tellg();
    stream.clear();
    stream.seekg(0, std::ios::beg);
    Digest digest(kind);
    char buffer[8192];
    while (stream.read(buffer, sizeof buffer) || stream.gcount() > 0) {
        digest.add(buffer, static_cast<size_t>(stream.gcount()));
    }
    stream.clear();
    stream.seekg(before < 0 ? 0 : before, std::ios::beg);
    return digest.finish();
}

}  // namespace

String HashingUtils::Base64Encode(const ByteBuffer& bytes) {
    static constexpr char alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    String text;
    text.reserve((bytes.GetLength() + 2) / 3 * 4);
    for (size_t at = 0; at < bytes.GetLength(); at += 3) {
        const size_t left = bytes.GetLength() - at;
        const unsigned group = static_cast<unsigned>(bytes[at]) << 16 |
                               (left > 1 ? static_cast<unsigned>(bytes[at + 1]) << 8 : 0U) |
                               (left > 2 ? static_cast<unsigned>(bytes[at + 2]) : 0U);
        text += alphabet[group >> 18];
        text += alphabet[group >> 12 & 63];
        text += left > 1 ? alphabet[group >> 6 & 63] : '=';
        text += left > 2 ? alphabet[group & 63] : '=';
    }
    return text;
}

String HashingUtils::HexEncode(const ByteBuffer& bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    String text;
    text.reserve(2 * bytes.GetLength());
    for (size_t at = 0; at < bytes.GetLength(); ++at) {
        text += digits[bytes[at] >> 4];
        text += digits[bytes[at] & 15];
    }
    return text;
}

ByteBuffer HashingUtils::CalculateMD5(const String& text) {
    return digestOf(text, EVP_md5());
}

ByteBuffer HashingUtils::CalculateMD5(IOStream& stream) {
    return digestOf(stream, EVP_md5());
}

ByteBuffer HashingUtils::CalculateSHA256(const String& text) {
    return digestOf(text, EVP_sha256());
}

ByteBuffer HashingUtils::CalculateSHA256(IOStream& stream) {
    return digestOf(stream, EVP_sha256());
}

ByteBuffer HashingUtils::CalculateSHA256HMAC(const ByteBuffer& text, const ByteBuffer& key) {
    static constexpr unsigned char none[1] = {0};  // a null key would mean "the key of before"
    const unsigned char* keyData = key.GetLength() == 0 ? none : key.GetUnderlyingData();
    unsigned char value[EVP_MAX_MD_SIZE];
    unsigned int size = 0;
    const unsigned char* made = HMAC(EVP_sha256(), keyData, static_cast<int>(key.GetLength()),
                                     text.GetUnderlyingData(), text.GetLength(), value, &size);
    return made == nullptr ? ByteBuffer() : ByteBuffer(value, size);
}

}  // namespace Utils
}  // namespace Aws
