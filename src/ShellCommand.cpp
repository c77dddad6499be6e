#include "ShellCommand.h"

#include "AlarmBlock.h"
#include "ClassLog.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include <cctype>
#include <cstdio>

namespace {

const ClassLog s_log("kivNetwork:");  // the commands are the network's, and so are their lines

struct PipeClose {
    void operator()(FILE* pipe) const { ::pclose(pipe); }
};
using Pipe = std::unique_ptr<FILE, PipeClose>;

Pipe startCommand(const char* command) {
    const AlarmUnblock inherited;
    // "e": what another thread starts meanwhile does not inherit this end of the pipe.
    return Pipe(::popen(command, "re"));
}

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
        s_log.error("Command ", command, " not started: ", error.what());
        return "";
    }
}

std::string Exec(const char* command) {
    const Pipe pipe = startCommand(command);
    if (pipe == nullptr) throw std::runtime_error("popen() failed!");
    std::string output;
    char buffer[128];
    while (std::fgets(buffer, sizeof buffer, pipe.get()) != nullptr) output += buffer;
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
