#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>

extern char** environ;

namespace {

using std::chrono::milliseconds;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

const char* const kProgram = KIV_RUNNABLE_DIR "/tools/kivsend";

timespec realTimeIn(milliseconds time) {
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    const std::int64_t nanoseconds = until.tv_nsec + std::int64_t{time.count()} * 1000000;
    until.tv_sec += static_cast<time_t>(nanoseconds / 1000000000);
    until.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
    return until;
}

/// A queue of the test's own, under a name that no other test has.
class TestQueue {
  public:
    explicit TestQueue(long maxMessages = 10, long messageSize = 256) : m_size(messageSize) {
        static std::atomic<int> count{0};
        m_name = "/kivsend_test." + std::to_string(getpid()) + "." + std::to_string(++count);
        m_messages = maxMessages;
        make();
    }
    ~TestQueue() { remove(); }
    TestQueue(const TestQueue&) = delete;
    TestQueue& operator=(const TestQueue&) = delete;

    const std::string& name() const { return m_name; }

    /// As a daemon does that ends and starts.
    void makeAnew() {
        remove();
        make();
    }

    void fill(int messages) {
        for (int i = 0; i < messages; ++i) ASSERT_EQ(0, mq_send(m_descriptor, "{}", 2, 0));
    }

    /// The next message; nothing when none comes in time.
    std::optional<std::string> receive(milliseconds limit = milliseconds(10000)) {
        std::vector<char> buffer(static_cast<std::size_t>(m_size));
        const timespec until = realTimeIn(limit);
        const ssize_t size =
            mq_timedreceive(m_descriptor, buffer.data(), buffer.size(), nullptr, &until);
        if (size < 0) return std::nullopt;
        return std::string(buffer.data(), static_cast<std::size_t>(size));
    }

    /// Everything that waits now.
    std::vector<std::string> drain() {
        std::vector<std::string> messages;
        while (auto message = receive(milliseconds(0))) messages.push_back(*message);
        return messages;
    }

  private:
    void make() {
        mq_attr attributes{};
        attributes.mq_maxmsg = m_messages;
        attributes.mq_msgsize = m_size;
        m_descriptor = mq_open(m_name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600, &attributes);
        if (m_descriptor == -1) throw std::runtime_error("mq_open failed");
    }

    void remove() const {
        mq_close(m_descriptor);
        mq_unlink(m_name.c_str());
    }

    long m_messages = 0;
    long m_size;
    std::string m_name;
    mqd_t m_descriptor = -1;
};

struct Outcome {
    int status = -1;  ///< exit status, or 128 + the signal that ended the process
    std::string out;
    std::string err;
};

/// A process whose standard input is a pipe from the test; ended with the object.
class Child {
  public:
    explicit Child(std::vector<std::string> command) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe2 failed");
        m_input = ends[1];
        spawn(command, ends[0]);
        close(ends[0]);
    }
    /// The same with the file `inputPath` as its standard input.
    Child(std::vector<std::string> command, const std::string& inputPath) {
        const int input = open(inputPath.c_str(), O_RDONLY | O_CLOEXEC);
        if (input < 0) throw std::runtime_error("cannot open " + inputPath);
        spawn(command, input);
        close(input);
    }
    ~Child() {
        closeInput();
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int number) const { kill(m_pid, number); }

    void write(const std::string& text) const {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), ::write(m_input, text.data(), text.size()));
    }

    void closeInput() {
        if (m_input >= 0) close(m_input);
        m_input = -1;
    }

    bool running() const {
        siginfo_t info{};
        const int flags = WEXITED | WNOHANG | WNOWAIT;
        return waitid(P_PID, static_cast<id_t>(m_pid), &info, flags) == 0 && info.si_pid == 0;
    }

    Outcome wait() {
        closeInput();
        int state = 0;
        while (waitpid(m_pid, &state, 0) < 0 && errno == EINTR) {
        }
        m_pid = -1;
        const int status = WIFSIGNALED(state) ? 128 + WTERMSIG(state) : WEXITSTATUS(state);
        return {status, m_dir.read("out"), m_dir.read("err")};
    }

  private:
    void spawn(std::vector<std::string>& command, int input) {
        std::vector<char*> words;
        for (std::string& word : command) words.push_back(word.data());
        words.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input, 0);
        const int flags = O_WRONLY | O_CREAT | O_TRUNC;
        posix_spawn_file_actions_addopen(&actions, 1, m_dir.file("out").c_str(), flags, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, m_dir.file("err").c_str(), flags, 0600);
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        setSignals(attributes);
        const int error =
            posix_spawnp(&m_pid, words[0], &actions, &attributes, words.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) throw std::runtime_error("cannot start " + command[0]);
    }

    /// A test runner in the background may hand down ignored signals; the child gets none.
    static void setSignals(posix_spawnattr_t& attributes) {
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes, &signals);
        for (int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) sigaddset(&signals, number);
        posix_spawnattr_setsigdefault(&attributes, &signals);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    int m_input = -1;
};

std::string memberOf(const std::string& message, const char* key) {
    std::unique_ptr<json_t, decltype(&json_decref)> event(json_loads(message.c_str(), 0, nullptr),
                                                          &json_decref);
    const char* text = json_string_value(json_object_get(event.get(), key));
    return text == nullptr ? "" : text;
}

/// Answers as the daemon does; false when there is no such semaphore.
bool postSemaphore(const std::string& name) {
    sem_t* semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) return false;
    const bool posted = sem_post(semaphore) == 0;
    sem_close(semaphore);
    return posted;
}

