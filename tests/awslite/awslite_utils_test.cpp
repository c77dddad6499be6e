#include "awslite_support.h"

#include <sstream>
#include <thread>

#include <stdlib.h>
#include <time.h>

#include <aws/core/Aws.h>
#include <aws/core/utils/Array.h>
#include <aws/core/utils/DateTime.h>
#include <aws/core/utils/HashingUtils.h>
#include <aws/core/utils/ratelimiter/DefaultRateLimiter.h>
#include <gtest/gtest.h>

namespace {

using namespace awslite_test;
using Aws::Utils::ByteBuffer;
using Aws::Utils::DateTime;
using Aws::Utils::HashingUtils;
using Aws::Utils::RateLimits::DefaultRateLimiter;
using std::chrono::milliseconds;

ByteBuffer bytes(const std::string& text) {
    return ByteBuffer(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}

std::string base64(const std::string& text) {
    return HashingUtils::Base64Encode(bytes(text));
}

std::string md5(const std::string& text) {
    return HashingUtils::HexEncode(HashingUtils::CalculateMD5(text));
}

/// Base64, MD5, SHA-256 and its HMAC are the published ones.
TEST(AwsliteHashing, Base64IsThatOfRfc4648) {
    EXPECT_EQ(base64(""), "");
    EXPECT_EQ(base64("f"), "Zg==");
    EXPECT_EQ(base64("fo"), "Zm8=");
    EXPECT_EQ(base64("foo"), "Zm9v");
    EXPECT_EQ(base64("foob"), "Zm9vYg==");
    EXPECT_EQ(base64("fooba"), "Zm9vYmE=");
    EXPECT_EQ(base64("foobar"), "Zm9vYmFy");
    EXPECT_EQ(base64("\xfb\xff\xbf"), "+/+/");
}

/// Base64, MD5, SHA-256 and its HMAC are the published ones.
TEST(AwsliteHashing, Md5IsThatOfRfc1321) {
    EXPECT_EQ(md5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5("abcdefghijklmnopqrstuvwxyz"), "c3fcd3d76192e4007dfb496cca67e13b");
}

/// Base64, MD5, SHA-256 and its HMAC are the published ones.
TEST(AwsliteHashing, Sha256AndItsHmacAreThePublishedOnes) {
    EXPECT_EQ(HashingUtils::HexEncode(HashingUtils::CalculateSHA256("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // RFC 4231, test case 2
    EXPECT_EQ(HashingUtils::HexEncode(HashingUtils::CalculateSHA256HMAC(
                  bytes("what do ya want for nothing?"), bytes("Jefe"))),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(HashingUtils::HexEncode(HashingUtils::CalculateSHA256HMAC(bytes(""), bytes(""))),
              "b613679a0814d9ec772f95d778c35fc5ff1697c493715653c6c712144292c5ad");
}

/// A stream is hashed whole and left where it stood, ready to be sent; one that was read to its
/// end begins again.
TEST(AwsliteHashing, AStreamIsHashedWholeAndStaysSendable) {
    const std::string text(100000, 'k');
    Aws::StringStream stream(text);
    stream.seekg(10);

    EXPECT_EQ(HashingUtils::HexEncode(HashingUtils::CalculateMD5(stream)), md5(text));
    EXPECT_EQ(stream.tellg(), 10);
    EXPECT_EQ(HashingUtils::CalculateSHA256(stream), HashingUtils::CalculateSHA256(text));
    EXPECT_TRUE(stream.good());
}

/// A stream is hashed whole and left where it stood, ready to be sent; one that was read to its
/// end begins again.
TEST(AwsliteHashing, AStreamThatWasReadToItsEndBeginsAgain) {
    Aws::StringStream stream("abc");
    std::string word;
    stream >> word >> word;
    ASSERT_TRUE(stream.fail());

    EXPECT_EQ(HashingUtils::HexEncode(HashingUtils::CalculateMD5(stream)), md5("abc"));
    EXPECT_EQ(stream.tellg(), 0);
}

/// A byte buffer has a copy of its bytes.
TEST(AwsliteArray, CopiesItsBytes) {
    unsigned char source[] = {1, 2, 3};
    ByteBuffer buffer(source, 3);
    source[0] = 9;

    EXPECT_EQ(buffer.GetLength(), 3U);
    EXPECT_EQ(buffer[0], 1);
    EXPECT_EQ(buffer.GetUnderlyingData()[2], 3);
    EXPECT_EQ(ByteBuffer(nullptr, 0).GetLength(), 0U);
    EXPECT_NE(buffer, ByteBuffer());
}

/// Sets TZ, and puts it back.
class TimeZone {
  public:
    explicit TimeZone(const char* zone) {
        const char* before = ::getenv("TZ");
        m_had = before != nullptr;
        if (m_had) m_before = before;
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    ~TimeZone() {
        if (m_had) {
            ::setenv("TZ", m_before.c_str(), 1);
        } else {
            ::unsetenv("TZ");
        }
        ::tzset();
    }
    TimeZone(const TimeZone&) = delete;
    TimeZone& operator=(const TimeZone&) = delete;

  private:
    bool m_had = false;
    std::string m_before;
};

/// Times are written in local time and in UTC; an empty or overlong format gives an empty text.
TEST(AwsliteDateTime, FormatsInLocalTimeAndUtc) {
    const TimeZone zone("KIV-2");
    const DateTime moment(int64_t{1440938160123});

    EXPECT_EQ(moment.ToGmtString("%Y%m%dt%H%M%Sz"), "20150830t123600z");
    EXPECT_EQ(moment.ToLocalTimeString("%Y%m%dt%H%M%Sz"), "20150830t143600z");
    EXPECT_EQ(moment.Millis(), 1440938160123);
    EXPECT_EQ(DateTime().ToGmtString("%Y-%m-%d"), "1970-01-01");
}

/// Times are written in local time and in UTC; an empty or overlong format gives an empty text.
TEST(AwsliteDateTime, GivesAnEmptyTextForAnEmptyOrOverlongFormat) {
    EXPECT_EQ(DateTime().ToGmtString(""), "");
    EXPECT_EQ(DateTime().ToGmtString(std::string(300, 'x').c_str()), "");
}

/// Now is the system's present time.
TEST(AwsliteDateTime, NowIsThePresent) {
    const TimeZone zone("KIV-2");
    const time_t before = ::time(nullptr);
    const DateTime now = DateTime::Now();
    const std::string local = DateTime::CalculateLocalTimestampAsString("%s");
    const std::string gmt = DateTime::CalculateGmtTimestampAsString("%Y");
    const time_t after = ::time(nullptr);

    EXPECT_LE(before, now.Millis() / 1000);
    EXPECT_GE(after, now.Millis() / 1000);
    EXPECT_LE(std::to_string(before), local);
    EXPECT_GE(std::to_string(after), local);
    EXPECT_EQ(gmt.size(), 4U);
}

/// A rate limiter whose time stands still until the test moves it.
class AwsliteRateLimiter : public testing::Test {
  protected:
    using Time = std::chrono::steady_clock::time_point;

    DefaultRateLimiter<> limiter(int64_t rate) {
        return DefaultRateLimiter<>(rate, [this] { return m_now; });
    }

    Time m_now{};
};

/// A limiter lets the budget of one second through at once and then its rate; a debt of many
/// seconds is waited for.
TEST_F(AwsliteRateLimiter, LetsOneSecondsBudgetThroughAtOnceAndThenTheRate) {
    auto limited = limiter(1000);

    EXPECT_EQ(limited.ApplyCost(600), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(400), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(500), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(500), milliseconds(500));
    EXPECT_EQ(limited.ApplyCost(1), milliseconds(1000));
    m_now += milliseconds(1000);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(1));
    m_now += milliseconds(1);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(0));
}

/// It never saves more than one second's budget, however long it rests, and loses no part of a
/// byte.
TEST_F(AwsliteRateLimiter, NeverSavesMoreThanOneSecondsBudget) {
    auto limited = limiter(50000000);
    m_now += std::chrono::hours(24 * 365 * 20);

    EXPECT_EQ(limited.ApplyCost(150000000), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(2000));
    m_now += std::chrono::hours(24 * 365 * 20);
    EXPECT_EQ(limited.ApplyCost(50000000), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(0));
}

/// It never saves more than one second's budget, however long it rests, and loses no part of a
/// byte.
TEST_F(AwsliteRateLimiter, LosesNoPartOfAByteBetweenShortSteps) {
    auto limited = limiter(7);
    limited.ApplyCost(14);
    for (int step = 0; step < 1000; ++step) {
        m_now += milliseconds(1);
        limited.ApplyCost(0);
    }

    EXPECT_EQ(limited.ApplyCost(7), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(1000));
}

/// A limiter lets the budget of one second through at once and then its rate; a debt of many
/// seconds is waited for.
TEST_F(AwsliteRateLimiter, PaysTheDebtOfManySeconds) {
    auto limited = limiter(100);
    limited.ApplyCost(1100);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(10000));
    m_now += milliseconds(4500);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(5500));
}

/// A new rate scales what is owed, or starts afresh; a rate below 1 is 1.
TEST_F(AwsliteRateLimiter, ScalesItsAccountWithTheRateOrFillsIt) {
    auto limited = limiter(1000);
    limited.ApplyCost(2000);
    limited.SetRate(100);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(1000));
    limited.SetRate(10, true);
    EXPECT_EQ(limited.ApplyCost(20), milliseconds(0));
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(1000));
}

/// A new rate scales what is owed, or starts afresh; a rate below 1 is 1.
TEST_F(AwsliteRateLimiter, TakesARateBelowOneAsOne) {
    auto limited = limiter(0);
    limited.ApplyCost(2);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(1000));
    limited.SetRate(-5, true);
    limited.ApplyCost(3);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(2000));
}

