#pragma once

#include <aws/core/utils/memory/stl/AWSString.h>
#include <aws/firehose/model/Record.h>

#include <utility>

namespace Aws {
namespace Firehose {
namespace Model {

class PutRecordRequest {
  public:
    const String& GetDeliveryStreamName() const { return m_deliveryStreamName; }
    void SetDeliveryStreamName(String name) { m_deliveryStreamName = std::move(name); }
    const Record& GetRecord() const { return m_record; }
    void SetRecord(Record record) { m_record = std::move(record); }

    /// The body of the request: a JSON object with "DeliveryStreamName" and "Record". Empty when
    /// the name is not a UTF-8 text.
    String SerializePayload() const;

  private:
    String m_deliveryStreamName;
    Record m_record;
};

}  // namespace Model
}  // namespace Firehose
}  // namespace Aws
