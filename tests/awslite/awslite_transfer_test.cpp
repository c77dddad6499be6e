#include "awslite_support.h"
#include "support/NetworkHooks.h"
#include "support/TempDir.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <type_traits>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <aws/core/utils/HashingUtils.h>
#include <awslite/SigV4.h>
#include <gtest/gtest.h>

namespace {

using namespace awslite_test;
using Aws::Utils::HashingUtils;
using Request = ScriptedHttpServer::Request;
using Response = ScriptedHttpServer::Response;
using Transport = ScriptedHttpServer::Transport;
using Policy = Aws::Client::AWSAuthV4Signer::PayloadSigningPolicy;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr const char* kStored = R"({"RecordId": "record-1"})";

std::string sha256(const std::string& text) {
    return HashingUtils::HexEncode(HashingUtils::CalculateSHA256(text));
}

/// The names and values of the headers but for those that change from call to call.
std::string steadyHeaders(const Request& request) {
    std::string text;
    for (const auto& [name, value] : request.headers) {
        if (name == "authorization" || name == "x-amz-date" || name == "Host") continue;
        text += name + ": " + value + "\n";
    }
    return text;
}

class AwsliteTransfer : public testing::Test {
  protected:
    static ScriptedHttpServer::Script stored() { return always(answer(200, kStored)); }
};

// ---- On the wire -------------------------------------------------------------------------

/// A record is posted to "/" as JSON with the stream's name and its bytes in Base64,
/// "Firehose_20150804.PutRecord" as target, length, hash and session token, and no header more;
/// the answer's record id is handed out.
TEST_F(AwsliteTransfer, PutsARecordAsTheServiceWantsIt) {
    const ScriptedHttpServer server(stored(), Transport::Tls);

    const auto outcome =
        firehose(configurationFor(server.url()), "token").PutRecord(recordRequest("{\"a\":1}\n"));

    ASSERT_TRUE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetResult().GetRecordId(), "record-1");
    ASSERT_EQ(server.requests().size(), 1U);
    const Request request = server.requests()[0];
    const std::string body =
        R"({"DeliveryStreamName":"kiv-stream","Record":{"Data":"eyJhIjoxfQo="}})";
    EXPECT_EQ(request.method + " " + request.target, "POST /");
    EXPECT_EQ(request.header("host"), server.host());
    EXPECT_EQ(request.body, body);
    EXPECT_EQ(steadyHeaders(request),
              "User-Agent: awslite/1.0\nAccept: */*\n"
              "content-length: " +
                  std::to_string(body.size()) +
                  "\n"
                  "content-type: application/x-amz-json-1.1\n"
                  "x-amz-content-sha256: " +
                  sha256(body) +
                  "\n"
                  "x-amz-security-token: token\n"
                  "x-amz-target: Firehose_20150804.PutRecord\n");
}

/// Any bytes, a zero and a megabyte of them included, are sent whole, without waiting for a
/// "100 Continue".
TEST_F(AwsliteTransfer, PutsARecordOfAnyBytesAndAMegabyteWithoutAsking) {
    const ScriptedHttpServer server(stored(), Transport::Tls);
    std::string bytes(1 << 20, '\xff');
    bytes[17] = '\0';

    const auto client = firehose(configurationFor(server.url()));
    ASSERT_TRUE(client.PutRecord(recordRequest(bytes)).IsSuccess());

    const Request request = server.requests().at(0);
    EXPECT_FALSE(request.hasHeader("expect"));
    const Aws::Utils::ByteBuffer sent(reinterpret_cast<const unsigned char*>(bytes.data()),
                                      bytes.size());
    EXPECT_TRUE(request.body.find(HashingUtils::Base64Encode(sent)) != std::string::npos);
}

/// The stream's name is escaped; one that is not UTF-8 gives no document.
TEST_F(AwsliteTransfer, EscapesTheStreamName) {
    auto request = recordRequest("x");
    request.SetDeliveryStreamName("a\"b\\ä");

    EXPECT_EQ(request.SerializePayload(),
              "{\"DeliveryStreamName\":\"a\\\"b\\\\ä\",\"Record\":{\"Data\":\"eA==\"}}");
    request.SetDeliveryStreamName("\xff");
    EXPECT_EQ(request.SerializePayload(), "");
}

