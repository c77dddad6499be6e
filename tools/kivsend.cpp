// kivsend: posts events on the message queue of kivApp, from the command line or as JSON lines
// from standard input. It only writes to the queue: it neither makes it nor reads it.

#include "CommandLine.h"
#include "Failure.h"
#include "LineReader.h"
#include "OutgoingEvent.h"
#include "Sender.h"

#include <algorithm>
#include <iostream>
#include <string>

namespace {

/// Bytes: a line may hold more blanks than fit into a message.
constexpr std::size_t kLeastKept = 1048576;

void report(const CommandLine& options, const std::string& where, const std::exception& failure) {
    const std::string line = "kivsend: " + where + failure.what() + "\n";
    if (!options.quiet) std::cerr << line << std::flush;
}

void sendLine(Sender& sender, const LineReader& line) {
    if (!line.whole()) sender.checkSize(line.size());
    OutgoingEvent event = OutgoingEvent::parse(line.text());
    try {
        sender.send(event);
    } catch (const kivevent::Error& error) {
        throw Failure(error);
    }
}

/// Returns the status of the failure that ended the run, else of the first line that was skipped.
Status sendLines(const CommandLine& options) {
    Sender sender(options);
    Status status = Status::Sent;
    LineReader line(std::max(kLeastKept, sender.limit()));
    while (line.next()) {
        if (line.whole() && line.blank()) continue;
        try {
            sendLine(sender, line);
        } catch (const Failure& failure) {
            report(options, line.label(), failure);
            if (!failure.concernsOneEvent()) return failure.status();
            if (status == Status::Sent) status = failure.status();
        }
    }
    return status;
}

Status sendOne(const CommandLine& options) {
    OutgoingEvent event = OutgoingEvent::build(options.event);
    Sender(options).send(event);
    return Status::Sent;
}

Status run(int argc, char* const* argv, CommandLine& options) {
    options = CommandLine::parse(argc, argv);
    if (options.help) {
        std::cout << CommandLine::helpText() << std::flush;
    } else if (options.version) {
        std::cout << "kivsend " KIVSEND_VERSION "\n" << std::flush;
    } else {
        return options.standardInput ? sendLines(options) : sendOne(options);
    }
    return Status::Sent;
}

}  // namespace

int main(int argc, char** argv) {
    static char name[] = "kivsend";
    argv[0] = name;  // getopt_long begins its messages with it
    CommandLine options;
    Status status = Status::System;
    try {
        status = run(argc, argv, options);
    } catch (const Failure& failure) {
        report(options, "", failure);
        status = failure.status();
    } catch (const kivevent::Error& error) {
        report(options, "", error);
        status = Failure(error).status();
    } catch (const std::exception& failure) {
        report(options, "", failure);
    }
    return static_cast<int>(status);
}
