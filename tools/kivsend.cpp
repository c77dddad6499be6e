// kivsend: posts events on the message queue of kivApp, from the command line or as JSON lines
// from standard input. It only writes to the queue: it neither makes it nor reads it.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <mqueue.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <jansson.h>

namespace {

using std::chrono::milliseconds;
using SteadyClock = std::chrono::steady_clock;

/// The exit statuses, as --help lists them.
enum class Status : int {
    Sent = 0,
    Usage = 1,
    BadJson = 2,
    NoQueue = 3,
    TooLarge = 4,
    QueueFull = 5,
    SyncTimeOut = 6,
    System = 7,
};

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
      --no-wait          a full queue is an error
      --queue NAME       name of the queue (default /kiv_queue)
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
)";

/// What kept an event, or the whole run, from being sent.
class Failure : public std::runtime_error {
  public:
    Failure(Status status, const std::string& text) : std::runtime_error(text), m_status(status) {}
    Status status() const { return m_status; }

    /// Whether only this one event is lost; the others end the run.
    bool concernsOneEvent() const {
        return m_status == Status::BadJson || m_status == Status::TooLarge ||
               m_status == Status::QueueFull;
    }

  private:
    Status m_status;
};

Failure systemFailure(const std::string& what, int error) {
    return Failure(Status::System, what + ": " + strerror(error));
}

struct JsonDeleter {
    void operator()(json_t* value) const { json_decref(value); }
};
using JsonPtr = std::unique_ptr<json_t, JsonDeleter>;

struct FreeDeleter {
    void operator()(char* text) const { free(text); }
};
using TextPtr = std::unique_ptr<char, FreeDeleter>;

// ---- JSON ----------------------------------------------------------------------------------

JsonPtr parseObject(std::string_view text) {
    json_error_t error{};
    JsonPtr value(json_loadb(text.data(), text.size(), JSON_DECODE_ANY, &error));
    if (!value) {
        throw Failure(Status::BadJson,
                      std::string(error.text) + " (byte " + std::to_string(error.position) + ")");
    }
    if (!json_is_object(value.get())) throw Failure(Status::BadJson, "not a JSON object");
    return value;
}

/// Parses an argument; `name` says in the failure which one it was.
JsonPtr parseArgument(const std::string& name, const std::string& text) {
    try {
        return parseObject(text);
    } catch (const Failure& failure) {
        throw Failure(failure.status(), name + ": " + failure.what());
    }
}

JsonPtr parseEvent(std::string_view text) {
    JsonPtr event = parseObject(text);
    if (!json_is_string(json_object_get(event.get(), "event-type"))) {
        throw Failure(Status::BadJson, "no \"event-type\" string");
    }
    return event;
}

void put(json_t* object, const char* key, JsonPtr value) {
    if (json_object_set_new(object, key, value.release()) != 0) {
        throw systemFailure(key, ENOMEM);
    }
}

JsonPtr makeString(const std::string& name, const std::string& text) {
    JsonPtr value(json_stringn(text.data(), text.size()));
    if (!value) throw Failure(Status::BadJson, name + ": not valid UTF-8");
    return value;
}

/// The compact text of `value`, with the fewest digits that read back as the same numbers: 15
/// keep 0.1 as it was typed, 17 keep every double.
std::string compactText(json_t* value) {
    for (unsigned digits = 15; digits <= 17; ++digits) {
        TextPtr text(json_dumps(value, JSON_COMPACT | JSON_REAL_PRECISION(digits)));
        if (!text) break;
        JsonPtr again(json_loads(text.get(), 0, nullptr));
        if (again && json_equal(value, again.get())) return text.get();
    }
    throw Failure(Status::System, "the event cannot be written as JSON");
}

// ---- Options -------------------------------------------------------------------------------

