#include "kivevent.h"

#include "support/MessageQueue.h"
#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <jansson.h>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

const char* const kEvent = R"({"event-type":"a"})";

/// The daemon's end of a queue of the test's own.
class DaemonQueue {
  public:
    explicit DaemonQueue(std::string name) : m_name(std::move(name)) { make(); }
    ~DaemonQueue() { end(); }
    DaemonQueue(const DaemonQueue&) = delete;
    DaemonQueue& operator=(const DaemonQueue&) = delete;

    void make(long messages = 10, long size = 256) {
        mq_attr attributes{};
        attributes.mq_maxmsg = messages;
        attributes.mq_msgsize = size;
        m_size = static_cast<std::size_t>(size);
        const int flags = O_RDONLY | O_NONBLOCK | O_CREAT | O_EXCL;
        m_queue = mq_open(m_name.c_str(), flags, 0600, &attributes);
        ASSERT_NE(-1, m_queue) << strerror(errno);
    }
    /// In the daemon's order: the name first.
    void end() {
        unlinkName();
        if (m_queue != -1) mq_close(m_queue);
        m_queue = -1;
    }
    void unlinkName() const { mq_unlink(m_name.c_str()); }
    void makeAnew(long messages = 10, long size = 256) {
        end();
        make(messages, size);
    }

    std::optional<std::string> receive() const {
        std::string message(m_size, '\0');
        const ssize_t size = mq_receive(m_queue, message.data(), message.size(), nullptr);
        if (size < 0) return std::nullopt;
        message.resize(static_cast<std::size_t>(size));
        return message;
    }
    std::vector<std::string> drain() const {
        std::vector<std::string> messages;
        while (auto message = receive()) messages.push_back(*message);
        return messages;
    }

  private:
    std::string m_name;
    std::size_t m_size = 0;
    mqd_t m_queue = -1;
};

std::string semaphoreOf(const std::string& message) {
    json_t* event = json_loads(message.c_str(), 0, nullptr);
    const char* name = json_string_value(json_object_get(event, "syncsem"));
    const std::string result = name == nullptr ? "" : name;
    json_decref(event);
    return result;
}

bool postSemaphore(const std::string& name) {
    sem_t* semaphore = sem_open(name.c_str(), 0);
    if (semaphore == SEM_FAILED) return false;
    const bool posted = sem_post(semaphore) == 0;
    sem_close(semaphore);
    return posted;
}

bool exists(const std::string& semaphore) {
    struct stat facts {};
    return stat(("/dev/shm/sem." + semaphore.substr(1)).c_str(), &facts) == 0;
}

