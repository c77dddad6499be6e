#include "JsonArrayIterator.h"

JsonArrayIterator::JsonArrayIterator(const JsonObject& array) : m_array(array) {}

JsonArrayIterator& JsonArrayIterator::operator++() {
    if (*this) ++m_index;
    return *this;
}

JsonArrayIterator::operator bool() const {
    return m_index < m_array.getArraySize();
}

JsonObject JsonArrayIterator::current() const {
    return JsonObject::share(json_array_get(m_array.get(), m_index));
}
