#include "support/ScriptedHttpServer.h"

#include "support/TempDir.h"
#include "support/WaitUntil.h"

#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <stdexcept>

#include <signal.h>
#include <string.h>

#include <curl/curl.h>
#include <gtest/gtest.h>

namespace {

using Request = ScriptedHttpServer::Request;
using Response = ScriptedHttpServer::Response;
using Transport = ScriptedHttpServer::Transport;

struct CurlFree {
    void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

/// One request by libcurl and what came of it.
struct Fetch {
    CURLcode code = CURLE_OK;
    long status = 0;
    std::string head;
    std::string body;
};

size_t append(char* data, size_t size, size_t count, void* text) {
    static_cast<std::string*>(text)->append(data, size * count);
    return size * count;
}

Fetch fetch(const std::string& url, const std::string& ca = "", const std::string* post = nullptr,
            const std::string& header = "", const std::string& caPath = "") {
    Fetch result;
    const std::unique_ptr<CURL, CurlFree> handle(curl_easy_init());
    curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &result.body);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, append);
    curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &result.head);
    if (!ca.empty()) curl_easy_setopt(handle.get(), CURLOPT_CAINFO, ca.c_str());
    if (!caPath.empty()) curl_easy_setopt(handle.get(), CURLOPT_CAPATH, caPath.c_str());
    if (post != nullptr) {
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDS, post->data());
        curl_easy_setopt(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(post->size()));
    }
    std::unique_ptr<curl_slist, CurlFree> headers;
    if (!header.empty()) headers.reset(curl_slist_append(nullptr, header.c_str()));
    curl_easy_setopt(handle.get(), CURLOPT_HTTPHEADER, headers.get());
    result.code = curl_easy_perform(handle.get());
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &result.status);
    return result;
}

Response withBody(const std::string& body) {
    Response response;
    response.body = body;
    return response;
}

ScriptedHttpServer::Script always(const Response& response) {
    return [response](const Request&) { return response; };
}

class ScriptedHttpServerTest : public testing::TestWithParam<Transport> {
  protected:
    static std::string ca() {
        return GetParam() == Transport::Tls ? ScriptedHttpServer::caFile() : "";
    }
};

std::string transportName(const testing::TestParamInfo<Transport>& info) {
    return info.param == Transport::Tls ? "Tls" : "Plain";
}

INSTANTIATE_TEST_SUITE_P(Transports, ScriptedHttpServerTest,
                         testing::Values(Transport::Plain, Transport::Tls), transportName);

/// The HTTP server of the tests answers with the status, headers and body that the test's script
/// returns.
TEST_P(ScriptedHttpServerTest, AnswersWithTheScriptedStatusHeadersAndBody) {
    Response response = withBody("not here");
    response.status = 404;
    response.headers = {{"X-Kiv", "a b"}};
    const ScriptedHttpServer server(always(response), GetParam());

    const Fetch got = fetch(server.url("/x"), ca());

    EXPECT_EQ(got.code, CURLE_OK);
    EXPECT_EQ(got.status, 404);
    EXPECT_EQ(got.body, "not here");
    EXPECT_EQ(got.head,
              "HTTP/1.1 404 Not Found\r\nX-Kiv: a b\r\nContent-Length: 8\r\n"
              "Connection: close\r\n\r\n");
}

/// The test's script is given method, target, headers and body of the request as they were sent.
TEST_P(ScriptedHttpServerTest, HandsTheRequestToTheScriptAsItWasSent) {
    const ScriptedHttpServer server(
        [](const Request& request) {
            return withBody(request.method + " " + request.target + " " + request.body + " " +
                            request.header("x-KIV") + " " +
                            (request.hasHeader("X-None") ? "has" : "has not"));
        },
        GetParam());
    const std::string post = "a=1";

    EXPECT_EQ(fetch(server.url("/p%20q?r=%2F"), ca(), &post, "X-Kiv: v 1").body,
              "POST /p%20q?r=%2F a=1 v 1 has not");
}