/// A success without a record id, or with one that is not a string, counts as put, with an empty
/// id.
TEST_F(AwsliteTransfer, TakesARecordWithoutAnIdAsPut) {
    for (const char* body : {"", "{}", R"({"RecordId": 7})"}) {
        const ScriptedHttpServer server(always(answer(200, body)), Transport::Tls);
        const auto outcome = firehose(configurationFor(server.url())).PutRecord(recordRequest());
        ASSERT_TRUE(outcome.IsSuccess()) << body;
        EXPECT_EQ(outcome.GetResult().GetRecordId(), "") << body;
    }
}

/// An object is put under bucket and escaped key with type, length and MD5, its payload unsigned,
/// after "Expect: 100-continue".
TEST_F(AwsliteTransfer, StoresAnObjectAsTheServiceWantsIt) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    auto request = putRequest("some text", "dir/a file+1.txt");
    request.SetBucket("norvane-ddump/kiv-test");
    request.SetContentMD5(HashingUtils::Base64Encode(HashingUtils::CalculateMD5("some text")));
    request.SetContentType("text/plain");

    ASSERT_TRUE(s3(configurationFor(server.url())).PutObject(request).IsSuccess());

    ASSERT_EQ(server.requests().size(), 1U);
    const Request sent = server.requests()[0];
    EXPECT_EQ(sent.method + " " + sent.target, "PUT /norvane-ddump/kiv-test/dir/a%20file%2B1.txt");
    EXPECT_EQ(sent.body, "some text");
    EXPECT_EQ(steadyHeaders(sent),
              "User-Agent: awslite/1.0\nAccept: */*\n"
              "content-length: 9\n"
              "content-md5: VS4hzUzZkYZ448Gg30kbww==\n"
              "content-type: text/plain\n"
              "x-amz-content-sha256: UNSIGNED-PAYLOAD\n"
              "Expect: 100-continue\n");
}

/// The answer's ETag is handed out as it came, in any case of the header's name; "" without one.
TEST_F(AwsliteTransfer, HandsOutTheETagOfAStoredObject) {
    for (const char* name : {"ETag", "etag", "ETAG"}) {
        Response named = answer(200, "");
        named.headers = {{name, "\"d41d8cd9\" "}, {"X-ETag", "other"}};
        const ScriptedHttpServer server(always(named), Transport::Tls);
        const auto outcome = s3(configurationFor(server.url())).PutObject(putRequest("b"));
        ASSERT_TRUE(outcome.IsSuccess());
        EXPECT_EQ(outcome.GetResult().GetETag(), "\"d41d8cd9\"");
    }
    const ScriptedHttpServer server(always(answer(200, "<html>welcome</html>")), Transport::Tls);
    const auto outcome = s3(configurationFor(server.url())).PutObject(putRequest("b"));
    ASSERT_TRUE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetResult().GetETag(), "");
}

/// An empty object, or a request without a body, is put with length 0 and without asking.
TEST_F(AwsliteTransfer, StoresAnEmptyObjectWithoutAsking) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    auto bodyless = putRequest("");
    bodyless.SetBody(nullptr);

    const auto client = s3(configurationFor(server.url()));
    ASSERT_TRUE(client.PutObject(putRequest("")).IsSuccess());
    ASSERT_TRUE(client.PutObject(bodyless).IsSuccess());

    for (const Request& sent : server.requests()) {
        EXPECT_EQ(steadyHeaders(sent),
                  "User-Agent: awslite/1.0\nAccept: */*\ncontent-length: 0\n"
                  "x-amz-content-sha256: UNSIGNED-PAYLOAD\n");
    }
    EXPECT_EQ(server.requests().size(), 2U);
}

/// A large object is sent whole from its beginning, and measured when its length is not told.
TEST_F(AwsliteTransfer, StoresALargeObjectWholeAndMeasuresItWhenNotTold) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    std::string body(5 * 1024 * 1024, 'b');
    body[4000000] = '\0';
    auto request = putRequest(body);
    request.SetContentLength(-1);
    request.GetBody()->seekg(100);

    ASSERT_TRUE(s3(configurationFor(server.url())).PutObject(request).IsSuccess());
    EXPECT_TRUE(server.requests().at(0).body == body);
}