int exitStatusOf(pid_t child) {
    int state = 0;
    while (waitpid(child, &state, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(state) ? WEXITSTATUS(state) : 128 + WTERMSIG(state);
}

/// A signal whose handler interrupts system calls, sent to a thread again and again.
class Interruptions {
  public:
    explicit Interruptions(pthread_t thread) {
        struct sigaction action {};
        action.sa_handler = [](int) { ++s_count; };
        sigaction(SIGUSR1, &action, &m_before);
        m_thread = std::thread([this, thread] {
            while (!m_done) {
                pthread_kill(thread, SIGUSR1);
                std::this_thread::sleep_for(milliseconds(2));
            }
        });
    }
    ~Interruptions() {
        m_done = true;
        m_thread.join();
        sigaction(SIGUSR1, &m_before, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    static int count() { return s_count; }

  private:
    static inline std::atomic<int> s_count{0};
    struct sigaction m_before {};
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

class KiveventTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(KIVEVENT_OK, kivevent_open(name.c_str(), &handle)); }
    void TearDown() override { kivevent_close(handle); }

    void fill() const {
        while (kivevent_post(handle, kEvent) == KIVEVENT_OK) {
        }
    }

    std::string name = uniqueName("kivevent");
    DaemonQueue daemon{name};
    kivevent_queue* handle = nullptr;
};

std::string detail() {
    return kivevent_detail();
}

// ---- posting
// --------------------------------------------------------------------------------------

/// An event that is taken lies in the queue as it was given, blanks included.
TEST_F(KiveventTest, PostsAnEventAsItWasGiven) {
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, " {\"event-type\": \"a\"} "));
    const std::string text = std::string(kEvent) + "rest";
    EXPECT_EQ(KIVEVENT_OK, kivevent_post_bytes(handle, text.data(), text.size() - 4, 0, nullptr));
    EXPECT_THAT(daemon.drain(), ElementsAre(" {\"event-type\": \"a\"} ", kEvent));
}

/// A full queue is told at once, and nothing waits that was not asked to.
TEST_F(KiveventTest, TellsAFullQueueAtOnce) {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    const auto start = steady_clock::now();
    for (int i = 0; i < 100; ++i) ASSERT_EQ(KIVEVENT_FULL, kivevent_post(handle, kEvent));
    EXPECT_LT(steady_clock::now() - start, milliseconds(2000));
    EXPECT_EQ(name + ": full", detail());
    EXPECT_EQ(10u, daemon.drain().size());
}

/// A wait for room ends when there is some, or with its time.
TEST_F(KiveventTest, WaitsForRoomUpToItsTime) {
    fill();
    const auto start = steady_clock::now();
    EXPECT_EQ(KIVEVENT_TIMEOUT, kivevent_post_wait(handle, kEvent, 250));
    EXPECT_GE(steady_clock::now() - start, milliseconds(250));
    EXPECT_EQ(name + ": no room within 0.25 s (kivApp is dead or busy)", detail());
    std::thread reader([this] {
        std::this_thread::sleep_for(milliseconds(20));
        daemon.receive();
    });
    EXPECT_EQ(KIVEVENT_OK, kivevent_post_wait(handle, R"({"event-type":"last"})", 60000));
    reader.join();
    const auto messages = daemon.drain();
    EXPECT_EQ(10u, messages.size());
    EXPECT_EQ(R"({"event-type":"last"})", messages.back());
}

/// Signals neither end a wait nor lengthen it.
TEST_F(KiveventTest, WaitsOnThroughSignals) {
    fill();
    const Interruptions interruptions(pthread_self());
    const auto start = steady_clock::now();
    EXPECT_EQ(KIVEVENT_TIMEOUT, kivevent_post_wait(handle, kEvent, 300));
    EXPECT_GE(steady_clock::now() - start, milliseconds(300));
    EXPECT_LT(steady_clock::now() - start, milliseconds(3000));
    daemon.drain();
    EXPECT_EQ(KIVEVENT_NOT_HANDLED, kivevent_post_sync(handle, kEvent, 300));
    EXPECT_GE(steady_clock::now() - start, milliseconds(600));
    EXPECT_GT(Interruptions::count(), 3);
}

/// A hundred threads share one handle: each event arrives whole and once.
TEST_F(KiveventTest, ServesAHundredThreads) {
    constexpr int kThreads = 100, kEach = 50;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            for (int n = 0; n < kEach; ++n) {
                const std::string text =
                    "{\"event-type\":\"" + std::to_string(i * kEach + n) + "\"}";
                if (kivevent_post_wait(handle, text.c_str(), 60000) == KIVEVENT_OK) ++taken;
            }
        });
    }
    std::vector<std::string> received;
    WaitUntil(
        [&] {
            for (auto& message : daemon.drain()) received.push_back(std::move(message));
            return received.size() == kThreads * kEach;
        },
        milliseconds(60000));
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(kThreads * kEach, taken);
    ASSERT_EQ(static_cast<std::size_t>(kThreads * kEach), received.size());
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received.end(), std::unique(received.begin(), received.end()));
}