bool semaphoreExists(const std::string& name) {
    sem_t* semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) return false;
    sem_close(semaphore);
    return true;
}

/// The files of the semaphores that the process `pid` made and not unlinked.
std::vector<std::string> semaphoresOf(pid_t pid) {
    const std::string prefix = "sem.kivsend." + std::to_string(pid) + ".";
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm")) {
        const std::string name = entry.path().filename().string();
        if (name.compare(0, prefix.size(), prefix) == 0) names.push_back(name);
    }
    return names;
}

/// Whether the process `pid` sleeps with the queue open, as it does when it waits for room.
bool sleepsOnQueue(pid_t pid, const std::string& queue) {
    const std::string process = "/proc/" + std::to_string(pid);
    if (TempDir::readFile(process + "/stat").find(") S ") == std::string::npos) return false;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(process + "/fd", ignored)) {
        const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
        if (target.compare(0, queue.size(), queue) == 0) return true;
    }
    return false;
}

class KivsendTest : public ::testing::Test {
  protected:
    std::vector<std::string> command(std::vector<std::string> words) const {
        words.insert(words.begin(), {kProgram, "--queue", queue.name()});
        return words;
    }

    /// Runs to the end with `input` on standard input.
    Outcome run(std::vector<std::string> words, const std::string& input = "") const {
        return Child(command(std::move(words)), dir.write("input", input)).wait();
    }

    /// Runs with words that must be refused as wrong usage, and gives what is said about them.
    std::string refusal(std::vector<std::string> words) {
        const Outcome outcome = run(std::move(words), R"({"event-type":"a"})");
        EXPECT_EQ(1, outcome.status);
        EXPECT_EQ("", outcome.out);
        EXPECT_THAT(queue.drain(), IsEmpty());
        return outcome.err;
    }

    TestQueue queue;
    TempDir dir;
};

void expectSent(const Outcome& outcome) {
    EXPECT_EQ(0, outcome.status);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ("", outcome.err);
}

// ---- One event from the command line -------------------------------------------------------

/// A type, alone or with data, is posted as one event in compact JSON.
TEST_F(KivsendTest, SendsATypeAlone) {
    expectSent(run({"usage.epg"}));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"usage.epg"})"));
}

/// A type, alone or with data, is posted as one event in compact JSON.
TEST_F(KivsendTest, SendsATypeWithDataCompactly) {
    expectSent(run({"usage.epg", "{ \"channel\": 5,\n \"list\": [1, true, null] }"}));
    EXPECT_THAT(
        queue.drain(),
        ElementsAre(R"({"event-type":"usage.epg","data":{"channel":5,"list":[1,true,null]}})"));
}

/// Text, real numbers and the widest integers arrive as they were typed.
TEST_F(KivsendTest, KeepsTextBeyondAsciiAsItIs) {
    expectSent(run({"a", R"({"name": "Küche \u00e9 \"x\""})"}));
    EXPECT_THAT(queue.drain(),
                ElementsAre(R"({"event-type":"a","data":{"name":"Küche é \"x\""}})"));
}

/// Text, real numbers and the widest integers arrive as they were typed.
TEST_F(KivsendTest, WritesRealNumbersAsTheyWereTyped) {
    expectSent(run({"a", R"({"x": [0.1, -2.5, 1.0, 1e100]})"}));
    EXPECT_THAT(queue.drain(),
                ElementsAre(R"({"event-type":"a","data":{"x":[0.1,-2.5,1.0,1e100]}})"));
}

/// Text, real numbers and the widest integers arrive as they were typed.
TEST_F(KivsendTest, KeepsEveryDigitThatARealNumberNeeds) {
    expectSent(run({"a", R"({"x": 0.30000000000000004})"}));
    EXPECT_THAT(queue.drain(),
                ElementsAre(R"({"event-type":"a","data":{"x":0.30000000000000004}})"));
}

/// Text, real numbers and the widest integers arrive as they were typed.
TEST_F(KivsendTest, KeepsTheWidestIntegers) {
    expectSent(run({"a", R"({"x": [9223372036854775807, -9223372036854775808]})"}));
    EXPECT_THAT(
        queue.drain(),
        ElementsAre(
            R"({"event-type":"a","data":{"x":[9223372036854775807,-9223372036854775808]}})"));
}

/// "--url" announces a file; "--info" describes it inside the data, also where there is no
/// other.
TEST_F(KivsendTest, AnnouncesAFile) {
    expectSent(run({"a", "--url", "/tmp/a.log"}));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a","oob-url":"/tmp/a.log"})"));
}

/// "--url" announces a file; "--info" describes it inside the data, also where there is no
/// other.
TEST_F(KivsendTest, DescribesAFileInsideTheData) {
    expectSent(run({"--url=/tmp/a.log", "--info", R"({"unique-id": "u1"})", "a", R"({"b": 1})"}));
    EXPECT_THAT(
        queue.drain(),
        ElementsAre(
            R"({"event-type":"a","data":{"b":1,"oob-info":{"unique-id":"u1"}},"oob-url":"/tmp/a.log"})"));
}

/// "--url" announces a file; "--info" describes it inside the data, also where there is no
/// other.
TEST_F(KivsendTest, DescribesAFileWithoutOtherData) {
    expectSent(run({"a", "--info={}"}));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a","data":{"oob-info":{}}})"));
}

/// "--kernel-time" dates the event, beyond 32 bits too.
TEST_F(KivsendTest, SetsTheKernelTimeBeyond32Bits) {
    expectSent(run({"a", "--kernel-time", "12345678901234"}));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a","kernel-time":12345678901234})"));
}

