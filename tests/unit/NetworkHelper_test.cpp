#include "NetworkHelper.h"

#include "AppClock.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "UtcTimeMs.h"
#include "support/AppClockPeer.h"
#include "support/CTouImplPeer.h"
#include "support/FakeCommands.h"
#include "support/KivTest.h"
#include "support/NetworkHelperPeer.h"
#include "support/NetworkHooks.h"
#include "support/OutputCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/WallClock.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cstdint>
#include <cstdlib>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>

#include <curl/curl.h>
#include <gtest/gtest.h>

namespace {

using Request = ScriptedHttpServer::Request;
using Response = ScriptedHttpServer::Response;
using Certificate = ScriptedHttpServer::Certificate;
using Texts = std::vector<std::string>;

constexpr std::size_t kMaxBody = 1024 * 1024;
constexpr std::size_t kMaxHeaders = 64 * 1024;

ScriptedHttpServer::Script answering(Response response) {
    return [response](const Request&) { return response; };
}

Response withBody(const std::string& body) {
    Response response;
    response.body = body;
    return response;
}

/// A name that no resolver is asked for: its first label is longer than names may have.
std::string unresolvable() {
    return std::string(64, 'x') + ".invalid";
}

/// The descriptors of this process that are connected to `port` of this machine.
std::vector<int> socketsConnectedTo(int port) {
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int fd = std::atoi(entry.path().filename().c_str());
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) continue;
        if (peer.sin_family == AF_INET && ntohs(peer.sin_port) == port) found.push_back(fd);
    }
    return found;
}

class NetworkHelperTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        m_commands.setOutput("ping", "");
        m_commands.setOutput("ifconfig", "");
        AppClockPeer::forget();
    }
    void TearDown() override {
        AppClockPeer::forget();
        KivTest::TearDown();
    }

    /// Text without prefixes, with the milliseconds of transfers as N.
    static std::string plain(const std::string& text) {
        return std::regex_replace(OutputCapture::withoutPrefixes(text),
                                  std::regex("(took|extended to) [0-9]+ms"), "$1 Nms");
    }

    static std::string errorLine(CURLcode code) {
        return std::string("kivNetwork: Error from server, curl_easy_perform() failed: ") +
               curl_easy_strerror(code) + "\n";
    }
    /// The line after it; what libcurl says begins with `detail`.
    static std::string detailLine(const std::string& url, int status, const std::string& detail) {
        return "kivNetwork: Request of " + url + " failed: HTTP status " + std::to_string(status) +
               (detail.empty() ? "" : ", " + detail) + "\n";
    }

    /// Requests `url`, which fails, and gives what went to the standard error but for the line with
    /// the detail, which it checks.
    static std::string errorsOf(const std::string& url, int status = 0) {
        const std::string errors = allErrorsOf(url);
        const std::string begin = "kivNetwork: Request of " + url + " failed: HTTP status " +
                                  std::to_string(status) + ", ";
        const std::size_t at = errors.find(begin);
        EXPECT_NE(at, std::string::npos) << errors;
        EXPECT_EQ(errors.find('\n', at), errors.size() - 1) << errors;
        return errors.substr(0, at);
    }

    /// Requests `url`, which fails, and gives what went to the standard error.
    static std::string allErrorsOf(const std::string& url) {
        NetworkHelper helper;
        OutputCapture capture;
        EXPECT_FALSE(helper.UrlRequest(url, false, ""));
        capture.stop();
        EXPECT_EQ(plain(capture.out()), "kivNetwork: Request Server URL " + url + " took Nms\n");
        return plain(capture.err());
    }

    /// Requests `url` and gives the header lines that libcurl was handed.
    static Texts headersOf(bool deviceHeaders, const std::string& apiKey) {
        const ScriptedHttpServer server(answering(Response()));
        const NetworkHooks hooks;
        EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), deviceHeaders, apiKey));
        return hooks.option(CURLOPT_HTTPHEADER).texts;
    }

    /// Asks for the device headers with the device information `json`.
    Texts deviceHeadersOf(const std::string& json) {
        Singleton<CGlobalInfoImpl> info;
        info->Load(m_directory.write("GlobalInfo", json));
        return headersOf(true, "");
    }

    TempDir m_directory;
    FakeCommands m_commands;
};

// ---- What a request brings -----------------------------------------------------------------

/// A GET gives the body and the Date field of the answer, without CR and LF.
TEST_F(NetworkHelperTest, GivesTheBodyAndTheDateOfTheAnswer) {
    Response response = withBody("{\"a\": 1}");
    response.headers = {{"Date", "Thu, 07 Mar 2019 10:15:02 GMT"}};
    const ScriptedHttpServer server(answering(response));
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url("/path?x=1"), false, ""));
    EXPECT_EQ(helper.data, "{\"a\": 1}");
    EXPECT_EQ(helper.date, "Thu, 07 Mar 2019 10:15:02 GMT");
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(server.requests()[0].method, "GET");
    EXPECT_EQ(server.requests()[0].target, "/path?x=1");
    EXPECT_EQ(server.requests()[0].body, "");
}

/// The Date field is read in any case; without one the date is empty.
TEST_F(NetworkHelperTest, LeavesTheDateEmptyWhenTheServerSendsNone) {
    const ScriptedHttpServer server(answering(withBody("x")));
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_EQ(helper.date, "");
}

/// The Date field is read in any case; without one the date is empty.
TEST_F(NetworkHelperTest, ReadsTheDateFieldInAnyCase) {
    Response response;
    response.headers = {{"date", "Thu, 07 Mar 2019 10:15:02 GMT"}};
    const ScriptedHttpServer server(answering(response));
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_EQ(helper.date, "Thu, 07 Mar 2019 10:15:02 GMT");
}