/// Threads that post while the queue is made anew again and again go on, and what is taken is in a
/// queue that the daemon read, or in the one that it took away last.
TEST_F(KiveventTest, ServesThreadsThroughNewQueues) {
    std::atomic<bool> done{false};
    std::atomic<int> taken{0}, odd{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            while (!done) {
                const kivevent_code code = kivevent_post_wait(handle, kEvent, 20);
                if (code == KIVEVENT_OK) ++taken;
                if (code != KIVEVENT_OK && code != KIVEVENT_NO_DAEMON && code != KIVEVENT_TIMEOUT)
                    ++odd;
            }
        });
    }
    std::size_t received = 0;
    for (int round = 0; round < 300; ++round) {
        for (int i = 0; i < 10; ++i) received += daemon.drain().size();
        daemon.unlinkName();
        received += daemon.drain().size();
        daemon.makeAnew();
    }
    done = true;
    for (std::thread& thread : threads) thread.join();
    received += daemon.drain().size();
    EXPECT_EQ(0, odd);
    EXPECT_GT(taken, 0);
    // One that was sent to a queue without a name counts as lost unless it was read by then.
    EXPECT_GE(received, static_cast<std::size_t>(taken));
}

// ---- the daemon comes and goes
// -----------------------------------------------------------------------

/// Without a queue a post says at once that there is no daemon; it works as soon as there is one.
TEST_F(KiveventTest, NeedsNoDaemonUntilItPosts) {
    daemon.end();
    const auto start = steady_clock::now();
    EXPECT_EQ(KIVEVENT_NO_DAEMON, kivevent_post(handle, kEvent));
    EXPECT_EQ(KIVEVENT_NO_DAEMON, kivevent_post_wait(handle, kEvent, 60000));
    EXPECT_LT(steady_clock::now() - start, milliseconds(30000));
    EXPECT_EQ(name + ": no such queue (is kivApp running?)", detail());
    daemon.make();
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    EXPECT_THAT(daemon.drain(), ElementsAre(kEvent));
}

/// The first post after the daemon has taken its queue away and made another goes to the new one.
TEST_F(KiveventTest, FindsTheQueueThatWasMadeAnew) {
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    daemon.makeAnew();
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, R"({"event-type":"b"})"));
    EXPECT_THAT(daemon.drain(), ElementsAre(R"({"event-type":"b"})"));
}

/// A queue that was taken away is no daemon, also when there was room in it or none.
TEST_F(KiveventTest, DoesNotPostIntoAQueueThatWasTakenAway) {
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    daemon.end();
    EXPECT_EQ(KIVEVENT_NO_DAEMON, kivevent_post(handle, kEvent));
    daemon.make();
    fill();
    daemon.end();
    EXPECT_EQ(KIVEVENT_NO_DAEMON, kivevent_post(handle, kEvent));
}

/// Who waits for room in a queue that is taken away gets into the new one.
TEST_F(KiveventTest, FollowsTheQueueWhileItWaits) {
    fill();
    std::thread other([this] {
        std::this_thread::sleep_for(milliseconds(50));
        daemon.makeAnew();
    });
    EXPECT_EQ(KIVEVENT_OK, kivevent_post_wait(handle, R"({"event-type":"b"})", 60000));
    other.join();
    EXPECT_THAT(daemon.drain(), ElementsAre(R"({"event-type":"b"})"));
}

/// What the daemon read from a queue whose name was gone already is taken, and not posted again.
TEST_F(KiveventTest, PostsOnceWhatWasReadFromAQueueWithoutAName) {
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    daemon.drain();
    const mqd_t reading = mq_open(name.c_str(), O_RDONLY);
    daemon.unlinkName();
    std::atomic<pid_t> reader{0};
    std::string received;
    std::thread thread([&] {
        reader = gettid();
        char message[256];
        const ssize_t size = mq_receive(reading, message, sizeof message, nullptr);
        received.assign(message, size > 0 ? static_cast<std::size_t>(size) : 0);
    });
    WaitUntil([&] { return reader != 0; });
    const std::string state = "/proc/self/task/" + std::to_string(reader) + "/stat";
    EXPECT_TRUE(WaitUntil([&] {
        const std::string stat = TempDir::readFile(state);
        return stat.find(") S ") != std::string::npos;
    }));
    const DaemonQueue next(name);
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    thread.join();
    mq_close(reading);
    EXPECT_EQ(kEvent, received);
    EXPECT_THAT(next.drain(), IsEmpty());
}

