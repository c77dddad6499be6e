#pragma once

#include <cstddef>
#include <ostream>
#include <string>

#include <jansson.h>

class RegularFile;

/// An owning, reference-counted handle on one jansson value; it may be null ("null handle").
///
/// Getters never throw: a missing member or a wrong type gives the default. Not locked, and
/// jansson's counts are plain integers: a value must not be reachable through handles on two
/// threads at once; hand it over by moving the last handle.
class JsonObject {
  public:
    JsonObject() = default;
    JsonObject(const JsonObject& other);
    JsonObject(JsonObject&& other) noexcept;
    JsonObject& operator=(const JsonObject& other);
    JsonObject& operator=(JsonObject&& other) noexcept;
    ~JsonObject();

    /// A handle that takes over the caller's reference on `value` (which may be null).
    static JsonObject adopt(json_t* value);
    /// A handle on a borrowed `value` (which may be null): takes a reference of its own.
    static JsonObject share(json_t* value);
    /// `json_loads` of the whole text (RFC 8259); a null handle when it does not parse.
    static JsonObject parse(const std::string& text, std::size_t flags = 0);
    /// The text of a file as `json_load_file` parses it; a null handle when the file is missing,
    /// is not a regular file of at most 1 MiB, or does not parse. Never waits for a pipe.
    static JsonObject loadFile(const std::string& path, std::size_t flags = 0);
    /// The same of a file that was read already.
    static JsonObject loadFile(const RegularFile& file, std::size_t flags = 0);
    static JsonObject createInteger(long long value);
    static JsonObject createObject();
    static JsonObject createArray();

    /// Sets the member `key`; returns jansson's result (0 = success).
    int set(const char* key, const JsonObject& value);
    int set(const char* key, const std::string& value);
    /// Deletes the member. Inverted on purpose: true when the deletion FAILED.
    bool del(const char* key);
    /// Appends to an array, taking a reference; returns jansson's result (0 = success).
    int append(const JsonObject& value);
    /// Replaces the value by one built with `json_vpack_ex`. Each argument must have exactly the
    /// C type of its letter. On failure one "Error in Pack: " line on `std::cerr`, a null handle
    /// and false.
    bool Pack(const char* format, ...);

    /// The member with a reference taken; a null handle when absent or when this is not an object.
    JsonObject getObject(const char* key) const;

    bool isNull() const { return m_value == nullptr; }  ///< a null handle (not JSON null)
    bool isObject() const;
    bool isArray() const;
    bool isString() const;
    bool isInteger() const;
    bool isReal() const;
    bool isNumber() const;
    bool isTrue() const;
    bool isJsonNull() const;
    /// `json_equal`; two null handles are not equal.
    bool equals(const JsonObject& other) const;

    /// Object or array as text (flags 0); "(invalid json string)" when dumping fails,
    /// "(no json object)" for any other value or a null handle.
    std::string dumpAsString() const;
    /// The printable form of any value; never fails.
    std::string getStringRep() const;
    /// The string value; empty for anything that is not a string.
    std::string getAsString() const;
    long long getAsInteger() const;  ///< 0 for anything that is not an integer
    double getAsNumber() const;      ///< an integer or a real as double, else 0

    long long optInteger(const char* key, long long def) const;
    double optDouble(const char* key, double def) const;  ///< reals only: an integer gives `def`
    std::string optString(const char* key) const;
    std::string optString(const char* key, std::string& def) const;

    std::size_t getArraySize() const;  ///< 0 for a null handle or a value that is not an array

    json_t* get() const { return m_value; }  ///< borrowed

  private:
    explicit JsonObject(json_t* owned) : m_value(owned) {}

    json_t* m_value = nullptr;
};

/// Writes `getStringRep()`.
std::ostream& operator<<(std::ostream& out, const JsonObject& value);