/// "--repeat" sends an event, or each line, that many times.
TEST_F(KivsendTest, RepeatsAnEvent) {
    expectSent(run({"a", "--repeat", "3"}));
    const std::string event = R"({"event-type":"a"})";
    EXPECT_THAT(queue.drain(), ElementsAre(event, event, event));
}

/// With a type given, standard input is not read.
TEST_F(KivsendTest, DoesNotReadStandardInputWhenATypeIsGiven) {
    expectSent(run({"a"}, R"({"event-type":"other"})"));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})"));
}

// ---- Help and version ----------------------------------------------------------------------

const char* const kHelpText =
    "Usage: kivsend [OPTIONS] EVENT-TYPE [DATA]\n"
    "       kivsend [OPTIONS] [-]\n"
    "Posts events on the message queue of kivApp.\n"
    "\n"
    "With EVENT-TYPE, one event is sent; DATA is its \"data\", a JSON object.\n"
    "Without, each line of standard input is one whole event, a JSON object;\n"
    "blank lines are skipped, bad ones are reported and skipped.\n"
    "\n"
    "      --sync[=SECONDS]   wait until kivApp has handled each event (default 5)\n"
    "      --rate N           send at most N events per second\n"
    "      --repeat N         send each event N times\n"
    "      --url PATH         announce a file for upload (\"oob-url\")\n"
    "      --info JSON        description of that file (\"oob-info\" in \"data\")\n"
    "      --kernel-time MS   monotonic milliseconds at which the event happened\n"
    "      --timeout SECONDS  how long an event may wait for room in the queue\n"
    "                         (default 30)\n"
    "      --no-wait          a full queue is an error at once\n"
    "      --queue NAME       name of the queue (default $KIV_QUEUE, else /kiv_queue)\n"
    "  -q, --quiet            do not report what could not be sent\n"
    "  -h, --help             print this help and exit\n"
    "  -V, --version          print the version and exit\n"
    "\n"
    "Exit status:\n"
    "  0  all events sent\n"
    "  1  wrong usage\n"
    "  2  bad JSON\n"
    "  3  no such queue (kivApp is not running)\n"
    "  4  message too large for the queue\n"
    "  5  queue full, with --no-wait\n"
    "  6  time-out of --sync\n"
    "  7  other system error\n"
    "  8  no room in the queue in time (kivApp is dead or busy)\n"
    "  9  no permission to post\n"
    " 10  an event that kivApp could not store: a single quote\n";