/// The limit is that of the queue that is there now.
TEST_F(KiveventTest, LearnsTheLimitOfTheNewQueue) {
    std::size_t bytes = 0;
    EXPECT_EQ(KIVEVENT_OK, kivevent_message_limit(handle, &bytes));
    EXPECT_EQ(256u, bytes);
    daemon.makeAnew(10, 512);
    const std::string text = "{\"event-type\":\"" + std::string(400, 'x') + "\"}";
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, text.c_str()));
    EXPECT_EQ(KIVEVENT_OK, kivevent_message_limit(handle, &bytes));
    EXPECT_EQ(512u, bytes);
    daemon.makeAnew(10, 128);
    EXPECT_EQ(KIVEVENT_TOO_LARGE, kivevent_post(handle, text.c_str()));
    EXPECT_EQ("message too large: 417 bytes, the queue takes 128", detail());
}

/// A handle has one descriptor, however often the queue was made anew, and none after its end.
TEST_F(KiveventTest, KeepsOneDescriptor) {
    const int before = open("/dev/null", O_RDONLY);
    close(before);
    for (int i = 0; i < 50; ++i) {
        daemon.makeAnew();
        ASSERT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    }
    kivevent_close(handle);
    handle = nullptr;
    const int after = open("/dev/null", O_RDONLY);
    close(after);
    EXPECT_EQ(before, after);
}

// ---- fork and exec
// ------------------------------------------------------------------------------------

/// A child posts with its parent's handle, while other threads of the parent post, and its closing
/// leaves the parent's alone.
TEST_F(KiveventTest, ServesTheChildrenOfAFork) {
    std::atomic<bool> done{false};
    std::thread busy([&] {
        while (!done) kivevent_post(handle, kEvent);
    });
    for (int i = 0; i < 20; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            const bool posted =
                kivevent_post_wait(handle, R"({"event-type":"child"})", 30000) == KIVEVENT_OK;
            kivevent_close(handle);
            _exit(posted ? 0 : 1);
        }
        std::vector<std::string> messages;
        EXPECT_TRUE(WaitUntil([&] {
            for (auto& message : daemon.drain()) messages.push_back(message);
            return std::count(messages.begin(), messages.end(), R"({"event-type":"child"})") == 1;
        }));
        EXPECT_EQ(0, exitStatusOf(child));
    }
    done = true;
    busy.join();
    daemon.drain();
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
}

/// A program that is started by exec inherits no descriptor of the queue.
TEST_F(KiveventTest, LeavesNoDescriptorToAnotherProgram) {
    ASSERT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    daemon.makeAnew();  // opened once more
    ASSERT_EQ(KIVEVENT_OK, kivevent_post(handle, kEvent));
    const std::string command = "ls -l /proc/self/fd | grep -q '" + name + "'";
    EXPECT_NE(0, std::system(command.c_str()));
}

// ---- what the daemon would lose
// ------------------------------------------------------------------------

struct Judgement {
    const char* text;
    kivevent_code code;
    const char* detail;
};

/// What the daemon would lose is refused at once, with its code and in words.
TEST_F(KiveventTest, RefusesWhatTheDaemonWouldLose) {
    const Judgement judgements[] = {
        {"", KIVEVENT_NOT_JSON, "unexpected token near end of file (byte 0)"},
        {"{", KIVEVENT_NOT_JSON, "string or '}' expected near end of file (byte 1)"},
        {"{\"event-type\":\"a\"} x", KIVEVENT_NOT_JSON, "end of file expected near 'x' (byte 20)"},
        {"{\"event-type\":\"a\",}", KIVEVENT_NOT_JSON, "string or '}' expected near '}' (byte 19)"},
        {"{\"event-type\":\"a\",\"n\":1e999}", KIVEVENT_NOT_JSON,
         "real number overflow near '1e999' (byte 27)"},
        {"{\"event-type\":\"a\",\"n\":99999999999999999999}", KIVEVENT_NOT_JSON,
         "too big integer near '99999999999999999999' (byte 42)"},
        {"{\"event-type\":\"a\",\"n\":NaN}", KIVEVENT_NOT_JSON,
         "invalid token near 'NaN' (byte 25)"},
        {"[]", KIVEVENT_NOT_OBJECT, "not a JSON object"},
        {"5", KIVEVENT_NOT_OBJECT, "not a JSON object"},
        {"null", KIVEVENT_NOT_OBJECT, "not a JSON object"},
        {"{}", KIVEVENT_NO_TYPE, "no \"event-type\" string"},
        {"{\"event-type\":5}", KIVEVENT_NO_TYPE, "no \"event-type\" string"},
        {"{\"event-type\":\"a\xff\"}", KIVEVENT_NOT_UTF8,
         "unable to decode byte 0xff near '\"a' (byte 16)"},
        {"{\"event-type\":\"a\",\"x\":\"\\u0000\"}", KIVEVENT_NUL, "NUL character (byte 30)"},
        {"{\"event-type\":\"it's\"}", KIVEVENT_QUOTE,
         "single quote in the event: kivApp cannot store it"},
    };
    for (const Judgement& judgement : judgements) {
        EXPECT_EQ(judgement.code, kivevent_post(handle, judgement.text)) << judgement.text;
        EXPECT_EQ(judgement.detail, detail()) << judgement.text;
        EXPECT_EQ(judgement.code, kivevent_post_sync(handle, judgement.text, 60000));
        EXPECT_EQ(judgement.code, kivevent_check(judgement.text, strlen(judgement.text)));
    }
    EXPECT_THAT(daemon.drain(), IsEmpty());
}

