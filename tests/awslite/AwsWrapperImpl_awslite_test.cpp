#include <memory>
#include <string>

#include <stdlib.h>

#include "support/CloudClientSetup.h"
#include "support/NetworkHooks.h"

namespace {

/// What holds for the client in awslite/ alone: which options of libcurl it sets, and that the
/// application clock dates its requests and judges its servers' certificates. A build with the
/// cloud's own SDK leaves these tests out.
class AwsliteWrapperTest : public CloudClientSetup {
  protected:
    /// What a client has told libcurl of its limits and its trust.
    static std::string connectionOf(const NetworkHooks& hooks) {
        return "connect " + std::to_string(hooks.option(CURLOPT_CONNECTTIMEOUT_MS).number) +
               " ms, in all " + std::to_string(hooks.option(CURLOPT_TIMEOUT_MS).number) +
               " ms, below " + std::to_string(hooks.option(CURLOPT_LOW_SPEED_LIMIT).number) +
               " byte/s for " + std::to_string(hooks.option(CURLOPT_LOW_SPEED_TIME).number) +
               " s, " + hooks.option(CURLOPT_CAPATH).text + ", " +
               hooks.option(CURLOPT_CAINFO).text + ", " + hooks.option(CURLOPT_URL).text;
    }

    /// That of every client; `inAll` is its limit in milliseconds, "0" where there is none.
    std::string connectionTo(const std::string& url, const std::string& inAll) {
        const std::string bundle = ScriptedHttpServer::caFile();
        return "connect 30000 ms, in all " + inAll + " ms, below 1 byte/s for 30 s, " +
               bundle.substr(0, bundle.find_last_of('/')) + ", " + bundle + ", " + url;
    }

    static constexpr char kNotTrusted[] =
        "curlCode: 60, SSL peer certificate or SSH remote key was not OK\n";

    /// Sends everything to a server with this certificate.
    ScriptedHttpServer& serverWith(const ScriptedHttpServer::Certificate& certificate) {
        m_server = std::make_unique<ScriptedHttpServer>(accept, certificate);
        configure(R"({"firehose_endpoint": ")" + m_server->host() + R"(", "s3_endpoint": ")" +
                  m_server->host() + "\"}");
        return *m_server;
    }

    /// Of a server that is refused: a put, an upload and a download fail and say so.
    void expectRefused(const ScriptedHttpServer::Certificate& certificate) {
        const ScriptedHttpServer& server = serverWith(certificate);
        const std::string path = dir.write("log", "abc");
        OutputCapture output;
        EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
        EXPECT_FALSE(client().UploadFile("o", path));
        EXPECT_FALSE(client().DownloadFile("o", dir.file("copy")));
        output.stop();
        EXPECT_EQ(output.errWithoutPrefixes(),
                  kPutFailed + kNotTrusted + kUploadFailed + kNotTrusted +
                      "kivAWSWrapper: File download failed from s3 with error " + kNotTrusted);
        EXPECT_EQ(server.requests().size(), 0u);
    }

    void expectTaken(const ScriptedHttpServer::Certificate& certificate) {
        const ScriptedHttpServer& server = serverWith(certificate);
        EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
        EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
        EXPECT_TRUE(client().DownloadFile("o", dir.file("copy")));
        EXPECT_EQ(server.requests().size(), 3u);
    }

  private:
    std::unique_ptr<ScriptedHttpServer> m_server;
};

// --- connections --------------------------------------------------------------------------------

/// Every client connects by HTTPS within 30000 ms, gives up after 30 s without a byte and, but for
/// an upload, which has its child's limit, after 120 s in all, and trusts the bundle of
/// "CURL_CA_BUNDLE", else the system's.
TEST_F(AwsliteWrapperTest, ConnectsToTheStreamWithinItsLimitsAndWithTheBundle) {
    const NetworkHooks hooks;
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_EQ(connectionOf(hooks), connectionTo(cloud.url("/"), "120000"));
}