/// The payload's hash is signed over plain HTTP, and over HTTPS when told to.
TEST_F(AwsliteTransfer, SignsThePayloadOverPlainHttpAndWhenToldTo) {
    const ScriptedHttpServer plain(always(answer(200, "")));
    const ScriptedHttpServer tls(always(answer(200, "")), Transport::Tls);
    const Aws::S3::S3Client always(credentials(), configurationFor(tls.url()), Policy::Always,
                                   false);

    ASSERT_TRUE(s3(configurationFor(plain.url())).PutObject(putRequest("text")).IsSuccess());
    ASSERT_TRUE(s3(configurationFor(plain.url())).GetObject(getRequest()).IsSuccess());
    ASSERT_TRUE(always.PutObject(putRequest("text")).IsSuccess());

    EXPECT_EQ(plain.requests().at(0).header("x-amz-content-sha256"), sha256("text"));
    EXPECT_EQ(plain.requests().at(0).body, "text");
    EXPECT_EQ(plain.requests().at(1).header("x-amz-content-sha256"), sha256(""));
    EXPECT_EQ(tls.requests().at(0).header("x-amz-content-sha256"), sha256("text"));
}

/// A body that is shorter than announced ends the call instead of waiting.
TEST_F(AwsliteTransfer, EndsACallWhoseBodyIsShorterThanAnnounced) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    auto request = putRequest("short");
    request.SetContentLength(50);

    const auto outcome = s3(configurationFor(server.url())).PutObject(request);

    ASSERT_FALSE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetError().GetMessage(),
              "curlCode: 42, Operation was aborted by an application callback");
    EXPECT_TRUE(server.requests().empty());
}

// ---- Addresses ---------------------------------------------------------------------------

std::string addressOf(const std::string& endpoint, Aws::Http::Scheme scheme) {
    Aws::Client::ClientConfiguration configuration;
    configuration.endpointOverride = endpoint;
    configuration.scheme = scheme;
    Awslite::HttpRequest request;
    Awslite::addressRequest(request, configuration, "public.host");
    return request.scheme + " " + request.host + " " + request.path;
}

/// An endpoint is nothing, a host or a URL; its scheme goes before the configured one, the
/// scheme's own port is left out, its path stays.
TEST_F(AwsliteTransfer, TakesTheEndpointApart) {
    using Aws::Http::Scheme;
    EXPECT_EQ(addressOf("", Scheme::HTTPS), "https public.host ");
    EXPECT_EQ(addressOf("h", Scheme::HTTP), "http h ");
    EXPECT_EQ(addressOf("https://h", Scheme::HTTP), "https h ");
    EXPECT_EQ(addressOf("https://h:443/", Scheme::HTTPS), "https h ");
    EXPECT_EQ(addressOf("http://h:80", Scheme::HTTPS), "http h ");
    EXPECT_EQ(addressOf("http://h:443", Scheme::HTTPS), "http h:443 ");
    EXPECT_EQ(addressOf("https://h:8443/a/b//", Scheme::HTTPS), "https h:8443 /a/b");
}

/// Where asked for, the bucket goes into the host name, unless it has a slash.
TEST_F(AwsliteTransfer, PutsTheBucketIntoTheHostWhereAskedAndPossible) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    auto configuration = configurationFor("https://127.0.0.1:" + std::to_string(server.port()));
    const Aws::S3::S3Client client(credentials(), configuration, Policy::Never, true);
    auto request = putRequest("b");
    request.SetBucket("with/slash");

    ASSERT_TRUE(client.PutObject(request).IsSuccess());
    EXPECT_EQ(server.requests().at(0).target, "/with/slash/key");
    request.SetBucket("bucket");
    EXPECT_EQ(client.PutObject(request).GetError().GetMessage(),
              "curlCode: 6, Couldn't resolve host name");
}

// ---- Responses ---------------------------------------------------------------------------

/// An object is got byte for byte into memory, or into the caller's stream.
TEST_F(AwsliteTransfer, FetchesAnObjectIntoMemory) {
    const std::string body("line 1\nline\0 2", 14);
    const ScriptedHttpServer server(always(answer(200, body)), Transport::Tls);

    auto outcome = s3(configurationFor(server.url())).GetObject(getRequest("a b"));

    ASSERT_TRUE(outcome.IsSuccess());
    EXPECT_EQ(server.requests().at(0).method + " " + server.requests().at(0).target,
              "GET /bucket/a%20b");
    EXPECT_EQ(steadyHeaders(server.requests().at(0)),
              "User-Agent: awslite/1.0\nAccept: */*\n"
              "x-amz-content-sha256: UNSIGNED-PAYLOAD\n");
    const auto result = outcome.GetResultWithOwnership();
    std::ostringstream text;
    text << result.GetBody().rdbuf();
    EXPECT_EQ(text.str(), body);
}

