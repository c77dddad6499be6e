#include "AwsWrapperImpl.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <mutex>
#include <thread>

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "DB.h"
#include "DBToken.h"
#include "GatewayImpl.h"
#include "KernelTime.h"
#include "LocationInfo.h"
#include "NetworkHelper.h"
#include "OwnFiles.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UploadImpl.h"
#include "WebTimeImpl.h"
#include "support/AwsWrapperImplPeer.h"
#include "support/CloudClientSetup.h"
#include "support/NetworkHelperPeer.h"
#include "support/NetworkHooks.h"
#include "support/TaggedLines.h"
#include "support/WaitUntil.h"

namespace {

constexpr char kNotTrusted[] = "curlCode: 60, SSL peer certificate or SSH remote key was not OK";

class AwsWrapperImplTest : public CloudClientSetup {
  protected:
    static Response portalPage(const Request&) {
        Response response;
        response.headers = {{"Content-Type", "text/html"}};
        response.body = "<html><title>Welcome to the guests' network</title></html>";
        return response;
    }
};

}  // namespace

// --- life and configuration ---------------------------------------------------------------------

/// Its life is announced when verbose only.
TEST_F(AwsWrapperImplTest, AnnouncesItsLifeWhenVerbose) {
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    { const AwsWrapperImpl wrapper; }
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivAWSWrapper: Initializing aws\nkivAWSWrapper: Closing aws\n");
}

/// Its life is announced when verbose only.
TEST_F(AwsWrapperImplTest, IsBornSilently) {
    OutputCapture output;
    { const AwsWrapperImpl wrapper; }
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}

/// Its life is announced when verbose only.
TEST_F(AwsWrapperImplTest, TellsWhetherItIsVerbose) {
    EXPECT_FALSE(AwsWrapperImpl::GetVerbose());
    AwsWrapperImpl::SetVerbose(true);
    EXPECT_TRUE(AwsWrapperImpl::GetVerbose());
}

/// It starts with the configured bucket, which can be changed.
TEST_F(AwsWrapperImplTest, StartsWithTheConfiguredBucket) {
    EXPECT_EQ(client().GetBucketName(), "default/bucket");
    client().SetBucketName("b1");
    EXPECT_EQ(client().GetBucketName(), "b1");
}

/// What is sent and what is received share a rate of 50 MB/s.
TEST_F(AwsWrapperImplTest, SendsAndReceivesWithinTheRate) {
    EXPECT_EQ(AwsWrapperImplPeer::bytesPerSecond(), 50000000);
    AwsWrapperImplPeer::setBytesPerSecond(10000);
    giveCredentials();
    client();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(client().UploadToKinesisFirehose(std::string(15000, 'x')));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900))
        << "the record takes 20000 bytes, of which the first 10000 are free; the answer waits";
}

/// The user's own settings of the SDK are kept.
TEST_F(AwsWrapperImplTest, KeepsTheUsersSettingsOfTheSdk) {
    ::setenv("AWS_EC2_METADATA_DISABLED", "mine", 1);
    ::unsetenv("AWS_REQUEST_CHECKSUM_CALCULATION");
    const AwsWrapperImpl wrapper;
    EXPECT_STREQ(::getenv("AWS_EC2_METADATA_DISABLED"), "mine");
    EXPECT_STREQ(::getenv("AWS_REQUEST_CHECKSUM_CALCULATION"), "when_required");
}