/// The HTTP server of the tests takes a body of 20 MiB, and asks for it when the client says
/// "Expect: 100-continue".
TEST_P(ScriptedHttpServerTest, TakesALargeBodyAfterGrantingTheContinue) {
    const ScriptedHttpServer server(always(withBody("taken")), GetParam());
    std::string post(20 * 1024 * 1024, 'x');
    post[12345678] = '\0';

    const Fetch got = fetch(server.url(), ca(), &post, "Expect: 100-continue");

    EXPECT_EQ(got.head.substr(0, 25), "HTTP/1.1 100 Continue\r\n\r\n");
    EXPECT_EQ(got.body, "taken");
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_TRUE(server.requests()[0].body == post);
}

/// The HTTP server of the tests sends a body of 20 MiB whole.
TEST_P(ScriptedHttpServerTest, SendsALargeBodyWhole) {
    const std::string body(20 * 1024 * 1024, 'y');
    const ScriptedHttpServer server(always(withBody(body)), GetParam());

    EXPECT_TRUE(fetch(server.url(), ca()).body == body);
}

/// A script can have the server take a request and close the connection without an answer.
TEST_P(ScriptedHttpServerTest, ClosesWithoutAnAnswer) {
    Response response;
    response.closeWithoutAnswer = true;
    const ScriptedHttpServer server(always(response), GetParam());

    EXPECT_EQ(fetch(server.url(), ca()).code, CURLE_GOT_NOTHING);
    EXPECT_EQ(server.requests().size(), 1U);
}

/// A script can have the server close the connection after some bytes of the body.
TEST_P(ScriptedHttpServerTest, CutsTheBodyOff) {
    Response response = withBody("0123456789");
    response.cutAfterBodyBytes = 4;
    const ScriptedHttpServer server(always(response), GetParam());

    const Fetch got = fetch(server.url(), ca());

    EXPECT_EQ(got.code, CURLE_PARTIAL_FILE);
    EXPECT_EQ(got.body, "0123");
}

/// A script can have the server send the body byte by byte with a pause between.
TEST_P(ScriptedHttpServerTest, DripsTheBody) {
    Response response = withBody("abcd");
    response.dripMs = 30;
    const ScriptedHttpServer server(always(response), GetParam());

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fetch(server.url(), ca()).body, "abcd");
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(90));
}

/// Destroying the server ends at once the connections that hang or drip.
TEST_P(ScriptedHttpServerTest, EndsHangingAndDrippingConnectionsWhenDestroyed) {
    auto server = std::make_unique<ScriptedHttpServer>(
        [](const Request& request) {
            Response response = withBody("slow");
            response.hang = request.target == "/hang";
            response.dripMs = 600000;
            return response;
        },
        GetParam());
    const std::string trusted = ca();
    auto hanging =
        std::async(std::launch::async, fetch, server->url("/hang"), trusted, nullptr, "", "");
    auto dripping =
        std::async(std::launch::async, fetch, server->url("/drip"), trusted, nullptr, "", "");
    ASSERT_TRUE(WaitUntil([&] { return server->requests().size() == 2; }));

    const auto start = std::chrono::steady_clock::now();
    server.reset();

    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
    EXPECT_EQ(hanging.get().code, CURLE_GOT_NOTHING);
    EXPECT_EQ(dripping.get().code, CURLE_PARTIAL_FILE);
}

/// The HTTP server of the tests serves several connections at the same time.
TEST_P(ScriptedHttpServerTest, ServesConnectionsAtTheSameTime) {
    std::promise<void> second;
    auto secondCame = second.get_future().share();
    const ScriptedHttpServer server(
        [&](const Request& request) {
            if (request.target == "/second") second.set_value();
            const auto state = secondCame.wait_for(std::chrono::seconds(10));
            return withBody(state == std::future_status::ready ? "together" : "alone");
        },
        GetParam());
    auto first = std::async(std::launch::async, fetch, server.url("/first"), ca(), nullptr, "", "");

    EXPECT_EQ(fetch(server.url("/second"), ca()).body, "together");
    EXPECT_EQ(first.get().body, "together");
}

/// After the server was destroyed nobody listens on its port.
TEST_P(ScriptedHttpServerTest, LeavesNoPortOpenAfterItsEnd) {
    std::string url;
    {
        const ScriptedHttpServer server(always(Response()), GetParam());
        url = server.url();
    }
    EXPECT_EQ(fetch(url, ca()).code, CURLE_COULDNT_CONNECT);
}