/// A NUL byte, at which the daemon would stop reading, is refused, also at the end.
TEST_F(KiveventTest, RefusesANulByte) {
    const std::string event = kEvent;
    const std::string end = event + '\0', middle = std::string("{\0}", 3);
    EXPECT_EQ(KIVEVENT_NUL, kivevent_post_bytes(handle, end.data(), end.size(), 0, nullptr));
    EXPECT_EQ("NUL character (byte 18)", detail());
    EXPECT_EQ(KIVEVENT_NUL, kivevent_check(middle.data(), middle.size()));
}

/// A single quote counts wherever it is stored: in keys, in lists, escaped or not; not in the
/// semaphore's name, nor where the event travels as a file's description.
TEST_F(KiveventTest, FindsSingleQuotesThatWouldBeStored) {
    for (const char* text : {
             R"({"event-type":"a","data":{"it's":1}})",
             R"({"event-type":"a","data":{"x":[{"y":["'"]}]}})",
             R"({"event-type":"a","data":{"x":"\u0027"}})",
             R"({"event-type":"a","oob-url":"/tmp/it's"})",
             R"({"event-type":"a","x":"'","data":{"oob-info":null}})",
             R"({"event-type":"a","oob-info":{},"x":"'"})",
         }) {
        EXPECT_EQ(KIVEVENT_QUOTE, kivevent_check(text, strlen(text))) << text;
    }
    for (const char* text : {
             R"({"event-type":"a","syncsem":"/it's"})",
             R"({"event-type":"a","data":{"x":"\\u0027"}})",
             R"({"event-type":"a","oob-url":"/tmp/it's","data":{"oob-info":{"t":"'"}}})",
         }) {
        EXPECT_EQ(KIVEVENT_OK, kivevent_check(text, strlen(text))) << text;
    }
}

/// The largest message is taken, one byte more is refused with both sizes; megabytes are refused
/// without reading them.
TEST_F(KiveventTest, RefusesWhatIsTooLarge) {
    const std::string frame = R"({"event-type":""})";
    const std::string most = R"({"event-type":")" + std::string(256 - frame.size(), 'x') + "\"}";
    EXPECT_EQ(KIVEVENT_OK, kivevent_post(handle, most.c_str()));
    EXPECT_EQ(KIVEVENT_TOO_LARGE, kivevent_post(handle, (most + " ").c_str()));
    EXPECT_EQ("message too large: 257 bytes, the queue takes 256", detail());
    EXPECT_EQ(KIVEVENT_TOO_LARGE, kivevent_post(handle, std::string(5000000, '[').c_str()));
    EXPECT_EQ("message too large: 5000000 bytes, the queue takes 256", detail());
    EXPECT_EQ(KIVEVENT_TOO_LARGE, kivevent_post_sync(handle, most.c_str(), 60000));
    EXPECT_THAT(daemon.drain(), ElementsAre(most));
}

