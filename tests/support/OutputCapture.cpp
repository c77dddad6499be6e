#include "support/OutputCapture.h"

#include <iostream>
#include <regex>
#include <stdexcept>

#include <cstdio>

#include <stdlib.h>
#include <unistd.h>

namespace {

int anonymousFile() {
    char pattern[] = "/tmp/kivcapture.XXXXXX";
    const int fd = ::mkstemp(pattern);
    if (fd < 0) throw std::runtime_error("cannot make the capture file");
    ::unlink(pattern);
    return fd;
}

void flushAll() {
    std::cout.flush();
    std::cerr.flush();
    std::fflush(stdout);
    std::fflush(stderr);
}

}  // namespace

OutputCapture::OutputCapture() {
    flushAll();
    m_outFile = anonymousFile();
    m_errFile = anonymousFile();
    m_savedOut = ::dup(STDOUT_FILENO);
    m_savedErr = ::dup(STDERR_FILENO);
    ::dup2(m_outFile, STDOUT_FILENO);
    ::dup2(m_errFile, STDERR_FILENO);
}

OutputCapture::~OutputCapture() {
    stop();
    ::close(m_outFile);
    ::close(m_errFile);
}

void OutputCapture::stop() {
    if (m_stopped) return;
    m_stopped = true;
    flushAll();
    ::dup2(m_savedOut, STDOUT_FILENO);
    ::dup2(m_savedErr, STDERR_FILENO);
    ::close(m_savedOut);
    ::close(m_savedErr);
}

std::string OutputCapture::read(int fd) {
    if (!m_stopped) flushAll();
    std::string text;
    char buffer[4096];
    off_t at = 0;
    ssize_t got;
    while ((got = ::pread(fd, buffer, sizeof buffer, at)) > 0) {
        text.append(buffer, static_cast<size_t>(got));
        at += got;
    }
    return text;
}

std::string OutputCapture::out() {
    return read(m_outFile);
}
std::string OutputCapture::err() {
    return read(m_errFile);
}
std::string OutputCapture::outWithoutPrefixes() {
    return withoutPrefixes(out());
}
std::string OutputCapture::errWithoutPrefixes() {
    return withoutPrefixes(err());
}

std::string OutputCapture::withoutPrefixes(const std::string& text) {
    std::string rest;
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t lineEnd = text.find('\n', at);
        const std::string line =
            text.substr(at, lineEnd == std::string::npos ? lineEnd : lineEnd + 1 - at);
        rest += line.substr(prefixLength(line));
        at += line.size();
    }
    return rest;
}

std::size_t OutputCapture::prefixLength(const std::string& line) {
    static const std::regex prefix(R"(\[\d+\]\(\d+,\d+\) )");
    std::smatch found;
    const auto atTheBeginning = std::regex_constants::match_continuous;
    if (!std::regex_search(line, found, prefix, atTheBeginning)) return 0;
    return static_cast<std::size_t>(found.length());
}