struct Options {
    std::string queue = "/kiv_queue";
    std::optional<std::string> type;  ///< absent: events come from standard input
    std::optional<std::string> data;
    std::optional<std::string> url;
    std::optional<std::string> info;
    std::optional<std::int64_t> kernelTime;  ///< monotonic milliseconds
    std::optional<double> syncSeconds;
    std::optional<double> rate;  ///< events per second
    std::int64_t repeat = 1;
    bool noWait = false;
    bool quiet = false;
    bool help = false;
    bool version = false;
};

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

constexpr option kLongOptions[] = {
    {"sync", optional_argument, nullptr, 's'},   {"rate", required_argument, nullptr, 'r'},
    {"repeat", required_argument, nullptr, 'n'}, {"url", required_argument, nullptr, 'u'},
    {"info", required_argument, nullptr, 'i'},   {"kernel-time", required_argument, nullptr, 'k'},
    {"no-wait", no_argument, nullptr, 'w'},      {"queue", required_argument, nullptr, 'Q'},
    {"quiet", no_argument, nullptr, 'q'},        {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},      {nullptr, 0, nullptr, 0},
};

void applyOption(Options& options, int letter, const char* argument) {
    switch (letter) {
        case 's':
            options.syncSeconds = argument == nullptr ? 5.0 : parseNumber("--sync", argument);
            break;
        case 'r':
            options.rate = parseNumber("--rate", argument);
            break;
        case 'n':
            options.repeat = parseInteger("--repeat", argument, 1);
            break;
        case 'u':
            options.url = argument;
            break;
        case 'i':
            options.info = argument;
            break;
        case 'k':
            options.kernelTime = parseInteger("--kernel-time", argument, 0);
            break;
        case 'w':
            options.noWait = true;
            break;
        case 'Q':
            options.queue = parseQueueName(argument);
            break;
        case 'q':
            options.quiet = true;
            break;
        case 'h':
            options.help = true;
            break;
        default:
            options.version = true;
            break;
    }
}

void applyWords(Options& options, int count, char* const* words) {
    const bool standardInput = count == 0 || (count == 1 && std::string_view(words[0]) == "-");
    if (standardInput) {
        if (options.url || options.info || options.kernelTime) {
            throw usage("--url, --info and --kernel-time need an event type");
        }
        return;
    }
    if (count > 2) throw usage(std::string(words[2]) + ": one argument too many");
    options.type = words[0];
    if (options.type->empty()) throw usage("the event type is empty");
    if (*options.type == "-") throw usage("'-' takes no data");
    if (count == 2) options.data = words[1];
}

Options parseOptions(int argc, char* const* argv) {
    Options options;
    for (;;) {
        const int letter = getopt_long(argc, argv, "qhV", kLongOptions, nullptr);
        if (letter == -1) break;
        if (letter == '?') throw Failure(Status::Usage, "see kivsend --help");  // getopt said why
        applyOption(options, letter, optarg);
        if (options.help || options.version) return options;
    }
    applyWords(options, argc - optind, argv + optind);
    return options;
}

/// The event that the command line describes.
JsonPtr buildEvent(const Options& options) {
    JsonPtr event(json_object());
    put(event.get(), "event-type", makeString("event type", *options.type));
    if (options.data || options.info) {
        JsonPtr data = options.data ? parseArgument("data", *options.data) : JsonPtr(json_object());
        if (options.info) put(data.get(), "oob-info", parseArgument("--info", *options.info));
        put(event.get(), "data", std::move(data));
    }
    if (options.url) put(event.get(), "oob-url", makeString("--url", *options.url));
    if (options.kernelTime) {
        put(event.get(), "kernel-time", JsonPtr(json_integer(json_int_t{*options.kernelTime})));
    }
    return event;
}

// ---- Waiting -------------------------------------------------------------------------------