/// The SDK's log shows the session token: it is written only where nobody else can read it, in a
/// directory of the daemon's own user without any right for others.
TEST_F(AwsWrapperImplTest, WritesTheSdksLogOnlyWhereNobodyElseCanRead) {
    const std::string folder = dir.file("folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    EXPECT_TRUE(AwsWrapperImplPeer::mayWriteSdkLog(folder));
    for (const mode_t mode : {0755U, 0710U, 0701U, 0740U, 0704U}) {
        ASSERT_EQ(::chmod(folder.c_str(), mode), 0);
        EXPECT_FALSE(AwsWrapperImplPeer::mayWriteSdkLog(folder)) << std::oct << mode;
    }
    EXPECT_FALSE(AwsWrapperImplPeer::mayWriteSdkLog(dir.file("missing")));
}

/// The SDK's log shows the session token: it is written only where nobody else can read it, in a
/// directory of the daemon's own user without any right for others.
TEST_F(AwsWrapperImplTest, WritesNoSdkLogIntoTheDirectoryOfAnotherUser) {
    const std::string folder = dir.file("folder");
    ASSERT_EQ(::mkdir(folder.c_str(), 0700), 0);
    if (::geteuid() != 0) GTEST_SKIP() << "only root can give a directory away";
    ASSERT_EQ(::chown(folder.c_str(), 65534, 65534), 0);
    EXPECT_FALSE(AwsWrapperImplPeer::mayWriteSdkLog(folder));
}

/// The CA path is the directory of "CURL_CA_BUNDLE", else empty.
TEST_F(AwsWrapperImplTest, TakesTheDirectoryOfTheBundleAsCaPath) {
    ::setenv("CURL_CA_BUNDLE", "/etc/certificates/bundle.pem", 1);
    EXPECT_EQ(client().GetCaPath(), "/etc/certificates");
    EXPECT_STREQ(::getenv("CURL_CA_BUNDLE"), "/etc/certificates/bundle.pem");
    ::setenv("CURL_CA_BUNDLE", "bundle.pem", 1);
    EXPECT_EQ(client().GetCaPath(), ".");
}

/// The CA path is the directory of "CURL_CA_BUNDLE", else empty.
TEST_F(AwsWrapperImplTest, HasNoCaPathWithoutABundle) {
    ::unsetenv("CURL_CA_BUNDLE");
    EXPECT_EQ(client().GetCaPath(), "");
}

/// The child gets 300 s; then "Child Timeout expired! : kill pid" and its end by SIGKILL.
TEST_F(AwsWrapperImplTest, GivesAnUploadThreeHundredSeconds) {
    EXPECT_EQ(AwsWrapperImplPeer::uploadLimit(), 300u);
}

// --- records ------------------------------------------------------------------------------------

/// A record is put byte for byte into the configured stream, signed for "eu-west-1" with the
/// delivered credentials.
TEST_F(AwsWrapperImplTest, PutsTheRecordByteForByte) {
    const std::string record = "{\"a\": \"\xc3\xa9\",\"events\":[1]}\n{\"b\": 2,\"events\":[]}\n";
    EXPECT_TRUE(client().UploadToKinesisFirehose(record));
    EXPECT_EQ(records(), std::vector<std::string>{record});
}

/// A record is put byte for byte into the configured stream, signed for "eu-west-1" with the
/// delivered credentials.
TEST_F(AwsWrapperImplTest, PutsTheRecordIntoTheConfiguredStream) {
    giveCredentials();
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    ASSERT_EQ(cloud.requests().size(), 1u);
    const Request request = cloud.requests()[0];
    EXPECT_EQ(request.target, "/");
    EXPECT_EQ(request.header("x-amz-target"), "Firehose_20150804.PutRecord");
    EXPECT_EQ(JsonObject::parse(request.body).optString("DeliveryStreamName"), "stream1");
    EXPECT_EQ(request.header("x-amz-security-token"), "token1");
    EXPECT_THAT(request.header("authorization"),
                testing::MatchesRegex("AWS4-HMAC-SHA256 "
                                      "Credential=AKID/[0-9]+/eu-west-1/firehose/aws4_request,.*"));
}

/// A new configuration counts from the next call; an endpoint is a host or a URL.
TEST_F(AwsWrapperImplTest, TakesANewConfigurationWithTheNextCall) {
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    configure(R"({"firehose_stream": "stream2"})");
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    ASSERT_EQ(cloud.requests().size(), 2u);
    EXPECT_EQ(JsonObject::parse(cloud.requests()[1].body).optString("DeliveryStreamName"),
              "stream2");
}

/// A new configuration counts from the next call; an endpoint is a host or a URL.
TEST_F(AwsWrapperImplTest, ReachesAnEndpointGivenAsHostOrAsUrl) {
    for (const std::string& endpoint :
         {cloud.host(), cloud.host() + "/", cloud.url(), cloud.url("//")}) {
        configure(R"({"firehose_endpoint": ")" + endpoint + "\"}");
        EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n")) << endpoint;
    }
}

/// A refusal: "Failed sending packet to Firehose AWS" and "Error = ", after one attempt.
TEST_F(AwsWrapperImplTest, TellsWhyTheStreamRefused) {
    script(refuse);
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    output.stop();
    expectFailure(output.errWithoutPrefixes(), kPutFailed + "no stream");
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(cloud.requests().size(), 1u) << "one attempt a call";
}

/// A refusal: "Failed sending packet to Firehose AWS" and "Error = ", after one attempt.
TEST_F(AwsWrapperImplTest, MakesOneAttemptOfAServerError) {
    script([](const Request&) {
        Response response;
        response.status = 500;
        return response;
    });
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 1u);
}