/// Any HTTP status is an answer; redirects are not followed.
TEST_F(NetworkHelperTest, TakesAnyStatusAsAnAnswer) {
    for (const int status : {200, 302, 403, 404, 500, 503}) {
        Response response = withBody("refused");
        response.status = status;
        response.headers = {{"Location", "http://" + unresolvable() + "/"}};
        const ScriptedHttpServer server(answering(response));
        NetworkHelper helper;
        EXPECT_TRUE(helper.UrlRequest(server.url(), false, "")) << status;
        EXPECT_EQ(helper.data, "refused") << status;
        EXPECT_EQ(server.requests().size(), 1U) << status;
    }
}

/// The results of the request before are cleared, also before the second try.
TEST_F(NetworkHelperTest, ClearsTheResultsOfTheRequestBefore) {
    Response response = withBody("first");
    response.headers = {{"Date", "today"}};
    std::atomic<bool> again{false};
    const ScriptedHttpServer server(
        [&](const Request&) { return again ? withBody("second") : response; });
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    helper.second = "left";
    helper.third = "left";
    again = true;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_EQ(helper.data, "second");
    EXPECT_EQ(helper.date, "");
    EXPECT_EQ(helper.second, "");
    EXPECT_EQ(helper.third, "");
}

/// Several threads may ask at once.
TEST_F(NetworkHelperTest, ServesManyThreadsAtOnce) {
    const ScriptedHttpServer server(
        [](const Request& request) { return withBody(request.target); });
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&, i] {
            const std::string path = "/" + std::to_string(i);
            NetworkHelper helper;
            if (helper.UrlRequest(server.url(path), true, "key") && helper.data == path) ++right;
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 8);
}

// ---- Callbacks -----------------------------------------------------------------------------

/// The callbacks append the body and return the bytes they took.
TEST_F(NetworkHelperTest, AppendsTheBodyPieceByPiece) {
    url_data results;
    char first[] = "abcd";
    char second[] = "efg";
    EXPECT_EQ(NetworkHelper::dataCallback(first, 2, 2, &results), 4U);
    EXPECT_EQ(NetworkHelper::dataCallback(second, 1, 3, &results), 3U);
    EXPECT_EQ(NetworkHelper::dataCallback(second, 1, 0, &results), 0U);
    EXPECT_EQ(results.data, "abcdefg");
}

/// A GET gives the body and the Date field of the answer, without CR and LF.
///
/// The callbacks append the body and return the bytes they took.
TEST_F(NetworkHelperTest, TakesTheDateFromItsFieldOnly) {
    const std::pair<std::string, std::string> lines[] = {
        {"Date: Thu\r\n", "Thu"},
        {"date: Fri\r\n", "Fri"},
        {"DATE: Sat\n", "Sat"},
        {"Date: a\rb\nc\r\n", "abc"},
        {"Date: Sun", "Sun"},
        {"Date: \r\n", ""},
        {"X-Date: Thu\r\n", "before"},
        {"Date:Thu\r\n", "before"},
        {"Dat", "before"},
        {"", "before"},
        {"\r\n", "before"},
    };
    for (const auto& [line, expected] : lines) {
        url_data results;
        results.date = "before";
        std::string text = line;
        EXPECT_EQ(NetworkHelper::headerCallback(text.data(), 1, text.size(), &results),
                  text.size());
        EXPECT_EQ(results.date, expected) << line;
    }
}

/// A zero byte does not get into the date: the file of a configuration that is dated with one could
/// not be read again.
TEST_F(NetworkHelperTest, TakesTheDateWithoutZeroBytes) {
    url_data results;
    std::string line("Date: Thu\0, 07\0\r\n", 18);
    EXPECT_EQ(NetworkHelper::headerCallback(line.data(), 1, line.size(), &results), line.size());
    EXPECT_EQ(results.date, "Thu, 07");
}

/// A body above 1 MiB and headers above 64 KiB end the request as an error.
TEST_F(NetworkHelperTest, CountsTheBytesOfBodyAndHeaders) {
    url_data results;
    std::string body(kMaxBody, 'b');
    EXPECT_EQ(NetworkHelper::dataCallback(body.data(), 1, kMaxBody, &results), kMaxBody);
    EXPECT_EQ(NetworkHelper::dataCallback(body.data(), 1, 1, &results), 0U);
    EXPECT_EQ(results.data.size(), kMaxBody);
    std::string header(kMaxHeaders / 2, 'h');
    EXPECT_EQ(NetworkHelper::headerCallback(header.data(), 1, header.size(), &results),
              header.size());
    EXPECT_EQ(NetworkHelper::headerCallback(header.data(), 1, header.size(), &results),
              header.size());
    EXPECT_EQ(NetworkHelper::headerCallback(header.data(), 1, 1, &results), 0U);
}

// ---- Headers -------------------------------------------------------------------------------

/// Without key and device headers no header list is set.
TEST_F(NetworkHelperTest, SetsNoHeaderListWithoutDeviceHeadersAndKey) {
    const ScriptedHttpServer server(answering(Response()));
    const NetworkHooks hooks;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    EXPECT_TRUE(hooks.option(CURLOPT_HTTPHEADER).null);
    EXPECT_FALSE(server.requests().at(0).hasHeader("x-api-key"));
    EXPECT_FALSE(server.requests().at(0).hasHeader("X-CTN"));
}

/// The key is sent as "x-api-key:", also without device headers.
TEST_F(NetworkHelperTest, SendsTheKeyWithoutDeviceHeaders) {
    EXPECT_EQ(headersOf(false, "secret"), Texts({"x-api-key:secret"}));
    const ScriptedHttpServer server(answering(Response()));
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, "secret"));
    EXPECT_EQ(server.requests().at(0).header("x-api-key"), "secret");
}

