#pragma once

#include <aws/core/AmazonWebServiceRequest.h>
#include <aws/core/utils/memory/stl/AWSString.h>

#include <utility>

namespace Aws {
namespace S3 {
namespace Model {

class GetObjectRequest {
  public:
    const String& GetBucket() const { return m_bucket; }
    void SetBucket(String bucket) { m_bucket = std::move(bucket); }
    const String& GetKey() const { return m_key; }
    void SetKey(String key) { m_key = std::move(key); }

    /// Where the response goes, chunk by chunk; unset means into memory. The document of a
    /// refusal goes there too, and its name and message are known only when the stream can be
    /// read.
    const IOStreamFactory& GetResponseStreamFactory() const { return m_factory; }
    void SetResponseStreamFactory(const IOStreamFactory& factory) { m_factory = factory; }

  private:
    String m_bucket;
    String m_key;
    IOStreamFactory m_factory;
};

}  // namespace Model
}  // namespace S3
}  // namespace Aws