/// A server that the bundle does not vouch for is refused; the bundle itself is the CA file,
/// its directory the CA path.
TEST_F(AwsWrapperImplTest, RefusesAServerThatTheBundleDoesNotVouchFor) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::otherCaFile().c_str(), 1);
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    output.stop();
    expectFailure(output.errWithoutPrefixes(), kPutFailed + kNotTrusted);
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A record counts as put only when the answer names it by a record id: otherwise "The answer has
/// no record id: the packet counts as not sent" comes after the stated lines.
TEST_F(AwsWrapperImplTest, CountsARecordOnlyWithARecordId) {
    for (const char* body : {"{}", R"({"RecordId": ""})", R"({"Encrypted": false})"}) {
        script([body](const Request&) {
            Response response;
            response.body = body;
            return response;
        });
        OutputCapture output;
        EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n")) << body;
        output.stop();
        EXPECT_EQ(output.errWithoutPrefixes(),
                  kPutFailed +
                      "\nkivAWSWrapper: The answer has no record id: the packet "
                      "counts as not sent\n");
    }
    EXPECT_EQ(cloud.requests().size(), 3u) << "one attempt a call";
}

/// An answer with another HTTP status than 200 puts nothing, whatever else it says; a redirect is
/// not followed.
TEST_F(AwsWrapperImplTest, CountsNothingAsPutByAnAnswerOfAnotherStatus) {
    const std::string path = dir.write("log", "abc");
    for (const int status : {302, 400, 403, 404, 500, 503}) {
        const std::size_t before = cloud.requests().size();
        script([status](const Request& request) {
            Response response = accept(request);
            response.status = status;
            return response;
        });
        OutputCapture output;
        EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n")) << status;
        EXPECT_FALSE(client().UploadFile("o", path)) << status;
        output.stop();
        const std::string lines = output.errWithoutPrefixes();
        EXPECT_EQ(lines.rfind(kPutFailed, 0), 0u) << lines;
        EXPECT_NE(lines.find(kUploadFailed), std::string::npos) << lines;
        EXPECT_EQ(cloud.requests().size(), before + 2) << "one attempt each";
    }
}

/// A portal's page that answers for the service, with status 200, puts nothing.
TEST_F(AwsWrapperImplTest, TakesAPortalsPageForNoAnswerOfTheService) {
    script(portalPage);
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_FALSE(client().UploadFile("o", dir.write("log", "abc")));
    output.stop();
    const std::string lines = output.errWithoutPrefixes();
    EXPECT_EQ(lines.rfind(kPutFailed, 0), 0u) << lines;
    EXPECT_NE(lines.find(kUploadFailed), std::string::npos) << lines;
}

/// A redirect is not followed: the place that it names is given no request, which would show it the
/// session token.
TEST_F(AwsWrapperImplTest, GivesNoRequestToThePlaceOfARedirect) {
    giveCredentials();
    const ScriptedHttpServer portal(portalPage);
    script([&](const Request&) {
        Response response;
        response.status = 302;
        response.headers = {{"Location", portal.url("/welcome")}};
        return response;
    });
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_FALSE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_FALSE(client().DownloadFile("o", dir.file("copy")));
    output.stop();
    EXPECT_EQ(cloud.requests().size(), 3u);
    EXPECT_EQ(portal.requests().size(), 0u);
}

/// What a service says of a failure is shown cut to 256 characters, its line breaks escaped.
TEST_F(AwsWrapperImplTest, ShowsOfAServicesTextOnlyWhatFitsALine) {
    const std::string text = "first\nsecond" + std::string(100000, 'x');
    script([&](const Request& request) {
        Response response = refuse(request);
        response.body = "{\"__type\": \"x#ResourceNotFoundException\", \"message\": \"first\\n" +
                        text.substr(6) + "\"}";
        return response;
    });
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    output.stop();
    const std::string lines = output.errWithoutPrefixes();
    const std::string shown = kPutFailed + "first\\x0Asecond" + std::string(244, 'x');
    EXPECT_EQ(lines.substr(0, shown.size()), shown);
    EXPECT_LT(lines.size(), shown.size() + 40) << lines;
    EXPECT_EQ(lines.back(), '\n');
}