/// Deep nesting is judged as the daemon judges it, which reads 2048 levels.
TEST_F(KiveventTest, JudgesDeepNestingAsTheDaemonDoes) {
    const auto nested = [](int levels) {
        return R"({"event-type":"a","data":)" + std::string(static_cast<std::size_t>(levels), '[') +
               std::string(static_cast<std::size_t>(levels), ']') + "}";
    };
    const std::string fits = nested(2046), tooDeep = nested(2048);
    EXPECT_EQ(KIVEVENT_OK, kivevent_check(fits.data(), fits.size())) << detail();
    EXPECT_EQ(KIVEVENT_NOT_JSON, kivevent_check(tooDeep.data(), tooDeep.size()));
}

/// A user without the right to post is told so.
TEST_F(KiveventTest, TellsWhoMayNotPost) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    const pid_t child = fork();
    if (child == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(99);
        const kivevent_code code = kivevent_post(handle, kEvent);
        _exit(detail() == name + ": Permission denied" ? static_cast<int>(code) : 98);
    }
    EXPECT_EQ(KIVEVENT_DENIED, exitStatusOf(child));
}

/// Arguments without sense are refused, and never end the program.
TEST_F(KiveventTest, RefusesArgumentsWithoutSense) {
    kivevent_queue* none = nullptr;
    for (const char* bad : {"/", "kiv_queue", "/a/b"}) {
        EXPECT_EQ(KIVEVENT_INVALID, kivevent_open(bad, &none));
        EXPECT_EQ("'" + std::string(bad) + "' is not '/' and a name without slashes", detail());
        EXPECT_EQ(nullptr, none);
    }
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_open(name.c_str(), nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_post(nullptr, kEvent));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_post(handle, nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_post_wait(handle, kEvent, -1));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_post_sync(handle, kEvent, -1));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_post_sync(nullptr, kEvent, 0));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_check(nullptr, 0));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_message_limit(nullptr, nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_receipt_open(nullptr));
    EXPECT_EQ(KIVEVENT_INVALID, kivevent_receipt_wait(nullptr, 0));
    kivevent_close(nullptr);
    kivevent_receipt_close(nullptr);
    kivevent_builder_close(nullptr);
    EXPECT_THAT(daemon.drain(), IsEmpty());
}

/// The name of the queue is the argument's, else the environment's, else the daemon's own.
TEST_F(KiveventTest, TakesTheNameFromArgumentEnvironmentOrDefault) {
    const auto nameOf = [](const char* argument) {
        kivevent_queue* opened = nullptr;
        EXPECT_EQ(KIVEVENT_OK, kivevent_open(argument, &opened));
        const std::string result = kivevent_queue_name(opened);
        kivevent_close(opened);
        return result;
    };
    unsetenv("KIV_QUEUE");
    EXPECT_EQ("/kiv_queue", nameOf(nullptr));
    setenv("KIV_QUEUE", "/other", 1);
    EXPECT_EQ("/other", nameOf(nullptr));
    EXPECT_EQ("/mine", nameOf("/mine"));
    setenv("KIV_QUEUE", "", 1);
    EXPECT_EQ("/kiv_queue", nameOf(nullptr));
    unsetenv("KIV_QUEUE");
}

/// Each code has a text of its own, and what is not a code has one, too.
TEST_F(KiveventTest, SaysEachCodeInWords) {
    std::vector<std::string> texts;
    for (int code = KIVEVENT_OK; code <= KIVEVENT_SYSTEM; ++code)
        texts.emplace_back(kivevent_strerror(code));
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(texts.end(), std::unique(texts.begin(), texts.end()));
    EXPECT_EQ(0, std::count(texts.begin(), texts.end(), "unknown code"));
    EXPECT_STREQ("unknown code", kivevent_strerror(16));
    EXPECT_STREQ(KIVEVENT_VERSION, kivevent_version());
}

/// The particulars of a failure are the thread's own.
TEST_F(KiveventTest, KeepsTheParticularsOfEachThread) {
    kivevent_post(handle, "{}");
    std::thread([] { EXPECT_EQ("", detail()); }).join();
    EXPECT_EQ("no \"event-type\" string", detail());
}