/// Key and device headers go out in their order.
TEST_F(NetworkHelperTest, SendsTheKeyAndTheDeviceHeadersInOrder) {
    Singleton<CGlobalInfoImpl> info;
    info->Load(m_directory.write("GlobalInfo",
                                 R"({"ufversion":"TPM.1.2","ctn":"55XYZ/12","component":"plat",
                                     "menu-language":"nl","country":"BE","serial":"S42"})"));
    Singleton<CTouImpl> tou;
    CTouImplPeer::setConsent(*tou, true, 7);
    NetworkHelperPeer::setMac("00:11:22:33:44:55");
    m_directory.write("pimversion.json", R"({"pim-version":"4.5","pim-builddate":"x"})");
    PimAppVersion::setPimVersionPath(m_directory.path());
    EXPECT_EQ(headersOf(true, "secret"),
              Texts({"x-api-key:secret", "X-swversion:TPM.1.2", "X-CTN:55XYZ/12", "X-platform:plat",
                     "Accept-Language:nl-BE", "X-mac:00:11:22:33:44:55", "X-serial:S42",
                     "X-kivversion:#0x442c3c4", "X-pimversion:4.5", "X-currentTou:7"}));
}

/// Key and device headers go out in their order.
TEST_F(NetworkHelperTest, SendsDeviceHeadersToTheServer) {
    Singleton<CGlobalInfoImpl> info;
    info->Load(m_directory.write("GlobalInfo", R"({"ufversion":"TPM.1.2","country":"BE"})"));
    const ScriptedHttpServer server(answering(Response()));
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), true, ""));
    const Request request = server.requests().at(0);
    EXPECT_FALSE(request.hasHeader("x-api-key"));
    EXPECT_EQ(request.header("X-swversion"), "TPM.1.2");
    EXPECT_EQ(request.header("Accept-Language"), "en-BE");
    EXPECT_EQ(request.header("X-kivversion"), "#0x442c3c4");
}

/// Empty values go out as empty fields, a missing "pim-version" too.
TEST_F(NetworkHelperTest, SendsEmptyValuesAsEmptyFields) {
    const ScriptedHttpServer server(answering(Response()));
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), true, ""));
    const Request request = server.requests().at(0);
    for (const char* name :
         {"X-swversion", "X-CTN", "X-platform", "X-mac", "X-serial", "X-pimversion"}) {
        EXPECT_TRUE(request.hasHeader(name)) << name;
        EXPECT_EQ(request.header(name), "") << name;
    }
}

/// Empty values go out as empty fields, a missing "pim-version" too.
TEST_F(NetworkHelperTest, SendsAFieldOfBlanksToo) {
    EXPECT_EQ(deviceHeadersOf(R"({"ctn":"  "})").at(1), "X-CTN;");
}

/// Empty values go out as empty fields, a missing "pim-version" too.
TEST_F(NetworkHelperTest, SendsAnEmptyVersionWhenTheKeyIsMissing) {
    m_directory.write("pimversion.json", R"({"other":"4.5"})");
    PimAppVersion::setPimVersionPath(m_directory.path());
    EXPECT_EQ(headersOf(true, "").at(7), "X-pimversion;");
}

/// Without accepted terms "X-currentTou:" is -1.
TEST_F(NetworkHelperTest, SendsMinusOneWithoutAcceptedTerms) {
    EXPECT_EQ(headersOf(true, "").at(8), "X-currentTou:-1");
    Singleton<CTouImpl> tou;
    CTouImplPeer::setConsent(*tou, false, 7);
    EXPECT_EQ(headersOf(true, "").at(8), "X-currentTou:-1");
}

/// No value can begin a header line of its own.
TEST_F(NetworkHelperTest, LetsNoValueBeginALineOfItsOwn) {
    const Texts headers = deviceHeadersOf(R"({"serial":"S\r\nX-Evil: 1","ctn":"\n"})");
    EXPECT_EQ(headers.at(5), "X-serial:SX-Evil: 1");
    EXPECT_EQ(headers.at(1), "X-CTN;");
}

// ---- Options -------------------------------------------------------------------------------

/// The options are set in order, the CA bundle when "CURL_CA_BUNDLE" is.
TEST_F(NetworkHelperTest, SetsTheOptionsOfARequestInOrder) {
    const ScriptedHttpServer server(answering(Response()));
    ::setenv("CURL_CA_BUNDLE", "/some/bundle.pem", 1);
    const NetworkHooks hooks;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, "key"));
    std::vector<CURLoption> set;
    for (const auto& option : hooks.options()) set.push_back(option.option);
    const std::vector<CURLoption> first = {
        CURLOPT_URL,           CURLOPT_HTTPHEADER, CURLOPT_HEADERFUNCTION, CURLOPT_HEADERDATA,
        CURLOPT_WRITEFUNCTION, CURLOPT_WRITEDATA,  CURLOPT_CAINFO};
    ASSERT_GE(set.size(), first.size());
    EXPECT_EQ(std::vector<CURLoption>(set.begin(), set.begin() + 7), first);
    EXPECT_EQ(hooks.option(CURLOPT_URL).text, server.url());
    EXPECT_EQ(hooks.option(CURLOPT_CAINFO).text, "/some/bundle.pem");
}