/// Verbose, a put, an upload and a download are told with their CA path.
TEST_F(AwsWrapperImplTest, DescribesAPutWhenVerbose) {
    client();
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    client().UploadToKinesisFirehose("{}");
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivAWSWrapper: UploadToKinesisFirehose: {}\n"
              "kivAWSWrapper: Set AWS ClientConfiguration caPath for Firehose to " +
                  client().GetCaPath() + "\n");
    EXPECT_EQ(output.err(), "");
}

/// All clients share one rate of 50000000 bytes a second.
TEST_F(AwsWrapperImplTest, SharesOneRateOfFiftyMillionBytesASecondAmongItsClients) {
    // A second's budget goes at once, over the first client and most of the second.
    constexpr std::size_t half = 35000000;
    script([](const Request&) {
        Response response;
        response.body.assign(half, 'x');
        return response;
    });
    client();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(client().DownloadFile("o", dir.file("one")));
    EXPECT_TRUE(client().DownloadFile("o", dir.file("two")));
    const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
    EXPECT_GE(taken.count(), (2 * half - 50000000) / 50000000.0 - 0.01);
    EXPECT_EQ(std::filesystem::file_size(dir.file("two")), half);
}

// --- files --------------------------------------------------------------------------------------

/// A file is put whole under bucket and name, as text/plain, with length and MD5, its payload
/// unsigned, the bucket in the path.
TEST_F(AwsWrapperImplTest, PutsTheFileIntoTheBucketUnderItsName) {
    giveCredentials();
    std::string content = "line 1\n";
    content += '\0';
    content += "line 2\xff";
    const std::string path = dir.write("log", content);
    client().SetBucketName("b1/kiv-test");
    EXPECT_TRUE(client().UploadFile("dir/a file+1.txt", path));
    ASSERT_EQ(cloud.requests().size(), 1u);
    const Request request = cloud.requests()[0];
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/b1/kiv-test/dir/a%20file%2B1.txt");
    EXPECT_EQ(request.body, content);
    EXPECT_EQ(request.header("content-length"), std::to_string(content.size()));
    EXPECT_EQ(request.header("content-type"), "text/plain");
    EXPECT_EQ(request.header("x-amz-content-sha256"), "UNSIGNED-PAYLOAD");
    EXPECT_EQ(request.header("x-amz-security-token"), "token1");
    EXPECT_THAT(request.header("authorization"),
                testing::MatchesRegex("AWS4-HMAC-SHA256 "
                                      "Credential=AKID/[0-9]+/eu-west-1/s3/aws4_request,.*"));
}

/// In the child the alarm is open and ends it, whatever the thread before it blocked.
TEST_F(AwsWrapperImplTest, OpensTheAlarmByDefaultInTheChild) {
    sigset_t alarm;
    ::sigemptyset(&alarm);
    ::sigaddset(&alarm, SIGALRM);
    sigset_t before;
    ::pthread_sigmask(SIG_BLOCK, &alarm, &before);  // as in the upload's thread
    NetworkHooks hooks;
    hooks.whenSet(CURLOPT_HTTPHEADER, [&] {  // in the child
        sigset_t blocked;
        struct sigaction action = {};
        ::pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        ::sigaction(SIGALRM, nullptr, &action);
        dir.write("alarm", ::sigismember(&blocked, SIGALRM) == 0 && action.sa_handler == SIG_DFL
                               ? "open, by default"
                               : "blocked or handled");
    });
    ::signal(SIGALRM, SIG_IGN);
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    EXPECT_EQ(dir.read("alarm"), "open, by default");
}

/// A file is put whole under bucket and name, as text/plain, with length and MD5, its payload
/// unsigned, the bucket in the path.
TEST_F(AwsWrapperImplTest, ProtectsTheBodyByItsMd5) {
    const std::string path = dir.write("log", "abc");
    EXPECT_TRUE(client().UploadFile("o", path));
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].header("content-md5"), "kAFQmDzST7DWlj99KOF/cg==");
}

/// A file is put whole under bucket and name, as text/plain, with length and MD5, its payload
/// unsigned, the bucket in the path.
TEST_F(AwsWrapperImplTest, PutsAnEmptyFile) {
    EXPECT_TRUE(client().UploadFile("o", dir.write("empty", "")));
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].body, "");
    EXPECT_EQ(cloud.requests()[0].header("content-md5"), "1B2M2Y8AsgTpgAmY7PhCfg==");
}

/// A file is put whole under bucket and name, as text/plain, with length and MD5, its payload
/// unsigned, the bucket in the path.
TEST_F(AwsWrapperImplTest, PutsAFileOfManyBlocks) {
    const std::string content(1000003, 'x');
    EXPECT_TRUE(client().UploadFile("o", dir.write("big", content)));
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].body, content);
}

