#pragma once

#include <chrono>
#include <string>

/// The shell commands that tell about the network: `ping` and `ifconfig`.
///
/// Stateless. A call blocks until its command ends, for at most 15 s: then the command is killed,
/// with what it has started, and what it has printed so far is its output. The standard error is
/// not seen. The command inherits no pipe of another one, and is let have SIGALRM. Usable from any
/// thread. A command that cannot be started counts as one that prints nothing, with an error line.
class ShellCommand {
  public:
    /// What one `ping` of `host` prints. "" when `host` could be more than a host name: it becomes
    /// part of a shell command.
    static std::string ping(const std::string& host);
    /// The MAC address that `ifconfig` prints for `interface`; "" when it prints none.
    static std::string macAddressOf(const std::string& interface);

  private:
    friend class ShellCommandPeer;
    friend std::string Exec(const char* command);

    static std::string outputOf(const std::string& command);

    static std::chrono::milliseconds m_limit;  ///< of one command; constant while commands run
};

/// The standard output of a shell command, which is killed after 15 s or 1 MiB, with an error line.
/// @throws std::runtime_error when it cannot be started
std::string Exec(const char* command);
/// What stands between the first character out of `from` (skipping as many characters as `from`
/// has) and the next character out of `to`. `s` itself when no character of `from` is in it.
std::string StringExtractBetween(std::string s, const std::string& from, const std::string& to);
/// Replaces the first `what` in `s`; whether there was one.
bool StringReplace(std::string& s, const std::string& what, const std::string& with);
