#include "WebTimeImpl.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "AppClock.h"
#include "CGlobalInfoImpl.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "support/CredentialsPeer.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/PoisonedOutput.h"
#include "support/RetryPausePeer.h"
#include "support/ScriptedHttpServer.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"
#include "support/WallClock.h"
#include "support/WebTimeImplPeer.h"

namespace {

const char* const kDate = "Thu, 07 Mar 2019 10:15:02 GMT";
constexpr std::int64_t kDateMs = 1551953702000;

class WebTimeImplTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        WebTimeImpl::SetVerbose(false);
        WebTimeImpl::m_WebTime = 0;
        TimeMgrImplPeer::setPipePath(m_dir.file("pipe"));
        m_info->setBootCounts(7, 3);
        m_time->setDBPath(m_dir.file("Db"));
        m_answer.headers = {{"Date", kDate}};
        m_server = std::make_unique<ScriptedHttpServer>(
            [this](const ScriptedHttpServer::Request&) { return m_answer; });
        CredentialsPeer::setWebTimeUrl(m_server->url("/time"));
        CredentialsPeer::setApiKey("the-key");
    }
    void TearDown() override {
        m_time->setDBPath("");
        CredentialsPeer::putBack();
        WebTimeImpl::SetVerbose(false);
        WebTimeImpl::m_WebTime = 0;
        TimeMgrImplPeer::setPipePath(TimeMgrImplPeer::productPipe);
        TimeMgrImplPeer::forgetSystemTime();
        KivTest::TearDown();
    }

    bool getWebTime() {
        OutputCapture quiet;
        return m_webTime->getWebTime();
    }
    /// The class's lines on standard error when it is not verbose; it writes no others then.
    std::string errors() {
        OutputCapture capture;
        EXPECT_FALSE(m_webTime->getWebTime());
        capture.stop();
        EXPECT_EQ(taggedLines(capture.outWithoutPrefixes(), "kivwebtime: "), "");
        return taggedLines(capture.errWithoutPrefixes(), "kivwebtime: ");
    }
    std::size_t requests() const { return m_server->requests().size(); }

    TempDir m_dir;
    Singleton<CGlobalInfoImpl> m_info;
    Singleton<TimeMgrImpl> m_time;
    Singleton<WebTimeImpl> m_webTime;
    ScriptedHttpServer::Response m_answer;
    std::unique_ptr<ScriptedHttpServer> m_server;
};

/// The call that fetches the time returns false, the next one true.
TEST_F(WebTimeImplTest, TheCallThatFetchesTheTimeReturnsFalseAndTheNextTrue) {
    EXPECT_FALSE(getWebTime());
    EXPECT_EQ(m_webTime->getWebTimeValue(), 0);
    EXPECT_TRUE(getWebTime());
    EXPECT_GE(m_webTime->getWebTimeValue(), kDateMs / 1000);
    EXPECT_LT(m_webTime->getWebTimeValue(), kDateMs / 1000 + 60);
    EXPECT_EQ(requests(), 1u);
}

/// The Date is stored for the moment after the answer, as web time.
TEST_F(WebTimeImplTest, StoresTheDateForTheMomentAfterTheAnswer) {
    const TimeReference before;
    EXPECT_FALSE(getWebTime());
    const TimeReference after;
    EXPECT_LE(m_time->getTime(TimeSourceWeb, before), kDateMs);
    EXPECT_GE(m_time->getTime(TimeSourceWeb, after), kDateMs);
    EXPECT_EQ(m_time->getTime(TimeSourceSystem, after), 0);
}

/// While web time is known nobody is asked; system time does not count as web time.
TEST_F(WebTimeImplTest, MakesNoRequestWhileTheTimeIsKnown) {
    m_time->setTime(TimeSourceWeb, TimeReference(), kDateMs + 999);
    EXPECT_TRUE(getWebTime());
    EXPECT_EQ(requests(), 0u);
    EXPECT_GE(m_webTime->getWebTimeValue(), kDateMs / 1000);
}

/// While web time is known nobody is asked; system time does not count as web time.
TEST_F(WebTimeImplTest, SystemTimeIsNoWebTime) {
    m_time->setTime(TimeSourceSystem, TimeReference(), kDateMs);
    EXPECT_FALSE(getWebTime());
    EXPECT_EQ(requests(), 1u);
}

/// A new standby cycle asks again.
TEST_F(WebTimeImplTest, ANewStandbyCycleAsksAgain) {
    EXPECT_FALSE(getWebTime());
    EXPECT_TRUE(getWebTime());
    m_info->setBootCounts(7, 4);
    EXPECT_FALSE(getWebTime());
    EXPECT_EQ(m_webTime->getWebTimeValue(), 0);
    EXPECT_EQ(requests(), 2u);
    EXPECT_TRUE(getWebTime());
}

