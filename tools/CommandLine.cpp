#include "CommandLine.h"

#include "Failure.h"

#include <string_view>

#include <errno.h>
#include <getopt.h>
#include <stdlib.h>

namespace {

constexpr const char* kHelp =
    R"(Usage: kivsend [OPTIONS] EVENT-TYPE [DATA]
       kivsend [OPTIONS] [-]
Posts events on the message queue of kivApp.

With EVENT-TYPE, one event is sent; DATA is its "data", a JSON object.
Without, each line of standard input is one whole event, a JSON object;
blank lines are skipped, bad ones are reported and skipped.

      --sync[=SECONDS]   wait until kivApp has handled each event (default 5)
      --rate N           send at most N events per second
      --repeat N         send each event N times
      --url PATH         announce a file for upload ("oob-url")
      --info JSON        description of that file ("oob-info" in "data")
      --kernel-time MS   monotonic milliseconds at which the event happened
      --timeout SECONDS  how long an event may wait for room in the queue
                         (default 30)
      --no-wait          a full queue is an error at once
      --queue NAME       name of the queue (default $KIV_QUEUE, else /kiv_queue)
  -q, --quiet            do not report what could not be sent
  -h, --help             print this help and exit
  -V, --version          print the version and exit

Exit status:
  0  all events sent
  1  wrong usage
  2  bad JSON
  3  no such queue (kivApp is not running)
  4  message too large for the queue
  5  queue full, with --no-wait
  6  time-out of --sync
  7  other system error
  8  no room in the queue in time (kivApp is dead or busy)
  9  no permission to post
 10  an event that kivApp could not store: a single quote
)";

constexpr option kLongOptions[] = {
    {"sync", optional_argument, nullptr, 's'},
    {"rate", required_argument, nullptr, 'r'},
    {"repeat", required_argument, nullptr, 'n'},
    {"url", required_argument, nullptr, 'u'},
    {"info", required_argument, nullptr, 'i'},
    {"kernel-time", required_argument, nullptr, 'k'},
    {"timeout", required_argument, nullptr, 't'},
    {"no-wait", no_argument, nullptr, 'w'},
    {"queue", required_argument, nullptr, 'Q'},
    {"quiet", no_argument, nullptr, 'q'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {nullptr, 0, nullptr, 0},
};

constexpr double kSyncSeconds = 5.0;  ///< of --sync without a number

Failure usage(const std::string& text) {
    return Failure(Status::Usage, text + " (see kivsend --help)");
}

std::int64_t parseInteger(const std::string& option, const char* text, std::int64_t least) {
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text, &end, 10);
    if (end == text || *end != '\0' || errno != 0 || value < least) {
        throw usage(option + ": '" + text + "' is no whole number from " + std::to_string(least));
    }
    return value;
}

/// A number from 0.001 to 1000000: what can be counted on a clock without overflow.
double parseNumber(const std::string& option, const char* text) {
    char* end = nullptr;
    const double value = strtod(text, &end);
    if (end == text || *end != '\0' || !(value >= 0.001 && value <= 1e6)) {
        throw usage(option + ": '" + text + "' is no number from 0.001 to 1000000");
    }
    return value;
}

std::string parseQueueName(const std::string& name) {
    if (name.size() < 2 || name.front() != '/' || name.find('/', 1) != std::string::npos) {
        throw usage("--queue: '" + name + "' is not '/' and a name without slashes");
    }
    return name;
}

}  // namespace

const char* CommandLine::helpText() {
    return kHelp;
}

CommandLine CommandLine::parse(int argc, char* const* argv) {
    CommandLine line;
    for (;;) {
        const int letter = getopt_long(argc, argv, "qhV", kLongOptions, nullptr);
        if (letter == -1) break;
        line.applyOption(letter, optarg);
        if (line.help || line.version) return line;
    }
    line.applyWords(argc - optind, argv + optind);
    return line;
}

void CommandLine::applyOption(int letter, const char* argument) {
    switch (letter) {
        case 's':
            syncSeconds = argument == nullptr ? kSyncSeconds : parseNumber("--sync", argument);
            break;
        case 'r':
            rate = parseNumber("--rate", argument);
            break;
        case 'n':
            repeat = parseInteger("--repeat", argument, 1);
            break;
        case 'u':
            event.url = argument;
            break;
        case 'i':
            event.info = argument;
            break;
        case 'k':
            event.kernelTime = parseInteger("--kernel-time", argument, 0);
            break;
        case 't':
            timeout = parseNumber("--timeout", argument);
            break;
        case 'w':
            noWait = true;
            break;
        case 'Q':
            queue = parseQueueName(argument);
            break;
        case 'q':
            quiet = true;
            break;
        case 'h':
            help = true;
            break;
        case 'V':
            version = true;
            break;
        default:  // not an option; getopt_long has said why
            throw Failure(Status::Usage, "see kivsend --help");
    }
}

void CommandLine::applyWords(int count, char* const* words) {
    standardInput = count == 0 || (count == 1 && std::string_view(words[0]) == "-");
    if (standardInput) {
        if (event.url || event.info || event.kernelTime) {
            throw usage("--url, --info and --kernel-time need an event type");
        }
        return;
    }
    if (count > 2) throw usage(std::string(words[2]) + ": one argument too many");
    event.type = words[0];
    if (event.type.empty()) throw usage("the event type is empty");
    if (event.type == "-") throw usage("'-' takes no data");
    if (count == 2) event.data = words[1];
}