/// Help and version are printed whole with status 0, and nothing is sent.
TEST_F(KivsendTest, HelpListsOptionsAndExitStatuses) {
    for (const char* option : {"--help", "-h"}) {
        const Outcome outcome = run({option, "a"});
        EXPECT_EQ(0, outcome.status);
        EXPECT_EQ(kHelpText, outcome.out);
        EXPECT_EQ("", outcome.err);
    }
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// Help and version are printed whole with status 0, and nothing is sent.
TEST_F(KivsendTest, VersionIsOneLine) {
    for (const char* option : {"--version", "-V"}) {
        const Outcome outcome = run({option, "a"});
        EXPECT_EQ(0, outcome.status);
        EXPECT_THAT(outcome.out, MatchesRegex("kivsend [0-9]+\\.[0-9]+\\.[0-9]+\n"));
        EXPECT_EQ("", outcome.err);
    }
    EXPECT_THAT(queue.drain(), IsEmpty());
}

// ---- Status 1: usage -----------------------------------------------------------------------

/// Wrong usage is status 1 with one reason, and nothing is sent: unknown options, missing or
/// surplus arguments, an empty type.
TEST_F(KivsendTest, RefusesAnUnknownOption) {
    const std::string hint = "kivsend: see kivsend --help\n";
    EXPECT_EQ("kivsend: unrecognized option '--nonsense'\n" + hint, refusal({"--nonsense", "a"}));
    EXPECT_EQ("kivsend: invalid option -- 'x'\n" + hint, refusal({"-x", "a"}));
    EXPECT_EQ("kivsend: option '--url' requires an argument\n" + hint, refusal({"a", "--url"}));
    EXPECT_EQ("kivsend: option '--quiet' doesn't allow an argument\n" + hint,
              refusal({"a", "--quiet=1"}));
}

/// Wrong usage is status 1 with one reason, and nothing is sent: unknown options, missing or
/// surplus arguments, an empty type.
TEST_F(KivsendTest, RefusesWordsThatMakeNoEvent) {
    EXPECT_EQ("kivsend: c: one argument too many (see kivsend --help)\n",
              refusal({"a", "{}", "c"}));
    EXPECT_EQ("kivsend: the event type is empty (see kivsend --help)\n", refusal({""}));
    EXPECT_EQ("kivsend: '-' takes no data (see kivsend --help)\n", refusal({"-", "{}"}));
}

/// Options that describe one event are refused for standard input.
TEST_F(KivsendTest, RefusesToDescribeEventsOfStandardInput) {
    const std::string text =
        "kivsend: --url, --info and --kernel-time need an event type (see kivsend --help)\n";
    EXPECT_EQ(text, refusal({"--url", "/tmp/a"}));
    EXPECT_EQ(text, refusal({"--info", "{}", "-"}));
    EXPECT_EQ(text, refusal({"--kernel-time", "1"}));
}

/// Numbers out of range and impossible names of the queue are refused with the range or form
/// that holds.
TEST_F(KivsendTest, RefusesNumbersOutOfRange) {
    const std::string end = "' is no number from 0.001 to 1000000 (see kivsend --help)\n";
    for (const char* bad : {"", "0", "-1", "1e7", "nan", "inf", "2x"}) {
        EXPECT_EQ("kivsend: --sync: '" + (bad + end), refusal({"a", std::string("--sync=") + bad}));
        EXPECT_EQ("kivsend: --rate: '" + (bad + end), refusal({"a", "--rate", bad}));
    }
}

/// Numbers out of range and impossible names of the queue are refused with the range or form
/// that holds.
TEST_F(KivsendTest, RefusesIntegersOutOfRange) {
    for (const char* bad : {"", "0", "-1", "1.5", "99999999999999999999", "x"}) {
        EXPECT_EQ("kivsend: --repeat: '" + std::string(bad) +
                      "' is no whole number from 1 (see kivsend --help)\n",
                  refusal({"a", "--repeat", bad}));
    }
    EXPECT_EQ("kivsend: --kernel-time: '-1' is no whole number from 0 (see kivsend --help)\n",
              refusal({"a", "--kernel-time", "-1"}));
}

/// Numbers out of range and impossible names of the queue are refused with the range or form
/// that holds.
TEST_F(KivsendTest, RefusesQueueNamesThatTheSystemCannotHave) {
    for (const char* bad : {"", "/", "kiv_queue", "/a/b"}) {
        EXPECT_EQ("kivsend: --queue: '" + std::string(bad) +
                      "' is not '/' and a name without slashes (see kivsend --help)\n",
                  refusal({"a", "--queue", bad}));
    }
}

// ---- Status 2: JSON ------------------------------------------------------------------------

/// Bad JSON, data or a file's description that is not an object, and text that is not UTF-8 are
/// status 2, and nothing is sent.
TEST_F(KivsendTest, ReportsBadData) {
    const Outcome outcome = run({"a", "{\"channel\": 5"});
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("kivsend: data: '}' expected near end of file (byte 13)\n", outcome.err);
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// Bad JSON, data or a file's description that is not an object, and text that is not UTF-8 are
/// status 2, and nothing is sent.
TEST_F(KivsendTest, ReportsDataThatIsNoObject) {
    for (const char* data : {"5", "[1]", "\"x\"", "null"}) {
        const Outcome outcome = run({"a", data});
        EXPECT_EQ(2, outcome.status);
        EXPECT_EQ("kivsend: data: not a JSON object\n", outcome.err);
    }
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// Bad JSON, data or a file's description that is not an object, and text that is not UTF-8 are
/// status 2, and nothing is sent.
TEST_F(KivsendTest, ReportsBadFileInformation) {
    const Outcome outcome = run({"a", "{}", "--info", "[]"});
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("kivsend: --info: not a JSON object\n", outcome.err);
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// Bad JSON, data or a file's description that is not an object, and text that is not UTF-8 are
/// status 2, and nothing is sent.
TEST_F(KivsendTest, ReportsTextThatIsNotUtf8) {
    const Outcome type = run({"a\xff"});
    EXPECT_EQ(2, type.status);
    EXPECT_EQ("kivsend: event type: not valid UTF-8\n", type.err);
    const Outcome url = run({"a", "--url", "/tmp/\xff"});
    EXPECT_EQ(2, url.status);
    EXPECT_EQ("kivsend: --url: not valid UTF-8\n", url.err);
    const Outcome data = run({"a", "{\"x\":\"\xff\"}"});
    EXPECT_EQ(2, data.status);
    EXPECT_EQ("kivsend: data: unable to decode byte 0xff near '\"' (byte 6)\n", data.err);
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// The data is judged before the queue is looked for.
TEST_F(KivsendTest, JudgesTheDataBeforeItLooksForTheQueue) {
    Child child({kProgram, "--queue", queue.name() + ".absent", "a", "{"}, "/dev/null");
    EXPECT_EQ(2, child.wait().status);
}

// ---- Status 3, 4, 5, 7: the queue ----------------------------------------------------------

/// A missing queue is status 3 with a hint at the daemon, and is not made.
TEST_F(KivsendTest, ReportsAMissingQueue) {
    const std::string absent = queue.name() + ".absent";
    for (const char* word : {"a", "-"}) {
        const Outcome outcome = Child({kProgram, "--queue", absent, word}, "/dev/null").wait();
        EXPECT_EQ(3, outcome.status);
        EXPECT_EQ("", outcome.out);
        EXPECT_EQ("kivsend: " + absent + ": no such queue (is kivApp running?)\n", outcome.err);
    }
    EXPECT_EQ(static_cast<mqd_t>(-1), mq_open(absent.c_str(), O_RDONLY));
}

/// A message as large as the queue takes is sent; one byte more is status 4 with both sizes.
TEST_F(KivsendTest, SendsAMessageAsLargeAsTheQueueTakes) {
    const std::string frame = R"({"event-type":"a","data":{"x":""}})";
    const std::string fitting(256 - frame.size(), 'x');
    expectSent(run({"a", "{\"x\":\"" + fitting + "\"}"}));
    EXPECT_THAT(queue.drain(),
                ElementsAre(R"({"event-type":"a","data":{"x":")" + fitting + "\"}}"));

    const Outcome outcome = run({"a", "{\"x\":\"" + fitting + "x\"}"});
    EXPECT_EQ(4, outcome.status);
    EXPECT_EQ("kivsend: message too large: 257 bytes, the queue takes 256\n", outcome.err);
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// With "--no-wait" it is status 5; while there is room events are sent.
TEST_F(KivsendTest, ReportsAFullQueueWhenItMayNotWait) {
    queue.fill(10);
    const Outcome outcome = run({"a", "--no-wait"});
    EXPECT_EQ(5, outcome.status);
    EXPECT_EQ("kivsend: " + queue.name() + ": full\n", outcome.err);
    EXPECT_EQ(10u, queue.drain().size());
}

/// With "--no-wait" it is status 5; while there is room events are sent.
TEST_F(KivsendTest, NoWaitSendsWhileThereIsRoom) {
    expectSent(run({"a", "--no-wait", "--repeat", "10"}));
    EXPECT_EQ(10u, queue.drain().size());
}

/// A full queue is waited for.
TEST_F(KivsendTest, WaitsForRoomInAFullQueue) {
    queue.fill(10);
    Child child(command({"a"}), "/dev/null");
    EXPECT_TRUE(WaitUntil([&] { return sleepsOnQueue(child.pid(), queue.name()); }));
    for (int i = 0; i < 10; ++i) EXPECT_EQ("{}", queue.receive());
    EXPECT_EQ(R"({"event-type":"a"})", queue.receive());
    expectSent(child.wait());
}

/// A queue that stays full, as that of a dead daemon does, ends the wait with status 8: after the
/// time of "--timeout", 30 s unless told otherwise.
TEST_F(KivsendTest, GivesUpOnAQueueThatNobodyReads) {
    queue.fill(10);
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = run({"a", "--timeout=0.25"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(250));
    EXPECT_EQ(8, outcome.status);
    EXPECT_EQ("kivsend: " + queue.name() + ": no room within 0.25 s (is kivApp dead or busy?)\n",
              outcome.err);
    EXPECT_EQ(10u, queue.drain().size());
}

/// A queue that stays full, as that of a dead daemon does, ends the wait with status 8: after the
/// time of "--timeout", 30 s unless told otherwise.
TEST_F(KivsendTest, GivesUpAfterThirtySecondsUnlessToldOtherwise) {
    queue.fill(10);
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = run({}, "{\"event-type\":\"a\"}\n{\"event-type\":\"b\"}\n");
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(30000));
    EXPECT_EQ(8, outcome.status);
    EXPECT_EQ(
        "kivsend: line 1: " + queue.name() + ": no room within 30 s (is kivApp dead or busy?)\n",
        outcome.err);
}

/// An event with a single quote, which the daemon could not store, is refused with status 10; of
/// several lines the others are sent.
TEST_F(KivsendTest, RefusesASingleQuote) {
    const std::string why = "single quote in the event: kivApp cannot store it\n";
    const Outcome one = run({"a", R"({"text":"it's"})"});
    EXPECT_EQ(10, one.status);
    EXPECT_EQ("kivsend: " + why, one.err);
    const Outcome lines = run({},
                              "{\"event-type\":\"a\",\"data\":{\"x\":\"\\u0027\"}}\n"
                              "{\"event-type\":\"b\"}\n");
    EXPECT_EQ(10, lines.status);
    EXPECT_EQ("kivsend: line 1: " + why, lines.err);
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"b"})"));
}

/// The environment's KIV_QUEUE names the queue where "--queue" does not; an impossible name there
/// is wrong usage.
TEST_F(KivsendTest, TakesTheNameOfTheQueueFromTheEnvironment) {
    expectSent(
        Child({"/usr/bin/env", "KIV_QUEUE=" + queue.name(), kProgram, "a"}, "/dev/null").wait());
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})"));
    const Outcome bad = Child({"/usr/bin/env", "KIV_QUEUE=x", kProgram, "a"}, "/dev/null").wait();
    EXPECT_EQ(1, bad.status);
    EXPECT_EQ("kivsend: 'x' is not '/' and a name without slashes\n", bad.err);
}

/// A queue that was taken away and made anew while the command runs gets the next lines.
TEST_F(KivsendTest, PostsToTheQueueThatWasMadeAnew) {
    Child child(command({"-"}));
    child.write("{\"event-type\":\"a\"}\n");
    EXPECT_EQ(R"({"event-type":"a"})", queue.receive());
    queue.makeAnew();
    child.write("{\"event-type\":\"b\"}\n");
    EXPECT_EQ(R"({"event-type":"b"})", queue.receive());
    expectSent(child.wait());
}

/// Other errors of the system, of the queue or of standard input, are status 7 with their text.
TEST_F(KivsendTest, ReportsOtherErrorsOfTheSystem) {
    const std::string tooLong = "/" + std::string(300, 'q');
    const Outcome outcome = Child({kProgram, "--queue", tooLong, "a"}, "/dev/null").wait();
    EXPECT_EQ(7, outcome.status);
    EXPECT_EQ("kivsend: " + tooLong + ": File name too long\n", outcome.err);
}

/// Other errors of the system, of the queue or of standard input, are status 7 with their text.
TEST_F(KivsendTest, ReportsStandardInputThatCannotBeRead) {
    const Outcome outcome = Child(command({"-"}), dir.path()).wait();
    EXPECT_EQ(7, outcome.status);
    EXPECT_EQ("kivsend: standard input: Is a directory\n", outcome.err);
}

/// Quiet leaves only the status of what could not be sent; wrong usage is still told.
TEST_F(KivsendTest, QuietLeavesOnlyTheStatus) {
    for (const char* option : {"--quiet", "-q"}) {
        const Outcome data = run({option, "a", "{"});
        EXPECT_EQ(2, data.status);
        EXPECT_EQ("", data.err);
        const Outcome line = run({option}, "x\n");
        EXPECT_EQ(2, line.status);
        EXPECT_EQ("", line.err);
    }
}

/// Quiet leaves only the status of what could not be sent; wrong usage is still told.
TEST_F(KivsendTest, QuietStillTellsWrongUsage) {
    EXPECT_EQ("kivsend: the event type is empty (see kivsend --help)\n", refusal({"-q", ""}));
}

// ---- Standard input ------------------------------------------------------------------------

/// Each line of standard input is one event, sent as soon as it has arrived, the last one also
/// without its line end.
TEST_F(KivsendTest, SendsEachLineOfStandardInput) {
    for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"-"}}) {
        expectSent(run(words, "{\"event-type\": \"a\"}\n{\"event-type\": \"b\", \"x\": 1}\n"));
        EXPECT_THAT(queue.drain(),
                    ElementsAre(R"({"event-type":"a"})", R"({"event-type":"b","x":1})"));
    }
}

