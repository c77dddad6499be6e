#include "ShellCommand.h"

#include "AlarmBlock.h"
#include "ClassLog.h"
#include "Descriptor.h"

#include <algorithm>
#include <stdexcept>
#include <thread>

#include <cctype>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

const ClassLog s_log("kivNetwork:");  // the commands are the network's, and so are their lines

using Clock = std::chrono::steady_clock;

constexpr std::size_t kLongestOutput = 1048576;         // bytes
constexpr std::chrono::milliseconds kLookForTheEnd(5);  // of a command that prints no more

struct FileActions {
    FileActions() { ::posix_spawn_file_actions_init(&actions); }
    ~FileActions() { ::posix_spawn_file_actions_destroy(&actions); }
    FileActions(const FileActions&) = delete;
    FileActions& operator=(const FileActions&) = delete;
    posix_spawn_file_actions_t actions;
};

struct Attributes {
    Attributes() { ::posix_spawnattr_init(&attributes); }
    ~Attributes() { ::posix_spawnattr_destroy(&attributes); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    posix_spawnattr_t attributes;
};

/// A shell command in a process group of its own, with the reading end of its standard output. Its
/// end kills what is left of the group, and leaves no dead process behind.
class RunningCommand {
  public:
    /// @throws std::runtime_error when it cannot be started
    explicit RunningCommand(const char* command) {
        if (!start(command)) throw std::runtime_error("popen() failed!");
    }
    ~RunningCommand() {
        if (m_process > 0) killAll();
    }
    RunningCommand(const RunningCommand&) = delete;
    RunningCommand& operator=(const RunningCommand&) = delete;

    /// Appends what it prints. @return false when it has not ended by then, or printed too much
    bool readAll(std::string& output, Clock::time_point end) const {
        char piece[4096];
        while (output.size() <= kLongestOutput && isReadable(end)) {
            const ssize_t got = ::read(m_output.get(), piece, sizeof piece);
            if (got == 0) return true;
            if (got > 0) output.append(piece, static_cast<std::size_t>(got));
        }
        return false;
    }

    /// @return false when it has not ended by then
    bool waitForEnd(Clock::time_point end) {
        while (::waitpid(m_process, nullptr, WNOHANG) == 0) {
            if (Clock::now() >= end) return false;
            std::this_thread::sleep_for(kLookForTheEnd);
        }
        m_process = -1;
        return true;
    }

  private:
    bool start(const char* command) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) return false;
        m_output = Descriptor(ends[0]);
        const Descriptor input(ends[1]);
        FileActions files;
        Attributes group;
        ::posix_spawn_file_actions_adddup2(&files.actions, input.get(), STDOUT_FILENO);
        ::posix_spawnattr_setflags(&group.attributes, POSIX_SPAWN_SETPGROUP);
        std::string line = command;
        char shell[] = "sh";
        char option[] = "-c";
        char* const words[] = {shell, option, line.data(), nullptr};
        const AlarmUnblock inherited;
        return ::posix_spawn(&m_process, "/bin/sh", &files.actions, &group.attributes, words,
                             environ) == 0;
    }

    bool isReadable(Clock::time_point end) const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) return false;
        pollfd wait{m_output.get(), POLLIN, 0};
        const int ready = ::poll(&wait, 1, static_cast<int>(left.count()));
        return ready > 0 || (ready < 0 && errno == EINTR && isReadable(end));
    }

    void killAll() {
        ::kill(-m_process, SIGKILL);
        while (::waitpid(m_process, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

    pid_t m_process = -1;
    Descriptor m_output;
};

/// Whether `host` may stand in a shell command.
bool isHostName(const std::string& host) {
    const auto belongs = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte >= 0x80 || std::isalnum(byte) != 0 || c == '.' || c == '-' || c == '_' ||
               c == ':';
    };
    return !host.empty() && host[0] != '-' && std::all_of(host.begin(), host.end(), belongs);
}

}  // namespace

std::chrono::milliseconds ShellCommand::m_limit(15000);

std::string ShellCommand::ping(const std::string& host) {
    if (!isHostName(host)) return "";
    return outputOf("ping -c 1 " + host);
}

std::string ShellCommand::macAddressOf(const std::string& interface) {
    constexpr std::size_t labelLength = 7;
    constexpr std::size_t macLength = 17;  // six pairs and their colons
    const std::string output = outputOf("ifconfig " + interface);
    const std::size_t at = output.find("HWaddr ");
    if (at == std::string::npos || at == 0) return "";
    if (output.size() < at + labelLength + macLength) return "";
    return output.substr(at + labelLength, macLength);
}

std::string ShellCommand::outputOf(const std::string& command) {
    try {
        return Exec(command.c_str());
    } catch (const std::runtime_error& error) {
        s_log.error("Command ", ClassLog::foreign(command), " not started: ", error.what());
        return "";
    }
}

std::string Exec(const char* command) {
    const Clock::time_point end = Clock::now() + ShellCommand::m_limit;
    RunningCommand running(command);
    std::string output;
    if (!running.readAll(output, end) || !running.waitForEnd(end)) {
        s_log.error("Command ", ClassLog::foreign(command), " killed: it ran longer than ",
                    ShellCommand::m_limit.count(), "ms, or printed too much");
    }
    return output;
}

std::string StringExtractBetween(std::string s, const std::string& from, const std::string& to) {
    const std::size_t first = s.find_first_of(from);
    if (first == std::string::npos) return s;
    s.erase(0, first + from.size());
    const std::size_t last = s.find_first_of(to);
    if (last != std::string::npos) s.erase(last);
    return s;
}

bool StringReplace(std::string& s, const std::string& what, const std::string& with) {
    const std::size_t at = s.find(what);
    if (at == std::string::npos) return false;
    s.replace(at, what.size(), with);
    return true;
}