/// Holds back the signals that would end the process, so that a semaphore can be unlinked first;
/// they take their usual effect when the object goes. Signals that the caller ignores, or blocked
/// itself, are left alone: Linux keeps even an ignored signal pending while it is blocked.
class SignalHold {
  public:
    SignalHold() {
        sigemptyset(&m_held);
        sigset_t blocked;
        sigprocmask(SIG_BLOCK, nullptr, &blocked);
        for (int number : kEnding) {
            struct sigaction action {};
            sigaction(number, nullptr, &action);
            const bool ignored = action.sa_handler == SIG_IGN;
            if (!ignored && sigismember(&blocked, number) == 0) sigaddset(&m_held, number);
        }
        sigprocmask(SIG_BLOCK, &m_held, nullptr);
    }
    ~SignalHold() { sigprocmask(SIG_UNBLOCK, &m_held, nullptr); }
    SignalHold(const SignalHold&) = delete;
    SignalHold& operator=(const SignalHold&) = delete;

    bool pending() const {
        sigset_t waiting;
        sigpending(&waiting);
        return std::any_of(std::begin(kEnding), std::end(kEnding), [&](int number) {
            return sigismember(&m_held, number) == 1 && sigismember(&waiting, number) == 1;
        });
    }

  private:
    static constexpr int kEnding[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};
    sigset_t m_held;
};

/// How long one event of --sync may still wait, cut into slices so that a signal that is held
/// back is noticed soon. Counts on the steady clock: the set's wall clock jumps.
class Patience {
  public:
    Patience(double seconds, const SignalHold& signals)
        : m_seconds(seconds),
          m_deadline(SteadyClock::now() + std::chrono::duration_cast<SteadyClock::duration>(
                                              std::chrono::duration<double>(seconds))),
          m_signals(signals) {}

    /// The next time to wait; fails with `complaint` when there is none left.
    milliseconds nextSlice(const std::string& complaint) const {
        if (m_signals.pending()) throw Failure(Status::System, "interrupted");
        const auto now = SteadyClock::now();
        if (now >= m_deadline) throw Failure(Status::SyncTimeOut, complaint + secondsText());
        return std::min(milliseconds(100), std::chrono::ceil<milliseconds>(m_deadline - now));
    }

  private:
    std::string secondsText() const {
        char text[40];
        snprintf(text, sizeof text, " within %g s", m_seconds);
        return text;
    }

    double m_seconds;
    SteadyClock::time_point m_deadline;
    const SignalHold& m_signals;
};

/// Spaces the events evenly. Time lost is not made up by a burst.
class Pace {
  public:
    explicit Pace(const std::optional<double>& rate) {
        if (rate) m_interval = std::chrono::duration<double>(1.0 / *rate);
    }

    void waitForTurn() {
        std::this_thread::sleep_until(m_next);
        m_next = std::max(m_next, SteadyClock::now() - kSlack) +
                 std::chrono::duration_cast<SteadyClock::duration>(m_interval);
    }

  private:
    /// A late wake-up by less than this does not slow the rate down.
    static constexpr milliseconds kSlack{20};
    std::chrono::duration<double> m_interval{0};
    SteadyClock::time_point m_next = SteadyClock::now();
};

// ---- Queue and semaphore -------------------------------------------------------------------

/// Owns the descriptor of a queue open for writing.
class QueueDescriptor {
  public:
    explicit QueueDescriptor(const std::string& name)
        : m_descriptor(mq_open(name.c_str(), O_WRONLY | O_NONBLOCK)) {
        if (m_descriptor != -1) return;
        if (errno == ENOENT) {
            throw Failure(Status::NoQueue, name + ": no such queue (is kivApp running?)");
        }
        throw systemFailure(name, errno);
    }
    ~QueueDescriptor() { mq_close(m_descriptor); }
    QueueDescriptor(const QueueDescriptor&) = delete;
    QueueDescriptor& operator=(const QueueDescriptor&) = delete;

    mqd_t get() const { return m_descriptor; }

  private:
    mqd_t m_descriptor;
};

