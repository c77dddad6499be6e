#pragma once

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <set>
#include <string>

/// The threads of this process that were not there when it was made. Threads that an earlier test
/// left, and that end meanwhile, do not count.
class NewThreads {
  public:
    NewThreads() : m_before(threads()) {}

    std::ptrdiff_t count() const {
        const std::set<std::string> now = threads();
        return std::count_if(now.begin(), now.end(), [this](const std::string& thread) {
            return m_before.count(thread) == 0;
        });
    }

  private:
    /// Their folders: each is named after the number of its thread.
    static std::set<std::string> threads() {
        std::set<std::string> found;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
            found.insert(task.path().string());
        return found;
    }

    std::set<std::string> m_before;
};
