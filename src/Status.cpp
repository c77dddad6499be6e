#include "Status.h"

#include "KernelTime.h"

#include <atomic>
#include <mutex>

namespace {

std::atomic<std::uint64_t> s_counts[Status::CountEnd];
std::atomic<std::int64_t> s_facts[Status::FactEnd];
std::atomic<std::uint64_t> s_changes{0};

std::mutex s_mutex;  // guards the two below
Status::Answers s_answers[Status::TargetEnd];
std::string s_paths[Status::PathEnd];

void haveChanged() {
    s_changes.fetch_add(1, std::memory_order_relaxed);
}

/// Has `change` change what is known of `whom`.
template <typename Change>
void changeAnswers(Status::Target whom, Change change) {
    if (whom == Status::Nobody) return;
    const std::lock_guard<std::mutex> lock(s_mutex);
    change(s_answers[whom]);
    haveChanged();
}

}  // namespace

void Status::count(Count what, std::uint64_t by) {
    s_counts[what].fetch_add(by, std::memory_order_relaxed);
    haveChanged();
}

void Status::set(Fact what, std::int64_t value) {
    if (s_facts[what].exchange(value, std::memory_order_relaxed) != value) haveChanged();
}

void Status::setMoment(Fact what) {
    set(what, KernelTime::getTimeMonotonicAsInt64());
}

void Status::setPath(Path what, const std::string& path) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    if (!s_paths[what].empty()) return;
    s_paths[what] = path;
    haveChanged();
}

void Status::asked(Target whom) {
    changeAnswers(whom, [](Answers& answers) { ++answers.requests; });
}

void Status::succeeded(Target whom) {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    changeAnswers(whom, [now](Answers& answers) {
        answers.lastSuccess = now;
        answers.fails = false;
    });
}

void Status::failed(Target whom, const std::string& why, bool unreachable) {
    const std::int64_t now = KernelTime::getTimeMonotonicAsInt64();
    changeAnswers(whom, [&](Answers& answers) {
        // Once for each request: its answer may be read twice, by its transfer and by its meaning.
        if (answers.failures < answers.requests || answers.requests == 0) ++answers.failures;
        answers.error = why;
        answers.lastFailure = now;
        answers.fails = true;
        answers.unreachable = unreachable;
    });
}

std::uint64_t Status::counted(Count what) {
    return s_counts[what].load(std::memory_order_relaxed);
}

std::int64_t Status::fact(Fact what) {
    return s_facts[what].load(std::memory_order_relaxed);
}

std::string Status::path(Path what) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_paths[what];
}

Status::Answers Status::answers(Target whom) {
    const std::lock_guard<std::mutex> lock(s_mutex);
    return s_answers[whom];
}

std::uint64_t Status::changes() {
    return s_changes.load(std::memory_order_relaxed);
}

void Status::forgetAll() {
    for (auto& one : s_counts) one = 0;
    for (auto& one : s_facts) one = 0;
    const std::lock_guard<std::mutex> lock(s_mutex);
    for (Answers& one : s_answers) one = {};
    for (std::string& one : s_paths) one.clear();
    haveChanged();
}