/// Every client connects by HTTPS within 30000 ms, gives up after 30 s without a byte and, but for
/// an upload, which has its child's limit, after 120 s in all, and trusts the bundle of
/// "CURL_CA_BUNDLE", else the system's.
TEST_F(AwsliteWrapperTest, TrustsTheSystemsBundleWithoutOneOfItsOwn) {
    ::unsetenv("CURL_CA_BUNDLE");
    const NetworkHooks hooks;
    OutputCapture output;
    EXPECT_FALSE(client().UploadToKinesisFirehose("{}\n"));
    output.stop();
    EXPECT_FALSE(hooks.wasSet(CURLOPT_CAPATH));
    EXPECT_FALSE(hooks.wasSet(CURLOPT_CAINFO));
}

/// Every client connects by HTTPS within 30000 ms, gives up after 30 s without a byte and, but for
/// an upload, which has its child's limit, after 120 s in all, and trusts the bundle of
/// "CURL_CA_BUNDLE", else the system's.
TEST_F(AwsliteWrapperTest, NeverTriesOverAPlainConnection) {
    configure(R"({"firehose_endpoint": "http://)" + cloud.host() + "\"}");
    const NetworkHooks hooks;
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_EQ(hooks.option(CURLOPT_URL).text, cloud.url("/"));
}

/// Every client connects by HTTPS within 30000 ms, gives up after 30 s without a byte and, but for
/// an upload, which has its child's limit, after 120 s in all, and trusts the bundle of
/// "CURL_CA_BUNDLE", else the system's.
TEST_F(AwsliteWrapperTest, ConnectsToTheBucketWithinItsLimitsAndWithTheBundle) {
    client().SetBucketName("b1");
    NetworkHooks hooks;
    hooks.whenSet(CURLOPT_HTTPHEADER,  // the last one; in the child
                  [&] { dir.write("connection", connectionOf(hooks)); });
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_EQ(dir.read("connection"), connectionTo(cloud.url("/b1/o"), "0"));
    dir.write("connection", "");
    EXPECT_TRUE(client().DownloadFile("o", dir.file("copy")));
    EXPECT_EQ(dir.read("connection"), connectionTo(cloud.url("/b1/o"), "120000"));
}

// --- the application clock ----------------------------------------------------------------------

/// Requests are dated by the application clock, whatever the system clock says.
TEST_F(AwsliteWrapperTest, DatesItsRequestsByTheApplicationClock) {
    giveCredentials();
    EXPECT_TRUE(client().UploadToKinesisFirehose("{}\n"));
    EXPECT_TRUE(client().UploadFile("o", dir.write("log", "abc")));
    EXPECT_TRUE(client().DownloadFile("o", dir.file("copy")));
    ASSERT_EQ(cloud.requests().size(), 3u);
    for (const Request& request : cloud.requests()) {
        EXPECT_EQ(request.header("x-amz-date").substr(0, 13), "20190307T1015");
        EXPECT_EQ(request.header("authorization")
                      .rfind("AWS4-HMAC-SHA256 Credential=AKID/20190307/eu-west-1/", 0),
                  0u)
            << request.header("authorization");
    }
}

/// The application clock, 2019-03-07T10:15 here, judges the dates of servers' certificates, in the
/// child too: one that was valid then is taken, also when the system clock is far beyond it.
TEST_F(AwsliteWrapperTest, TakesACertificateThatIsValidByTheApplicationClock) {
    ScriptedHttpServer::Certificate ofThatDay;
    ofThatDay.notBefore = "20190307000000Z";
    ofThatDay.notAfter = "20190308000000Z";
    expectTaken(ofThatDay);
}

/// A certificate that has expired by the application clock, or is not valid yet, is refused.
TEST_F(AwsliteWrapperTest, RefusesACertificateThatHasExpiredByTheApplicationClock) {
    ScriptedHttpServer::Certificate expired;
    expired.notAfter = "20190307101400Z";
    expectRefused(expired);
}

/// A certificate that has expired by the application clock, or is not valid yet, is refused.
TEST_F(AwsliteWrapperTest, RefusesACertificateThatIsTooNewForTheApplicationClock) {
    ScriptedHttpServer::Certificate tooNew;
    tooNew.notBefore = "20190307102500Z";
    expectRefused(tooNew);
}

/// The application clock judges dates alone: another CA's server, or another host's, is refused.
TEST_F(AwsliteWrapperTest, RefusesTheServersOfAnotherCaOrHost) {
    ScriptedHttpServer::Certificate certificate;
    certificate.trusted = false;
    expectRefused(certificate);
    certificate.trusted = true;
    certificate.host = "other.example";
    expectRefused(certificate);
}

}  // namespace