/// An object is got byte for byte into memory, or into the caller's stream.
TEST_F(AwsliteTransfer, FetchesAnObjectIntoTheStreamOfTheFactory) {
    const std::string body(3 * 1024 * 1024, 'o');
    const ScriptedHttpServer server(always(answer(200, body)), Transport::Tls);
    const TempDir directory;
    auto request = getRequest();
    request.SetResponseStreamFactory([&] {
        return Aws::New<Aws::FStream>("test", directory.file("object").c_str(),
                                      std::ios_base::out | std::ios_base::trunc);
    });

    EXPECT_TRUE(s3(configurationFor(server.url())).GetObject(request).IsSuccess());
    EXPECT_TRUE(directory.read("object") == body);
}

/// Counts how often it is written to.
class CountingBuffer : public std::stringbuf {
  public:
    explicit CountingBuffer(int& writes) : m_writes(writes) {}

  protected:
    std::streamsize xsputn(const char* data, std::streamsize size) override {
        ++m_writes;
        return std::stringbuf::xsputn(data, size);
    }

  private:
    int& m_writes;
};

class CountingStream : public std::iostream {
  public:
    explicit CountingStream(int& writes) : std::iostream(nullptr), m_buffer(writes) {
        rdbuf(&m_buffer);
    }

  private:
    CountingBuffer m_buffer;
};

/// The answer goes into the stream piece by piece as it arrives.
TEST_F(AwsliteTransfer, WritesTheResponseChunkByChunk) {
    const ScriptedHttpServer server(always(answer(200, std::string(1 << 20, 'o'))), Transport::Tls);
    int writes = 0;
    auto request = getRequest();
    request.SetResponseStreamFactory([&] { return Aws::New<CountingStream>("test", writes); });

    EXPECT_TRUE(s3(configurationFor(server.url())).GetObject(request).IsSuccess());
    EXPECT_GT(writes, 10);
}

/// A stream that is not open is refused before anything is sent; one that cannot take the
/// object fails the call, with the same text.
TEST_F(AwsliteTransfer, RefusesAStreamThatIsNotOpen) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    auto request = getRequest();
    request.SetResponseStreamFactory(
        [] { return Aws::New<Aws::FStream>("test", "/nonexistent/file", std::ios_base::out); });

    const auto outcome = s3(configurationFor(server.url())).GetObject(request);

    ASSERT_FALSE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetError().GetMessage(),
              "curlCode: 23, Failed writing received data to disk/application");
    EXPECT_TRUE(server.requests().empty());
}

/// A stream that is not open is refused before anything is sent; one that cannot take the
/// object fails the call, with the same text.
TEST_F(AwsliteTransfer, FailsWhereTheStreamCannotTakeTheObject) {
    const ScriptedHttpServer server(always(answer(200, "x")), Transport::Tls);
    auto request = getRequest();
    request.SetResponseStreamFactory(
        [] { return Aws::New<Aws::FStream>("test", "/dev/full", std::ios_base::out); });

    const auto outcome = s3(configurationFor(server.url())).GetObject(request);

    ASSERT_FALSE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetError().GetMessage(),
              "curlCode: 23, Failed writing received data to disk/application");
}

/// A stream that throws fails the call; without one: "The response stream factory gave no
/// stream".
TEST_F(AwsliteTransfer, StandsAStreamThatThrowsAndAFactoryWithoutAStream) {
    const ScriptedHttpServer server(always(answer(200, std::string(1 << 20, 'x'))), Transport::Tls);
    auto request = getRequest();
    request.SetResponseStreamFactory([] {
        auto* stream = Aws::New<Aws::FStream>("test", "/dev/full", std::ios_base::out);
        stream->exceptions(std::ios::badbit | std::ios::failbit);
        return stream;
    });
    const auto client = s3(configurationFor(server.url()));

    EXPECT_FALSE(client.GetObject(request).IsSuccess());
    request.SetResponseStreamFactory([]() -> Aws::IOStream* { return nullptr; });
    EXPECT_EQ(client.GetObject(request).GetError().GetMessage(),
              "The response stream factory gave no stream");
}

/// The result of a download can be moved, not copied.
TEST_F(AwsliteTransfer, ItsResultsCanBeMoved) {
    EXPECT_TRUE(std::is_move_constructible_v<Aws::S3::Model::GetObjectOutcome>);
    EXPECT_FALSE(std::is_copy_constructible_v<Aws::S3::Model::GetObjectResult>);
}