/// The upload runs in a child that is reaped.
TEST_F(AwsWrapperImplTest, UploadsInAChildThatIsReaped) {
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_FALSE(hasChildren());
}

/// A file that cannot be opened: "could not open file "; one that cannot be read gets a line
/// too.
TEST_F(AwsWrapperImplTest, TellsThatAFileCannotBeOpened) {
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", dir.file("missing")));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: could not open file " + dir.file("missing") + "\n");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A file that cannot be opened: "could not open file "; one that cannot be read gets a line
/// too.
TEST_F(AwsWrapperImplTest, TellsThatAFileCannotBeRead) {
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", dir.path()));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: could not read file " + dir.path() + ": Is a directory\n");
}

/// A file counts as put only when the answer names it by an ETag: otherwise "The answer has no
/// ETag: the file counts as not sent" comes after the stated lines.
TEST_F(AwsWrapperImplTest, CountsAFileOnlyWithAnETag) {
    script([](const Request&) { return Response(); });
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", dir.write("log", "abc")));
    output.stop();
    EXPECT_EQ(
        output.errWithoutPrefixes(),
        kUploadFailed + "\nkivAWSWrapper: The answer has no ETag: the file counts as not sent\n");
    EXPECT_EQ(cloud.requests().size(), 1u);
}

/// A file that cannot be opened: "could not open file "; one that cannot be read gets a line
/// too.
TEST_F(AwsWrapperImplTest, NeitherWaitsForAPipeNorReadsADevice) {
    const std::string pipe = dir.file("fifo");
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    OutputCapture output;
    for (const std::string& path : {pipe, std::string("/dev/zero")}) {
        EXPECT_FALSE(client().UploadFile("o", path));
    }
    output.stop();
    EXPECT_EQ(
        output.errWithoutPrefixes(),
        "kivAWSWrapper: could not read file " + pipe +
            ": not a regular file\nkivAWSWrapper: could not read file /dev/zero: not a regular "
            "file\n");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A path that leads to a file of the daemon's own by the time it is read is not sent.
TEST_F(AwsWrapperImplTest, SendsNoFileOfTheDaemonsOwn) {
    const std::string own = dir.write("Config", "{}");
    OwnFiles::add(own);
    const std::string link = dir.file("log");
    std::filesystem::create_symlink(own, link);
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", link));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: could not read file " + link + ": the daemon's own\n");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A file's name is shown cut to 256 characters, its line breaks escaped.
TEST_F(AwsWrapperImplTest, ShowsOfAFilesNameOnlyWhatFitsALine) {
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", "/no\nwhere"));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivAWSWrapper: could not open file /no\\x0Awhere\n");
}

/// A refused upload: "Failed sending file to S3 AWS" and "Error = ", after one attempt.
TEST_F(AwsWrapperImplTest, TellsWhyTheBucketRefused) {
    script(refuse);
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", dir.write("log", "abc")));
    output.stop();
    expectFailure(output.errWithoutPrefixes(), kUploadFailed + "no bucket");
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(cloud.requests().size(), 1u);
    EXPECT_FALSE(hasChildren());
}

/// Verbose, a put, an upload and a download are told with their CA path.
TEST_F(AwsWrapperImplTest, DescribesAnUploadWhenVerbose) {
    const std::string path = dir.write("log", "abc");
    client();
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    EXPECT_TRUE(client().UploadFile("o", path));
    output.stop();
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    const std::string caPath = "kivAWSWrapper: Set AWS ClientConfiguration caPath for S3 to " +
                               client().GetCaPath() + "\n";
    EXPECT_EQ(lines.rfind(caPath, 0), 0u) << lines;
    EXPECT_NE(lines.find("kivAWSWrapper: Wait for child "), std::string::npos);
    EXPECT_NE(lines.find("kivAWSWrapper: Child process exits with 1\n"), std::string::npos);
    EXPECT_NE(lines.find("kivAWSWrapper: Child returns 256\n"), std::string::npos);
    EXPECT_EQ(output.err(), "");
}