/// A clock that goes back changes nothing.
TEST_F(AwsliteRateLimiter, StandsAClockThatGoesBack) {
    m_now += milliseconds(5000);
    auto limited = limiter(1000);
    limited.ApplyCost(1500);
    m_now -= milliseconds(3000);
    EXPECT_EQ(limited.ApplyCost(0), milliseconds(500));
}

/// Paying sleeps until the debt is paid.
TEST(AwsliteRateLimiterSleep, PayingSleepsForTheDebt) {
    DefaultRateLimiter<> limited(1000);
    limited.ApplyCost(1060);
    const auto start = std::chrono::steady_clock::now();

    limited.ApplyAndPayForCost(0);

    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(50));
}

/// The retry strategy allows what may be tried again, as often as told, at once and then with
/// delays that double from 50 ms.
TEST(AwsliteRetryStrategy, RetriesWhatMayBeRetriedAsOftenAsItWasTold) {
    const Aws::Client::AWSError<Aws::Client::CoreErrors> retryable(
        Aws::Client::CoreErrors::THROTTLING, "", "", true);
    const Aws::Client::AWSError<Aws::Client::CoreErrors> final(
        Aws::Client::CoreErrors::ACCESS_DENIED, "", "", false);
    const Aws::Client::DefaultRetryStrategy none(0);
    const Aws::Client::DefaultRetryStrategy usual;

    EXPECT_FALSE(none.ShouldRetry(retryable, 0));
    EXPECT_TRUE(usual.ShouldRetry(retryable, 9));
    EXPECT_FALSE(usual.ShouldRetry(retryable, 10));
    EXPECT_FALSE(usual.ShouldRetry(final, 0));
    EXPECT_EQ(usual.CalculateDelayBeforeNextRetry(retryable, 0), 0);
    EXPECT_EQ(usual.CalculateDelayBeforeNextRetry(retryable, 1), 50);
    EXPECT_EQ(usual.CalculateDelayBeforeNextRetry(retryable, 9), 12800);
}

