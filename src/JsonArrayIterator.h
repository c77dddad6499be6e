#pragma once

#include "JsonObject.h"

/// Walks the elements of an array and keeps the array alive.
class JsonArrayIterator {
  public:
    explicit JsonArrayIterator(const JsonObject& array);

    JsonArrayIterator& operator++();  ///< clamped to the array's size
    explicit operator bool() const;   ///< whether there is an element here
    JsonObject current() const;
    unsigned int index() const { return m_index; }

  private:
    unsigned int m_index = 0;
    JsonObject m_array;
};