/// Each line of standard input is one event, sent as soon as it has arrived, the last one also
/// without its line end.
TEST_F(KivsendTest, SendsALineAsSoonAsItArrives) {
    Child child(command({"-"}));
    child.write("{\"event-type\":\"a\"}\n");
    EXPECT_EQ(R"({"event-type":"a"})", queue.receive());
    child.write("{\"event-type\":\"b\"}\n");
    EXPECT_EQ(R"({"event-type":"b"})", queue.receive());
    expectSent(child.wait());
}

/// Each line of standard input is one event, sent as soon as it has arrived, the last one also
/// without its line end.
TEST_F(KivsendTest, TakesALastLineWithoutItsEnd) {
    expectSent(run({}, "{\"event-type\":\"a\"}\n{\"event-type\":\"b\"}"));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})", R"({"event-type":"b"})"));
}

/// Blank lines are skipped, carriage returns taken; empty input sends nothing and is a success.
TEST_F(KivsendTest, SkipsBlankLinesAndTakesCarriageReturns) {
    expectSent(run({}, "\n  \t\r\n{\"event-type\":\"a\"}\r\n\n"));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})"));
}

/// Blank lines are skipped, carriage returns taken; empty input sends nothing and is a success.
TEST_F(KivsendTest, SendsNothingFromEmptyInput) {
    expectSent(run({}, ""));
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// Bad lines, a NUL byte's included, are told by number with status 2; the others are sent.
TEST_F(KivsendTest, ReportsBadLinesByNumberAndSendsTheOthers) {
    const Outcome outcome = run({},
                                "{\"event-type\":\"a\"}\n"
                                "\n"
                                "{\"event-type\":\n"
                                "[1]\n"
                                "{\"type\":\"x\"}\n"
                                "{\"event-type\":5}\n"
                                "{\"event-type\":\"b\"} rest\n"
                                "{\"event-type\":\"c\"}\n");
    EXPECT_EQ(2, outcome.status);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ(
        "kivsend: line 3: unexpected token near end of file (byte 14)\n"
        "kivsend: line 4: not a JSON object\n"
        "kivsend: line 5: no \"event-type\" string\n"
        "kivsend: line 6: no \"event-type\" string\n"
        "kivsend: line 7: end of file expected near 'rest' (byte 23)\n",
        outcome.err);
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})", R"({"event-type":"c"})"));
}