/// Credentials are key, secret and token as given; they are due at first and when their
/// interval has passed.
TEST(AwsliteCredentials, AreWhatTheyWereMadeOf) {
    const Aws::Auth::AWSCredentials lasting("key", "secret");
    const Aws::Auth::AWSCredentials session("key", "secret", "token");

    EXPECT_EQ(lasting.GetAWSAccessKeyId(), "key");
    EXPECT_EQ(lasting.GetAWSSecretKey(), "secret");
    EXPECT_EQ(lasting.GetSessionToken(), "");
    EXPECT_EQ(session.GetSessionToken(), "token");
}

class RefreshingProvider : public FixedCredentials {
  public:
    RefreshingProvider() : FixedCredentials({"k", "s"}) {}
    using FixedCredentials::IsTimeToRefresh;
};

/// Credentials are key, secret and token as given; they are due at first and when their
/// interval has passed.
TEST(AwsliteCredentials, AreRefreshedAtFirstAndAfterTheInterval) {
    RefreshingProvider provider;

    EXPECT_TRUE(provider.IsTimeToRefresh(1000000));
    EXPECT_FALSE(provider.IsTimeToRefresh(1000000));
    EXPECT_TRUE(provider.IsTimeToRefresh(0));
}

/// The client may be set up and shut down several times, in any order, and calls still work.
TEST(AwsliteInit, MayBeDoneAndUndoneSeveralTimes) {
    const Aws::SDKOptions options;
    EXPECT_EQ(options.loggingOptions.logLevel, Aws::Utils::Logging::LogLevel::Off);
    EXPECT_STREQ(options.loggingOptions.defaultLogPrefix, "aws_sdk_");

    Aws::ShutdownAPI(options);
    Aws::InitAPI(options);
    Aws::InitAPI(options);
    Aws::ShutdownAPI(options);
    const ScriptedHttpServer server(always(answer(200, R"({"RecordId":"r"})")),
                                    ScriptedHttpServer::Transport::Tls);
    EXPECT_TRUE(firehose(configurationFor(server.url())).PutRecord(recordRequest()).IsSuccess());
    Aws::ShutdownAPI(options);
    Aws::ShutdownAPI(options);
    EXPECT_TRUE(firehose(configurationFor(server.url())).PutRecord(recordRequest()).IsSuccess());
}

/// Defaults: connected within 1000 ms, given up after 3000 ms, HTTPS, no rate limit.
TEST(AwsliteDefaults, AreThoseThatCallersCountOn) {
    const Aws::Client::ClientConfiguration configuration;
    EXPECT_EQ(configuration.connectTimeoutMs, 1000);
    EXPECT_EQ(configuration.requestTimeoutMs, 3000);
    EXPECT_EQ(configuration.scheme, Aws::Http::Scheme::HTTPS);
    EXPECT_EQ(configuration.readRateLimiter, nullptr);
    EXPECT_EQ(static_cast<int>(Aws::Utils::Logging::LogLevel::Trace), 6);
}

}  // namespace
