#include <atomic>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <sys/stat.h>

#include <gmock/gmock.h>

#include <aws/core/client/ClientConfiguration.h>
#include <aws/core/utils/logging/LogMacros.h>

#include "support/AwsWrapperImplPeer.h"
#include "support/CloudClientSetup.h"
#include "support/NetworkHooks.h"
#include "support/TaggedLines.h"

namespace {

constexpr std::time_t kTwoHours = 7200;

std::string utc(const char* format, std::time_t moment) {
    std::tm parts = {};
    ::gmtime_r(&moment, &parts);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &parts));
}

/// What holds for a build with the cloud's own SDK alone: how it gets over a wrong system clock,
/// which limits it is given, and its log. A build with the client in awslite/ leaves these tests
/// out.
class SdkWrapperTest : public CloudClientSetup {
  protected:
    /// Two hours ahead of this machine: what the services' clock says here.
    static std::time_t serverTime() { return std::time(nullptr) + kTwoHours; }

    /// A refusal by a server with that clock.
    static Response refusal(const Request& request, const std::string& name) {
        Response response;
        response.status = 403;
        response.headers = {{"Date", utc("%a, %d %b %Y %H:%M:%S GMT", serverTime())}};
        response.body = request.method == "POST"
                            ? "{\"__type\": \"x#" + name + "\", \"message\": \"why\"}"
                            : "<Error><Code>" + name + "</Code><Message>why</Message></Error>";
        return response;
    }

    /// How the services call a date that is too far off.
    static Response refuseTheDate(const Request& request) {
        return refusal(request, request.method == "POST" ? "InvalidSignatureException"
                                                         : "RequestTimeTooSkewed");
    }

    static bool isDatedByTheServer(const Request& request) {
        // Equal but for the minutes that a test may take.
        const std::string date = request.header("x-amz-date");
        return date >= utc("%Y%m%dT%H%M%SZ", serverTime() - 600) &&
               date <= utc("%Y%m%dT%H%M%SZ", serverTime() + 600);
    }

    /// The three calls, one after the other. @return whether each succeeded
    std::vector<bool> makeAllCalls() {
        const std::string file = dir.write("log", "the file");
        return {client().UploadToKinesisFirehose("{}\n"), client().UploadFile("o", file),
                client().DownloadFile("o", dir.file("copy"))};
    }

    static bool hasLog(const std::string& folder) { return !logIn(folder).empty(); }

    /// The path of the SDK's log; "" when there is none.
    static std::string logIn(const std::string& folder) {
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().filename().string().rfind("aws_sdk_", 0) == 0) return entry.path();
        }
        return "";
    }

    /// A working directory with these rights for others.
    std::string enterFolder(const char* name, mode_t mode) {
        std::string folder = dir.file(name);
        EXPECT_EQ(::mkdir(folder.c_str(), 0700), 0);
        EXPECT_EQ(::chmod(folder.c_str(), mode), 0);
        std::filesystem::current_path(folder);
        return folder;
    }
};

// --- the system clock ---------------------------------------------------------------------------

/// A call that is refused because the system clock is wrong is made once more, whole, with the
/// server's time, and succeeds.
TEST_F(SdkWrapperTest, CorrectsAWrongSystemClockByOneMoreAttempt) {
    giveCredentials();
    script([](const Request& request) {
        return isDatedByTheServer(request) ? accept(request) : refuseTheDate(request);
    });
    EXPECT_EQ(makeAllCalls(), std::vector<bool>(3, true));
    const std::vector<Request> requests = cloud.requests();
    ASSERT_EQ(requests.size(), 6u) << "one refused and one accepted a call";
    for (std::size_t i = 0; i < requests.size(); i += 2) {
        EXPECT_FALSE(isDatedByTheServer(requests[i]));
        EXPECT_TRUE(isDatedByTheServer(requests[i + 1]));
        EXPECT_EQ(requests[i].body, requests[i + 1].body);
    }
    EXPECT_EQ(requests[3].body, "the file");
    EXPECT_EQ(records().size(), 2u);
    EXPECT_EQ(records()[1], "{}\n");
}

/// A call that is refused for its date again and again is made twice, no more.
TEST_F(SdkWrapperTest, CorrectsTheClockOnceACall) {
    giveCredentials();
    script(refuseTheDate);
    OutputCapture output;
    EXPECT_EQ(makeAllCalls(), std::vector<bool>(3, false));
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 6u);
}

/// A refusal for any other reason is not repeated, although the server's clock is another one.
TEST_F(SdkWrapperTest, RepeatsNoOtherRefusalOfAServerWithAnotherClock) {
    giveCredentials();
    for (const char* name : {"AccessDeniedException", "ThrottlingException", "InternalFailure"}) {
        script([name](const Request& request) { return refusal(request, name); });
        const std::size_t before = cloud.requests().size();
        OutputCapture output;
        EXPECT_EQ(makeAllCalls(), std::vector<bool>(3, false)) << name;
        output.stop();
        EXPECT_EQ(cloud.requests().size() - before, 3u) << name;
    }
}

// --- limits -------------------------------------------------------------------------------------