// ---- handled
// ---------------------------------------------------------------------------------------------

/// A synchronous post names a semaphore of its own, open to every user, that is gone afterwards,
/// and ends when the daemon posts it.
TEST_F(KiveventTest, WaitsUntilTheEventIsHandled) {
    std::string message, semaphore;
    mode_t mode = 0;
    const mode_t mask = umask(077);
    std::thread answering([&] {
        WaitUntil([&] {
            message = daemon.receive().value_or("");
            return !message.empty();
        });
        semaphore = semaphoreOf(message);
        struct stat facts {};
        stat(("/dev/shm/sem." + semaphore.substr(1)).c_str(), &facts);
        mode = facts.st_mode & 07777;
        postSemaphore(semaphore);
    });
    EXPECT_EQ(KIVEVENT_OK, kivevent_post_sync(handle, "{\"event-type\":\"a\"} \n", 30000));
    answering.join();
    umask(mask);
    EXPECT_EQ(R"({"event-type":"a","syncsem":")" + semaphore + "\"}", message);
    EXPECT_THAT(semaphore,
                MatchesRegex("/[A-Za-z0-9_]+\\." + std::to_string(getpid()) + "\\.[0-9a-f]{8}"));
    EXPECT_EQ(mode_t{0666}, mode);
    EXPECT_FALSE(exists(semaphore));
}

/// Without an answer in time the event is posted but not known to be handled; its semaphore goes.
TEST_F(KiveventTest, TellsAnEventThatNobodyAnswers) {
    const auto start = steady_clock::now();
    EXPECT_EQ(KIVEVENT_NOT_HANDLED, kivevent_post_sync(handle, kEvent, 200));
    EXPECT_GE(steady_clock::now() - start, milliseconds(200));
    EXPECT_EQ("no answer within 0.2 s", detail());
    const auto messages = daemon.drain();
    ASSERT_EQ(1u, messages.size());
    EXPECT_FALSE(exists(semaphoreOf(messages[0])));
}

/// The time of a synchronous post covers the wait for room.
TEST_F(KiveventTest, CountsTheWaitForRoomAsWell) {
    fill();
    EXPECT_EQ(KIVEVENT_TIMEOUT, kivevent_post_sync(handle, kEvent, 100));
}

/// A "syncsem" of the event's own gives way to the receipt's.
TEST_F(KiveventTest, PutsItsOwnSemaphoreInThePlaceOfAnother) {
    EXPECT_EQ(KIVEVENT_NOT_HANDLED,
              kivevent_post_sync(handle, R"({"syncsem":"/mine","event-type":"a"})", 0));
    EXPECT_THAT(semaphoreOf(daemon.receive().value_or("")), MatchesRegex("/.*\\.[0-9a-f]{8}"));
}

/// Events are posted first and waited for later, each by its receipt, which is answered once.
TEST_F(KiveventTest, WaitsLaterByReceipts) {
    kivevent_receipt* receipts[3] = {};
    const std::string event = kEvent;
    for (auto& receipt : receipts) {
        ASSERT_EQ(KIVEVENT_OK, kivevent_receipt_open(&receipt));
        EXPECT_EQ(KIVEVENT_OK, kivevent_post_bytes(handle, event.data(), event.size(), 0, receipt));
    }
    const auto messages = daemon.drain();
    ASSERT_EQ(3u, messages.size());
    EXPECT_EQ(KIVEVENT_NOT_HANDLED, kivevent_receipt_wait(receipts[1], 0));
    EXPECT_TRUE(postSemaphore(semaphoreOf(messages[1])));
    EXPECT_EQ(KIVEVENT_NOT_HANDLED, kivevent_receipt_wait(receipts[0], 0));
    EXPECT_EQ(KIVEVENT_OK, kivevent_receipt_wait(receipts[1], 0));
    EXPECT_EQ(KIVEVENT_NOT_HANDLED, kivevent_receipt_wait(receipts[1], 0));
    for (auto* receipt : receipts) kivevent_receipt_close(receipt);
    for (const auto& message : messages) EXPECT_FALSE(exists(semaphoreOf(message)));
}

}  // namespace
