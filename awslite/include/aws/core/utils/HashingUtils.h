#pragma once

#include <aws/core/utils/Array.h>
#include <aws/core/utils/memory/stl/AWSStreamFwd.h>
#include <aws/core/utils/memory/stl/AWSString.h>

namespace Aws {
namespace Utils {

/// Digests and encodings. Any thread. Where libcrypto refuses a digest (MD5 in a restricted
/// build) the result is empty.
class HashingUtils {
  public:
    /// RFC 4648 section 4, with padding and without line breaks.
    static String Base64Encode(const ByteBuffer& bytes);
    /// Lower-case hexadecimal.
    static String HexEncode(const ByteBuffer& bytes);

    /// RFC 1321.
    static ByteBuffer CalculateMD5(const String& text);
    /// Digests the stream from its beginning and puts it back where it was, good for sending.
    static ByteBuffer CalculateMD5(IOStream& stream);

    /// FIPS 180-4.
    static ByteBuffer CalculateSHA256(const String& text);
    static ByteBuffer CalculateSHA256(IOStream& stream);
    /// RFC 2104 with SHA-256.
    static ByteBuffer CalculateSHA256HMAC(const ByteBuffer& text, const ByteBuffer& key);
};

}  // namespace Utils
}  // namespace Aws
