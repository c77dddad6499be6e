#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <streambuf>

#include <stdlib.h>
#include <time.h>
#include <unistd.h>

namespace {

/// Counts the lines and keeps none; shows them where somebody looks at one input.
class LineCounter : public std::streambuf {
  public:
    std::size_t lines = 0;

  protected:
    int_type overflow(int_type character) override {
        const char text = traits_type::to_char_type(character);
        xsputn(&text, 1);
        return traits_type::not_eof(character);
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override {
        static const bool shown = ::getenv("KIV_FUZZ_LINES") != nullptr;
        for (std::streamsize i = 0; i < size; ++i) lines += text[i] == '\n';
        if (!shown) return size;
        return ::write(STDERR_FILENO, text, static_cast<std::size_t>(size)) < 0 ? 0 : size;
    }
};

LineCounter s_errors;
LineCounter s_others;

double secondsOfThisThread() {
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

std::string makeFolder() {
    const char* base = ::getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr ? base : "/tmp") + "/kivfuzz.XXXXXX";
    fuzz::demand(::mkdtemp(pattern.data()) != nullptr, "there is a directory for the run");
    return pattern;
}

}  // namespace

namespace fuzz {

void demand(bool holds, const char* promise, const std::string& with) {
    if (holds) return;
    const std::string text = std::string("\nNOT KEPT: ") + promise + "\nwith: " + with + "\n";
    if (::write(STDERR_FILENO, text.data(), text.size()) < 0) std::abort();
    std::abort();
}

void beSilent() {
    std::cout.rdbuf(&s_others);
    std::clog.rdbuf(&s_others);
    std::cerr.rdbuf(&s_errors);
    if (::getenv("KIV_FUZZ_LINES") != nullptr) return;
    // What is printed without a stream. The fuzzer and the sanitizers write past these two.
    if (std::FILE* nowhere = std::fopen("/dev/null", "w")) stdout = stderr = nowhere;
}

std::size_t errorLines() {
    const std::size_t count = s_errors.lines;
    s_errors.lines = 0;
    return count;
}

TimeBound::TimeBound(double seconds) : m_end(secondsOfThisThread() + seconds) {}

TimeBound::~TimeBound() {
    const double late = secondsOfThisThread() - m_end;
    demand(late <= 0, "it takes its time at most", std::to_string(late) + " s more");
}

std::vector<std::string> partsOf(const std::uint8_t* data, std::size_t size, std::size_t count) {
    static const std::string separator = "\n----\n";
    const std::string text(data, data + size);
    std::vector<std::string> parts;
    std::size_t begin = 0;
    while (parts.size() + 1 < count) {
        const std::size_t end = text.find(separator, begin);
        if (end == std::string::npos) break;
        parts.push_back(text.substr(begin, end - begin));
        begin = end + separator.size();
    }
    parts.push_back(text.substr(begin));
    parts.resize(count);
    return parts;
}

const std::string& folder() {
    static const std::string path = makeFolder();
    return path;
}

std::string pathOf(const std::string& name) {
    return folder() + "/" + name;
}

std::string writeFile(const std::string& name, const std::string& text) {
    std::ofstream(pathOf(name), std::ios::binary | std::ios::trunc) << text;
    return pathOf(name);
}

std::string readFile(const std::string& name) {
    std::ifstream in(pathOf(name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool hasFile(const std::string& name) {
    return ::access(pathOf(name).c_str(), F_OK) == 0;
}

void removeFile(const std::string& name) {
    ::unlink(pathOf(name).c_str());
}

}  // namespace fuzz
