#include "LineReader.h"

#include "Failure.h"

#include <errno.h>
#include <stdio.h>

namespace {

/// @return false, unless reading ended by an error
bool atEnd() {
    if (ferror(stdin) != 0) throw Failure::ofSystem("standard input", errno);
    return false;
}

}  // namespace

bool LineReader::next() {
    m_text.clear();
    m_size = 0;
    int character = getc(stdin);
    if (character == EOF) return atEnd();
    for (; character != EOF && character != '\n'; character = getc(stdin)) {
        if (++m_size <= m_kept) m_text.push_back(static_cast<char>(character));
    }
    if (ferror(stdin) != 0) return atEnd();
    ++m_number;
    return true;
}

bool LineReader::blank() const {
    return m_text.find_first_not_of(" \t\r\v\f") == std::string::npos;
}

std::string LineReader::label() const {
    return "line " + std::to_string(m_number) + ": ";
}