/// The request carries the key and no device headers.
TEST_F(WebTimeImplTest, SendsTheKeyAndNoDeviceHeaders) {
    EXPECT_FALSE(getWebTime());
    ASSERT_EQ(requests(), 1u);
    const ScriptedHttpServer::Request request = m_server->requests().front();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/time");
    EXPECT_EQ(request.header("x-api-key"), "the-key");
    EXPECT_FALSE(request.hasHeader("X-serial"));
    EXPECT_FALSE(request.hasHeader("X-currentTou"));
}

/// An answer with an HTTP status other than 200 to 299 counts as a failed request.
TEST_F(WebTimeImplTest, TheDateOfABadAnswerIsNotTaken) {
    for (const int status : {302, 400, 403, 500}) {
        m_answer.status = status;
        EXPECT_EQ(errors(), "kivwebtime: Time could not be retrieved from server\n");
        WebTimeImplPeer::pause().forget();
    }
    EXPECT_EQ(requests(), 4u);
    EXPECT_FALSE(getWebTime());
}

/// After a failed request the next follows no sooner than 10 s, doubling to 300 s; a success ends
/// that.
TEST_F(WebTimeImplTest, PausesAfterAFailedRequest) {
    m_answer.headers.clear();
    EXPECT_FALSE(getWebTime());
    std::size_t asked = 1;
    for (const std::int64_t pause : {10000, 20000, 40000, 80000, 160000, 300000, 300000}) {
        const std::int64_t left = WebTimeImplPeer::pause().leftMs();
        EXPECT_LE(left, pause);
        EXPECT_GT(left, pause - 5000);
        RetryPausePeer::pass(WebTimeImplPeer::pause(), pause - 5000);
        EXPECT_FALSE(getWebTime());
        EXPECT_EQ(requests(), asked) << "within the pause";
        RetryPausePeer::pass(WebTimeImplPeer::pause(), 5000);
        EXPECT_FALSE(getWebTime());
        EXPECT_EQ(requests(), ++asked);
    }
    m_answer.headers = {{"Date", kDate}};
    RetryPausePeer::pass(WebTimeImplPeer::pause(), 300000);
    EXPECT_FALSE(getWebTime());
    EXPECT_TRUE(getWebTime());
    EXPECT_EQ(WebTimeImplPeer::pause().leftMs(), 0);
}

/// An attempt that throws begins the pause too.
TEST_F(WebTimeImplTest, PausesAfterAnAttemptThatThrew) {
    WebTimeImpl::SetVerbose(true);
    {
        const PoisonedOutput output("trying to get time", [] { WebTimeImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(m_webTime->getWebTime());
    }
    EXPECT_FALSE(getWebTime());
    EXPECT_EQ(requests(), 0u);
}

/// A time that cannot be now begins the pause too.
TEST_F(WebTimeImplTest, PausesAfterATimeThatCannotBeNow) {
    m_answer.headers = {{"Date", "Sun, 31 Jul 2016 23:59:59 GMT"}};
    EXPECT_FALSE(getWebTime());
    EXPECT_FALSE(getWebTime());
    EXPECT_EQ(requests(), 1u);
}

/// A time that the store does not take is known all the same: one request, and the application
/// clock is set.
TEST_F(WebTimeImplTest, ATimeThatCannotBeStoredIsKnownForThisRun) {
    OutputCapture capture;
    m_time->setDBPath(m_dir.file("missing/Db"));
    EXPECT_FALSE(m_webTime->getWebTime());
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(requests(), 1u);
    EXPECT_GE(m_webTime->getWebTimeValue(), kDateMs / 1000);
    const auto now = std::chrono::system_clock::to_time_t(AppClock::now());
    EXPECT_GE(now, kDateMs / 1000);
    EXPECT_LT(now, kDateMs / 1000 + 60);
}

/// A date that 32 bits cannot hold gets a line, and nothing is stored.
TEST_F(WebTimeImplTest, ADateOutside32BitsGetsALine) {
    m_answer.headers = {{"Date", "Mon, 01 Jan 2110 00:00:00 GMT"}};
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "UtcTime: Failed to parse time: Mon, 01 Jan 2110 00:00:00 GMT\n");
    EXPECT_EQ(m_time->getTime(TimeSourceWeb, TimeReference()), 0);
}

/// The request goes out while the time is not known: dates alone are not held against the server's
/// certificate, but another name, another authority are.
TEST_F(WebTimeImplTest, AsksAServerWhoseCertificateIsNotValidInTheYearOfTheSet) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const auto script = [this](const ScriptedHttpServer::Request&) { return m_answer; };
    for (const std::int64_t start : {INT64_C(5), INT64_C(4417977600)}) {  // 1970, and 2110
        const WallClock clock(start);
        for (const bool otherHost : {true, false}) {
            ScriptedHttpServer::Certificate bad;
            if (otherHost) bad.host = "other.example";
            bad.trusted = otherHost;
            const ScriptedHttpServer wrong(script, bad);
            CredentialsPeer::setWebTimeUrl(wrong.url("/time"));
            EXPECT_FALSE(getWebTime());
            EXPECT_EQ(wrong.requests().size(), 0u);
            WebTimeImplPeer::pause().forget();
        }
        const ScriptedHttpServer right(script, ScriptedHttpServer::Transport::Tls);
        CredentialsPeer::setWebTimeUrl(right.url("/time"));
        EXPECT_FALSE(getWebTime());
        EXPECT_TRUE(getWebTime());
        m_time->setTime(TimeSourceWeb, TimeReference(), 0);
        TimeMgrImplPeer::forgetSystemTime();
    }
}