/// An answer of a status that has no body in HTTP, like 304, is sent without body and length.
TEST(ScriptedHttpServerAnswers, LeavesTheBodyOutWhereHttpHasNone) {
    Response response = withBody("no such body");
    response.status = 304;
    const ScriptedHttpServer server(always(response));

    const Fetch got = fetch(server.url());

    EXPECT_EQ(got.code, CURLE_OK);
    EXPECT_EQ(got.head, "HTTP/1.1 304 Status\r\nConnection: close\r\n\r\n");
}

/// A script may name a wrong length; the server sends it as it is.
TEST(ScriptedHttpServerAnswers, KeepTheLengthThatTheScriptNames) {
    Response response = withBody("abc");
    response.headers = {{"content-length", "7"}, {"connection", "close"}};
    const ScriptedHttpServer server(always(response));

    const Fetch got = fetch(server.url());

    EXPECT_EQ(got.code, CURLE_PARTIAL_FILE);
    EXPECT_EQ(got.head, "HTTP/1.1 200 OK\r\ncontent-length: 7\r\nconnection: close\r\n\r\n");
}

/// When a script throws, the server answers 500 with the exception's text.
TEST(ScriptedHttpServerAnswers, TellAboutAScriptThatThrows) {
    const ScriptedHttpServer server(
        [](const Request&) -> Response { throw std::runtime_error("oops"); });

    const Fetch got = fetch(server.url());

    EXPECT_EQ(got.status, 500);
    EXPECT_EQ(got.body, "the test's script failed: oops");
}

/// A client that goes away in the middle of an answer does not end the test with SIGPIPE.
TEST(ScriptedHttpServerAnswers, RaiseNoSigpipeWhenTheClientIsGone) {
    for (const Transport transport : {Transport::Plain, Transport::Tls}) {
        ::signal(SIGPIPE, SIG_DFL);
        const std::string ca = transport == Transport::Tls ? ScriptedHttpServer::caFile() : "";
        const ScriptedHttpServer server(always(withBody(std::string(30 << 20, 'z'))), transport);
        const std::unique_ptr<CURL, CurlFree> handle(curl_easy_init());
        curl_easy_setopt(handle.get(), CURLOPT_URL, server.url().c_str());
        if (!ca.empty()) curl_easy_setopt(handle.get(), CURLOPT_CAINFO, ca.c_str());
        curl_easy_setopt(handle.get(), CURLOPT_NOSIGNAL, 1L);
        const curl_write_callback refuse = [](char*, size_t, size_t, void*) { return size_t{0}; };
        curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, refuse);

        EXPECT_EQ(curl_easy_perform(handle.get()), CURLE_WRITE_ERROR);
    }
}

/// The HTTPS server of the tests is trusted through the tests' CA file and through the directory
/// that holds it.
TEST(ScriptedHttpServerTls, IsTrustedThroughTheCaFileAndThroughItsDirectory) {
    const ScriptedHttpServer server(always(withBody("trusted")), Transport::Tls);
    const std::string file = ScriptedHttpServer::caFile();
    const std::string directory = std::filesystem::path(file).parent_path().string();

    EXPECT_EQ(fetch(server.url(), file).body, "trusted");
    EXPECT_EQ(fetch(server.url(), ScriptedHttpServer::otherCaFile(), nullptr, "", directory).body,
              "trusted");
}

/// The HTTPS server of the tests is not trusted through the tests' second CA.
TEST(ScriptedHttpServerTls, IsNotTrustedThroughTheOtherCa) {
    const ScriptedHttpServer server(always(Response()), Transport::Tls);
    const std::string other = ScriptedHttpServer::otherCaFile();
    const std::string directory = std::filesystem::path(other).parent_path().string();

    EXPECT_EQ(fetch(server.url(), other).code, CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(fetch(server.url(), other, nullptr, "", directory).code,
              CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_TRUE(server.requests().empty());
}

/// The certificate of the HTTPS server is good for 127.0.0.1 as well as for "localhost".
TEST(ScriptedHttpServerTls, ServesTheNumericAddressToo) {
    const ScriptedHttpServer server(always(withBody("by number")), Transport::Tls);

    EXPECT_EQ(fetch("https://127.0.0.1:" + std::to_string(server.port()) + "/",
                    ScriptedHttpServer::caFile())
                  .body,
              "by number");
}

}  // namespace
