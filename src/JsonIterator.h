#pragma once

#include "JsonObject.h"

/// Walks the members of an object in jansson's order and keeps the object alive. The object must
/// not change meanwhile. Ends at once for a value that is not an object.
class JsonIterator {
  public:
    explicit JsonIterator(const JsonObject& object);

    bool atEnd() const { return m_position == nullptr; }
    void advance();
    const char* key() const;   ///< valid while the member exists
    JsonObject value() const;  ///< with a reference taken

  private:
    JsonObject m_object;
    void* m_position;
};
