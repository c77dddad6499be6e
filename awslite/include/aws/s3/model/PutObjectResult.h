#pragma once

#include <aws/core/utils/memory/stl/AWSString.h>

#include <utility>

namespace Aws {
namespace S3 {
namespace Model {

class PutObjectResult {
  public:
    /// What the service calls this version of the object, quotes included; "" when the answer has
    /// none.
    const String& GetETag() const { return m_eTag; }
    void SetETag(String eTag) { m_eTag = std::move(eTag); }

  private:
    String m_eTag;
};

}  // namespace Model
}  // namespace S3
}  // namespace Aws