class MessageQueue {
  public:
    explicit MessageQueue(const std::string& name) : m_name(name), m_descriptor(name) {
        mq_attr attributes{};
        if (mq_getattr(m_descriptor.get(), &attributes) != 0) throw systemFailure(name, errno);
        m_limit = static_cast<std::size_t>(attributes.mq_msgsize);
    }

    const std::string& name() const { return m_name; }
    std::size_t limit() const { return m_limit; }  ///< bytes of one message

    void checkSize(std::size_t size) const {
        if (size <= m_limit) return;
        throw Failure(Status::TooLarge, "message too large: " + std::to_string(size) +
                                            " bytes, the queue takes " + std::to_string(m_limit));
    }

    /// Posts `text` if there is room; false when the queue is full.
    bool offer(const std::string& text) const {
        if (mq_send(m_descriptor.get(), text.data(), text.size(), 0) == 0) return true;
        if (errno != EAGAIN) throw systemFailure(m_name, errno);
        return false;
    }

    /// Waits until there may be room, or the time is over. A Linux queue descriptor can be polled.
    void awaitRoom(std::optional<milliseconds> time) const {
        pollfd room{m_descriptor.get(), POLLOUT, 0};
        if (poll(&room, 1, time ? static_cast<int>(time->count()) : -1) < 0 && errno != EINTR) {
            throw systemFailure(m_name, errno);
        }
    }

  private:
    std::string m_name;
    QueueDescriptor m_descriptor;
    std::size_t m_limit = 0;
};

/// A named semaphore of our own that kivApp posts; gone from the system with the object.
class SyncSemaphore {
  public:
    SyncSemaphore() : m_name(uniqueName()), m_semaphore(create(m_name)) {
        if (m_semaphore == SEM_FAILED) throw systemFailure("semaphore " + m_name, errno);
    }
    ~SyncSemaphore() {
        sem_close(m_semaphore);
        sem_unlink(m_name.c_str());
    }
    SyncSemaphore(const SyncSemaphore&) = delete;
    SyncSemaphore& operator=(const SyncSemaphore&) = delete;

    const std::string& name() const { return m_name; }

    /// Whether it was posted within `time`.
    bool wait(milliseconds time) const {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        const std::int64_t nanoseconds = until.tv_nsec + std::int64_t{time.count()} * 1000000;
        until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
        until.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
        if (sem_clockwait(m_semaphore, CLOCK_MONOTONIC, &until) == 0) return true;
        if (errno != ETIMEDOUT && errno != EINTR) throw systemFailure(m_name, errno);
        return false;
    }

  private:
    static std::string uniqueName() {
        char name[64];
        snprintf(name, sizeof name, "/kivsend.%ld.%08x", static_cast<long>(getpid()),
                 static_cast<unsigned>(std::random_device()()));
        return name;
    }

    /// Open to all users: kivApp need not run as ours, and opens it for reading and writing.
    static sem_t* create(const std::string& name) {
        const mode_t mask = umask(0);
        sem_t* semaphore = sem_open(name.c_str(), O_CREAT | O_EXCL, 0666, 0);
        const int error = errno;
        umask(mask);
        errno = error;
        return semaphore;
    }

    std::string m_name;
    sem_t* m_semaphore;
};

// ---- Sending -------------------------------------------------------------------------------

/// Sends events on one queue, at the pace and with the waiting that the options ask for.
class Sender {
  public:
    explicit Sender(const Options& options)
        : m_options(options), m_queue(options.queue), m_pace(options.rate) {}

    const MessageQueue& queue() const { return m_queue; }

    void send(json_t* event) {
        for (std::int64_t count = 0; count < m_options.repeat; ++count) {
            m_pace.waitForTurn();
            if (m_options.syncSeconds) {
                sendAndWait(event, *m_options.syncSeconds);
            } else {
                post(compactText(event), nullptr);
            }
        }
    }