/// The child gets 300 s; then "Child Timeout expired! : kill pid" and its end by SIGKILL.
///
/// A child that was killed: "Child did not exit normally: status=".
TEST_F(AwsWrapperImplTest, KillsAChildThatHangsAndReapsIt) {
    script([](const Request&) {
        Response response;
        response.hang = true;
        return response;
    });
    AwsWrapperImplPeer::setUploadLimit(1);
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", dir.write("log", "abc")));
    output.stop();
    const std::string lines = output.errWithoutPrefixes();
    const std::string expired = "kivAWSWrapper: Child Timeout expired! : kill pid";
    ASSERT_EQ(lines.rfind(expired, 0), 0u) << lines;
    EXPECT_GT(std::atoi(lines.c_str() + expired.size()), 1);
    EXPECT_EQ(lines.substr(lines.find('\n') + 1),
              "kivAWSWrapper: Child did not exit normally: status=9\n");
    EXPECT_FALSE(hasChildren());
}

/// The child gets 300 s; then "Child Timeout expired! : kill pid" and its end by SIGKILL.
TEST_F(AwsWrapperImplTest, KillsAHungChildOfAnotherThreadToo) {
    script([](const Request&) {
        Response response;
        response.hang = true;
        return response;
    });
    AwsWrapperImplPeer::setUploadLimit(1);
    const std::string path = dir.write("log", "abc");
    client();
    OutputCapture output;
    bool uploaded = true;
    std::thread([&] {
        sigset_t alarm;
        ::sigemptyset(&alarm);
        ::sigaddset(&alarm, SIGALRM);
        ::pthread_sigmask(SIG_BLOCK, &alarm, nullptr);  // as the upload thread does
        uploaded = client().UploadFile("o", path);
    }).join();
    output.stop();
    EXPECT_FALSE(uploaded);
    EXPECT_NE(output.err().find("Child did not exit normally: status=9\n"), std::string::npos);
    EXPECT_FALSE(hasChildren());
}

/// After a kill the next upload goes on, without an alarm left.
TEST_F(AwsWrapperImplTest, LetsTheNextUploadGoOnAfterAKill) {
    script([](const Request&) {
        Response response;
        response.hang = true;
        return response;
    });
    AwsWrapperImplPeer::setUploadLimit(1);
    const std::string path = dir.write("log", "abc");
    OutputCapture output;
    EXPECT_FALSE(client().UploadFile("o", path));
    output.stop();
    AwsWrapperImplPeer::setUploadLimit(300);
    script(accept);
    EXPECT_TRUE(client().UploadFile("o", path));
    EXPECT_EQ(::alarm(0), 0u) << "no alarm is left over";
}

