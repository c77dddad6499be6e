#pragma once

#include <cstddef>
#include <string>

/// Collects what the process writes to standard output and standard error, whichever way it is
/// written (iostreams, stdio, perror, the descriptors), from construction to `stop`.
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Puts the streams back; `out` and `err` then hold the final texts. A second call does
    /// nothing.
    void stop();

    /// The text so far, as written.
    std::string out();
    std::string err();

    /// The text so far with the prefix "[ms](pid,tid) " of each line cut off, so that lines can be
    /// compared whole: "kivDB: Query is ...\n". A line without a prefix is left as it is, and so is
    /// a prefix that does not begin its line.
    std::string outWithoutPrefixes();
    std::string errWithoutPrefixes();

    static std::string withoutPrefixes(const std::string& text);
    /// The length of the prefix with which `line` begins; 0: it has none.
    static std::size_t prefixLength(const std::string& line);

  private:
    std::string read(int fd);

    int m_savedOut = -1;
    int m_savedErr = -1;
    int m_outFile = -1;
    int m_errFile = -1;
    bool m_stopped = false;
};