/// Bad lines, a NUL byte's included, are told by number with status 2; the others are sent.
TEST_F(KivsendTest, RefusesALineWithANulByte) {
    const std::string line = std::string("{\"event-type\":\"a\"}") + '\0' + "\n";
    const Outcome outcome = run({}, line);
    EXPECT_EQ(2, outcome.status);
    EXPECT_THAT(outcome.err, StartsWith("kivsend: line 1: "));
    EXPECT_THAT(queue.drain(), IsEmpty());
}

/// A line too large for the queue, of whatever length, is told and skipped; what counts is the
/// message without the line's blanks.
TEST_F(KivsendTest, SkipsALineThatIsTooLargeForTheQueue) {
    const std::string large = "{\"event-type\":\"" + std::string(300, 'x') + "\"}\n";
    const Outcome outcome = run({}, large + "{\"event-type\":\"b\"}\n");
    EXPECT_EQ(4, outcome.status);
    EXPECT_EQ("kivsend: line 1: message too large: 317 bytes, the queue takes 256\n", outcome.err);
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"b"})"));
}

/// A line too large for the queue, of whatever length, is told and skipped; what counts is the
/// message without the line's blanks.
TEST_F(KivsendTest, SkipsAVeryLongLineWithoutKeepingIt) {
    const std::string endless(3000000, '[');
    const Outcome outcome = run({}, endless + "\n{\"event-type\":\"b\"}\n");
    EXPECT_EQ(4, outcome.status);
    EXPECT_EQ("kivsend: line 1: message too large: 3000000 bytes, the queue takes 256\n",
              outcome.err);
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"b"})"));
}

/// A line too large for the queue, of whatever length, is told and skipped; what counts is the
/// message without the line's blanks.
TEST_F(KivsendTest, MeasuresTheMessageNotTheBlanksOfItsLine) {
    expectSent(run({}, "{\"event-type\":" + std::string(500000, ' ') + "\"a\"}\n"));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a"})"));
}

