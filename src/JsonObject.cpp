#include "JsonObject.h"

#include "JsonText.h"
#include "RegularFile.h"

#include <iostream>
#include <sstream>
#include <utility>

#include <cstdarg>

namespace {

std::string textOf(const json_t* value) {
    const char* text = json_string_value(value);
    return text != nullptr ? std::string(text, json_string_length(value)) : std::string();
}

}  // namespace

// json_incref and json_decref take null and leave values with the static count (true, false,
// null) alone.
JsonObject::JsonObject(const JsonObject& other) : m_value(json_incref(other.m_value)) {}

JsonObject::JsonObject(JsonObject&& other) noexcept
    : m_value(std::exchange(other.m_value, nullptr)) {}

JsonObject& JsonObject::operator=(const JsonObject& other) {
    JsonObject copy(other);
    std::swap(m_value, copy.m_value);
    return *this;
}

JsonObject& JsonObject::operator=(JsonObject&& other) noexcept {
    JsonObject taken(std::move(other));
    std::swap(m_value, taken.m_value);
    return *this;
}

JsonObject::~JsonObject() {
    json_decref(m_value);
    m_value = nullptr;
}

JsonObject JsonObject::adopt(json_t* value) {
    return JsonObject(value);
}

JsonObject JsonObject::share(json_t* value) {
    return JsonObject(json_incref(value));
}

JsonObject JsonObject::parse(const std::string& text, std::size_t flags) {
    return adopt(flags == 0 ? JsonText::read(text.c_str())
                            : json_loads(text.c_str(), flags, nullptr));
}

JsonObject JsonObject::loadFile(const std::string& path, std::size_t flags) {
    return loadFile(RegularFile(path), flags);
}

JsonObject JsonObject::loadFile(const RegularFile& file, std::size_t flags) {
    if (!file.isRead()) return JsonObject();
    return adopt(json_loadb(file.text().data(), file.text().size(), flags, nullptr));
}

JsonObject JsonObject::createInteger(long long value) {
    return adopt(json_integer(static_cast<json_int_t>(value)));
}

JsonObject JsonObject::createObject() {
    return adopt(json_object());
}

JsonObject JsonObject::createArray() {
    return adopt(json_array());
}

int JsonObject::set(const char* key, const JsonObject& value) {
    return json_object_set_new(m_value, key, json_incref(value.m_value));
}

int JsonObject::set(const char* key, const std::string& value) {
    return json_object_set_new(m_value, key, json_stringn(value.data(), value.size()));
}

bool JsonObject::del(const char* key) {
    return json_object_del(m_value, key) != 0;
}

int JsonObject::append(const JsonObject& value) {
    return json_array_append_new(m_value, json_incref(value.m_value));
}

bool JsonObject::Pack(const char* format, ...) {
    json_error_t error;
    va_list arguments;
    va_start(arguments, format);
    json_t* packed = json_vpack_ex(&error, 0, format, arguments);
    va_end(arguments);

    // Dropped only now: the arguments may have borrowed from the old value.
    *this = adopt(packed);
    if (m_value == nullptr) {
        std::cerr << "Error in Pack: " << error.source << "(" << error.line << ", " << error.column
                  << "): " << error.text << std::endl;
    }
    return m_value != nullptr;
}

JsonObject JsonObject::getObject(const char* key) const {
    return share(json_object_get(m_value, key));
}

bool JsonObject::isObject() const {
    return json_is_object(m_value);
}

bool JsonObject::isArray() const {
    return json_is_array(m_value);
}

bool JsonObject::isString() const {
    return json_is_string(m_value);
}

bool JsonObject::isInteger() const {
    return json_is_integer(m_value);
}

bool JsonObject::isReal() const {
    return json_is_real(m_value);
}

bool JsonObject::isNumber() const {
    return json_is_number(m_value);
}

bool JsonObject::isTrue() const {
    return json_is_true(m_value);
}

bool JsonObject::isJsonNull() const {
    return json_is_null(m_value);
}

bool JsonObject::equals(const JsonObject& other) const {
    return json_equal(m_value, other.m_value) != 0;
}

std::string JsonObject::dumpAsString() const {
    if (!isObject() && !isArray()) return "(no json object)";
    std::string text;
    if (!JsonText::write(m_value, text)) text = "(invalid json string)";
    return text;
}

std::string JsonObject::getStringRep() const {
    if (m_value == nullptr) return "(invalid json obj)";
    switch (json_typeof(m_value)) {
        case JSON_OBJECT:
        case JSON_ARRAY:
            return dumpAsString();
        case JSON_INTEGER:
            return std::to_string(getAsInteger());
        case JSON_REAL: {
            std::ostringstream text;
            text << json_real_value(m_value);
            return text.str();
        }
        case JSON_STRING:
            return getAsString();
        case JSON_TRUE:
            return "(true)";
        case JSON_FALSE:
            return "(false)";
        case JSON_NULL:
            return "(json null)";
    }
    return "(unsupported json type)";
}

std::string JsonObject::getAsString() const {
    return textOf(m_value);
}

long long JsonObject::getAsInteger() const {
    return json_integer_value(m_value);
}

double JsonObject::getAsNumber() const {
    return json_number_value(m_value);
}

long long JsonObject::optInteger(const char* key, long long def) const {
    const json_t* member = json_object_get(m_value, key);
    return json_is_integer(member) ? json_integer_value(member) : def;
}

double JsonObject::optDouble(const char* key, double def) const {
    const json_t* member = json_object_get(m_value, key);
    return json_is_real(member) ? json_real_value(member) : def;
}

std::string JsonObject::optString(const char* key) const {
    return textOf(json_object_get(m_value, key));
}

std::string JsonObject::optString(const char* key, std::string& def) const {
    const json_t* member = json_object_get(m_value, key);
    return json_is_string(member) ? textOf(member) : def;
}

std::size_t JsonObject::getArraySize() const {
    return json_array_size(m_value);
}

std::ostream& operator<<(std::ostream& out, const JsonObject& value) {
    return out << value.getStringRep();
}
