// kivfilter: tells for each event on standard input whether a filter keeps it and what decides, by
// the daemon's own filter classes. The local cloud's page tries filters with it; it is not
// installed.
//
//     kivfilter FILTER.json < EVENTS      one JSON object a line, as producers post them
//
// One line of JSON for each event:
//     {"line": 1, "kept": true, "why": "rule 2 of include matches"}
//     {"line": 2, "error": "not a JSON object"}
// A filter that cannot be used: one line on standard error, status 2.

#include "FilterReason.h"
#include "JsonObject.h"

#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

namespace {

constexpr int kUnusable = 2;

JsonObject verdict(const JsonObject& filter, const JsonObject& event) {
    JsonObject result = JsonObject::createObject();
    if (!event.isObject()) {
        result.set("error", "not a JSON object");
        return result;
    }
    const FilterReason::Verdict verdict = FilterReason::judge(filter, event);
    result.set("kept", JsonObject::adopt(json_boolean(verdict.kept)));
    result.set("why", verdict.why);
    return result;
}

JsonObject loadFilter(const char* path) {
    json_error_t error;
    JsonObject filter = JsonObject::adopt(json_load_file(path, 0, &error));
    if (filter.isNull()) {
        std::cerr << "kivfilter: " << path << ": line " << error.line << ", column " << error.column
                  << ": " << error.text << "\n";
    } else if (!filter.isObject()) {
        std::cerr << "kivfilter: " << path << ": the filter is not a JSON object\n";
        return {};
    }
    return filter;
}

int judge(const char* path) {
    const JsonObject filter = loadFilter(path);
    if (filter.isNull()) return kUnusable;
    long long number = 0;
    for (std::string line; std::getline(std::cin, line);) {
        JsonObject result = verdict(filter, JsonObject::parse(line));
        result.set("line", JsonObject::createInteger(++number));
        std::cout << result.dumpAsString() << "\n";
    }
    std::cout.flush();
    return std::cout.good() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: kivfilter FILTER.json < EVENTS (one JSON object a line)\n";
        return kUnusable;
    }
    try {
        return judge(argv[1]);
    } catch (const std::exception& error) {
        std::cerr << "kivfilter: " << error.what() << "\n";
        return EXIT_FAILURE;
    }
}