/// A failed fork: "Fork failed: ".
TEST_F(AwsWrapperImplTest, TellsThatTheForkFailed) {
    client();
    const std::string path = dir.write("log", "abc");
    OutputCapture output;
    const pid_t limited = ::fork();
    if (limited == 0) {
        const rlimit none = {0, 0};
        ::setrlimit(RLIMIT_NPROC, &none);
        // The limit does not hold for a privileged user.
        if (::geteuid() == 0 && ::setresuid(65534, 65534, 65534) != 0) ::_exit(98);
        ::_exit(client().UploadFile("o", path) ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(::waitpid(limited, &status, 0), limited);
    output.stop();
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: Fork failed: Resource temporarily unavailable\n");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// The child repeats no waiting output and closes the daemon's descriptors.
TEST_F(AwsWrapperImplTest, LetsTheChildRepeatNothingThatWaitsInTheOutput) {
    testFile("{}");
    client();
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    std::cout << "said once, ";
    EXPECT_TRUE(client().UploadFile("o", "/tmp/any"));
    output.stop();
    const std::string out = output.out();
    EXPECT_NE(out.find("said once, "), std::string::npos);
    EXPECT_EQ(out.find("said once, "), out.rfind("said once, ")) << out;
}

/// The child repeats no waiting output and closes the daemon's descriptors.
TEST_F(AwsWrapperImplTest, SparesTheChildTheDaemonsDescriptors) {
    // The writing end of a pipe that only the child could hold open: it must reach its end while
    // the upload hangs.
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    std::atomic<bool> reached{false};
    script([&](const Request& request) {
        ::close(ends[1]);
        char byte = 0;
        reached = ::read(ends[0], &byte, 1) == 0;
        return accept(request);
    });
    AwsWrapperImplPeer::setUploadLimit(5);
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_TRUE(reached);
    ::close(ends[0]);
}

// --- downloads ----------------------------------------------------------------------------------

/// An object is got into a file; a refusal gets "File download failed from s3 with error " and
/// leaves none.
TEST_F(AwsWrapperImplTest, GetsAnObjectIntoAFile) {
    const std::string content = "the\nobject";
    script([&](const Request&) {
        Response response;
        response.body = content;
        return response;
    });
    client().SetBucketName("b1");
    EXPECT_TRUE(client().DownloadFile("dir/o", dir.file("copy")));
    EXPECT_EQ(dir.read("copy"), content);
    ASSERT_EQ(cloud.requests().size(), 1u);
    EXPECT_EQ(cloud.requests()[0].method, "GET");
    EXPECT_EQ(cloud.requests()[0].target, "/b1/dir/o");
}

/// An object is got into a file; a refusal gets "File download failed from s3 with error " and
/// leaves none.
TEST_F(AwsWrapperImplTest, LeavesNoFileOfARefusedDownload) {
    script(refuse);
    OutputCapture output;
    EXPECT_FALSE(client().DownloadFile("o", dir.file("copy")));
    output.stop();
    expectFailure(output.errWithoutPrefixes(),
                  "kivAWSWrapper: File download failed from s3 with error no bucket");
    EXPECT_FALSE(dir.has("copy"));
}

/// An object is got into a file; a refusal gets "File download failed from s3 with error " and
/// leaves none.
TEST_F(AwsWrapperImplTest, TellsThatTheFileOfADownloadCannotBeMade) {
    OutputCapture output;
    EXPECT_FALSE(client().DownloadFile("o", dir.file("no/copy")));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivAWSWrapper: File download failed from s3 with error cannot create " +
                  dir.file("no/copy") + ": No such file or directory\n");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// Verbose, a put, an upload and a download are told with their CA path.
TEST_F(AwsWrapperImplTest, DescribesADownloadWhenVerbose) {
    client();
    AwsWrapperImpl::SetVerbose(true);
    OutputCapture output;
    EXPECT_TRUE(client().DownloadFile("o", dir.file("copy")));
    output.stop();
    EXPECT_EQ(taggedLines(output.outWithoutPrefixes(), kTag),
              "kivAWSWrapper: Set AWS ClientConfiguration caPath for S3 to " +
                  client().GetCaPath() + "\nkivAWSWrapper: File downloaded from S3 to location " +
                  dir.file("copy") + "\n");
}

// --- test mode ----------------------------------------------------------------------------------

/// In test mode records are appended to "eventlog" and files to "files", and nothing is sent.
TEST_F(AwsWrapperImplTest, AppendsRecordsToTheTestFile) {
    const std::string path = testFile(R"({"files": [1]})");
    EXPECT_TRUE(client().UploadToKinesisFirehose("{\"a\": 1}\n"));
    EXPECT_TRUE(client().UploadToKinesisFirehose("{\"a\": 2}\n"));
    EXPECT_EQ(TempDir::readFile(path), R"({"files": [1], "eventlog": [{"a": 1}, {"a": 2}]})");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// A record of two blocks stores nothing in test mode and is true.
TEST_F(AwsWrapperImplTest, StoresNothingForARecordOfTwoBlocksInTestMode) {
    const std::string path = testFile("{}");
    EXPECT_TRUE(client().UploadToKinesisFirehose("{\"a\": 1}\n{\"b\": 2}\n"));
    EXPECT_EQ(TempDir::readFile(path), R"({"eventlog": []})");
}

/// A test file that is not an object, or a list that is not an array, is replaced.
TEST_F(AwsWrapperImplTest, ReplacesATestFileThatIsNotAnObject) {
    for (const char* text : {"", "[1]", "no json"}) {
        const std::string path = testFile(text);
        EXPECT_TRUE(client().UploadToKinesisFirehose("{}"));
        EXPECT_EQ(TempDir::readFile(path), R"({"eventlog": [{}]})") << text;
    }
}

/// A test file that is not an object, or a list that is not an array, is replaced.
TEST_F(AwsWrapperImplTest, ReplacesAListOfTheTestFileThatIsNotAnArray) {
    const std::string path = testFile(R"({"eventlog": 5, "x": 1})");
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}"));
    EXPECT_EQ(TempDir::readFile(path), R"({"eventlog": [{}], "x": 1})");
}

/// A missing test file is a failure, "UploadToKinesisFirehose failed ", and never made.
TEST_F(AwsWrapperImplTest, FailsWithoutTheTestFileAndNeverMakesIt) {
    AwsWrapperImpl::SetTestMode(dir.file("missing.json"));
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}"));
    EXPECT_FALSE(client().UploadFile("o", dir.path()));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivAWSWrapper: UploadToKinesisFirehose failed \n");
    EXPECT_FALSE(dir.has("missing.json"));
}

/// A pipe in the place of the test file is a failure, and not waited for.
TEST_F(AwsWrapperImplTest, WaitsForNobodyAtAPipeInTheTestFilesPlace) {
    ASSERT_EQ(::mkfifo(dir.file("test-pipe").c_str(), 0600), 0);
    AwsWrapperImpl::SetTestMode(dir.file("test-pipe"));
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}"));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivAWSWrapper: UploadToKinesisFirehose failed \n");
}

