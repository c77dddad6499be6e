#pragma once

#include <stdexcept>
#include <string>

/// What the user of kivstat asked for: the command line, checked.
///
/// A value; wrong usage is a `StatusOptions::Wrong`.
struct StatusOptions {
    enum class Command { Look, Explain, Doctor };

    struct Wrong : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    /// getopt_long writes a line of its own about an option that it does not know.
    static StatusOptions parse(int argc, char* const* argv);
    /// The text of --help.
    static const char* helpText();

    Command command = Command::Look;
    std::string event;  ///< of `Explain`: a path, "-" for standard input

    // "" where the command line says nothing.
    std::string globalInfo;
    std::string bootInfo;
    std::string config;
    std::string database;
    std::string termsFolder;
    std::string statusFile;
    std::string queue = "/kiv_queue";

    bool json = false;
    bool watch = false;
    double interval = 1.0;  ///< seconds
    bool help = false;
    bool version = false;

  private:
    void applyOption(int letter, const char* argument);
    void applyWords(int count, char* const* words);
};