// ---- Time-outs ---------------------------------------------------------------------------

/// A port of 127.0.0.1 whose connections are never taken: further attempts get no answer at all.
class SilentPort {
  public:
    explicit SilentPort(bool full) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        const int listener = open();
        EXPECT_EQ(::bind(listener, generic, length), 0);
        EXPECT_EQ(::listen(listener, full ? 0 : 16), 0);
        EXPECT_EQ(::getsockname(listener, generic, &length), 0);
        m_port = ntohs(address.sin_port);
        for (int fill = 0; full && fill < 4; ++fill) {
            static_cast<void>(::connect(open(), generic, length));
        }
    }
    ~SilentPort() {
        for (const int fd : m_fds) ::close(fd);
    }
    SilentPort(const SilentPort&) = delete;
    SilentPort& operator=(const SilentPort&) = delete;

    std::string url() const { return "https://127.0.0.1:" + std::to_string(m_port); }

  private:
    int open() {
        return m_fds.emplace_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    }

    std::vector<int> m_fds;
    int m_port = 0;
};

void expectConnectTimeout(const std::string& url) {
    auto configuration = configurationFor(url);
    configuration.connectTimeoutMs = 400;
    const auto start = steady_clock::now();

    const auto outcome = firehose(configuration).PutRecord(recordRequest());
    const auto took = steady_clock::now() - start;

    ASSERT_FALSE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetError().GetMessage(), "curlCode: 28, Timeout was reached");
    EXPECT_GE(took, milliseconds(390));
    EXPECT_LT(took, milliseconds(3000));
}

/// A connection that is not made within the connect time-out, its TLS handshake included, is
/// given up.
TEST_F(AwsliteTransfer, EndsAConnectAttemptAfterTheConnectTimeout) {
    const SilentPort full(true);
    expectConnectTimeout(full.url());
}

/// A connection that is not made within the connect time-out, its TLS handshake included, is
/// given up.
TEST_F(AwsliteTransfer, CountsTheTlsHandshakeAsConnecting) {
    const SilentPort untaken(false);
    expectConnectTimeout(untaken.url());
}