/// Verbose, attempt and Date are told, the Date without prefix; otherwise nothing is.
TEST_F(WebTimeImplTest, SaysWhatItDoes) {
    WebTimeImpl::SetVerbose(true);
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    WebTimeImpl::SetVerbose(false);
    EXPECT_EQ(taggedLines(capture.outWithoutPrefixes(), "kivwebtime: "),
              "kivwebtime:  trying to get time from server... \n"
              "kivwebtime:  Setting time from the date received from server being:  "
              "Thu, 07 Mar 2019 10:15:02 GMT\n");
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, attempt and Date are told, the Date without prefix; otherwise nothing is.
TEST_F(WebTimeImplTest, ItsLinesCarryTheDiagnosticPrefix) {
    m_answer.closeWithoutAnswer = true;
    WebTimeImpl::SetVerbose(true);
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "kivwebtime: "),
              "kivwebtime:  trying to get time from server... \n");
    EXPECT_EQ(prefixedLines(capture.err(), "kivwebtime: "),
              "kivwebtime: Time could not be retrieved from server\n");
}

/// Verbose, attempt and Date are told, the Date without prefix; otherwise nothing is.
TEST_F(WebTimeImplTest, TheLineOnTheServersDateHasNoDiagnosticPrefix) {
    WebTimeImpl::SetVerbose(true);
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(taggedLines(capture.out(), "kivwebtime: "),
              "kivwebtime:  Setting time from the date received from server being:  "
              "Thu, 07 Mar 2019 10:15:02 GMT\n");
}

/// Verbose, attempt and Date are told, the Date without prefix; otherwise nothing is.
TEST_F(WebTimeImplTest, AsksForTheUrlAndThenForTheKey) {
    Credentials().getTouUrl();  // the environment is chosen, and not spoken of again
    Credentials::SetVerbose(true);
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "credentials:"),
              "credentials: Returning web time URL for Release\n"
              "credentials: Returning Lambda key for Release\n");
}

/// Verbose, attempt and Date are told, the Date without prefix; otherwise nothing is.
TEST_F(WebTimeImplTest, IsSilentWhenNotVerbose) {
    EXPECT_FALSE(WebTimeImpl::GetVerbose());
    EXPECT_EQ(errors(), "");
}

/// A failed request: "Time could not be retrieved from server"; no Date: "No time received".
TEST_F(WebTimeImplTest, AFailedRequestIsReported) {
    m_answer.closeWithoutAnswer = true;
    EXPECT_EQ(errors(), "kivwebtime: Time could not be retrieved from server\n");
    EXPECT_FALSE(getWebTime());
}

/// A failed request: "Time could not be retrieved from server"; no Date: "No time received".
TEST_F(WebTimeImplTest, AnAnswerWithoutADateIsReported) {
    m_answer.headers.clear();
    EXPECT_EQ(errors(), "kivwebtime: No time received\n");
    EXPECT_EQ(m_time->getTime(TimeSourceWeb, TimeReference()), 0);
}

/// A Date of no known form, or that cannot be now, is not stored.
TEST_F(WebTimeImplTest, ADateOfNoKnownFormIsNotStored) {
    m_answer.headers = {{"Date", "2019-03-07 10:15:02"}};
    OutputCapture capture;
    EXPECT_FALSE(m_webTime->getWebTime());
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "UtcTime: Failed to parse time: 2019-03-07 10:15:02\n");
    EXPECT_EQ(m_time->getTime(TimeSourceWeb, TimeReference()), 0);
}

/// A Date of no known form, or that cannot be now, is not stored; each gets a line.
TEST_F(WebTimeImplTest, ADateThatCannotBeNowIsNotStored) {
    for (const char* date : {"Sun, 31 Jul 2016 23:59:59 GMT", "Thu, 07 Mar 1968 10:15:02 GMT"}) {
        m_answer.headers = {{"Date", date}};
        EXPECT_EQ(errors(),
                  std::string("kivwebtime: The server's date cannot be now: ") + date + "\n");
        EXPECT_EQ(m_time->getTime(TimeSourceWeb, TimeReference()), 0) << date;
        WebTimeImplPeer::pause().forget();
    }
}

}  // namespace
