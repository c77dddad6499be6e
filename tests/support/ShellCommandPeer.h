#pragma once

#include <chrono>

#include "ShellCommand.h"

/// How long commands may take, as long as the object lives.
class ShellCommandPeer {
  public:
    explicit ShellCommandPeer(std::chrono::milliseconds limit) { ShellCommand::m_limit = limit; }
    ~ShellCommandPeer() { ShellCommand::m_limit = m_before; }
    static std::chrono::milliseconds limit() { return ShellCommand::m_limit; }
    ShellCommandPeer(const ShellCommandPeer&) = delete;
    ShellCommandPeer& operator=(const ShellCommandPeer&) = delete;

  private:
    const std::chrono::milliseconds m_before = ShellCommand::m_limit;
};
