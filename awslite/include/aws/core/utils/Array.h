#pragma once

#include <cstddef>
#include <vector>

namespace Aws {
namespace Utils {

/// A block of values that belongs to the object.
template <typename T>
class Array {
  public:
    explicit Array(size_t length = 0) : m_values(length) {}
    Array(const T* values, size_t length) {
        if (values != nullptr) m_values.assign(values, values + length);
    }

    size_t GetLength() const { return m_values.size(); }
    T* GetUnderlyingData() { return m_values.data(); }
    const T* GetUnderlyingData() const { return m_values.data(); }
    T& operator[](size_t index) { return m_values[index]; }
    const T& operator[](size_t index) const { return m_values[index]; }
    bool operator==(const Array& other) const { return m_values == other.m_values; }
    bool operator!=(const Array& other) const { return !(*this == other); }

  private:
    std::vector<T> m_values;
};

using ByteBuffer = Array<unsigned char>;

}  // namespace Utils
}  // namespace Aws
