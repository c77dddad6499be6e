#include "ConfigDocument.h"

#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "ClassLog.h"
#include "Services.h"
#include "support/OutputCapture.h"

namespace {

class ConfigDocumentTest : public ::testing::Test {
  protected:
    void parse(const std::string& text) {
        ConfigDocument::parse(JsonObject::parse(text), m_values, m_log);
    }

    /// The lines on standard output while `action` runs with a verbose log.
    template <typename Action>
    std::string linesOf(Action action) {
        m_log.setVerbose(true);
        OutputCapture capture;
        action();
        capture.stop();
        m_log.setVerbose(false);
        EXPECT_EQ(capture.err(), "");
        return capture.outWithoutPrefixes();
    }

    ConfigDocument::Values m_values;
    ClassLog m_log{"tag: "};
};

const char* const kDocument =
    R"({"version": "2.7", "kiv_tou": true, "expiry_tou": 86400,
        "event-filter": {"include": [{"event-type": "a"}]}, "file-filter": {"exclude": []},
        "upload_events": {"max-delay": 100, "max-size": 2000, "min-size": 300},
        "firehose_endpoint": "https://fire", "firehose_stream": "stream",
        "s3_endpoint": "https://s3", "s3_bucket": "bucket/dir",
        "credentials": {"iv": "0a", "AccessKeyId": "0b", "SecretAccessKey": "0c",
                        "SessionToken": "0d"},
        "Last-Modified": "a date", "UTC-Time": 1551950000})";

// --- from a document to values ------------------------------------------------------------------

/// Every field starts with its default.
TEST_F(ConfigDocumentTest, ValuesStartWithTheDefaults) {
    EXPECT_FALSE(m_values.touAccepted);
    EXPECT_EQ(m_values.expiryTou, 600);
    EXPECT_EQ(m_values.eventFilter, "{}");
    EXPECT_EQ(m_values.fileFilter, "{}");
    EXPECT_EQ(m_values.maxDelay, 3500);
    EXPECT_EQ(m_values.maxSize, 131072);
    EXPECT_EQ(m_values.minSize, 16384);
    EXPECT_EQ(m_values.firehoseEndpoint, Services::defaultFirehoseEndpoint());
    EXPECT_EQ(m_values.s3Endpoint, Services::defaultS3Endpoint());
    EXPECT_EQ(m_values.firehoseStream, "kiv-eventsrc-stream-test");
    EXPECT_EQ(m_values.s3Bucket, "norvane-ddump/kiv-test");
    EXPECT_EQ(m_values.iv, "");
    EXPECT_EQ(m_values.accessKeyId, "");
    EXPECT_EQ(m_values.secretAccessKey, "");
    EXPECT_EQ(m_values.sessionToken, "");
    EXPECT_EQ(m_values.lastModified, "");
    EXPECT_EQ(m_values.utcTime, 0);
}

/// Every field of a document is taken.
TEST_F(ConfigDocumentTest, TakesEveryFieldOfADocument) {
    parse(kDocument);
    EXPECT_TRUE(m_values.touAccepted);
    EXPECT_EQ(m_values.expiryTou, 86400);
    EXPECT_EQ(m_values.eventFilter, R"({"include": [{"event-type": "a"}]})");
    EXPECT_EQ(m_values.fileFilter, R"({"exclude": []})");
    EXPECT_EQ(m_values.maxDelay, 100);
    EXPECT_EQ(m_values.maxSize, 2000);
    EXPECT_EQ(m_values.minSize, 300);
    EXPECT_EQ(m_values.firehoseEndpoint, "https://fire");
    EXPECT_EQ(m_values.firehoseStream, "stream");
    EXPECT_EQ(m_values.s3Endpoint, "https://s3");
    EXPECT_EQ(m_values.s3Bucket, "bucket/dir");
    EXPECT_EQ(m_values.iv, "0a");
    EXPECT_EQ(m_values.accessKeyId, "0b");
    EXPECT_EQ(m_values.secretAccessKey, "0c");
    EXPECT_EQ(m_values.sessionToken, "0d");
    EXPECT_EQ(m_values.lastModified, "a date");
    EXPECT_EQ(m_values.utcTime, 1551950000);
}