template <typename Configuration, typename = void>
struct LimitsCalls : std::false_type {};
template <typename Configuration>
struct LimitsCalls<Configuration,
                   std::void_t<decltype(std::declval<Configuration>().httpRequestTimeoutMs)>>
    : std::true_type {};

std::string limitsOf(const NetworkHooks& hooks) {
    return "connect " + std::to_string(hooks.option(CURLOPT_CONNECTTIMEOUT_MS).number) +
           " ms, in all " + std::to_string(hooks.option(CURLOPT_TIMEOUT_MS).number) +
           " ms, below " + std::to_string(hooks.option(CURLOPT_LOW_SPEED_LIMIT).number) +
           " byte/s for " + std::to_string(hooks.option(CURLOPT_LOW_SPEED_TIME).number) + " s";
}

/// The SDK connects within 30000 ms and gives up after 30 s without a byte and, but for an upload,
/// which has its child's limit, after 120 s in all.
TEST_F(SdkWrapperTest, EndsACallAfterTwoMinutes) {
    if (!LimitsCalls<Aws::Client::ClientConfiguration>::value) {
        GTEST_SKIP() << "this version ends stalled calls only";
    }
    const std::string limits = "connect 30000 ms, in all 120000 ms, below 1 byte/s for 30 s";
    {
        const NetworkHooks hooks;
        EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
        EXPECT_EQ(limitsOf(hooks), limits);
    }
    const NetworkHooks hooks;
    EXPECT_TRUE(client().DownloadFile("o", dir.file("copy")));
    EXPECT_EQ(limitsOf(hooks), limits);
}

/// The SDK connects within 30000 ms and gives up after 30 s without a byte and, but for an upload,
/// which has its child's limit, after 120 s in all.
TEST_F(SdkWrapperTest, LeavesTheEndOfAnUploadToItsChild) {
    if (!LimitsCalls<Aws::Client::ClientConfiguration>::value) {
        GTEST_SKIP() << "this version ends stalled calls only";
    }
    NetworkHooks hooks;
    hooks.whenSet(CURLOPT_HTTPHEADER, [&] { dir.write("limits", limitsOf(hooks)); });
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_EQ(dir.read("limits"), "connect 30000 ms, in all 0 ms, below 1 byte/s for 30 s");
}

// --- the SDK's log ------------------------------------------------------------------------------

/// The SDK's log, which shows the session token, is written when verbose into a working directory
/// that only the daemon's user can read.
TEST_F(SdkWrapperTest, WritesTheSdksLogIntoADirectoryOfItsOwn) {
    giveCredentials();
    AwsWrapperImpl::SetVerbose(true);
    const std::string folder = enterFolder("private", 0700);
    OutputCapture output;
    {
        AwsWrapperImpl wrapper;
        EXPECT_TRUE(wrapper.UploadToKinesisFirehose("{}\n"));
    }
    output.stop();
    ASSERT_TRUE(hasLog(folder));
    EXPECT_THAT(TempDir::readFile(logIn(folder)), testing::HasSubstr("token1"));
}

/// It is not written where others may look, which is said, nor when silent.
TEST_F(SdkWrapperTest, WritesNoSdkLogWhereOthersMayLook) {
    AwsWrapperImpl::SetVerbose(true);
    const std::string folder = enterFolder("open", 0755);
    OutputCapture output;
    {
        AwsWrapperImpl wrapper;
        EXPECT_TRUE(wrapper.UploadToKinesisFirehose("{}\n"));
    }
    output.stop();
    EXPECT_FALSE(hasLog(folder));
    EXPECT_THAT(taggedLines(output.outWithoutPrefixes(), kTag),
                testing::StartsWith("kivAWSWrapper: No aws_sdk_ log: others may enter the working "
                                    "directory\nkivAWSWrapper: Initializing aws\n"));
}

/// It is not written where others may look, which is said, nor when silent.
TEST_F(SdkWrapperTest, WritesNoSdkLogWhenSilent) {
    const std::string folder = enterFolder("private", 0700);
    {
        AwsWrapperImpl wrapper;
        EXPECT_TRUE(wrapper.UploadToKinesisFirehose("{}\n"));
    }
    EXPECT_FALSE(hasLog(folder));
}

/// Writes into the SDK's log without a pause as long as it lives.
class BusyLog {
  public:
    BusyLog()
        : m_thread([this] {
              while (!m_stop) AWS_LOGSTREAM_TRACE("test", "a line");
          }) {}
    ~BusyLog() {
        m_stop = true;
        m_thread.join();
    }
    BusyLog(const BusyLog&) = delete;
    BusyLog& operator=(const BusyLog&) = delete;

  private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// The child writes no SDK log: no upload hangs on the log's lock, which another thread may have
/// held when the child was forked.
TEST_F(SdkWrapperTest, HangsNoChildOnTheLockOfTheLog) {
    const std::string file = dir.write("file", "text");
    AwsWrapperImplPeer::setUploadLimit(5);
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    client();
    output.stop();
    AwsWrapperImpl::SetVerbose(false);
    const BusyLog first;
    const BusyLog second;
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(client().UploadFile("o", file)) << i;
}

}  // namespace
