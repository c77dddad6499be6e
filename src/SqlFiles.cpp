#include "SqlFiles.h"

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>
#include <vector>

#include <sqlite3.h>

namespace {

struct Connection {
    std::string file;
    sqlite3* handle;  // borrowed; open as long as it stands here
    std::function<void()> close;

    bool isInUse() const {
        return !close || sqlite3_get_autocommit(handle) == 0 ||
               sqlite3_next_stmt(handle, nullptr) != nullptr;
    }
};

struct State {
    std::mutex mutex;  // guards all below
    std::map<const void*, Connection> open;
    std::set<std::string> damaged;
    std::set<std::string> withoutWal;
};

State& state() {
    static State all;
    return all;
}

std::atomic<bool> s_anyDamage{false};

}  // namespace

void SqlFiles::add(const void* connection, const std::string& file, sqlite3* handle,
                   std::function<void()> close) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().open[connection] = {file, handle, std::move(close)};
}

void SqlFiles::remove(const void* connection) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().open.erase(connection);
}

bool SqlFiles::closeAll(const std::string& file) {
    std::vector<std::function<void()>> closings;
    {
        const std::lock_guard<std::mutex> lock(state().mutex);
        for (const auto& [connection, entry] : state().open) {
            if (entry.file != file) continue;
            if (entry.isInUse()) return false;
            closings.push_back(entry.close);
        }
    }
    for (const auto& close : closings) close();  // without the mutex: each removes itself
    return true;
}

void SqlFiles::noteDamage(const std::string& file) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().damaged.insert(file);
    s_anyDamage = true;
}

void SqlFiles::forgetDamage(const std::string& file) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().damaged.erase(file);
    s_anyDamage = !state().damaged.empty();
}

bool SqlFiles::isDamaged(const std::string& file) {
    if (!s_anyDamage) return false;
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().damaged.count(file) != 0;
}

void SqlFiles::noteThatWalIsRefused(const std::string& file) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().withoutWal.insert(file);
}

bool SqlFiles::refusesWal(const std::string& file) {
    const std::lock_guard<std::mutex> lock(state().mutex);
    return state().withoutWal.count(file) != 0;
}

void SqlFiles::forgetAll() {
    const std::lock_guard<std::mutex> lock(state().mutex);
    state().damaged.clear();
    state().withoutWal.clear();
    s_anyDamage = false;
}