/// Only the JSON value true is consent.
TEST_F(ConfigDocumentTest, OnlyTheJsonValueTrueIsConsent) {
    parse(R"({"kiv_tou": true})");
    EXPECT_TRUE(m_values.touAccepted);
    for (const char* doc : {R"({"kiv_tou": "true"})", R"({"kiv_tou": 1})", R"({"kiv_tou": null})",
                            R"({"kiv_tou": false})", "{}"}) {
        parse(R"({"kiv_tou": true})");
        parse(doc);
        EXPECT_FALSE(m_values.touAccepted) << doc;
    }
}

/// A missing expiry, and each missing threshold, keeps its value.
TEST_F(ConfigDocumentTest, AMissingExpiryKeepsTheCurrentOne) {
    parse(R"({"expiry_tou": 1234})");
    parse("{}");
    EXPECT_EQ(m_values.expiryTou, 1234);
    parse(R"({"expiry_tou": "60"})");
    EXPECT_EQ(m_values.expiryTou, 1234);
}

/// A missing expiry, and each missing threshold, keeps its value.
TEST_F(ConfigDocumentTest, ADocumentWithoutThresholdsKeepsAllThree) {
    parse(R"({"kiv_tou": true})");
    EXPECT_EQ(m_values.maxDelay, 3500);
    EXPECT_EQ(m_values.maxSize, 131072);
    EXPECT_EQ(m_values.minSize, 16384);
    parse(R"({"upload_events": 5})");
    EXPECT_EQ(m_values.maxDelay, 3500);
    EXPECT_EQ(m_values.maxSize, 131072);
    EXPECT_EQ(m_values.minSize, 16384);
}

/// A missing expiry, and each missing threshold, keeps its value.
TEST_F(ConfigDocumentTest, EachMissingThresholdKeepsItsValue) {
    parse(R"({"upload_events": {"max-delay": 1, "max-size": 2, "min-size": 3}})");
    parse(R"({"upload_events": {"max-size": 20}})");
    EXPECT_EQ(m_values.maxDelay, 1);
    EXPECT_EQ(m_values.maxSize, 20);
    EXPECT_EQ(m_values.minSize, 3);
    parse(R"({"upload_events": {"max-delay": 10, "max-size": "x", "min-size": 1.5}})");
    EXPECT_EQ(m_values.maxDelay, 10);
    EXPECT_EQ(m_values.maxSize, 20);
    EXPECT_EQ(m_values.minSize, 3);
}

/// Numbers beyond their field are held at its ends.
TEST_F(ConfigDocumentTest, NumbersBeyondTheirFieldAreHeldAtItsEnds) {
    parse(R"({"upload_events": {"max-delay": 5000000000, "max-size": 5000000000,
              "min-size": -5000000000}, "UTC-Time": 99999999999})");
    EXPECT_EQ(m_values.maxDelay, 5000000000);
    EXPECT_EQ(m_values.maxSize, 2147483647);
    EXPECT_EQ(m_values.minSize, std::numeric_limits<std::int32_t>::min());
    EXPECT_EQ(m_values.utcTime, 2147483647);
}

/// Missing strings of the top level become empty.
TEST_F(ConfigDocumentTest, MissingStringsOfTheTopLevelBecomeEmpty) {
    parse(kDocument);
    parse(R"({"firehose_stream": 5})");
    EXPECT_EQ(m_values.firehoseEndpoint, "");
    EXPECT_EQ(m_values.firehoseStream, "");
    EXPECT_EQ(m_values.s3Endpoint, "");
    EXPECT_EQ(m_values.s3Bucket, "");
    EXPECT_EQ(m_values.lastModified, "");
}

