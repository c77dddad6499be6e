#include "JsonText.h"

#include <exception>
#include <memory>

#include <cstddef>
#include <cstring>

#include <jansson.h>

namespace {

/// Beyond this jansson takes over: it has a limit, and finds values that contain themselves.
constexpr int kMostLevels = 32;

/// Most events need no second allocation.
constexpr std::size_t kUsualSize = 384;

/// Whatever has no more digits is an integer of 64 bits.
constexpr int kMostDigits = 18;

struct Release {
    void operator()(json_t* value) const { json_decref(value); }
};

using Owned = std::unique_ptr<json_t, Release>;

/// Whether the character stands for itself between quotes.
bool isPlain(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

/// A machine word of characters at once: most of an event is text, and each character is looked at
/// when it is read and when it is written.
using Word = std::size_t;

constexpr Word inEachByte(unsigned char byte) {
    return ~Word{0} / 255 * byte;
}

/// Whether a byte is below `limit`, which is at most 128.
constexpr bool hasBelow(Word bytes, unsigned char limit) {
    return ((bytes - inEachByte(limit)) & ~bytes & inEachByte(0x80)) != 0;
}

constexpr bool isPlain(Word bytes) {
    return (bytes & inEachByte(0x80)) == 0 && !hasBelow(bytes, 0x20) &&
           !hasBelow(bytes ^ inEachByte('"'), 1) && !hasBelow(bytes ^ inEachByte('\\'), 1);
}

const char* endOfPlain(const char* at, const char* end) {
    for (Word bytes = 0; end - at >= static_cast<std::ptrdiff_t>(sizeof bytes);
         at += sizeof bytes) {
        std::memcpy(&bytes, at, sizeof bytes);
        if (!isPlain(bytes)) break;
    }
    while (at != end && isPlain(*at)) ++at;
    return at;
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

// --- reading ----------------------------------------------------------------------------------

/// Walks along one text. A null result means that jansson is to read the whole of it.
class Reader {
  public:
    explicit Reader(const char* text) : m_at(text), m_end(text + std::strlen(text)) {}

    Owned readAll() {
        skipBlanks();
        if (!isNext('{') && !isNext('[')) return nullptr;
        Owned value = readValue(kMostLevels);
        skipBlanks();
        return m_at == m_end ? std::move(value) : nullptr;
    }

  private:
    // The text's end is a NUL, which is none of the characters that anything here looks for.
    bool isNext(char character) const { return *m_at == character; }
    bool take(char character) {
        skipBlanks();
        if (!isNext(character)) return false;
        ++m_at;
        return true;
    }
    void skipBlanks() {
        while (isNext(' ') || isNext('\n') || isNext('\t') || isNext('\r')) ++m_at;
    }

    Owned readValue(int levelsLeft) {
        if (levelsLeft == 0) return nullptr;
        skipBlanks();
        if (isNext('{')) return readObject(levelsLeft);
        if (isNext('[')) return readArray(levelsLeft);
        if (isNext('"')) return readString();
        if (isNext('-') || isDigit(*m_at)) return readNumber();
        return readLiteral();
    }

    Owned readObject(int levelsLeft) {
        Owned object(json_object());
        take('{');
        if (take('}')) return object;
        std::string key;
        do {
            if (!readKey(key) || !take(':')) return nullptr;
            Owned value = readValue(levelsLeft - 1);
            // jansson takes the value also where it fails.
            if (!value ||
                json_object_set_new_nocheck(object.get(), key.c_str(), value.release()) != 0) {
                return nullptr;
            }
        } while (take(','));
        return take('}') ? std::move(object) : nullptr;
    }

    Owned readArray(int levelsLeft) {
        Owned array(json_array());
        take('[');
        if (take(']')) return array;
        do {
            Owned value = readValue(levelsLeft - 1);
            if (!value || json_array_append_new(array.get(), value.release()) != 0) return nullptr;
        } while (take(','));
        return take(']') ? std::move(array) : nullptr;
    }

    bool readKey(std::string& key) {
        skipBlanks();
        if (!isNext('"')) return false;
        const char* const begin = m_at + 1;
        if (takePlainString()) {
            key.assign(begin, m_at - 1);
            return true;
        }
        const Owned odd = readOddString();
        if (odd) key = json_string_value(odd.get());
        return odd != nullptr;
    }

    Owned readString() {
        const char* const begin = m_at + 1;
        if (!takePlainString()) return readOddString();
        return Owned(json_stringn_nocheck(begin, static_cast<std::size_t>(m_at - 1 - begin)));
    }

    bool takePlainString() {
        const char* const end = endOfPlain(m_at + 1, m_end);
        if (*end != '"') return false;
        m_at = end + 1;
        return true;
    }

    Owned readOddString() {
        const char* end = m_at + 1;
        while (end != m_end && *end != '"') end += *end == '\\' && end + 1 != m_end ? 2 : 1;
        return end != m_end ? readByJansson(end + 1) : nullptr;
    }

    Owned readNumber() {
        const char* at = isNext('-') ? m_at + 1 : m_at;
        const char* const digits = at;
        json_int_t value = 0;
        while (isDigit(*at) && at - digits < kMostDigits) value = value * 10 + (*at++ - '0');
        const bool isOdd = (*digits == '0' && at - digits > 1) || at == digits || isDigit(*at) ||
                           *at == '.' || *at == 'e' || *at == 'E';
        if (isOdd) return readOddNumber();
        if (isNext('-')) value = -value;
        m_at = at;
        return Owned(json_integer(value));
    }

    Owned readOddNumber() {
        const char* end = m_at;
        while (isDigit(*end) || *end == '-' || *end == '+' || *end == '.' || *end == 'e' ||
               *end == 'E') {
            ++end;
        }
        return readByJansson(end);
    }

    Owned readLiteral() {
        if (takeWord("true")) return Owned(json_true());
        if (takeWord("false")) return Owned(json_false());
        if (takeWord("null")) return Owned(json_null());
        return nullptr;
    }

    bool takeWord(const char* word) {
        const std::size_t length = std::strlen(word);
        if (std::strncmp(m_at, word, length) != 0) return false;
        m_at += length;
        return true;
    }

    Owned readByJansson(const char* end) {
        const auto size = static_cast<std::size_t>(end - m_at);
        Owned value(json_loadb(m_at, size, JSON_DECODE_ANY, nullptr));
        m_at = end;
        return value;
    }

    const char* m_at;
    const char* const m_end;
};

// --- writing ----------------------------------------------------------------------------------

/// What jansson calls: nothing may be thrown through it.
int append(const char* piece, std::size_t count, void* to) {
    try {
        static_cast<std::string*>(to)->append(piece, count);
        return 0;
    } catch (const std::exception&) {
        return -1;
    }
}

/// Appends to one text. False means that jansson is to write the whole of it.
class Writer {
  public:
    explicit Writer(std::string& text) : m_text(text) {}

    bool write(json_t* value, int levelsLeft) {
        if (value == nullptr || levelsLeft == 0) return false;
        switch (json_typeof(value)) {
            case JSON_OBJECT:
                return writeObject(value, levelsLeft);
            case JSON_ARRAY:
                return writeArray(value, levelsLeft);
            case JSON_STRING:
                return writeString(value);
            case JSON_INTEGER:
                m_text += std::to_string(json_integer_value(value));
                return true;
            case JSON_REAL:
                return writeByJansson(value);
            case JSON_TRUE:
                m_text += "true";
                return true;
            case JSON_FALSE:
                m_text += "false";
                return true;
            case JSON_NULL:
                m_text += "null";
                return true;
        }
        return false;
    }

    bool writeByJansson(json_t* value) {
        return json_dump_callback(value, append, &m_text, JSON_ENCODE_ANY) == 0;
    }

  private:
    bool writeObject(json_t* object, int levelsLeft) {
        const char* separator = "";
        m_text += '{';
        for (void* member = json_object_iter(object); member != nullptr;
             member = json_object_iter_next(object, member)) {
            m_text += separator;
            separator = ", ";
            if (!writeKey(json_object_iter_key(member))) return false;
            m_text += ": ";
            if (!write(json_object_iter_value(member), levelsLeft - 1)) return false;
        }
        m_text += '}';
        return true;
    }

    bool writeArray(json_t* array, int levelsLeft) {
        const std::size_t count = json_array_size(array);
        const char* separator = "";
        m_text += '[';
        for (std::size_t i = 0; i < count; ++i) {
            m_text += separator;
            separator = ", ";
            if (!write(json_array_get(array, i), levelsLeft - 1)) return false;
        }
        m_text += ']';
        return true;
    }

    bool writeString(json_t* string) {
        return writePlain(json_string_value(string), json_string_length(string)) ||
               writeByJansson(string);
    }

    bool writeKey(const char* key) {
        if (writePlain(key, std::strlen(key))) return true;
        const Owned string(json_string(key));
        return string && writeByJansson(string.get());
    }

    bool writePlain(const char* characters, std::size_t count) {
        if (endOfPlain(characters, characters + count) != characters + count) return false;
        m_text += '"';
        m_text.append(characters, count);
        m_text += '"';
        return true;
    }

    std::string& m_text;
};

}  // namespace

json_t* JsonText::read(const char* text) {
    Owned value = Reader(text).readAll();
    return value ? value.release() : json_loads(text, 0, nullptr);
}

bool JsonText::write(json_t* value, std::string& text) {
    text.clear();
    text.reserve(kUsualSize);
    Writer writer(text);
    if (writer.write(value, kMostLevels)) return true;
    text.clear();
    return writer.writeByJansson(value);
}
