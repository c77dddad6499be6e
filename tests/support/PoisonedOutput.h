#pragma once

#include <functional>
#include <ios>
#include <iostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>

/// Has `std::cout` throw at the first text that contains `poison`, as long as it lives; the stream
/// stays bad from then on, so that `onPoison` is to silence whoever writes on it. Writes nothing.
class PoisonedOutput {
  public:
    PoisonedOutput(std::string poison, std::function<void()> onPoison)
        : m_buffer(std::move(poison), std::move(onPoison)), m_saved(std::cout.rdbuf(&m_buffer)) {
        std::cerr.tie(nullptr);  // what it flushes first would throw
        std::cout.exceptions(std::ios::badbit);
    }
    ~PoisonedOutput() {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.clear();
        std::cout.rdbuf(m_saved);
        std::cerr.tie(&std::cout);
    }
    PoisonedOutput(const PoisonedOutput&) = delete;
    PoisonedOutput& operator=(const PoisonedOutput&) = delete;

  private:
    class Buffer : public std::streambuf {
      public:
        Buffer(std::string poison, std::function<void()> onPoison)
            : m_poison(std::move(poison)), m_onPoison(std::move(onPoison)) {}

      private:
        std::streamsize xsputn(const char* text, std::streamsize size) override {
            const std::string written(text, static_cast<std::size_t>(size));
            if (written.find(m_poison) == std::string::npos) return size;
            m_onPoison();
            throw std::runtime_error("poisoned");
        }
        int overflow(int character) override { return character; }

        std::string m_poison;
        std::function<void()> m_onPoison;
    };

    Buffer m_buffer;
    std::streambuf* m_saved;
};
