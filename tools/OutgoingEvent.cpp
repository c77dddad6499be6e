#include "OutgoingEvent.h"

#include "Failure.h"

#include <utility>

#include <errno.h>
#include <stdlib.h>

namespace {

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using TextPtr = std::unique_ptr<char, FreeDeleter>;

}  // namespace

OutgoingEvent::OutgoingEvent(JsonPtr value) : m_value(std::move(value)) {}

OutgoingEvent OutgoingEvent::build(const Parts& parts) {
    JsonPtr event(json_object());
    put(event.get(), "event-type", makeString("event type", parts.type));
    if (parts.data || parts.info) {
        JsonPtr data = parts.data ? parseArgument("data", *parts.data) : JsonPtr(json_object());
        if (parts.info) put(data.get(), "oob-info", parseArgument("--info", *parts.info));
        put(event.get(), "data", std::move(data));
    }
    if (parts.url) put(event.get(), "oob-url", makeString("--url", *parts.url));
    if (parts.kernelTime) {
        put(event.get(), "kernel-time", JsonPtr(json_integer(json_int_t{*parts.kernelTime})));
    }
    return OutgoingEvent(std::move(event));
}

OutgoingEvent OutgoingEvent::parse(std::string_view text) {
    JsonPtr event = parseObject(text);
    if (!json_is_string(json_object_get(event.get(), "event-type"))) {
        throw Failure(Status::BadJson, "no \"event-type\" string");
    }
    return OutgoingEvent(std::move(event));
}

void OutgoingEvent::dropSemaphore() {
    json_object_del(m_value.get(), "syncsem");
}

/// 15 digits keep 0.1 as it was typed, 17 keep every double.
std::string OutgoingEvent::text() const {
    for (unsigned digits = 15; digits <= 17; ++digits) {
        const TextPtr text(json_dumps(m_value.get(), JSON_COMPACT | JSON_REAL_PRECISION(digits)));
        if (!text) break;
        const JsonPtr again(json_loads(text.get(), 0, nullptr));
        if (again && json_equal(m_value.get(), again.get())) return text.get();
    }
    throw Failure(Status::System, "the event cannot be written as JSON");
}

OutgoingEvent::JsonPtr OutgoingEvent::parseObject(std::string_view text) {
    json_error_t error{};
    JsonPtr value(json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error));
    if (!value) {
        throw Failure(Status::BadJson,
                      std::string(error.text) + " (byte " + std::to_string(error.position) + ")");
    }
    if (!json_is_object(value.get())) throw Failure(Status::BadJson, "not a JSON object");
    return value;
}

/// Parses an argument; `name` says in the failure which one it was.
OutgoingEvent::JsonPtr OutgoingEvent::parseArgument(const std::string& name,
                                                    const std::string& text) {
    try {
        return parseObject(text);
    } catch (const Failure& failure) {
        throw Failure(failure.status(), name + ": " + failure.what());
    }
}

OutgoingEvent::JsonPtr OutgoingEvent::makeString(const std::string& name, const std::string& text) {
    JsonPtr value(json_stringn(text.data(), text.size()));
    if (!value) throw Failure(Status::BadJson, name + ": not valid UTF-8");
    return value;
}

void OutgoingEvent::put(json_t* object, const char* key, JsonPtr value) {
    if (json_object_set_new(object, key, value.release()) != 0) {
        throw Failure::ofSystem(key, ENOMEM);
    }
}