/// With "--no-wait" a full queue costs one line, the next is looked at, and the first failure
/// is the exit status.
TEST_F(KivsendTest, GoesOnWithTheNextLineWhenTheQueueIsFull) {
    queue.fill(9);
    const Outcome outcome =
        run({"--no-wait"}, "{\"event-type\":\"a\"}\n{\"event-type\":\"b\"}\n{\n");
    EXPECT_EQ(5, outcome.status);
    EXPECT_EQ("kivsend: line 2: " + queue.name() +
                  ": full\n"
                  "kivsend: line 3: string or '}' expected near end of file (byte 1)\n",
              outcome.err);
    EXPECT_EQ(R"({"event-type":"a"})", queue.drain().back());
}

/// "--repeat" sends an event, or each line, that many times.
TEST_F(KivsendTest, RepeatsEachLine) {
    expectSent(run({"--repeat=2"}, "{\"event-type\":\"a\"}\n{\"event-type\":\"b\"}\n"));
    const std::string a = R"({"event-type":"a"})", b = R"({"event-type":"b"})";
    EXPECT_THAT(queue.drain(), ElementsAre(a, a, b, b));
}

/// A semaphore that a line names is passed on.
TEST_F(KivsendTest, PassesOnASemaphoreThatALineNames) {
    expectSent(run({}, "{\"event-type\":\"a\",\"syncsem\":\"/mine\"}\n"));
    EXPECT_THAT(queue.drain(), ElementsAre(R"({"event-type":"a","syncsem":"/mine"})"));
}

// ---- Rate ----------------------------------------------------------------------------------

/// How many messages come within `window` after the first.
int countWithin(TestQueue& queue, milliseconds window) {
    if (!queue.receive()) return 0;
    const auto end = std::chrono::steady_clock::now() + window;
    int count = 1;
    while (std::chrono::steady_clock::now() < end) {
        if (queue.receive(milliseconds(10))) ++count;
    }
    return count;
}

/// "--rate" spaces lines and repeated events; the first goes at once, and nothing is waited for
/// after the last.
TEST_F(KivsendTest, KeepsTheRate) {
    std::string lines;
    for (int i = 0; i < 1000; ++i) lines += "{\"event-type\":\"a\"}\n";
    Child child(command({"--rate", "20"}), dir.write("input", lines));
    const int count = countWithin(queue, milliseconds(300));
    EXPECT_GE(count, 2);
    EXPECT_LE(count, 14);
    EXPECT_TRUE(child.running());
}

/// "--rate" spaces lines and repeated events; the first goes at once, and nothing is waited for
/// after the last.
TEST_F(KivsendTest, KeepsTheRateOfRepeatedEvents) {
    Child child(command({"a", "--rate=20", "--repeat=1000"}), "/dev/null");
    const int count = countWithin(queue, milliseconds(300));
    EXPECT_GE(count, 2);
    EXPECT_LE(count, 14);
    EXPECT_TRUE(child.running());
}

/// "--rate" spaces lines and repeated events; the first goes at once, and nothing is waited for
/// after the last.
TEST_F(KivsendTest, SendsTheFirstEventAtOnceAndDoesNotWaitAfterTheLast) {
    const auto start = std::chrono::steady_clock::now();
    expectSent(run({"a", "--rate", "0.01"}));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(50));
    EXPECT_EQ(1u, queue.drain().size());
}

// ---- Sync ----------------------------------------------------------------------------------

/// "--sync" waits until the daemon has handled the event, by a semaphore of its own that is
/// gone afterwards.
TEST_F(KivsendTest, WaitsUntilTheEventIsHandled) {
    Child child(command({"a", "--sync"}), "/dev/null");
    const std::string message = queue.receive().value_or("");
    const std::string semaphore = memberOf(message, "syncsem");
    EXPECT_EQ(R"({"event-type":"a","syncsem":")" + semaphore + "\"}", message);
    EXPECT_THAT(semaphore,
                MatchesRegex("/kivsend\\." + std::to_string(child.pid()) + "\\.[0-9a-f]{8}"));
    EXPECT_TRUE(child.running());
    EXPECT_TRUE(postSemaphore(semaphore));
    expectSent(child.wait());
    EXPECT_FALSE(semaphoreExists(semaphore));
}

/// Without an answer in time, 5 s unless told otherwise, the status is 6.
TEST_F(KivsendTest, ReportsThatNobodyAnswers) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = run({"a", "--sync=0.25"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(250));
    EXPECT_EQ(6, outcome.status);
    EXPECT_EQ("kivsend: no answer within 0.25 s\n", outcome.err);
    EXPECT_FALSE(semaphoreExists(memberOf(queue.receive().value_or(""), "syncsem")));
}

/// Without an answer in time, 5 s unless told otherwise, the status is 6.
TEST_F(KivsendTest, WaitsFiveSecondsUnlessToldOtherwise) {
    const auto start = std::chrono::steady_clock::now();
    const Outcome outcome = run({"a", "--sync"});
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(5000));
    EXPECT_EQ(6, outcome.status);
    EXPECT_EQ("kivsend: no answer within 5 s\n", outcome.err);
}

/// The time of "--sync" includes the wait for room; a full queue leaves no semaphore in the system.
TEST_F(KivsendTest, CountsTheWaitForRoomAsWell) {
    queue.fill(10);
    Child child(command({"a", "--sync=0.2"}), "/dev/null");
    const pid_t pid = child.pid();
    const Outcome outcome = child.wait();
    EXPECT_EQ(6, outcome.status);
    EXPECT_EQ("kivsend: " + queue.name() + ": no room within 0.2 s\n", outcome.err);
    EXPECT_THAT(semaphoresOf(pid), IsEmpty());
    EXPECT_EQ(10u, queue.drain().size());
}

