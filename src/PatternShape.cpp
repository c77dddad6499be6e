#include "PatternShape.h"

#include <algorithm>
#include <vector>

#include <cstdint>

namespace {

constexpr std::size_t kMostRepetitions = 1000000;

/// In 64 bits: each may be a million.
std::size_t timesAtMost(std::size_t value, std::size_t count) {
    const std::uint64_t product = std::uint64_t{value} * count;
    return static_cast<std::size_t>(std::min<std::uint64_t>(product, kMostRepetitions));
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

}  // namespace

/// Reads a pattern from its beginning to its end, once.
class PatternShape::Reader {
  public:
    Reader(const std::string& pattern, PatternShape& shape) : m_text(pattern), m_shape(shape) {}

    void read() {
        while (m_at < m_text.size() && readAndMeasureTerm()) continue;
        while (closeGroup()) continue;
        endAtom(m_atom);
        m_shape.m_repetitions = std::max(m_atom.repetitions, m_outer.repetitions);
        m_shape.m_size = m_outer.size;
        if (m_hasHugeNumber) m_shape.m_repetitions = kMostRepetitions;
    }

  private:
    /// What is known of an atom, or of the atoms of a group together.
    struct Part {
        std::size_t repetitions = 1;
        std::size_t size = 0;
        bool quantified = false;
    };

    bool readAndMeasureTerm();
    bool readTerm();
    bool readEscape();
    bool readClass();
    bool readCount();
    std::size_t readNumber();
    void openGroup();
    bool closeGroup();
    void beginAtom();
    void endAtom(const Part& atom);
    void quantify(std::size_t count);
    char peek() const { return m_at < m_text.size() ? m_text[m_at] : '\0'; }

    const std::string& m_text;
    PatternShape& m_shape;
    std::size_t m_at = 0;
    Part m_atom;   // the latest one, which a quantifier would repeat
    Part m_outer;  // what stands before it in its group
    bool m_hasHugeNumber = false;
    std::vector<Part> m_groups;  // what stands before the open groups, in theirs
};

/// @return false at a mistake
bool PatternShape::Reader::readAndMeasureTerm() {
    const std::size_t begin = m_at;
    const bool isSound = readTerm();
    m_atom.size += m_at - begin;
    return isSound;
}

bool PatternShape::Reader::readTerm() {
    switch (const char character = m_text[m_at++]) {
        case '\\':
            return readEscape();
        case '[':
            return readClass();
        case '(':
            openGroup();
            return true;
        case ')':
            return closeGroup();
        case '*':
        case '+':
        case '?':
            quantify(1);
            return true;
        case '{':
            return readCount();
        default:
            beginAtom();
            return character != '\0';
    }
}

bool PatternShape::Reader::readEscape() {
    beginAtom();
    if (peek() >= '1' && peek() <= '9') {
        m_shape.m_hasBackReference = true;
        readNumber();
        return true;
    }
    return m_at++ < m_text.size();
}

/// A class in brackets; in it stand escapes and names as in "[[:digit:]]".
bool PatternShape::Reader::readClass() {
    beginAtom();
    while (m_at < m_text.size()) {
        const char character = m_text[m_at++];
        if (character == ']') return true;
        if (character == '\\') ++m_at;
        if (character != '[' || (peek() != ':' && peek() != '.' && peek() != '=')) continue;
        const std::size_t end = m_text.find(std::string{peek(), ']'}, m_at + 1);
        if (end == std::string::npos) return false;
        m_at = end + 2;
    }
    return false;
}

/// "{2}", "{2,}" or "{2,5}"
bool PatternShape::Reader::readCount() {
    std::size_t count = readNumber();
    if (peek() == ',') {
        ++m_at;
        count = std::max(count, readNumber());
    }
    if (peek() != '}') return false;
    ++m_at;
    quantify(std::max<std::size_t>(count, 1));
    return true;
}

std::size_t PatternShape::Reader::readNumber() {
    std::size_t number = 0;
    for (; isDigit(peek()); ++m_at) {
        const auto digit = static_cast<std::size_t>(peek() - '0');
        number = std::min(number * 10 + digit, kMostRepetitions);
    }
    m_hasHugeNumber = m_hasHugeNumber || number == kMostRepetitions;
    return number;
}

void PatternShape::Reader::openGroup() {
    beginAtom();
    if (peek() == '?') m_at += 2;  // "(?:", "(?=", "(?!"
    m_groups.push_back(m_outer);
    m_outer = {};
}

bool PatternShape::Reader::closeGroup() {
    if (m_groups.empty()) return false;
    endAtom(m_atom);
    m_atom = m_outer;
    m_outer = m_groups.back();
    m_groups.pop_back();
    return true;
}

void PatternShape::Reader::beginAtom() {
    endAtom(m_atom);
    m_atom = {};
}

void PatternShape::Reader::endAtom(const Part& atom) {
    m_outer.repetitions = std::max(m_outer.repetitions, atom.repetitions);
    m_outer.size = std::min(m_outer.size + atom.size, kMostRepetitions);
    m_outer.quantified = m_outer.quantified || atom.quantified;
}

void PatternShape::Reader::quantify(std::size_t count) {
    if (peek() == '?') ++m_at;  // as few as possible: not a quantifier of its own
    if (m_atom.quantified) m_shape.m_nestsQuantifiers = true;
    m_atom.quantified = true;
    m_atom.repetitions = timesAtMost(m_atom.repetitions, count);
    m_atom.size = timesAtMost(m_atom.size, count);
}

PatternShape::PatternShape(const std::string& pattern) {
    Reader(pattern, *this).read();
}
