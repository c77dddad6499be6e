#pragma once

#include <aws/core/utils/memory/stl/AWSString.h>

#include <utility>

namespace Aws {
namespace Firehose {
namespace Model {

class PutRecordResult {
  public:
    /// The identifier that the service gave the record; "" when the answer has none.
    const String& GetRecordId() const { return m_recordId; }
    void SetRecordId(String recordId) { m_recordId = std::move(recordId); }

  private:
    String m_recordId;
};

}  // namespace Model
}  // namespace Firehose
}  // namespace Aws