/// Every request is bounded: connect 30 s, below 1 byte/s for 60 s, no signals, HTTP and HTTPS
/// only.
TEST_F(NetworkHelperTest, BoundsEveryRequest) {
    const ScriptedHttpServer server(answering(Response()));
    const NetworkHooks hooks;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    EXPECT_EQ(hooks.option(CURLOPT_CONNECTTIMEOUT_MS).number, 30000);
    EXPECT_EQ(hooks.option(CURLOPT_LOW_SPEED_LIMIT).number, 1);
    EXPECT_EQ(hooks.option(CURLOPT_LOW_SPEED_TIME).number, 60);
    EXPECT_EQ(hooks.option(CURLOPT_NOSIGNAL).number, 1);
    EXPECT_EQ(hooks.option(CURLOPT_PROTOCOLS_STR).text, "http,https");
    EXPECT_EQ(NetworkHelperPeer::limits().bodyBytes, kMaxBody);
    EXPECT_EQ(NetworkHelperPeer::limits().headersBytes, kMaxHeaders);
    EXPECT_FALSE(hooks.wasSet(CURLOPT_CAINFO));
    EXPECT_FALSE(hooks.wasSet(CURLOPT_RESOLVE));
    EXPECT_FALSE(hooks.wasSet(CURLOPT_FOLLOWLOCATION));
    EXPECT_FALSE(hooks.wasSet(CURLOPT_SSL_VERIFYPEER));
}

/// An option that is refused gets a line.
TEST_F(NetworkHelperTest, WritesALineWhenAnOptionIsRefused) {
    const ScriptedHttpServer server(answering(withBody("x")));
    NetworkHooks hooks;
    hooks.refuse(CURLOPT_NOSIGNAL);
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.err()),
              std::string("kivNetwork: Option 99 refused, curl_easy_setopt() failed: ") +
                  curl_easy_strerror(CURLE_UNKNOWN_OPTION) + "\n");
}

/// The bundle decides which HTTPS servers are trusted.
TEST_F(NetworkHelperTest, TrustsTheBundleOfTheEnvironment) {
    const ScriptedHttpServer server(answering(withBody("safe")),
                                    ScriptedHttpServer::Transport::Tls);
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_EQ(helper.data, "safe");
}

/// The bundle decides which HTTPS servers are trusted.
TEST_F(NetworkHelperTest, RefusesAServerThatTheBundleDoesNotKnow) {
    const ScriptedHttpServer server(answering(withBody("safe")),
                                    ScriptedHttpServer::Transport::Tls);
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::otherCaFile().c_str(), 1);
    EXPECT_EQ(errorsOf(server.url()), errorLine(CURLE_PEER_FAILED_VERIFICATION));
    EXPECT_EQ(server.requests().size(), 0U);
}

// ---- Lines ---------------------------------------------------------------------------------

/// The duration is always told; request and answer when verbose.
TEST_F(NetworkHelperTest, WritesOneLineARequestWhenSilent) {
    const ScriptedHttpServer server(answering(withBody("answer")));
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url("/p"), false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.out()),
              "kivNetwork: Request Server URL " + server.url("/p") + " took Nms\n");
    EXPECT_EQ(capture.err(), "");
}

/// The duration is always told; request and answer when verbose.
TEST_F(NetworkHelperTest, WritesRequestAndAnswerWhenVerbose) {
    const ScriptedHttpServer server(answering(withBody("answer")));
    NetworkHelper::SetVerbose(true);
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url("/p"), false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork: Request Server URL: " + server.url("/p") +
                                        "...\n"
                                        "kivNetwork: Request Server URL " +
                                        server.url("/p") +
                                        " took Nms\n"
                                        "kivNetwork: Got answer from server answer\n");
    EXPECT_EQ(capture.err(), "");
}

/// Every line carries the diagnostic prefix but the one with ping's answer.
TEST_F(NetworkHelperTest, ItsLinesCarryTheDiagnosticPrefix) {
    const ScriptedHttpServer server(answering(withBody("answer")));
    NetworkHelper::SetVerbose(true);
    NetworkHooks hooks;
    hooks.refuse(CURLOPT_NOSIGNAL);
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url("/p"), false, ""));
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "kivNetwork:"),
              OutputCapture::withoutPrefixes(capture.out()));
    EXPECT_EQ(prefixedLines(capture.out(), "kivNetwork: Got"),
              "kivNetwork: Got answer from server answer\n");
    EXPECT_EQ(prefixedLines(capture.err(), "kivNetwork:"),
              "kivNetwork: Option 99 refused, curl_easy_setopt() failed: " +
                  std::string(curl_easy_strerror(CURLE_UNKNOWN_OPTION)) + "\n");
}

/// Commands started meanwhile inherit neither pipe nor socket.
TEST_F(NetworkHelperTest, CommandsStartedMeanwhileDoNotInheritTheSocket) {
    std::atomic<int> sockets{0};
    std::atomic<int> inherited{0};
    std::atomic<int> port{0};
    const ScriptedHttpServer server([&](const Request&) {
        for (const int fd : socketsConnectedTo(port)) {
            ++sockets;
            if ((::fcntl(fd, F_GETFD) & FD_CLOEXEC) == 0) ++inherited;
        }
        return Response();
    });
    port = server.port();
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    EXPECT_EQ(sockets, 1);
    EXPECT_EQ(inherited, 0);
}

/// The duration is always told; request and answer when verbose.
TEST_F(NetworkHelperTest, KeepsTheVerboseFlag) {
    EXPECT_FALSE(NetworkHelper::GetVerbose());
    NetworkHelper::SetVerbose(true);
    EXPECT_TRUE(NetworkHelper::GetVerbose());
}

// ---- Failures ------------------------------------------------------------------------------

/// Without a handle: " No curl handler, curl_easy_init() failed: " and false.
TEST_F(NetworkHelperTest, FailsWithoutAHandle) {
    NetworkHooks hooks;
    hooks.failEasyInit();
    NetworkHelper helper;
    helper.data = "old";
    OutputCapture capture;
    EXPECT_FALSE(helper.UrlRequest("http://localhost/", false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.err()),
              std::string("kivNetwork: No curl handler, curl_easy_init() failed: ") +
                  curl_easy_strerror(CURLE_FAILED_INIT) + "\n");
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(helper.data, "");
}

