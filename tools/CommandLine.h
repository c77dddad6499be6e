#pragma once

#include "OutgoingEvent.h"

#include <cstdint>
#include <optional>
#include <string>

/// What the user asked for: the options and words of the command line, checked.
///
/// It does not send anything, and leaves the JSON texts to OutgoingEvent. A value; wrong usage is
/// a Failure of the status Usage.
struct CommandLine {
    /// Reads the command line. It ends at --help and --version, which need no more words.
    /// getopt_long writes a line of its own about an option that it does not know.
    static CommandLine parse(int argc, char* const* argv);

    /// The text of --help.
    static const char* helpText();

    std::optional<std::string> queue;  ///< none: as the library finds it
    OutgoingEvent::Parts event;        ///< without meaning where `standardInput` is set
    bool standardInput = false;        ///< the events come as lines of standard input
    std::optional<double> syncSeconds;
    std::optional<double> rate;  ///< events per second
    std::int64_t repeat = 1;
    double timeout = 30.0;  ///< seconds for an event to find room, where --sync does not say
    bool noWait = false;
    bool quiet = false;
    bool help = false;
    bool version = false;

  private:
    void applyOption(int letter, const char* argument);
    void applyWords(int count, char* const* words);
};
