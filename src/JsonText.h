#pragma once

#include <string>

struct json_t;

/// JSON text to value and back, exactly as `json_loads` and `json_dumps` do with flags 0, but at a
/// fraction of their time where the text is plain, as that of most events is.
///
/// Plain are objects, arrays, integers, literals and printable ASCII, nested up to 32 levels. Each
/// other text or number is handed to jansson, and so is the whole of what is nested more deeply or
/// is not JSON: jansson alone decides what is refused. No state; reentrant, but a value must not be
/// changed while it is written.
class JsonText {
  public:
    /// @param text up to its NUL
    /// @return an object or array with one reference, the caller's; null when it does not parse
    static json_t* read(const char* text);

    /// @param value an object or an array
    /// @param text becomes the text; unspecified on failure
    /// @return false when jansson cannot write it: a text that is not UTF-8, a value that contains
    /// itself
    static bool write(json_t* value, std::string& text);
};
