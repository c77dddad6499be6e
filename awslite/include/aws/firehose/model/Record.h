#pragma once

#include <aws/core/utils/Array.h>

#include <utility>

namespace Aws {
namespace Firehose {
namespace Model {

/// The bytes of one record, sent in Base64.
class Record {
  public:
    const Utils::ByteBuffer& GetData() const { return m_data; }
    void SetData(Utils::ByteBuffer data) { m_data = std::move(data); }
    Record& WithData(Utils::ByteBuffer data) {
        SetData(std::move(data));
        return *this;
    }

  private:
    Utils::ByteBuffer m_data;
};

}  // namespace Model
}  // namespace Firehose
}  // namespace Aws
