#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <jansson.h>

/// One event as a JSON object, checked, and its text for the queue.
///
/// It does not read the command line and does not know the queue; only its failures call the parts
/// by the names that they have on the command line ("data", "--info"). It owns its JSON value and
/// is used by one thread. What is not a usable event is a Failure of the status BadJson.
class OutgoingEvent {
  public:
    /// What an event is made of; the texts of `data` and `info` are JSON objects.
    struct Parts {
        std::string type;
        std::optional<std::string> data;
        std::optional<std::string> url;          ///< the announced file
        std::optional<std::string> info;         ///< the description of that file
        std::optional<std::int64_t> kernelTime;  ///< monotonic milliseconds
    };

    /// The event made of `parts`.
    static OutgoingEvent build(const Parts& parts);
    /// The event whose whole JSON text is `text`.
    static OutgoingEvent parse(std::string_view text);

    /// Forgets the semaphore that the event's text names.
    void dropSemaphore();

    /// The compact text, with the fewest digits that read back as the same numbers.
    std::string text() const;

  private:
    struct Deleter {
        void operator()(json_t* value) const { json_decref(value); }
    };
    using JsonPtr = std::unique_ptr<json_t, Deleter>;

    explicit OutgoingEvent(JsonPtr value);

    static JsonPtr parseObject(std::string_view text);
    static JsonPtr parseArgument(const std::string& name, const std::string& text);
    static JsonPtr makeString(const std::string& name, const std::string& text);
    static void put(json_t* object, const char* key, JsonPtr value);

    JsonPtr m_value;
};