/// A document without credentials keeps them.
TEST_F(ConfigDocumentTest, ADocumentWithoutCredentialsKeepsThem) {
    parse(kDocument);
    parse("{}");
    EXPECT_EQ(m_values.iv, "0a");
    EXPECT_EQ(m_values.accessKeyId, "0b");
    EXPECT_EQ(m_values.secretAccessKey, "0c");
    EXPECT_EQ(m_values.sessionToken, "0d");
    parse(R"({"credentials": "none"})");
    EXPECT_EQ(m_values.accessKeyId, "0b");
}

/// A document without credentials keeps them.
TEST_F(ConfigDocumentTest, NewCredentialsWithoutATokenHaveNone) {
    parse(kDocument);
    parse(R"({"credentials": {"iv": "1a", "AccessKeyId": "1b", "SecretAccessKey": "1c"}})");
    EXPECT_EQ(m_values.iv, "1a");
    EXPECT_EQ(m_values.sessionToken, "");
}

/// A document without filters means no rules.
TEST_F(ConfigDocumentTest, MissingFiltersMeanNoRules) {
    parse(kDocument);
    parse("{}");
    EXPECT_EQ(m_values.eventFilter, "{}");
    EXPECT_EQ(m_values.fileFilter, "{}");
    parse(kDocument);
    parse(R"({"event-filter": "x", "file-filter": null})");
    EXPECT_EQ(m_values.eventFilter, "{}");
    EXPECT_EQ(m_values.fileFilter, "{}");
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigDocumentTest, ParsingWritesOneLineForEachField) {
    const std::string text =
        R"({"version": "2.7", "kiv_tou": true, "expiry_tou": 86400, "event-filter": {"include": []},)"
        R"( "file-filter": {"exclude": []}, "upload_events": {"max-delay": 100, "max-size": 2000,)"
        R"( "min-size": 300}, "firehose_endpoint": "https://fire", "firehose_stream": "stream",)"
        R"( "s3_endpoint": "https://s3", "s3_bucket": "bucket", "Last-Modified": "a date",)"
        R"( "UTC-Time": 1551950000})";
    EXPECT_EQ(linesOf([&] { parse(text); }),
              "tag:  parsing config: " + text +
                  "\n"
                  "tag:  Version is 2.7\n"
                  "tag:  TOU is true\n"
                  "tag:  ExpiryTOU is 86400\n"
                  "tag:  EventFilters is {\"include\": []}\n"
                  "tag:  OOBDataFilters is {\"exclude\": []}\n"
                  "tag:  EventAgeThreshold is 100\n"
                  "tag:  EventMaxSizeThreshold is 2000\n"
                  "tag:  EventMinSizeThreshold is 300\n"
                  "tag:  AWS data is https://fire, stream, https://s3, bucket\n"
                  "tag:  Timestamp data is a date, 1551950000\n");
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigDocumentTest, ParsingSaysFalseForMissingConsent) {
    const std::string lines = linesOf([&] { parse("{}"); });
    EXPECT_NE(lines.find("tag:  Version is \ntag:  TOU is false\n"), std::string::npos) << lines;
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigDocumentTest, ParsesSilentlyWhenNotVerbose) {
    OutputCapture capture;
    parse(kDocument);
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
}

// --- documents ----------------------------------------------------------------------------------

/// The default document holds the defaults, its keys in order, and no time.
TEST_F(ConfigDocumentTest, TheDefaultDocumentHoldsTheDefaults) {
    EXPECT_EQ(
        ConfigDocument::defaultDocument().dumpAsString(),
        R"({"kiv_tou": false, "version": "1.0", "expiry_tou": 600, "event-filter": {}, )"
        R"("file-filter": {}, "upload_events": {"max-delay": 3500, "min-size": 16384, )"
        R"("max-size": 131072}, "firehose_endpoint": ")" +
            Services::defaultFirehoseEndpoint() +
            R"(", "firehose_stream": "kiv-eventsrc-stream-test", "s3_endpoint": ")" +
            Services::defaultS3Endpoint() +
            R"(", "s3_bucket": "norvane-ddump/kiv-test", "Last-Modified": "", "UTC-Time": 0})");
}

