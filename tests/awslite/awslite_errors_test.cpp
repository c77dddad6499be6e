#include "awslite_support.h"
#include "support/TempDir.h"

#include <fstream>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <awslite/Errors.h>
#include <gtest/gtest.h>

namespace {

using namespace awslite_test;
using Response = ScriptedHttpServer::Response;
using Transport = ScriptedHttpServer::Transport;
using Aws::Client::CoreErrors;

/// A TCP port of 127.0.0.1 that refuses each connection, and is nobody else's meanwhile.
class RefusingPort {
  public:
    RefusingPort() : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(m_fd, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(::getsockname(m_fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        m_port = ntohs(address.sin_port);
    }
    ~RefusingPort() { ::close(m_fd); }
    RefusingPort(const RefusingPort&) = delete;
    RefusingPort& operator=(const RefusingPort&) = delete;

    std::string url() const { return "https://127.0.0.1:" + std::to_string(m_port); }

  private:
    int m_fd;
    int m_port = 0;
};

/// What a failed call says, in one value.
struct Verdict {
    std::string message;
    std::string name;
    int code;
    bool retry;

    bool operator==(const Verdict& other) const {
        return message == other.message && name == other.name && code == other.code &&
               retry == other.retry;
    }
};

void PrintTo(const Verdict& verdict, std::ostream* out) {
    *out << '"' << verdict.message << "\" / \"" << verdict.name << "\" / " << verdict.code
         << (verdict.retry ? " / retry" : " / final");
}

template <typename Outcome>
Verdict verdictOf(const Outcome& outcome) {
    EXPECT_FALSE(outcome.IsSuccess());
    const auto& error = outcome.GetError();
    return {error.GetMessage(), error.GetExceptionName(), codeOf(error), error.ShouldRetry()};
}

Verdict put(const Aws::Client::ClientConfiguration& configuration) {
    return verdictOf(firehose(configuration).PutRecord(recordRequest()));
}

Verdict putAgainst(const Response& response) {
    const ScriptedHttpServer server(always(response), Transport::Tls);
    return put(configurationFor(server.url()));
}

Verdict storeAgainst(const Response& response) {
    const ScriptedHttpServer server(always(response), Transport::Tls);
    return verdictOf(s3(configurationFor(server.url())).PutObject(putRequest("body")));
}

Verdict fetchAgainst(const Response& response) {
    const ScriptedHttpServer server(always(response), Transport::Tls);
    return verdictOf(s3(configurationFor(server.url())).GetObject(getRequest()));
}

Verdict transportFailure(const std::string& message) {
    return {message, "", -1, true};
}

// ---- The call does not get through -------------------------------------------------------

/// A call that does not get through says "curlCode: ", number and text, with status -1, and may
/// be tried again: refused connection, unknown host, time-out, no answer.
TEST(AwsliteTransportError, TellsARefusedConnection) {
    const RefusingPort port;

    const Verdict expected = transportFailure("curlCode: 7, Couldn't connect to server");
    EXPECT_EQ(put(configurationFor(port.url())), expected);
    const auto client = s3(configurationFor(port.url()));
    EXPECT_EQ(verdictOf(client.PutObject(putRequest("b"))), expected);
    EXPECT_EQ(verdictOf(client.GetObject(getRequest())), expected);
}

/// A certificate that is not trusted fails so too, and the server gets no request; a CA file
/// that is missing is told.
TEST(AwsliteTransportError, TellsAnUntrustedCertificate) {
    const ScriptedHttpServer server(always(Response()), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.caFile = ScriptedHttpServer::otherCaFile();

    EXPECT_EQ(put(configuration),
              transportFailure("curlCode: 60, SSL peer certificate or SSH remote key was not OK"));
    EXPECT_TRUE(server.requests().empty());
}

/// A call that does not get through says "curlCode: ", number and text, with status -1, and may
/// be tried again: refused connection, unknown host, time-out, no answer.
TEST(AwsliteTransportError, TellsAHostThatIsNotFound) {
    const std::string tooLongForDns(64, 'a');

    EXPECT_EQ(put(configurationFor("https://" + tooLongForDns + ".invalid")),
              transportFailure("curlCode: 6, Couldn't resolve host name"));
}

/// A call that does not get through says "curlCode: ", number and text, with status -1, and may
/// be tried again: refused connection, unknown host, time-out, no answer.
TEST(AwsliteTransportError, TellsATimeout) {
    Response silent;
    silent.hang = true;
    const ScriptedHttpServer server(always(silent), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.requestTimeoutMs = 1000;

    EXPECT_EQ(put(configuration), transportFailure("curlCode: 28, Timeout was reached"));
}

/// A call that does not get through says "curlCode: ", number and text, with status -1, and may
/// be tried again: refused connection, unknown host, time-out, no answer.
TEST(AwsliteTransportError, TellsAServerThatClosesWithoutAnAnswer) {
    Response closing;
    closing.closeWithoutAnswer = true;
    const Verdict expected =
        transportFailure("curlCode: 52, Server returned nothing (no headers, no data)");

    EXPECT_EQ(putAgainst(closing), expected);
    EXPECT_EQ(storeAgainst(closing), expected);
    EXPECT_EQ(fetchAgainst(closing), expected);
}

/// A body that is cut off fails the call, whatever its status.
TEST(AwsliteTransportError, TellsACutOffBodyAndNotItsStatus) {
    Response cut = answer(200, "{\"RecordId\": \"r\"}");
    cut.cutAfterBodyBytes = 5;
    const Verdict expected = transportFailure("curlCode: 18, Transferred a partial file");

    EXPECT_EQ(putAgainst(cut), expected);
    EXPECT_EQ(fetchAgainst(cut), expected);
    cut.status = 403;
    EXPECT_EQ(storeAgainst(cut), expected);
}

/// A certificate that is not trusted fails so too, and the server gets no request; a CA file
/// that is missing is told.
TEST(AwsliteTransportError, TellsAMissingCaFile) {
    const ScriptedHttpServer server(always(Response()), Transport::Tls);
    auto configuration = configurationFor(server.url());
    configuration.caFile = "/nonexistent/ca.pem";

    EXPECT_EQ(put(configuration).message.rfind("curlCode: 77, ", 0), 0U);
}

/// Schemes other than HTTP and HTTPS are refused.
TEST(AwsliteTransportError, TellsASchemeThatIsNotHttp) {
    EXPECT_EQ(put(configurationFor("file:///etc/passwd")).message,
              "curlCode: 1, Unsupported protocol");
}

/// An answer or headers of unbounded size end the call.
TEST(AwsliteTransportError, TellsAnAnswerOfUnboundedSize) {
    EXPECT_EQ(putAgainst(answer(200, std::string(2 << 20, ' '))),
              transportFailure("curlCode: 23, Failed writing received data to disk/application"));
}

/// An answer or headers of unbounded size end the call.
TEST(AwsliteTransportError, TellsHeadersOfUnboundedSize) {
    Response response = answer(200, "{}");
    response.headers.assign(40, {"X-Filler", std::string(2048, 'h')});

    EXPECT_EQ(putAgainst(response),
              transportFailure("curlCode: 23, Failed writing received data to disk/application"));
}

// ---- Refusals in JSON --------------------------------------------------------------------

/// A refusal of the stream gives message, name and status of its JSON document; the name may
/// stand alone or between a namespace and an address, the message with a capital.
TEST(AwsliteJsonError, TellsMessageNameAndStatusOfAModelledError) {
    EXPECT_EQ(
        putAgainst(answer(400, R"({"__type": "com.amazonaws.firehose#ResourceNotFoundException",)"
                               R"( "message": "Firehose kiv-stream not found"})")),
        (Verdict{"Firehose kiv-stream not found", "ResourceNotFoundException", 400, false}));
}

/// A refusal of the stream gives message, name and status of its JSON document; the name may
/// stand alone or between a namespace and an address, the message with a capital.
TEST(AwsliteJsonError, ReadsTheMessageWithACapitalTooAndABareName) {
    EXPECT_EQ(putAgainst(answer(500, R"({"__type":"ServiceUnavailableException","Message":"M"})")),
              (Verdict{"M", "ServiceUnavailableException", 500, true}));
    EXPECT_EQ(putAgainst(answer(400, R"({"__type":"LimitExceededException:http://x/#"})")),
              (Verdict{"Unable to parse ExceptionName: LimitExceededException:http://x/# Message: ",
                       "LimitExceededException:http://x/#", 400, false}));
    EXPECT_EQ(putAgainst(answer(400, R"({"__type":"LimitExceededException:http://x/"})")),
              (Verdict{"", "LimitExceededException", 400, true}));
}

/// The name in the header goes before that in the document.
TEST(AwsliteJsonError, TakesTheNameOfTheHeaderFirst) {
    Response response = answer(400, R"({"__type": "Other", "message": "M"})");
    response.headers = {{"X-Amzn-ErrorType", " InvalidArgumentException:http://x/ "}};

    EXPECT_EQ(putAgainst(response), (Verdict{"M", "InvalidArgumentException", 400, false}));
}

/// Another name: "Unable to parse ExceptionName: " with name and message; it may be tried again
/// when the server was busy.
TEST(AwsliteJsonError, TellsAnUnknownName) {
    EXPECT_EQ(putAgainst(answer(400, R"({"__type": "X", "message": "Y"})")),
              (Verdict{"Unable to parse ExceptionName: X Message: Y", "X", 400, false}));
}

/// Another name: "Unable to parse ExceptionName: " with name and message; it may be tried again
/// when the server was busy.
TEST(AwsliteJsonError, TellsAnUnknownNameOfABusyServerAsRetryable) {
    EXPECT_TRUE(putAgainst(answer(503, R"({"__type": "X", "message": "Y"})")).retry);
}

/// The names of the stream service and of all services are known.
TEST(AwsliteJsonError, KnowsTheNamesOfTheFirehoseAndOfAllServices) {
    for (const char* name : {"ConcurrentModificationException",
                             "InvalidArgumentException",
                             "InvalidKMSResourceException",
                             "InvalidSourceException",
                             "LimitExceededException",
                             "ResourceInUseException",
                             "ResourceNotFoundException",
                             "ServiceUnavailableException",
                             "AccessDeniedException",
                             "IncompleteSignature",
                             "InternalFailure",
                             "InternalServerError",
                             "InvalidClientTokenId",
                             "InvalidSignatureException",
                             "MissingAuthenticationToken",
                             "MissingAuthenticationTokenException",
                             "OptInRequired",
                             "RequestExpired",
                             "RequestTimeTooSkewed",
                             "ServiceUnavailable",
                             "SignatureDoesNotMatch",
                             "SlowDown",
                             "ThrottlingException",
                             "Throttling",
                             "UnrecognizedClientException",
                             "ValidationException"}) {
        Awslite::HttpAnswer refusal;
        refusal.status = 400;
        refusal.body = std::string(R"({"__type":")") + name + R"(","message":"M"})";
        refusal.bodyBytes = 1;
        const auto error = Awslite::jsonError(refusal);
        EXPECT_EQ(error.GetExceptionName(), name);
        EXPECT_EQ(error.GetMessage(), "M") << name;
        EXPECT_NE(error.GetErrorType(), CoreErrors::UNKNOWN) << name;
    }
}

/// A document that is not JSON: "Failed to parse error payload"; one without a name tells its
/// message.
TEST(AwsliteJsonError, TellsADocumentThatIsNoJson) {
    EXPECT_EQ(putAgainst(answer(502, "<html>Bad gateway</html>")),
              (Verdict{"Failed to parse error payload", "", 502, true}));
}

/// A document that is not JSON: "Failed to parse error payload"; one without a name tells its
/// message.
TEST(AwsliteJsonError, TellsADocumentWithoutANameByItsMessage) {
    EXPECT_EQ(putAgainst(answer(403, R"({"message": "Forbidden"})")),
              (Verdict{"Forbidden", "", 403, false}));
    EXPECT_EQ(putAgainst(answer(404, "[1]")), (Verdict{"", "", 404, false}));
}

/// An empty body: "No response body." with the status, which says whether to try again; a
/// redirect is not followed but told in the same way.
TEST(AwsliteJsonError, TellsAnEmptyBody) {
    EXPECT_EQ(putAgainst(answer(503, "")), (Verdict{"No response body.", "", 503, true}));
    EXPECT_EQ(putAgainst(answer(403, "")), (Verdict{"No response body.", "", 403, false}));
}

/// An empty body: "No response body." with the status, which says whether to try again; a
/// redirect is not followed but told in the same way.
TEST(AwsliteJsonError, DoesNotFollowARedirect) {
    Response response = answer(301, "");
    response.headers = {{"Location", "https://localhost:1/"}};

    EXPECT_EQ(putAgainst(response), (Verdict{"No response body.", "", 301, false}));
}

/// A success that is not JSON is a "Json Parser Error" with the parser's text.
TEST(AwsliteJsonError, TellsASuccessThatIsNoJson) {
    EXPECT_EQ(putAgainst(answer(200, "<html>")),
              (Verdict{"'[' or '{' expected near '<'", "Json Parser Error", 200, false}));
}

// ---- Refusals in XML ---------------------------------------------------------------------

std::string xml(const std::string& code, const std::string& message) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Error><Code>" + code + "</Code><Message>" +
           message + "</Message><RequestId>1</RequestId><HostId>h</HostId></Error>";
}

/// A refusal of the bucket gives message, code and status of its XML document, and whether to
/// try again.
TEST(AwsliteXmlError, TellsMessageCodeAndStatus) {
    EXPECT_EQ(storeAgainst(answer(403, xml("AccessDenied", "Access Denied"))),
              (Verdict{"Access Denied", "AccessDenied", 403, false}));
    EXPECT_EQ(storeAgainst(answer(404, xml("NoSuchBucket", "The bucket does not exist"))),
              (Verdict{"The bucket does not exist", "NoSuchBucket", 404, false}));
    EXPECT_EQ(fetchAgainst(answer(404, xml("NoSuchKey", "No key."))),
              (Verdict{"No key.", "NoSuchKey", 404, false}));
    EXPECT_EQ(storeAgainst(answer(503, xml("SlowDown", "Reduce"))),
              (Verdict{"Reduce", "SlowDown", 503, true}));
}

/// The codes of the object store and of all services are known; another one is told like an
/// unknown name.
TEST(AwsliteXmlError, KnowsTheNamesOfTheObjectStoreAndOfAllServices) {
    for (const char* name :
         {"BucketAlreadyExists", "BucketAlreadyOwnedByYou", "InvalidObjectState", "NoSuchBucket",
          "NoSuchKey", "NoSuchUpload", "ObjectAlreadyInActiveTierError",
          "ObjectNotInActiveTierError", "AccessDenied", "InvalidAccessKeyId", "RequestTimeout",
          "RequestTimeTooSkewed", "SignatureDoesNotMatch", "SlowDown", "ServiceUnavailable"}) {
        Awslite::HttpAnswer refusal;
        refusal.status = 400;
        refusal.bodyBytes = 1;
        const auto error = Awslite::xmlError(refusal, xml(name, "M"));
        EXPECT_EQ(error.GetExceptionName(), name);
        EXPECT_EQ(error.GetMessage(), "M") << name;
        EXPECT_NE(error.GetErrorType(), CoreErrors::UNKNOWN) << name;
    }
}

/// The codes of the object store and of all services are known; another one is told like an
/// unknown name.
TEST(AwsliteXmlError, TellsAnUnknownName) {
    EXPECT_EQ(storeAgainst(answer(400, xml("BadDigest", "No match"))),
              (Verdict{"Unable to parse ExceptionName: BadDigest Message: No match", "BadDigest",
                       400, false}));
}

/// An empty body is "No response body." here too; a document without a code gives the status
/// alone.
TEST(AwsliteXmlError, TellsAnEmptyBody) {
    EXPECT_EQ(storeAgainst(answer(500, "")), (Verdict{"No response body.", "", 500, true}));
    EXPECT_EQ(fetchAgainst(answer(404, "")), (Verdict{"No response body.", "", 404, false}));
}

/// An empty body is "No response body." here too; a document without a code gives the status
/// alone.
TEST(AwsliteXmlError, SaysNothingOfADocumentWithoutACode) {
    EXPECT_EQ(storeAgainst(answer(502, "<html>Bad gateway</html>")), (Verdict{"", "", 502, true}));
    EXPECT_EQ(storeAgainst(answer(400, "not XML")), (Verdict{"", "", 400, false}));
}

/// Entities are decoded and texts trimmed; broken documents and entities do no harm.
TEST(AwsliteXmlError, DecodesEntitiesAndTrims) {
    const std::string document =
        "<Error><Code>\n X </Code><Message> a &lt;b&gt; &amp;amp; &quot;c&quot; &apos;d&apos; "
        "&#65;&#xe4;&#x20AC;&#128250; &unknown; &#; & end </Message></Error>";

    EXPECT_EQ(Awslite::xmlElementText(document, "Code"), "X");
    EXPECT_EQ(Awslite::xmlElementText(document, "Message"),
              "a <b> &amp; \"c\" 'd' Aä€📺 &unknown; &#; & end");
}

/// Entities are decoded and texts trimmed; broken documents and entities do no harm.
TEST(AwsliteXmlError, ToleratesBrokenDocuments) {
    EXPECT_EQ(Awslite::xmlElementText("", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Code>", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Code>half", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Code></Code>", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Code>  </Code>", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Code/>", "Code"), "");
    EXPECT_EQ(Awslite::xmlElementText("<Error><Message>m</Message>", "Message"), "m");
    EXPECT_EQ(Awslite::xmlElementText("<Code>&#x110000;&#0;&#xZ;</Code>", "Code"),
              "&#x110000;&#0;&#xZ;");
}

/// A request without bucket or key is refused before anything is sent: "Missing required field
/// ".
TEST(AwsliteXmlError, RefusesARequestWithoutBucketOrKey) {
    const ScriptedHttpServer server(always(Response()), Transport::Tls);
    const auto client = s3(configurationFor(server.url()));
    auto put = putRequest("b");
    put.SetBucket("");
    auto get = getRequest("");

    EXPECT_EQ(verdictOf(client.PutObject(put)),
              (Verdict{"Missing required field [Bucket]", "MISSING_PARAMETER", -1, false}));
    EXPECT_EQ(verdictOf(client.GetObject(get)),
              (Verdict{"Missing required field [Key]", "MISSING_PARAMETER", -1, false}));
    EXPECT_TRUE(server.requests().empty());
}

// ---- The response stream of a refused GetObject ------------------------------------------

Verdict fetchInto(const std::string& path, std::ios::openmode mode) {
    const ScriptedHttpServer server(always(answer(404, xml("NoSuchKey", "No key."))),
                                    Transport::Tls);
    auto request = getRequest();
    request.SetResponseStreamFactory(
        [&] { return Aws::New<Aws::FStream>("test", path.c_str(), mode); });
    return verdictOf(s3(configurationFor(server.url())).GetObject(request));
}

/// The document of a refused download goes into the caller's stream and is read back from
/// there; where that cannot be read, only the status is told.
TEST(AwsliteRefusedGet, WritesTheDocumentIntoTheStreamAndParsesItFromThere) {
    const TempDir directory;

    EXPECT_EQ(fetchInto(directory.file("got"), std::ios::in | std::ios::out | std::ios::trunc),
              (Verdict{"No key.", "NoSuchKey", 404, false}));
    EXPECT_EQ(directory.read("got"), xml("NoSuchKey", "No key."));
}

/// The document of a refused download goes into the caller's stream and is read back from
/// there; where that cannot be read, only the status is told.
TEST(AwsliteRefusedGet, SaysNothingWhereTheStreamCannotBeRead) {
    const TempDir directory;

    EXPECT_EQ(fetchInto(directory.file("got"), std::ios::out), (Verdict{"", "", 404, false}));
    EXPECT_EQ(directory.read("got"), xml("NoSuchKey", "No key."));
}

}  // namespace