/// A missing test file is a failure, "UploadToKinesisFirehose failed ", and never made.
TEST_F(AwsWrapperImplTest, FailsWhenTheTestFileCannotBeWritten) {
    AwsWrapperImpl::SetTestMode("/proc/self/status");  // readable only
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}"));
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes().rfind(
                  "kivAWSWrapper: Cannot write test mode file /proc/self/status: ", 0),
              0u)
        << output.err();
}

/// In test mode records are appended to "eventlog" and files to "files", and nothing is sent.
TEST_F(AwsWrapperImplTest, AppendsFilesToTheTestFile) {
    const std::string path = testFile(R"({"eventlog": [7]})");
    client().SetBucketName("b1");
    EXPECT_TRUE(client().UploadFile("dir/o", "/tmp/any"));
    EXPECT_EQ(TempDir::readFile(path),
              R"({"eventlog": [7], "files": [{"id": "dir/o", "bucketname": "b1", )"
              R"("filename": "/tmp/any"}]})");
    EXPECT_EQ(cloud.requests().size(), 0u);
}

/// In test mode records are appended to "eventlog" and files to "files", and nothing is sent.
TEST_F(AwsWrapperImplTest, LeavesTestModeAgain) {
    testFile("{}");
    AwsWrapperImpl::SetTestMode("");
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_EQ(cloud.requests().size(), 1u);
}

/// Holds each of the program's locks in turn, a moment each, as long as it lives.
class LockHolder {
  public:
    LockHolder() : m_thread([this] { run(); }) {}
    ~LockHolder() {
        m_stop = true;
        m_thread.join();
    }
    LockHolder(const LockHolder&) = delete;
    LockHolder& operator=(const LockHolder&) = delete;

  private:
    template <typename Mutex>
    static void hold(Mutex& mutex) {
        const std::lock_guard<Mutex> lock(mutex);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }

    void run() {
        while (!m_stop) {
            hold(DB::m_PruneLock);
            hold(GatewayImpl::m_QueueMutex);
            hold(Singleton<ConfigImpl>::m_Mutex);
            hold(Singleton<CGlobalInfoImpl>::m_Mutex);
            hold(Singleton<TimeMgrImpl>::m_Mutex);
            hold(Singleton<CTouImpl>::m_Mutex);
            hold(Singleton<WebTimeImpl>::m_Mutex);
            hold(Singleton<UploadImpl>::m_Mutex);
            hold(Singleton<GatewayImpl>::m_Mutex);
            hold(Singleton<AwsWrapperImpl>::m_Mutex);
            // The locks that only their owners reach, and the heap's.
            for (int i = 0; i < 200; ++i) useTheLeaves();
        }
    }

    static void useTheLeaves() {
        kivAppNow();
        Config()->GetS3Bucket();
        DBToken::current();
        PimAppVersion::current();
        LocationInfo::getKnownLocation();
        NetworkHelper().IsNetworkAvailable();
    }

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// No child hangs on a lock that another thread held when it was forked: 500 uploads arrive
/// while others hold the daemon's locks, with no child and no descriptor left.
TEST_F(AwsWrapperImplTest, NoneOf500ChildrenHangsWhileOtherThreadsHoldTheLocks) {
    giveCredentials();
    const std::string file = dir.write("file", "text");
    NetworkHelperPeer::setStatus(true,
                                 static_cast<std::int32_t>(KernelTime::getTimeMonotonicAsInt64()));
    const auto descriptors = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    ASSERT_TRUE(client().UploadFile("first", file));
    AwsWrapperImplPeer::setUploadLimit(20);
    const auto before = descriptors();
    int arrived = 0;
    {
        const LockHolder first;
        const LockHolder second;
        for (int i = 0; i < 500; ++i) arrived += client().UploadFile("name", file) ? 1 : 0;
    }
    EXPECT_EQ(arrived, 500);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no child is left";
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(WaitUntil([&] { return descriptors() <= before; }));
}