  private:
    /// Each event has a semaphore of its own: a late answer never counts for the next event.
    /// Members go in reverse order, so that held signals strike after the semaphore is unlinked.
    void sendAndWait(json_t* event, double seconds) {
        const SignalHold signals;
        const SyncSemaphore semaphore;
        const Patience patience(seconds, signals);
        put(event, "syncsem", makeString("semaphore", semaphore.name()));
        post(compactText(event), &patience);
        while (!semaphore.wait(patience.nextSlice("no answer"))) {
        }
    }

    void post(const std::string& text, const Patience* patience) {
        m_queue.checkSize(text.size());
        while (!m_queue.offer(text)) {
            if (m_options.noWait) throw Failure(Status::QueueFull, m_queue.name() + ": full");
            std::optional<milliseconds> slice;
            if (patience != nullptr) slice = patience->nextSlice(m_queue.name() + ": no room");
            m_queue.awaitRoom(slice);
        }
    }

    const Options& m_options;
    MessageQueue m_queue;
    Pace m_pace;
};

// ---- Standard input ------------------------------------------------------------------------

/// Reads lines of any length but keeps no more than `kept` bytes of one.
class LineReader {
  public:
    explicit LineReader(std::size_t kept) : m_kept(kept) {}

    /// Reads the next line, the last with or without its end; false at the end of the input.
    bool next() {
        m_text.clear();
        m_size = 0;
        int character = getc(stdin);
        if (character == EOF) return atEnd();
        for (; character != EOF && character != '\n'; character = getc(stdin)) {
            if (++m_size <= m_kept) m_text.push_back(static_cast<char>(character));
        }
        if (ferror(stdin) != 0) return atEnd();
        ++m_number;
        return true;
    }

    const std::string& text() const { return m_text; }
    std::size_t size() const { return m_size; }  ///< bytes, also those not kept
    bool whole() const { return m_size == m_text.size(); }
    bool blank() const { return m_text.find_first_not_of(" \t\r\v\f") == std::string::npos; }
    std::string label() const { return "line " + std::to_string(m_number) + ": "; }

  private:
    static bool atEnd() {
        if (ferror(stdin) != 0) throw systemFailure("standard input", errno);
        return false;
    }

    std::size_t m_kept;
    std::string m_text;
    std::size_t m_size = 0;
    std::uint64_t m_number = 0;
};

void report(const Options& options, const std::string& where, const std::exception& failure) {
    const std::string line = "kivsend: " + where + failure.what() + "\n";
    if (!options.quiet) std::cerr << line << std::flush;
}

void sendLine(Sender& sender, const LineReader& line) {
    if (!line.whole()) sender.queue().checkSize(line.size());
    sender.send(parseEvent(line.text()).get());
}

/// Bytes: a line may hold more blanks than fit into a message.
constexpr std::size_t kLeastKept = 1048576;

/// Returns the status of the failure that ended the run, else of the first line that was skipped.
Status sendLines(Sender& sender, const Options& options) {
    Status status = Status::Sent;
    LineReader line(std::max(kLeastKept, sender.queue().limit()));
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

Status sendAll(const Options& options) {
    if (!options.type) {
        Sender sender(options);
        return sendLines(sender, options);
    }
    const JsonPtr event = buildEvent(options);
    Sender(options).send(event.get());
    return Status::Sent;
}

Status run(int argc, char* const* argv, Options& options) {
    options = parseOptions(argc, argv);
    if (options.help) {
        std::cout << kHelp << std::flush;
    } else if (options.version) {
        std::cout << "kivsend " KIVSEND_VERSION "\n" << std::flush;
    } else {
        return sendAll(options);
    }
    return Status::Sent;
}

}  // namespace

int main(int argc, char** argv) {
    static char name[] = "kivsend";
    argv[0] = name;  // getopt_long begins its messages with it
    Options options;
    Status status = Status::System;
    try {
        status = run(argc, argv, options);
    } catch (const Failure& failure) {
        report(options, "", failure);
        status = failure.status();
    } catch (const std::exception& failure) {
        report(options, "", failure);
    }
    return static_cast<int>(status);
}
