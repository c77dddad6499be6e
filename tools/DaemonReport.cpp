#include "DaemonReport.h"

#include <filesystem>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

constexpr const char* kDaemon = "kivApp";

std::string firstLine(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

/// Whether one of the words of its command line is the daemon's name: an emulator may run it.
bool isDaemon(const fs::path& process) {
    if (firstLine(process / "comm") == kDaemon) return true;
    const std::string words = firstLine(process / "cmdline");
    for (std::size_t at = 0; at < words.size();) {
        const std::string word = words.c_str() + at;
        if (word.substr(word.find_last_of('/') + 1) == kDaemon) return true;
        at += word.size() + 1;
    }
    return false;
}

/// A running daemon's process; 0 when none is seen. Only those of our queues: one of another
/// container is not ours.
long long findDaemon() {
    std::error_code error;
    const fs::path queues = fs::read_symlink("/proc/self/ns/ipc", error);
    for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        if (firstLine(entry->path() / "comm") != kDaemon) continue;
        std::error_code hidden;
        const fs::path others = fs::read_symlink(entry->path() / "ns/ipc", hidden);
        if (hidden || others == queues) return std::stoll(name);
    }
    return 0;
}

}  // namespace

DaemonReport::DaemonReport(const std::string& path)
    : m_path(path), m_document(JsonObject::loadFile(path)) {
    m_process = m_document.optInteger("pid", 0);
    m_running = m_process > 0 && isDaemon("/proc/" + std::to_string(m_process));
    if (m_running) return;
    m_process = findDaemon();
    m_running = m_process > 0;
    if (m_running) m_document = JsonObject();  // it is another one's
}

std::int64_t DaemonReport::count(const char* name) const {
    return m_document.getObject("counts").optInteger(name, 0);
}

std::int64_t DaemonReport::fact(const char* name) const {
    return m_document.getObject("facts").optInteger(name, 0);
}

DaemonReport::Answers DaemonReport::answers(const char* target) const {
    const JsonObject object = m_document.getObject("targets").getObject(target);
    Answers answers;
    answers.requests = object.optInteger("requests", 0);
    answers.failures = object.optInteger("failures", 0);
    answers.lastSuccess = object.optInteger("last-success", 0);
    answers.lastFailure = object.optInteger("last-failure", 0);
    answers.fails = object.optInteger("fails", 0) != 0;
    answers.unreachable = object.optInteger("unreachable", 0) != 0;
    answers.error = object.optString("error");
    return answers;
}

std::string DaemonReport::file(const char* name) const {
    return m_document.getObject("paths").optString(name);
}