/// Other failures: " Error from server, curl_easy_perform() failed: " with the reason, and
/// false.
TEST_F(NetworkHelperTest, FailsWhenNobodyListens) {
    std::string url;
    {
        const ScriptedHttpServer server(answering(Response()));
        url = server.url();
    }
    EXPECT_EQ(errorsOf(url), errorLine(CURLE_COULDNT_CONNECT));
}

/// Other failures: " Error from server, curl_easy_perform() failed: " with the reason, and
/// false.
TEST_F(NetworkHelperTest, FailsWhenTheServerClosesWithoutAnswer) {
    Response response;
    response.closeWithoutAnswer = true;
    const ScriptedHttpServer server(answering(response));
    EXPECT_EQ(errorsOf(server.url()), errorLine(CURLE_GOT_NOTHING));
}

/// Other failures: " Error from server, curl_easy_perform() failed: " with the reason, and
/// false.
TEST_F(NetworkHelperTest, FailsWhenTheBodyIsCut) {
    Response response = withBody("0123456789");
    response.cutAfterBodyBytes = 4;
    const ScriptedHttpServer server(answering(response));
    EXPECT_EQ(errorsOf(server.url(), 200), errorLine(CURLE_PARTIAL_FILE));
}

/// Every request is bounded: connect 30 s, below 1 byte/s for 60 s, no signals, HTTP and HTTPS
/// only.
TEST_F(NetworkHelperTest, FailsOnOtherProtocols) {
    EXPECT_EQ(errorsOf("ftp://localhost/x"), errorLine(CURLE_UNSUPPORTED_PROTOCOL));
    EXPECT_EQ(errorsOf("file:///etc/passwd"), errorLine(CURLE_UNSUPPORTED_PROTOCOL));
}

/// Other failures: " Error from server, curl_easy_perform() failed: " with the reason, and
/// false.
TEST_F(NetworkHelperTest, FailsOnAnEmptyUrl) {
    EXPECT_EQ(allErrorsOf(""), errorLine(CURLE_URL_MALFORMAT) + detailLine("", 0, ""));
}

/// A body above 1 MiB and headers above 64 KiB end the request as an error.
TEST_F(NetworkHelperTest, TakesABodyOfTheLimitAndNoMore) {
    std::atomic<std::size_t> size{kMaxBody};
    const ScriptedHttpServer server(
        [&](const Request&) { return withBody(std::string(size, 'b')); });
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_EQ(helper.data.size(), kMaxBody);
    size = kMaxBody + 1;
    EXPECT_EQ(errorsOf(server.url(), 200), errorLine(CURLE_WRITE_ERROR));
}

/// A body above 1 MiB and headers above 64 KiB end the request as an error.
TEST_F(NetworkHelperTest, EndsABodyOfNoEnd) {
    Response response = withBody(std::string(4 * kMaxBody, 'b'));
    response.headers = {{"Content-Length", "999999999999"}};
    const ScriptedHttpServer server(answering(response));
    EXPECT_EQ(errorsOf(server.url(), 200), errorLine(CURLE_WRITE_ERROR));
}

/// A body above 1 MiB and headers above 64 KiB end the request as an error.
TEST_F(NetworkHelperTest, EndsHeadersOfNoEnd) {
    Response response = withBody("x");
    for (int i = 0; i < 70; ++i) {
        response.headers.emplace_back("X-Fill-" + std::to_string(i), std::string(1000, 'f'));
    }
    const ScriptedHttpServer server(answering(response));
    EXPECT_EQ(errorsOf(server.url(), 200), errorLine(CURLE_WRITE_ERROR));
}

/// A body above 1 MiB and headers above 64 KiB end the request as an error.
TEST_F(NetworkHelperTest, CountsTheHeadersOfEachRequestAnew) {
    Response response = withBody("x");
    for (int i = 0; i < 40; ++i) {
        response.headers.emplace_back("X-Fill-" + std::to_string(i), std::string(1000, 'f'));
    }
    const ScriptedHttpServer server(answering(response));
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
}

/// Every request is bounded: connect 30 s, below 1 byte/s for 60 s, no signals, HTTP and HTTPS
/// only.
TEST_F(NetworkHelperTest, LeavesASilentServer) {
    Response response;
    response.hang = true;
    const ScriptedHttpServer server(answering(response));
    NetworkHelperPeer::limits().lowSpeedSeconds = 1;
    EXPECT_EQ(errorsOf(server.url()), errorLine(CURLE_OPERATION_TIMEDOUT));
}

// ---- Bounds and certificates ---------------------------------------------------------------