/// A transfer without a byte is given up after the request time-out; a slow one goes on beyond
/// it.
TEST_F(AwsliteTransfer, EndsAStalledTransferAfterTheRequestTimeout) {
    Response silent;
    silent.hang = true;
    const ScriptedHttpServer server(always(silent), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.requestTimeoutMs = 1500;  // one whole second
    const auto start = steady_clock::now();

    const auto outcome = s3(configuration).GetObject(getRequest());
    const auto took = steady_clock::now() - start;

    ASSERT_FALSE(outcome.IsSuccess());
    EXPECT_EQ(outcome.GetError().GetMessage(), "curlCode: 28, Timeout was reached");
    EXPECT_GE(took, milliseconds(990));
    EXPECT_LT(took, milliseconds(9000));
}

/// A transfer without a byte is given up after the request time-out; a slow one goes on beyond
/// it.
TEST_F(AwsliteTransfer, LetsASlowTransferGoOnBeyondTheRequestTimeout) {
    Response slow = answer(200, "0123456789");
    slow.dripMs = 200;
    const ScriptedHttpServer server(always(slow), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.requestTimeoutMs = 1000;

    auto outcome = s3(configuration).GetObject(getRequest());

    ASSERT_TRUE(outcome.IsSuccess()) << outcome.GetError().GetMessage();
    std::string body;
    outcome.GetResult().GetBody() >> body;
    EXPECT_EQ(body, "0123456789");
}

/// A call is over after its limit, also while the answer trickles in and never stalls.
TEST_F(AwsliteTransfer, EndsATricklingAnswerAtTheLimitOfTheCall) {
    Response slow = answer(200, std::string(100, '1'));
    slow.dripMs = 100;
    const ScriptedHttpServer server(always(slow), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.httpRequestTimeoutMs = 1000;
    const auto start = steady_clock::now();

    const auto put = firehose(configuration).PutRecord(recordRequest());
    const auto got = s3(configuration).GetObject(getRequest());
    const auto took = steady_clock::now() - start;

    EXPECT_EQ(put.GetError().GetMessage(), "curlCode: 28, Timeout was reached");
    EXPECT_EQ(got.GetError().GetMessage(), "curlCode: 28, Timeout was reached");
    EXPECT_GE(took, milliseconds(1990));
    EXPECT_LT(took, milliseconds(6000));
}

/// Each call makes one attempt, whatever the retry strategy says.
TEST_F(AwsliteTransfer, MakesOneAttemptWhateverTheRetryStrategySays) {
    const ScriptedHttpServer server(always(answer(503, "")), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.retryStrategy = Aws::MakeShared<Aws::Client::DefaultRetryStrategy>("test", 5, 1);

    EXPECT_FALSE(firehose(configuration).PutRecord(recordRequest()).IsSuccess());
    EXPECT_FALSE(s3(configuration).PutObject(putRequest("b")).IsSuccess());
    EXPECT_EQ(server.requests().size(), 2U);
}

// ---- Trust -------------------------------------------------------------------------------

/// A server that the bundle does not vouch for is refused; the bundle itself is the CA file,
/// its directory the CA path.
///
/// A server is trusted through the CA file or through a directory of hashed names; files of
/// other names in it do not count.
TEST_F(AwsliteTransfer, TrustsThroughTheCaFileOrThroughTheHashedDirectory) {
    const ScriptedHttpServer server(stored(), Transport::Tls);
    auto configuration = configurationFor(server.url());
    const auto directoryOf = [](const std::string& file) {
        return std::filesystem::path(file).parent_path().string();
    };

    configuration.caFile = ScriptedHttpServer::otherCaFile();
    configuration.caPath = directoryOf(ScriptedHttpServer::caFile());
    EXPECT_TRUE(firehose(configuration).PutRecord(recordRequest()).IsSuccess());
    configuration.caPath = directoryOf(ScriptedHttpServer::otherCaFile());
    EXPECT_FALSE(firehose(configuration).PutRecord(recordRequest()).IsSuccess());
    configuration.caFile = ScriptedHttpServer::caFile();
    EXPECT_TRUE(firehose(configuration).PutRecord(recordRequest()).IsSuccess());
}

/// A server that the bundle does not vouch for is refused; the bundle itself is the CA file,
/// its directory the CA path.
///
/// A server is trusted through the CA file or through a directory of hashed names; files of
/// other names in it do not count.
TEST_F(AwsliteTransfer, FindsNothingInADirectoryWithoutHashedNames) {
    const ScriptedHttpServer server(stored(), Transport::Tls);
    const TempDir unhashed;
    unhashed.write("ca.pem", TempDir::readFile(ScriptedHttpServer::caFile()));
    auto configuration = configurationFor(server.url());
    configuration.caFile = ScriptedHttpServer::otherCaFile();
    configuration.caPath = unhashed.path();

    EXPECT_FALSE(firehose(configuration).PutRecord(recordRequest()).IsSuccess());
    EXPECT_TRUE(server.requests().empty());
}

constexpr std::int64_t kSecondsOf2014 = 1400000000;
constexpr std::int64_t kSecondsOf2036 = 2098483200;

ScriptedHttpServer::Certificate validFrom(const char* notBefore, const char* notAfter) {
    ScriptedHttpServer::Certificate certificate;
    certificate.notBefore = notBefore;
    certificate.notAfter = notAfter;
    return certificate;
}

/// Whether a put to a server with this certificate arrives.
bool isTaken(const ScriptedHttpServer::Certificate& certificate) {
    const ScriptedHttpServer server(always(answer(200, kStored)), certificate);
    const auto outcome = firehose(configurationFor(server.url())).PutRecord(recordRequest());
    if (outcome.IsSuccess()) return true;
    EXPECT_EQ(outcome.GetError().GetMessage(),
              "curlCode: 60, SSL peer certificate or SSH remote key was not OK");
    EXPECT_TRUE(server.requests().empty());
    return false;
}

/// The dates of a server's certificate are judged by the request clock where one is set.
TEST_F(AwsliteTransfer, JudgesTheDatesOfACertificateByTheRequestClock) {
    const auto of2014 = validFrom("20140101000000Z", "20150101000000Z");
    const auto of2036 = validFrom("20360101000000Z", "20370101000000Z");
    {
        const RequestClockAt clock(kSecondsOf2014);
        EXPECT_TRUE(isTaken(of2014));
        EXPECT_FALSE(isTaken(of2036));
    }
    const RequestClockAt clock(kSecondsOf2036);
    EXPECT_FALSE(isTaken(of2014));
    EXPECT_TRUE(isTaken(of2036));
}

/// Without a request clock the system clock judges.
TEST_F(AwsliteTransfer, JudgesByTheSystemClockWithoutARequestClock) {
    EXPECT_FALSE(isTaken(validFrom("20140101000000Z", "20150101000000Z")));
    EXPECT_FALSE(isTaken(validFrom("21000101000000Z", "21010101000000Z")));
    EXPECT_TRUE(isTaken(validFrom("20140101000000Z", "21010101000000Z")));
}

/// The request clock judges dates alone: chain and host name count as ever.
TEST_F(AwsliteTransfer, ExcusesNeitherAnotherCaNorAnotherHostByTheRequestClock) {
    const RequestClockAt clock(kSecondsOf2014);
    ScriptedHttpServer::Certificate certificate;
    EXPECT_TRUE(isTaken(certificate));
    certificate.trusted = false;
    EXPECT_FALSE(isTaken(certificate));
    certificate.trusted = true;
    certificate.host = "other.example";
    EXPECT_FALSE(isTaken(certificate));
}

/// Where libcurl does not hand out its TLS context, the system clock judges, and calls go on.
TEST_F(AwsliteTransfer, JudgesByTheSystemClockWhereLibcurlHandsOutNoContext) {
    NetworkHooks hooks;
    hooks.refuse(CURLOPT_SSL_CTX_FUNCTION);
    const RequestClockAt clock(kSecondsOf2014);
    EXPECT_FALSE(isTaken(validFrom("20140101000000Z", "20150101000000Z")));
    EXPECT_TRUE(isTaken(ScriptedHttpServer::Certificate()));
}

// ---- Rate limits -------------------------------------------------------------------------

/// Adds up what it is asked to pay for.
class CountingLimiter : public Aws::Utils::RateLimits::RateLimiterInterface {
  public:
    DelayType ApplyCost(std::int64_t cost) override {
        paid += cost;
        return DelayType(0);
    }
    void ApplyAndPayForCost(std::int64_t cost) override { ApplyCost(cost); }
    void SetRate(std::int64_t, bool) override {}

    std::int64_t paid = 0;
};

/// Every byte of a body that is sent or read is paid for, with the limiter of its direction.
TEST_F(AwsliteTransfer, PaysForTheBytesReadAndWritten) {
    const ScriptedHttpServer server(always(answer(200, std::string(300000, 'r'))), Transport::Tls);
    auto configuration = configurationFor(server.url());
    const auto reading = std::make_shared<CountingLimiter>();
    const auto writing = std::make_shared<CountingLimiter>();
    configuration.readRateLimiter = reading;
    configuration.writeRateLimiter = writing;

    ASSERT_TRUE(s3(configuration).PutObject(putRequest(std::string(200000, 'w'))).IsSuccess());
    EXPECT_EQ(writing->paid, 200000);
    EXPECT_EQ(reading->paid, 300000);
    ASSERT_TRUE(s3(configuration).GetObject(getRequest()).IsSuccess());
    EXPECT_EQ(writing->paid, 200000);
    EXPECT_EQ(reading->paid, 600000);
}

// ---- Processes and threads ---------------------------------------------------------------

/// A call works in a forked child, also after one in its parent.
TEST_F(AwsliteTransfer, WorksInAForkedChild) {
    const ScriptedHttpServer server(always(answer(200, "")), Transport::Tls);
    const auto configuration = configurationFor(server.url());
    ASSERT_TRUE(s3(configuration).PutObject(putRequest("parent")).IsSuccess());

    const pid_t child = ::fork();
    if (child == 0) ::_exit(s3(configuration).PutObject(putRequest("child")).IsSuccess() ? 1 : 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);

    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_EQ(server.requests().at(1).body, "child");
}

/// One client serves several threads.
TEST_F(AwsliteTransfer, ServesSeveralThreadsAtTheSameTime) {
    const ScriptedHttpServer server(stored(), Transport::Tls);
    const auto client = firehose(configurationFor(server.url()));
    std::vector<std::thread> threads;
    std::vector<int> succeeded(4, 0);
    for (int& count : succeeded) {
        threads.emplace_back([&client, &count] {
            for (int call = 0; call < 5; ++call) {
                if (client.PutRecord(recordRequest()).IsSuccess()) ++count;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();

    EXPECT_EQ(succeeded, std::vector<int>(4, 5));
}

}  // namespace
