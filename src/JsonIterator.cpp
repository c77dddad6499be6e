#include "JsonIterator.h"

JsonIterator::JsonIterator(const JsonObject& object)
    : m_object(object), m_position(json_object_iter(object.get())) {}

void JsonIterator::advance() {
    m_position = json_object_iter_next(m_object.get(), m_position);
}

const char* JsonIterator::key() const {
    const char* key = json_object_iter_key(m_position);
    return key != nullptr ? key : "";
}

JsonObject JsonIterator::value() const {
    return JsonObject::share(json_object_iter_value(m_position));
}