/// A request ends after 120 s in all, however steadily its answer trickles.
TEST_F(NetworkHelperTest, EndsARequestWhoseAnswerTrickles) {
    const ScriptedHttpServer server(answering(Response()));
    {
        const NetworkHooks hooks;
        EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
        EXPECT_LE(hooks.option(CURLOPT_TIMEOUT_MS).number, 120000);
        EXPECT_GT(hooks.option(CURLOPT_TIMEOUT_MS).number, 115000);
    }
    Response trickle = withBody(std::string(100000, 'b'));
    trickle.dripMs = 20;
    const ScriptedHttpServer slow(answering(trickle));
    NetworkHelperPeer::limits().totalMs = 500;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(errorsOf(slow.url(), 200), errorLine(CURLE_OPERATION_TIMEDOUT));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

/// The HTTP status is told; one other than 200 to 299 gets a line and is not a good answer.
TEST_F(NetworkHelperTest, TellsTheHttpStatus) {
    for (const int status : {200, 204, 302, 400, 403, 503}) {
        Response response;
        response.status = status;
        const ScriptedHttpServer server(answering(response));
        NetworkHelper helper;
        OutputCapture capture;
        EXPECT_TRUE(helper.UrlRequest(server.url("/p"), false, ""));
        capture.stop();
        EXPECT_EQ(helper.status, status);
        EXPECT_EQ(helper.isGoodAnswer(), status < 300) << status;
        EXPECT_EQ(plain(capture.err()),
                  status < 300 ? "" : detailLine(server.url("/p"), status, ""));
    }
    NetworkHelper helper;
    EXPECT_FALSE(helper.UrlRequest("", false, ""));
    EXPECT_EQ(helper.status, 0);
    EXPECT_FALSE(helper.isGoodAnswer());
}

/// A failed request names its URL and libcurl's own detail: an unknown authority, another name and
/// a date do not say the same.
TEST_F(NetworkHelperTest, SaysWhatIsWrongWithACertificate) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const auto told = [](const Certificate& certificate) {
        const ScriptedHttpServer server(answering(Response()), certificate);
        const std::string errors = allErrorsOf(server.url());
        EXPECT_EQ(server.requests().size(), 0U);
        return errors.substr(errors.find("HTTP status"));
    };
    Certificate other;
    other.trusted = false;
    EXPECT_EQ(told(other),
              "HTTP status 0, SSL certificate problem: unable to get local issuer certificate\n");
    Certificate name;
    name.host = "other.example";
    EXPECT_EQ(told(name),
              "HTTP status 0, SSL: no alternative certificate subject name matches target host "
              "name 'localhost'\n");
    Certificate expired;
    expired.notAfter = "20200101000000Z";
    EXPECT_EQ(told(expired), "HTTP status 0, SSL certificate problem: certificate has expired\n");
    Certificate tooNew;
    tooNew.notBefore = "20900101000000Z";
    EXPECT_EQ(told(tooNew),
              "HTTP status 0, SSL certificate problem: certificate is not yet valid\n");
}

static std::string asn1Time(std::int64_t utcSeconds) {
    const time_t seconds = utcSeconds;
    struct tm fields {};
    ::gmtime_r(&seconds, &fields);
    char text[32];
    ::strftime(text, sizeof text, "%Y%m%d%H%M%SZ", &fields);
    return text;
}

/// The application clock judges certificates once it is known, and the system clock no more.
TEST_F(NetworkHelperTest, JudgesCertificatesByTheApplicationClock) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    constexpr std::int64_t year = 31557600;
    const std::int64_t now = ::time(nullptr) + year;  // a year before that is believed too
    Certificate ofTheseYears;
    ofTheseYears.notBefore = asn1Time(now - year / 2);
    ofTheseYears.notAfter = asn1Time(now + 4 * year);
    const ScriptedHttpServer server(answering(Response()), ofTheseYears);
    AppClock::set(UtcTimeMs((now + 5 * year) * 1000));
    EXPECT_NE(allErrorsOf(server.url()).find("certificate has expired"), std::string::npos);
    NetworkHelper bringsTheTime;
    bringsTheTime.allowUnknownTime();
    EXPECT_FALSE(bringsTheTime.UrlRequest(server.url(), false, ""));
    AppClock::set(UtcTimeMs((now - year) * 1000));
    EXPECT_NE(allErrorsOf(server.url()).find("certificate is not yet valid"), std::string::npos);
    const WallClock wrong(5);
    AppClock::set(UtcTimeMs(now * 1000));
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    EXPECT_EQ(server.requests().size(), 1U);
}

/// While no clock can be believed a request that may bring the time is made, whatever the dates of
/// the certificate; its name, its chain and its signature are judged as ever.
TEST_F(NetworkHelperTest, HoldsNoDateAgainstACertificateWhileNoClockCanBeBelieved) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const auto reached = [](const Certificate& certificate) {
        const ScriptedHttpServer server(answering(Response()), certificate);
        NetworkHelper helper;
        helper.allowUnknownTime();
        OutputCapture quiet;
        return helper.UrlRequest(server.url(), false, "");
    };
    Certificate expired;
    expired.notAfter = "20200101000000Z";
    Certificate tooNew;
    tooNew.notBefore = "20900101000000Z";
    Certificate name;
    name.host = "other.example";
    Certificate authority;
    authority.trusted = false;
    Certificate forged;
    forged.forged = true;
    EXPECT_FALSE(reached(forged));
    for (const std::int64_t start : {INT64_C(5), INT64_C(4417977600)}) {  // 1970, and 2110
        const ScriptedHttpServer good(answering(Response()), ScriptedHttpServer::Transport::Tls);
        EXPECT_TRUE(reached(Certificate()));
        const WallClock clock(start);
        EXPECT_TRUE(reached(Certificate()));
        EXPECT_FALSE(reached(name));
        EXPECT_FALSE(reached(authority));
        EXPECT_FALSE(reached(forged));
        EXPECT_TRUE(reached(expired));
        EXPECT_TRUE(reached(tooNew));
    }
}

