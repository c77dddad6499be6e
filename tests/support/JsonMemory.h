#pragma once

#include <cstdlib>
#include <iostream>
#include <optional>
#include <streambuf>
#include <string>
#include <utility>

#include <jansson.h>

/// No JSON value can be made as long as this lives: the library gets no memory.
class NoJsonMemory {
  public:
    NoJsonMemory() {
        json_get_alloc_funcs(&m_malloc, &m_free);
        json_set_alloc_funcs([](std::size_t) -> void* { return nullptr; }, m_free);
    }
    ~NoJsonMemory() { json_set_alloc_funcs(m_malloc, m_free); }
    NoJsonMemory(const NoJsonMemory&) = delete;
    NoJsonMemory& operator=(const NoJsonMemory&) = delete;

  private:
    json_malloc_t m_malloc = nullptr;
    json_free_t m_free = nullptr;
};

/// The same from the moment on when a text that contains `moment` is written on standard output,
/// which shows nothing meanwhile.
class NoJsonMemoryFrom : public std::streambuf {
  public:
    explicit NoJsonMemoryFrom(std::string moment)
        : m_moment(std::move(moment)), m_before(std::cout.rdbuf(this)) {}
    ~NoJsonMemoryFrom() override { std::cout.rdbuf(m_before); }

    bool hasCome() const { return m_noMemory.has_value(); }

  private:
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        const std::string written(text, static_cast<std::size_t>(size));
        if (!hasCome() && written.find(m_moment) != std::string::npos) m_noMemory.emplace();
        return size;
    }
    int overflow(int character) override { return character; }

    std::string m_moment;
    std::streambuf* m_before;
    std::optional<NoJsonMemory> m_noMemory;
};
