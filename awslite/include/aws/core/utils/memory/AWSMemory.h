#pragma once

#include <memory>
#include <utility>

namespace Aws {

/// The tag names the allocating component; the subset does not use it.
template <typename T, typename... Args>
std::shared_ptr<T> MakeShared(const char* /*tag*/, Args&&... args) {
    return std::make_shared<T>(std::forward<Args>(args)...);
}

template <typename T, typename... Args>
std::unique_ptr<T> MakeUnique(const char* /*tag*/, Args&&... args) {
    return std::make_unique<T>(std::forward<Args>(args)...);
}

/// An object that the caller (or the client it is given to) frees with `Delete`.
template <typename T, typename... Args>
T* New(const char* tag, Args&&... args) {
    return MakeUnique<T>(tag, std::forward<Args>(args)...).release();
}

template <typename T>
void Delete(T* object) {
    const std::unique_ptr<T> owner(object);
}

}  // namespace Aws