/// Any other HTTPS request waits for the time, with a line; HTTP does not.
TEST_F(NetworkHelperTest, WaitsForTheTimeWithOtherRequests) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const ScriptedHttpServer server(answering(Response()), ScriptedHttpServer::Transport::Tls);
    const ScriptedHttpServer plainServer(answering(Response()));
    NetworkHelper helper;
    {
        const WallClock clock(5);
        OutputCapture capture;
        EXPECT_FALSE(helper.UrlRequest(server.url(), false, ""));
        capture.stop();
        EXPECT_TRUE(helper.waitsForTime());
        EXPECT_EQ(plain(capture.err()),
                  "kivNetwork: Request of " + server.url() +
                      " not made: the time is not known, so no certificate can be judged\n");
        EXPECT_EQ(server.requests().size(), 0U);
        EXPECT_TRUE(NetworkHelper().UrlRequest(plainServer.url(), false, ""));
    }
    EXPECT_TRUE(helper.UrlRequest(server.url(), false, ""));
    EXPECT_FALSE(helper.waitsForTime());
}

/// Where libcurl takes no judge of its own the option's refusal gets a line, and the system clock
/// judges.
TEST_F(NetworkHelperTest, LeavesTheJudgingToTheSystemClockWhereTheOptionIsRefused) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const ScriptedHttpServer server(answering(Response()), ScriptedHttpServer::Transport::Tls);
    AppClock::set(UtcTimeMs((::time(nullptr) + INT64_C(378691200)) * 1000));  // in 12 years
    NetworkHooks hooks;
    hooks.refuse(CURLOPT_SSL_CTX_FUNCTION);
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(server.url(), false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.err()),
              std::string("kivNetwork: Option 20108 refused, curl_easy_setopt() failed: ") +
                  curl_easy_strerror(CURLE_UNKNOWN_OPTION) + "\n");
}

// ---- When the name does not resolve --------------------------------------------------------

class NetworkHelperResolveTest : public NetworkHelperTest {
  protected:
    const std::string m_host = unresolvable();
    const std::string m_url = "http://" + m_host + "/path";
};

/// A name that does not resolve is asked of ping, pinned, and tried once more.
///
/// HTTPS pins port 443, HTTP port 80.
TEST_F(NetworkHelperResolveTest, AsksPingAndTriesOnceMore) {
    const ScriptedHttpServer server(answering(withBody("found")));
    m_commands.setOutput("ping", "PING " + m_host + " (127.0.0.1) 56(84) bytes of data.\nmore\n");
    NetworkHooks hooks;
    hooks.redirectPort(80, server.port());
    NetworkHelper::SetVerbose(true);
    NetworkHelper helper;
    OutputCapture capture;
    EXPECT_TRUE(helper.UrlRequest(m_url, false, "key"));
    capture.stop();
    EXPECT_EQ(helper.data, "found");
    EXPECT_EQ(m_commands.calls("ping"), Texts({"-c 1 " + m_host}));
    EXPECT_EQ(hooks.option(CURLOPT_RESOLVE).texts, Texts({m_host + ":80:127.0.0.1"}));
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_EQ(server.requests()[0].header("x-api-key"), "key");
    EXPECT_EQ(server.requests()[0].header("Host"), m_host);
    EXPECT_EQ(plain(capture.out()), "kivNetwork: Request Server URL: " + m_url +
                                        "...\n"
                                        "kivNetwork: Request Server URL " +
                                        m_url +
                                        " took Nms\n"
                                        "kivNetwork:Trying to resolve DOMAIN " +
                                        m_host +
                                        "\n"
                                        "kivNetwork:Ping got answer: PING " +
                                        m_host +
                                        " (127.0.0.1) 56(84) bytes of data.\nmore\n\n"
                                        "kivNetwork:IP is : 127.0.0.1\n"
                                        "kivNetwork:PORT is : :80:\n"
                                        "kivNetwork:Request Server URL " +
                                        m_url +
                                        " extended to Nms\n"
                                        "kivNetwork: Got answer from server found\n");
    EXPECT_EQ(capture.err(), "");
}

/// Every line carries the diagnostic prefix but the one with ping's answer.
TEST_F(NetworkHelperResolveTest, OnlyTheAnswerOfPingHasNoDiagnosticPrefix) {
    m_commands.setOutput("ping", "PING x\n");
    NetworkHelper::SetVerbose(true);
    OutputCapture capture;
    EXPECT_FALSE(NetworkHelper().UrlRequest(m_url, false, ""));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.out(), "kivNetwork:"), "kivNetwork:Ping got answer: PING x\n");
    EXPECT_EQ(prefixedLines(capture.out(), "kivNetwork:IP is "), "kivNetwork:IP is : PING x\n");
}

/// A name that does not resolve is asked of ping, pinned, and tried once more.
TEST_F(NetworkHelperResolveTest, WritesTheSecondTimeWhenSilent) {
    const ScriptedHttpServer server(answering(withBody("found")));
    m_commands.setOutput("ping", "PING x (127.0.0.1)\n");
    NetworkHooks hooks;
    hooks.redirectPort(80, server.port());
    OutputCapture capture;
    EXPECT_TRUE(NetworkHelper().UrlRequest(m_url, false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork: Request Server URL " + m_url +
                                        " took Nms\n"
                                        "kivNetwork:Request Server URL " +
                                        m_url + " extended to Nms\n");
    EXPECT_EQ(capture.err(), "");
}

/// HTTPS pins port 443, HTTP port 80.
///
/// A second failure gets " No answer from server, curl_easy_perform() failed: ".
TEST_F(NetworkHelperResolveTest, PinsPort443ForHttps) {
    const ScriptedHttpServer server(answering(Response()), ScriptedHttpServer::Transport::Tls);
    m_commands.setOutput("ping", "PING x (127.0.0.1)\n");
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    NetworkHooks hooks;
    hooks.redirectPort(443, server.port());
    OutputCapture capture;
    // The server is reached, but its certificate is for another name.
    EXPECT_FALSE(NetworkHelper().UrlRequest("https://" + m_host + "/path", false, ""));
    capture.stop();
    EXPECT_EQ(hooks.option(CURLOPT_RESOLVE).texts, Texts({m_host + ":443:127.0.0.1"}));
    EXPECT_EQ(plain(capture.err()),
              std::string("kivNetwork: No answer from server, curl_easy_perform() failed: ") +
                  curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION) + "\n" +
                  detailLine("https://" + m_host + "/path", 0,
                             "SSL: no alternative certificate subject name matches target host "
                             "name '" +
                                 m_host + "'"));
}