/// The time of "--sync" includes the wait for room; a full queue leaves no semaphore in the system.
TEST_F(KivsendTest, MakesNoSemaphoreForAFullQueueToKeep) {
    queue.fill(10);
    Child child(command({"a", "--sync", "--no-wait"}), "/dev/null");
    const pid_t pid = child.pid();
    EXPECT_EQ(5, child.wait().status);
    EXPECT_THAT(semaphoresOf(pid), IsEmpty());
}

/// The semaphore's name counts in the size of the message.
TEST_F(KivsendTest, CountsTheSemaphoreNameInTheMessageSize) {
    const std::string frame = R"({"event-type":"a","data":{"x":""}})";
    Child child(
        command({"a", "{\"x\":\"" + std::string(256 - frame.size(), 'x') + "\"}", "--sync"}),
        "/dev/null");
    const pid_t pid = child.pid();
    const std::size_t added =
        std::string(R"(,"syncsem":"/kivsend..01234567")").size() + std::to_string(pid).size();
    const Outcome outcome = child.wait();
    EXPECT_EQ(4, outcome.status);
    EXPECT_EQ("kivsend: message too large: " + std::to_string(256 + added) +
                  " bytes, the queue takes 256\n",
              outcome.err);
    EXPECT_THAT(semaphoresOf(pid), IsEmpty());
}

/// Each line has a semaphore of its own, in the place of one that it names; the next line waits
/// for the answer.
TEST_F(KivsendTest, GivesEachLineASemaphoreOfItsOwn) {
    const std::string lines =
        "{\"event-type\":\"a\"}\n{\"event-type\":\"b\",\"syncsem\":\"/mine\"}\n";
    Child child(command({"--sync=30"}), dir.write("input", lines));
    const std::string first = memberOf(queue.receive().value_or(""), "syncsem");
    EXPECT_EQ(std::nullopt, queue.receive(milliseconds(0)));
    EXPECT_TRUE(postSemaphore(first));
    const std::string second = memberOf(queue.receive().value_or(""), "syncsem");
    EXPECT_NE(first, second);
    EXPECT_FALSE(semaphoreExists(first));
    EXPECT_TRUE(postSemaphore(second));
    expectSent(child.wait());
    EXPECT_FALSE(semaphoreExists(second));
}

/// The first line that is not answered ends the run with status 6.
TEST_F(KivsendTest, EndsAtTheFirstLineThatIsNotAnswered) {
    const Outcome outcome =
        run({"--sync=0.05"}, "x\n{\"event-type\":\"a\"}\n{\"event-type\":\"b\"}\n");
    EXPECT_EQ(6, outcome.status);
    EXPECT_THAT(outcome.err, HasSubstr("kivsend: line 2: no answer within 0.05 s\n"));
    EXPECT_EQ(1u, queue.drain().size());
}

/// A signal that ends the command, before or after the event was sent, leaves no semaphore; a
/// signal that the caller ignores ends nothing.
TEST_F(KivsendTest, UnlinksTheSemaphoreWhenASignalEndsIt) {
    for (int number : {SIGINT, SIGTERM, SIGHUP}) {
        Child child(command({"a", "--sync=60"}), "/dev/null");
        const std::string semaphore = memberOf(queue.receive().value_or(""), "syncsem");
        EXPECT_TRUE(semaphoreExists(semaphore));
        child.signal(number);
        const Outcome outcome = child.wait();
        EXPECT_EQ(128 + number, outcome.status);
        EXPECT_EQ("", outcome.err);
        EXPECT_FALSE(semaphoreExists(semaphore));
    }
}

/// A signal that ends the command, before or after the event was sent, leaves no semaphore; a
/// signal that the caller ignores ends nothing.
TEST_F(KivsendTest, UnlinksTheSemaphoreWhenASignalEndsItBeforeTheQueueHasRoom) {
    queue.fill(10);
    for (int number : {SIGINT, SIGTERM}) {
        Child child(command({"a", "--sync=60"}), "/dev/null");
        const pid_t pid = child.pid();
        ASSERT_TRUE(WaitUntil([&] { return semaphoresOf(pid).size() == 1; }));
        child.signal(number);
        EXPECT_EQ(128 + number, child.wait().status);
        EXPECT_THAT(semaphoresOf(pid), IsEmpty());
    }
}

/// A signal that ends the command, before or after the event was sent, leaves no semaphore; a
/// signal that the caller ignores ends nothing.
TEST_F(KivsendTest, WaitsOnThroughASignalThatItsCallerIgnores) {
    std::string line = "trap '' INT; exec \"$0\" \"$@\"";
    std::vector<std::string> words = command({"a", "--sync=0.4"});
    words.insert(words.begin(), {"/bin/sh", "-c", line});
    Child child(words, "/dev/null");
    EXPECT_TRUE(queue.receive().has_value());
    child.signal(SIGINT);
    const Outcome outcome = child.wait();
    EXPECT_EQ(6, outcome.status);
    EXPECT_EQ("kivsend: no answer within 0.4 s\n", outcome.err);
}

/// The semaphore may be posted by every user.
TEST_F(KivsendTest, LetsOtherUsersPostTheSemaphore) {
    Child child(command({"a", "--sync=60"}), "/dev/null");
    const std::string semaphore = memberOf(queue.receive().value_or(""), "syncsem");
    ASSERT_GT(semaphore.size(), 1u);
    const auto rights =
        std::filesystem::status("/dev/shm/sem." + semaphore.substr(1)).permissions();
    EXPECT_EQ(std::filesystem::perms(0666), rights);
    EXPECT_TRUE(postSemaphore(semaphore));
    expectSent(child.wait());
}

}  // namespace
