#include "StatusOptions.h"

#include <getopt.h>
#include <stdlib.h>

namespace {

constexpr const char* kHelp =
    R"(Usage: kivstat [OPTIONS]
       kivstat [OPTIONS] explain EVENT.json
       kivstat [OPTIONS] doctor
Says whether this set delivers its events and, if not, why and what to do.

explain tells whether an event (a file, or - for standard input) would be kept,
and which consent or rule decides. doctor checks what can be checked without the
daemon, the servers included; it asks them for nothing.

      --json             for programs
      --watch            again every second, until interrupted
      --interval SECONDS ... that often
  -g, --globalinfofile FILE, -b, --bootfile FILE, -c, --configfile FILE,
  -e, --dbfile FILE, -t, --toudir FOLDER/
                         the set's files, as the daemon's own options; without
                         them those that the running daemon or its settings name
      --status FILE      the daemon's status document
      --queue NAME       name of the queue (default /kiv_queue)
  -h, --help             print this help and exit
  -V, --version          print the version and exit

Exit status: 0 it delivers, 1 it does not, or not all, 2 kivApp is not running,
or kivstat could not look. Of explain: 0 kept, 1 not kept. Of doctor: 0 all in
order, 1 something is not.
)";

constexpr option kLongOptions[] = {
    {"json", no_argument, nullptr, 'j'},
    {"watch", no_argument, nullptr, 'w'},
    {"interval", required_argument, nullptr, 'i'},
    {"globalinfofile", required_argument, nullptr, 'g'},
    {"bootfile", required_argument, nullptr, 'b'},
    {"configfile", required_argument, nullptr, 'c'},
    {"dbfile", required_argument, nullptr, 'e'},
    {"toudir", required_argument, nullptr, 't'},
    {"status", required_argument, nullptr, 's'},
    {"queue", required_argument, nullptr, 'Q'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

double secondsOf(const char* text) {
    char* end = nullptr;
    const double value = strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= 0.1 && value <= 86400)) {
        throw StatusOptions::Wrong(std::string("--interval: '") + text +
                                   "' is not a number from 0.1 to 86400");
    }
    return value;
}

}  // namespace

const char* StatusOptions::helpText() {
    return kHelp;
}

StatusOptions StatusOptions::parse(int argc, char* const* argv) {
    StatusOptions options;
    for (;;) {
        const int letter = getopt_long(argc, argv, "g:b:c:e:t:hV", kLongOptions, nullptr);
        if (letter == -1) break;
        options.applyOption(letter, optarg);
        if (options.help || options.version) return options;
    }
    options.applyWords(argc - optind, argv + optind);
    return options;
}

void StatusOptions::applyOption(int letter, const char* argument) {
    switch (letter) {
        case 'j':
            json = true;
            break;
        case 'w':
            watch = true;
            break;
        case 'i':
            interval = secondsOf(argument);
            watch = true;
            break;
        case 'g':
            globalInfo = argument;
            break;
        case 'b':
            bootInfo = argument;
            break;
        case 'c':
            config = argument;
            break;
        case 'e':
            database = argument;
            break;
        case 't':
            termsFolder = argument;
            break;
        case 's':
            statusFile = argument;
            break;
        case 'Q':
            queue = argument;
            break;
        case 'h':
            help = true;
            break;
        case 'V':
            version = true;
            break;
        default:  // not an option; getopt_long has said why
            throw Wrong("see kivstat --help");
    }
}

void StatusOptions::applyWords(int count, char* const* words) {
    if (count == 0) return;
    const std::string first = words[0];
    if (first == "explain" && count == 2) {
        command = Command::Explain;
        event = words[1];
    } else if (first == "doctor" && count == 1) {
        command = Command::Doctor;
    } else {
        throw Wrong(first + ": not a command, or not with so many words (see kivstat --help)");
    }
    if (watch) throw Wrong("--watch does not go with " + first);
}
