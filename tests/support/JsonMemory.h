#pragma once

#include <cstdlib>

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