/// The default document gives back the default values.
TEST_F(ConfigDocumentTest, TheDefaultDocumentGivesBackTheDefaultValues) {
    parse(kDocument);
    ConfigDocument::parse(ConfigDocument::defaultDocument(), m_values, m_log);
    const ConfigDocument::Values defaults;
    EXPECT_EQ(m_values.touAccepted, defaults.touAccepted);
    EXPECT_EQ(m_values.expiryTou, defaults.expiryTou);
    EXPECT_EQ(m_values.eventFilter, defaults.eventFilter);
    EXPECT_EQ(m_values.fileFilter, defaults.fileFilter);
    EXPECT_EQ(m_values.maxDelay, defaults.maxDelay);
    EXPECT_EQ(m_values.maxSize, defaults.maxSize);
    EXPECT_EQ(m_values.minSize, defaults.minSize);
    EXPECT_EQ(m_values.firehoseEndpoint, defaults.firehoseEndpoint);
    EXPECT_EQ(m_values.s3Endpoint, defaults.s3Endpoint);
    EXPECT_EQ(m_values.firehoseStream, defaults.firehoseStream);
    EXPECT_EQ(m_values.s3Bucket, defaults.s3Bucket);
    EXPECT_EQ(m_values.lastModified, defaults.lastModified);
    EXPECT_EQ(m_values.utcTime, defaults.utcTime);
}

/// "message" and "errorMessage" make an error answer, unless they are empty.
TEST_F(ConfigDocumentTest, KnowsAnErrorAnswerByItsMessage) {
    for (const char* text : {R"({"message": "x"})", R"({"errorMessage": "x"})",
                             R"({"message": "", "errorMessage": "x", "kiv_tou": true})"}) {
        EXPECT_TRUE(ConfigDocument::isErrorAnswer(JsonObject::parse(text))) << text;
    }
    for (const char* text : {"{}", R"({"message": "", "errorMessage": ""})", R"({"message": 5})"}) {
        EXPECT_FALSE(ConfigDocument::isErrorAnswer(JsonObject::parse(text))) << text;
    }
}

/// The stamp is the time and the server's date, in place of the server's own.
TEST_F(ConfigDocumentTest, StampsAnAnswerWithTimeAndDate) {
    JsonObject doc = JsonObject::parse(R"({"UTC-Time": "x", "a": 1, "Last-Modified": 5})");
    ConfigDocument::stamp(doc, 1551950000, "a date");
    EXPECT_EQ(doc.dumpAsString(), R"({"UTC-Time": 1551950000, "a": 1, "Last-Modified": "a date"})");
}

/// An object with at least one member of a configuration is one; the version alone, other objects
/// and everything else are not.
TEST(ConfigDocumentAnswerTest, AConfigurationHasAMemberOfOne) {
    for (const char* text :
         {R"({"kiv_tou": false})", R"({"expiry_tou": 1})", R"({"event-filter": {}})",
          R"({"file-filter": null})", R"({"upload_events": 5, "x": 1})",
          R"({"firehose_endpoint": ""})", R"({"firehose_stream": ""})", R"({"s3_endpoint": ""})",
          R"({"s3_bucket": ""})", R"({"credentials": {}})", R"({"UTC-Time": 5})",
          R"({"Last-Modified": ""})"}) {
        EXPECT_TRUE(ConfigDocument::isConfiguration(JsonObject::parse(text))) << text;
    }
    for (const char* text : {"{}", R"({"version": "1.0"})", R"({"login": "here"})",
                             R"({"x": {"kiv_tou": true}})", "[]", R"(["kiv_tou"])", "kiv_tou"}) {
        EXPECT_FALSE(ConfigDocument::isConfiguration(JsonObject::parse(text))) << text;
    }
}

}  // namespace
