#pragma once

#include <utility>

namespace Aws {
namespace Utils {

/// Either the result of a call or its error. The data of a result (a file that a response was
/// streamed into) is complete for other readers once the outcome is gone.
template <typename R, typename E>
class Outcome {
  public:
    Outcome() = default;
    Outcome(R&& result) : m_result(std::move(result)), m_success(true) {}
    Outcome(const E& error) : m_error(error) {}
    Outcome(E&& error) : m_error(std::move(error)) {}

    bool IsSuccess() const { return m_success; }
    const R& GetResult() const { return m_result; }
    R& GetResult() { return m_result; }
    R&& GetResultWithOwnership() { return std::move(m_result); }
    const E& GetError() const { return m_error; }

  private:
    R m_result;
    E m_error;
    bool m_success = false;
};

}  // namespace Utils
}  // namespace Aws