/// The results of the request before are cleared, also before the second try.
TEST_F(NetworkHelperResolveTest, ClearsTheResultsBeforeTheSecondTry) {
    m_commands.setOutput("ping", "PING x (127.0.0.1)\n");
    const ScriptedHttpServer server(answering(withBody("found")));
    NetworkHooks hooks;
    hooks.redirectPort(80, server.port());
    NetworkHelper helper;
    hooks.whenSet(CURLOPT_RESOLVE,
                  [&] { helper.data = helper.second = helper.third = helper.date = "left"; });
    EXPECT_TRUE(helper.UrlRequest(m_url, false, ""));
    EXPECT_EQ(helper.data, "found");
    EXPECT_EQ(helper.second, "");
    EXPECT_EQ(helper.third, "");
    EXPECT_EQ(helper.date, "");
}

/// A second failure gets " No answer from server, curl_easy_perform() failed: ".
///
/// A ping without parentheses is taken whole as the address.
TEST_F(NetworkHelperResolveTest, TakesAnAnswerWithoutParenthesesWhole) {
    m_commands.setOutput("ping", "unknown host");
    NetworkHelper::SetVerbose(true);
    const NetworkHooks hooks;
    OutputCapture capture;
    EXPECT_FALSE(NetworkHelper().UrlRequest(m_url, false, ""));
    capture.stop();
    EXPECT_EQ(hooks.option(CURLOPT_RESOLVE).texts, Texts({m_host + ":80:unknown host"}));
    EXPECT_NE(plain(capture.out()).find("kivNetwork:IP is : unknown host\n"), std::string::npos);
    EXPECT_EQ(plain(capture.err())
                  .find("kivNetwork: No answer from server, curl_easy_perform() failed: "),
              0U);
}

/// A ping that prints nothing ends the request: "IP is invalid, returning false...".
TEST_F(NetworkHelperResolveTest, GivesUpWhenPingPrintsNothing) {
    NetworkHelper::SetVerbose(true);
    const NetworkHooks hooks;
    OutputCapture capture;
    EXPECT_FALSE(NetworkHelper().UrlRequest(m_url, false, ""));
    capture.stop();
    EXPECT_EQ(plain(capture.out()), "kivNetwork: Request Server URL: " + m_url +
                                        "...\n"
                                        "kivNetwork: Request Server URL " +
                                        m_url +
                                        " took Nms\n"
                                        "kivNetwork:Trying to resolve DOMAIN " +
                                        m_host +
                                        "\n"
                                        "kivNetwork:Ping got answer: \n"
                                        "kivNetwork:IP is : \n"
                                        "kivNetwork:IP is invalid, returning false...\n");
    EXPECT_EQ(plain(capture.err()), detailLine(m_url, 0, "Could not resolve host: " + m_host));
    EXPECT_FALSE(hooks.wasSet(CURLOPT_RESOLVE));
}

/// A ping that prints nothing ends the request: "IP is invalid, returning false...".
TEST_F(NetworkHelperResolveTest, GivesUpWithTheDetailAloneWhenPingPrintsNothing) {
    EXPECT_EQ(allErrorsOf(m_url), detailLine(m_url, 0, "Could not resolve host: " + m_host));
}

/// Ping is asked for the host without its port, and the address is pinned for that port.
TEST_F(NetworkHelperResolveTest, AsksPingForTheHostWithoutItsPort) {
    const ScriptedHttpServer server(answering(withBody("found")));
    m_commands.setOutput("ping", "PING x (127.0.0.1)\n");
    const std::string port = std::to_string(server.port());
    const NetworkHooks hooks;
    NetworkHelper helper;
    EXPECT_TRUE(helper.UrlRequest("http://" + m_host + ":" + port + "/path", false, ""));
    EXPECT_EQ(helper.data, "found");
    EXPECT_EQ(m_commands.calls("ping"), Texts({"-c 1 " + m_host}));
    EXPECT_EQ(hooks.option(CURLOPT_RESOLVE).texts, Texts({m_host + ":" + port + ":127.0.0.1"}));
}

/// The second try has what the first has left of the time.
TEST_F(NetworkHelperResolveTest, LetsTheSecondTryHaveTheRestOfTheTime) {
    Response silent;
    silent.hang = true;
    const ScriptedHttpServer server(answering(silent));
    m_commands.setOutput("ping", "PING x (127.0.0.1)\n");
    NetworkHelperPeer::limits().totalMs = 1000;
    NetworkHooks hooks;
    hooks.redirectPort(80, server.port());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(NetworkHelper().UrlRequest(m_url, false, ""));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_LT(hooks.option(CURLOPT_TIMEOUT_MS).number, 1000);
    EXPECT_GE(hooks.option(CURLOPT_TIMEOUT_MS).number, 1);
}

/// The shell is handed nothing but a host name.
TEST_F(NetworkHelperResolveTest, HandsTheShellNothingButAHostName) {
    for (const char* user : {"a;ping", "a|ping", "a`ping`", "$(ping)", "a ping", "-f"}) {
        const std::string url = std::string("http://") + user + "@" + m_host + "/";
        OutputCapture capture;
        EXPECT_FALSE(NetworkHelper().UrlRequest(url, false, "")) << user;
    }
    EXPECT_EQ(m_commands.calls("ping"), Texts());
}

}  // namespace
