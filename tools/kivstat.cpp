// kivstat: says whether this set delivers its events and, if not, why. It only looks: nothing on
// the set changes, and the daemon does not wait for it.

#include "Doctor.h"
#include "Evidence.h"
#include "Explanation.h"
#include "Look.h"
#include "StatusOptions.h"

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

#include <unistd.h>

namespace {

constexpr int kUnable = 2;

std::string whole(std::istream& in) {
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string readEvent(const std::string& path) {
    if (path == "-") return whole(std::cin);
    std::ifstream file(path);
    if (!file) throw std::runtime_error(path + " cannot be read");
    return whole(file);
}

int look(const StatusOptions& options) {
    for (;;) {
        const Look now(options);
        const bool clear = options.watch && !options.json && isatty(STDOUT_FILENO) == 1;
        std::cout << (clear ? "\033[H\033[2J" : "") << (options.json ? now.json() : now.table())
                  << (options.watch && !options.json && !clear ? "\n" : "") << std::flush;
        if (!options.watch || !std::cout) return now.status();
        std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
    }
}

int explain(const StatusOptions& options) {
    const Explanation explanation(Evidence(options), readEvent(options.event));
    std::cout << (options.json ? explanation.json() : explanation.text()) << std::flush;
    return explanation.isKept() ? 0 : 1;
}

int examine(const StatusOptions& options) {
    const Evidence evidence(options);
    const Doctor doctor(evidence);
    std::cout << (options.json ? doctor.json() : doctor.table()) << std::flush;
    return doctor.isAllInOrder() ? 0 : 1;
}

int run(const StatusOptions& options) {
    if (options.help) {
        std::cout << StatusOptions::helpText() << std::flush;
        return 0;
    }
    if (options.version) {
        std::cout << "kivstat " KIVSTAT_VERSION "\n" << std::flush;
        return 0;
    }
    if (options.command == StatusOptions::Command::Explain) return explain(options);
    if (options.command == StatusOptions::Command::Doctor) return examine(options);
    return look(options);
}

}  // namespace

int main(int argc, char** argv) {
    static char name[] = "kivstat";
    argv[0] = name;  // getopt_long begins its messages with it
    try {
        return run(StatusOptions::parse(argc, argv));
    } catch (const std::exception& failure) {
        std::cerr << "kivstat: " << failure.what() << "\n" << std::flush;
        return kUnable;
    }
}
