#pragma once

#include <atomic>
#include <ios>
#include <iostream>
#include <streambuf>
#include <string>
#include <utility>

#include <time.h>

/// Holds, in a wait that can be cancelled, whoever writes a text that contains `moment` on
/// standard output. Writes nothing.
class HoldingOutput : public std::streambuf {
  public:
    explicit HoldingOutput(std::string moment)
        : m_moment(std::move(moment)), m_before(std::cout.rdbuf(this)) {}
    ~HoldingOutput() override {
        release();
        std::cout.rdbuf(m_before);
    }

    bool holds() const { return m_holds; }
    void release() { m_released = true; }

  private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        if (std::string(text, static_cast<std::size_t>(size)).find(m_moment) != std::string::npos) {
            m_holds = true;
            const timespec step = {0, 1000000};
            while (!m_released) ::nanosleep(&step, nullptr);
        }
        return size;
    }
    int overflow(int character) override { return character; }

    std::string m_moment;
    std::streambuf* m_before;
    std::atomic<bool> m_holds{false};
    std::atomic<bool> m_released{false};
};
