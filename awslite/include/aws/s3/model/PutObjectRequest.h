#pragma once

#include <aws/core/utils/memory/stl/AWSStreamFwd.h>
#include <aws/core/utils/memory/stl/AWSString.h>

#include <memory>
#include <utility>

namespace Aws {
namespace S3 {
namespace Model {

/// One object to store. The body is read during the call, from its beginning.
class PutObjectRequest {
  public:
    const String& GetBucket() const { return m_bucket; }
    void SetBucket(String bucket) { m_bucket = std::move(bucket); }
    const String& GetKey() const { return m_key; }
    void SetKey(String key) { m_key = std::move(key); }

    /// No body means an empty object.
    const std::shared_ptr<IOStream>& GetBody() const { return m_body; }
    void SetBody(const std::shared_ptr<IOStream>& body) { m_body = body; }

    /// In bytes; -1 (unset) means the length of the body.
    long long GetContentLength() const { return m_contentLength; }
    void SetContentLength(long long length) { m_contentLength = length; }

    /// The MD5 of the body in Base64 (RFC 1864), so that the service refuses a damaged one.
    const String& GetContentMD5() const { return m_contentMD5; }
    void SetContentMD5(String md5) { m_contentMD5 = std::move(md5); }

    const String& GetContentType() const { return m_contentType; }
    void SetContentType(String type) { m_contentType = std::move(type); }

  private:
    String m_bucket;
    String m_key;
    std::shared_ptr<IOStream> m_body;
    long long m_contentLength = -1;
    String m_contentMD5;
    String m_contentType;
};

}  // namespace Model
}  // namespace S3
}  // namespace Aws
