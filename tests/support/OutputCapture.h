#pragma once

#include <string>
#include <vector>

/// Collects what the process writes to standard output and standard error, whichever way it is
/// written (iostreams, stdio, perror, the descriptors), from construction to `stop`.
class OutputCapture {
  public:
    OutputCapture();
    ~OutputCapture();
    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    /// Puts the streams back; `out` and `err` then hold the final texts. A second call is nothing.
    void stop();

    /// The text so far, as written.
    std::string out();
    std::string err();

    /// The text so far with the prefix "[ms](pid,tid) " of each line cut off, so that lines can be
    /// compared whole: "kivDB: Query is ...\n". Text without a prefix is left as it is.
    std::string outWithoutPrefixes();
    std::string errWithoutPrefixes();

    static std::string withoutPrefixes(const std::string& text);

  private:
    std::string read(int fd);

    int m_savedOut = -1;
    int m_savedErr = -1;
    int m_outFile = -1;
    int m_errFile = -1;
    bool m_stopped = false;
};
