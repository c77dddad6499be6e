#pragma once

#include <aws/core/utils/memory/stl/AWSStreamFwd.h>

#include <memory>
#include <utility>

namespace Aws {
namespace S3 {
namespace Model {

/// Owns the stream that the object was written into; movable, not copyable.
class GetObjectResult {
  public:
    GetObjectResult() = default;
    explicit GetObjectResult(std::unique_ptr<IOStream> body) : m_body(std::move(body)) {}

    /// Only of a call that succeeded.
    IOStream& GetBody() const { return *m_body; }

  private:
    std::unique_ptr<IOStream> m_body;
};

}  // namespace Model
}  // namespace S3
}  // namespace Aws
