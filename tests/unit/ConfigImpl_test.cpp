#include "ConfigImpl.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <cstdio>
#include <ctime>

#include <errno.h>
#include <sys/stat.h>

#include <gmock/gmock.h>

#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "DB.h"
#include "KernelTime.h"
#include "Services.h"
#include "TimeMgrImpl.h"
#include "support/ConfigImplPeer.h"
#include "support/CredentialsPeer.h"
#include "support/DiskFaults.h"
#include "support/FakeCommands.h"
#include "support/KivTest.h"
#include "support/NoDescriptors.h"
#include "support/OutputCapture.h"
#include "support/PoisonedOutput.h"
#include "support/ScriptedHttpServer.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"
#include "support/WaitUntil.h"
#include "support/WallClock.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const char* const kDate = "Thu, 07 Mar 2019 10:15:02 GMT";
constexpr std::int32_t kDateSeconds = 1551953702;
constexpr std::int32_t kNow = 1551950000;  // UTC seconds, about an hour before

/// Gives a time manager a store in a directory of the test's own, and sets its time.
class ConfigImplTest : public KivTest {
  protected:
    using Asked = std::pair<long, bool>;  // delay in ms, force

    void SetUp() override {
        KivTest::SetUp();
        ConfigImpl::SetVerbose(false);
        ConfigImpl::SetRefreshScheduler(
            [this](long delayMs, bool force) { m_asked.emplace_back(delayMs, force); });
        TimeMgrImplPeer::setPipePath(m_dir.file("pipe"));
        m_info->setBootCounts(7, 3);
        m_time->setDBPath(m_dir.file("Db"));
    }
    void TearDown() override {
        m_time->setDBPath("");
        ConfigImpl::SetRefreshScheduler({});
        ConfigImpl::SetVerbose(false);
        TimeMgrImplPeer::setPipePath(TimeMgrImplPeer::productPipe);
        TimeMgrImplPeer::forgetSystemTime();
        KivTest::TearDown();
    }

    /// From now on the time manager says `utcSeconds`, early in that second; 0: no time. Storing
    /// takes its time on a busy disk, so it is done again when too much of the second is gone.
    void setNow(std::int64_t utcSeconds) {
        for (int attempt = 0; attempt < 20; ++attempt) {
            m_time->setTime(TimeSourceWeb, TimeReference(), 0);
            if (utcSeconds == 0) return;
            m_time->setTime(TimeSourceWeb, TimeReference(), utcSeconds * 1000);
            if (m_time->getTime() - utcSeconds * 1000 < 300) return;
        }
    }

    void parse(const std::string& text) { m_config->parseConfig(JsonObject::parse(text)); }

    /// The class's lines on standard output while it is verbose.
    static std::string linesOf(const std::function<void()>& action) {
        ConfigImpl::SetVerbose(true);
        OutputCapture capture;
        action();
        capture.stop();
        ConfigImpl::SetVerbose(false);
        return taggedLines(capture.outWithoutPrefixes(), "kivconfig: ");
    }

    static std::string errorsOf(const std::function<void()>& action) {
        OutputCapture capture;
        action();
        capture.stop();
        EXPECT_EQ(taggedLines(capture.outWithoutPrefixes(), "kivconfig: "), "");
        return taggedLines(capture.errWithoutPrefixes(), "kivconfig: ");
    }

    /// As WaitUntil, without a pause between two looks.
    template <typename Condition>
    static bool WaitUntilBusily(Condition condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
        }
        return true;
    }

    /// Whether one forced refresh was asked for, after `seconds` less the run time of the test.
    ::testing::AssertionResult askedOnceFor(long seconds) const {
        if (m_asked.size() != 1) {
            return ::testing::AssertionFailure() << m_asked.size() << " requests";
        }
        const Asked& asked = m_asked.front();
        if (asked.second && asked.first <= seconds * 1000 && asked.first > (seconds - 30) * 1000) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << asked.first << " ms, force " << asked.second;
    }

    static std::string defaultDocument() {
        return R"({"kiv_tou": false, "version": "1.0", "expiry_tou": 600, "event-filter": {}, )"
               R"("file-filter": {}, "upload_events": {"max-delay": 3500, "min-size": 16384, )"
               R"("max-size": 131072}, "firehose_endpoint": ")" +
               Services::defaultFirehoseEndpoint() +
               R"(", "firehose_stream": "kiv-eventsrc-stream-test", "s3_endpoint": ")" +
               Services::defaultS3Endpoint() +
               R"(", "s3_bucket": "norvane-ddump/kiv-test", "Last-Modified": "", "UTC-Time": 0})";
    }

    TempDir m_dir;
    std::vector<Asked> m_asked;
    Singleton<CGlobalInfoImpl> m_info;
    Singleton<TimeMgrImpl> m_time;
    Config m_config;
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

// --- fields and defaults ------------------------------------------------------------------------

/// Every field starts with its default.
TEST_F(ConfigImplTest, StartsWithTheDefaults) {
    EXPECT_EQ(m_config->GetPath(), "");
    EXPECT_FALSE(m_config->GetTouAccepted());
    EXPECT_EQ(m_config->GetExpiryTou(), 600);
    EXPECT_EQ(m_config->GetEventFilter(), "{}");
    EXPECT_EQ(m_config->GetFileFilter(), "{}");
    EXPECT_EQ(m_config->GetMaxDelay(), 3500);
    EXPECT_EQ(m_config->GetMaxSize(), 131072);
    EXPECT_EQ(m_config->GetMinSize(), 16384);
    EXPECT_EQ(m_config->GetFirehoseEndpoint(), Services::defaultFirehoseEndpoint());
    EXPECT_EQ(m_config->GetS3Endpoint(), Services::defaultS3Endpoint());
    EXPECT_EQ(m_config->GetFirehoseStream(), "kiv-eventsrc-stream-test");
    EXPECT_EQ(m_config->GetS3Bucket(), "norvane-ddump/kiv-test");
    EXPECT_EQ(m_config->GetIV(), "");
    EXPECT_EQ(m_config->GetAccessKeyId(), "");
    EXPECT_EQ(m_config->GetSecretAccessKey(), "");
    EXPECT_EQ(m_config->GetSessionToken(), "");
    EXPECT_EQ(m_config->GetLastModified(), "");
    EXPECT_EQ(m_config->GetUtcTime(), 0);
    EXPECT_EQ(m_config->GetLastAttempt(), 0);
    EXPECT_FALSE(m_config->IsValid());
}

/// Every field of a document is taken.
TEST_F(ConfigImplTest, TakesEveryFieldOfADocument) {
    parse(kDocument);
    EXPECT_TRUE(m_config->GetTouAccepted());
    EXPECT_EQ(m_config->GetExpiryTou(), 86400);
    EXPECT_EQ(m_config->GetEventFilter(), R"({"include": [{"event-type": "a"}]})");
    EXPECT_EQ(m_config->GetFileFilter(), R"({"exclude": []})");
    EXPECT_EQ(m_config->GetMaxDelay(), 100);
    EXPECT_EQ(m_config->GetMaxSize(), 2000);
    EXPECT_EQ(m_config->GetMinSize(), 300);
    EXPECT_EQ(m_config->GetFirehoseEndpoint(), "https://fire");
    EXPECT_EQ(m_config->GetFirehoseStream(), "stream");
    EXPECT_EQ(m_config->GetS3Endpoint(), "https://s3");
    EXPECT_EQ(m_config->GetS3Bucket(), "bucket/dir");
    EXPECT_EQ(m_config->GetIV(), "0a");
    EXPECT_EQ(m_config->GetAccessKeyId(), "0b");
    EXPECT_EQ(m_config->GetSecretAccessKey(), "0c");
    EXPECT_EQ(m_config->GetSessionToken(), "0d");
    EXPECT_EQ(m_config->GetLastModified(), "a date");
    EXPECT_EQ(m_config->GetUtcTime(), 1551950000);
    EXPECT_TRUE(m_config->IsValid());
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigImplTest, ParsingWritesOneLineForEachField) {
    const std::string text =
        R"({"version": "2.7", "kiv_tou": true, "expiry_tou": 86400, "event-filter": {"include": []},)"
        R"( "file-filter": {"exclude": []}, "upload_events": {"max-delay": 100, "max-size": 2000,)"
        R"( "min-size": 300}, "firehose_endpoint": "https://fire", "firehose_stream": "stream",)"
        R"( "s3_endpoint": "https://s3", "s3_bucket": "bucket", "Last-Modified": "a date",)"
        R"( "UTC-Time": 1551950000})";
    EXPECT_EQ(linesOf([&] { parse(text); }),
              "kivconfig:  parsing config: " + text +
                  "\n"
                  "kivconfig:  Version is 2.7\n"
                  "kivconfig:  TOU is true\n"
                  "kivconfig:  ExpiryTOU is 86400\n"
                  "kivconfig:  EventFilters is {\"include\": []}\n"
                  "kivconfig:  OOBDataFilters is {\"exclude\": []}\n"
                  "kivconfig:  EventAgeThreshold is 100\n"
                  "kivconfig:  EventMaxSizeThreshold is 2000\n"
                  "kivconfig:  EventMinSizeThreshold is 300\n"
                  "kivconfig:  AWS data is https://fire, stream, https://s3, bucket\n"
                  "kivconfig:  Timestamp data is a date, 1551950000\n");
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigImplTest, ParsesSilentlyWhenNotVerbose) {
    OutputCapture capture;
    parse(kDocument);
    capture.stop();
    EXPECT_EQ(capture.out(), "");
    EXPECT_EQ(capture.err(), "");
    EXPECT_FALSE(ConfigImpl::GetVerbose());
}

/// Verbose, each field is told in order; otherwise nothing is.
TEST_F(ConfigImplTest, ItsLinesCarryTheDiagnosticPrefix) {
    ConfigImpl::SetVerbose(true);
    OutputCapture capture;
    m_config->isDownloadRequired();
    m_config->MinimumSizeReached(5);
    m_config->Load(m_dir.file("missing/Config"));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.out() + capture.err(), "kivconfig: "), "");
    EXPECT_EQ(prefixedLines(capture.out(), "kivconfig: "),
              taggedLines(capture.outWithoutPrefixes(), "kivconfig: "));
    EXPECT_EQ(prefixedLines(capture.out(), "kivconfig: isDownloadRequired"),
              "kivconfig: isDownloadRequired: IsValid=0 configIsExpired=1\n");
    EXPECT_EQ(prefixedLines(capture.err(), "kivconfig: "),
              "kivconfig: Cannot save persistent config: cannot open " +
                  m_dir.file("missing/Config") + ": No such file or directory\n");
}

// --- the persistent file ------------------------------------------------------------------------

/// A missing or unreadable file is replaced by the default document, its keys in order.
TEST_F(ConfigImplTest, AMissingFileIsReplacedByTheDefaultDocument) {
    const std::string lines = linesOf([this] { m_config->Load(m_dir.file("Config")); });
    EXPECT_EQ(m_dir.read("Config"), defaultDocument());
    EXPECT_EQ(m_config->GetPath(), m_dir.file("Config"));
    EXPECT_EQ(lines.rfind("kivconfig:  persistent config not found, creating default one\n"
                          "kivconfig:  parsing config: " +
                              defaultDocument() + "\n",
                          0),
              0u)
        << lines;
    EXPECT_FALSE(m_config->IsValid());
    EXPECT_EQ(m_config->GetFirehoseEndpoint(), Services::defaultFirehoseEndpoint());
    EXPECT_EQ(m_config->GetS3Bucket(), "norvane-ddump/kiv-test");
}

/// A file that is there and cannot be read now stays as it is. It is read again, 10 s after the
/// last attempt; until it can be, nothing is collected. A line tells of the beginning and the end.
TEST_F(ConfigImplTest, AFileThatCannotBeReadNowIsReadAgain) {
    const std::string stored = R"({"kiv_tou": true, "s3_bucket": "b", "UTC-Time": 5})";
    m_dir.write("Config", stored);
    OutputCapture capture;
    {
        const NoDescriptors none;
        m_config->Load(m_dir.file("Config"));
    }
    EXPECT_TRUE(m_config->storedIsUnread());
    EXPECT_TRUE(m_config->waitsForFiles());
    EXPECT_EQ(m_dir.read("Config"), stored);
    ConfigImplPeer::letTimePass(*m_config, 9000);
    EXPECT_FALSE(m_config->collectionAllowed()) << "too soon";
    ConfigImplPeer::letTimePass(*m_config, 1000);
    EXPECT_TRUE(m_config->collectionAllowed());
    capture.stop();
    EXPECT_EQ(m_config->GetS3Bucket(), "b");
    EXPECT_FALSE(m_config->waitsForFiles());
    EXPECT_EQ(taggedLines(capture.errWithoutPrefixes(), "kivconfig: "),
              "kivconfig: Persistent config cannot be read, nothing is collected until it can: "
              "Too many open files\n");
    EXPECT_EQ(taggedLines(capture.outWithoutPrefixes(), "kivconfig: "),
              "kivconfig: Persistent config can be read again\n");
}

/// A missing or unreadable file is replaced by the default document, its keys in order.
TEST_F(ConfigImplTest, AnUnreadableFileIsReplacedByTheDefaultDocument) {
    for (const char* content : {"", "{\"kiv_tou\": tr", "[1, 2]", "no json"}) {
        m_dir.write("Config", content);
        m_config->Load(m_dir.file("Config"));
        EXPECT_EQ(m_dir.read("Config"), defaultDocument()) << content;
    }
}

/// A readable file is taken over and left alone.
TEST_F(ConfigImplTest, AReadableFileIsTakenOverAndLeftAlone) {
    m_dir.write("Config", kDocument);
    EXPECT_EQ(errorsOf([this] { m_config->Load(m_dir.file("Config")); }), "");
    EXPECT_EQ(m_dir.read("Config"), kDocument);
    EXPECT_TRUE(m_config->GetTouAccepted());
    EXPECT_EQ(m_config->GetSessionToken(), "0d");
    EXPECT_TRUE(m_config->IsValid());
}

/// Saving replaces the whole file in one step and changes no field.
TEST_F(ConfigImplTest, SavingReplacesTheWholeFile) {
    m_config->Load(m_dir.file("Config"));
    m_config->saveConfig(JsonObject::parse(R"({"kiv_tou":true})"));
    EXPECT_EQ(m_dir.read("Config"), R"({"kiv_tou": true})");
    EXPECT_FALSE(m_config->GetTouAccepted());  // saving alone changes no field
    m_config->saveAndParseConfig(JsonObject::parse(R"({"kiv_tou":true,"expiry_tou":5})"));
    EXPECT_EQ(m_dir.read("Config"), R"({"kiv_tou": true, "expiry_tou": 5})");
    EXPECT_TRUE(m_config->GetTouAccepted());
    EXPECT_EQ(m_config->GetExpiryTou(), 5);
}

/// Saving replaces the whole file in one step and changes no field.
TEST_F(ConfigImplTest, SavingReplacesTheFileInOneStep) {
    m_config->Load(m_dir.file("Config"));
    struct stat before {};
    struct stat after {};
    ASSERT_EQ(::stat(m_dir.file("Config").c_str(), &before), 0);
    m_config->saveConfig(JsonObject::parse("{}"));
    ASSERT_EQ(::stat(m_dir.file("Config").c_str(), &after), 0);
    EXPECT_NE(before.st_ino, after.st_ino);
}

/// The replacement survives a power cut, and a write that fails leaves the old file whole.
TEST_F(ConfigImplTest, ReplacesTheFileInOneStepThatSurvivesAPowerCut) {
    m_config->Load(m_dir.write("Config", kDocument));
    const DiskWatch disk;
    m_config->saveConfig(JsonObject::parse("{}"));
    EXPECT_EQ(disk.calls, DiskWatch::safeReplacement());
    EXPECT_EQ(m_dir.read("Config"), "{}");
}

/// The replacement survives a power cut, and a write that fails leaves the old file whole.
TEST_F(ConfigImplTest, KeepsTheOldFileWholeWhenTheNewOneCannotBeWritten) {
    m_config->Load(m_dir.write("Config", kDocument));
    {
        DiskWatch disk;
        disk.fileSyncError = EIO;
        EXPECT_EQ(errorsOf([&] { m_config->saveConfig(JsonObject::parse("{}")); }),
                  "kivconfig: Cannot save persistent config: cannot sync " +
                      m_dir.file(".Config.new") + ": Input/output error\n");
    }
    EXPECT_EQ(m_dir.read("Config"), kDocument);
    EXPECT_FALSE(m_dir.has(".Config.new"));
}

/// No lock is held across request, file write, time setting, callback and scheduling.
TEST_F(ConfigImplTest, ReadersNeedNotWaitForTheWriting) {
    m_config->Load(m_dir.file("Config"));
    const JsonObject doc = JsonObject::parse("{\"filler\": \"" + std::string(4000000, 'x') + "\"}");
    std::atomic<bool> finished{false};
    auto saving = std::async(std::launch::async, [&] {
        while (!finished) m_config->saveAndParseConfig(doc);
    });
    // The new file is beside the old one as long as it is being written.
    EXPECT_TRUE(WaitUntilBusily([&] {
        const std::unique_lock<std::recursive_mutex> lock(ConfigImplPeer::lock(*m_config),
                                                          std::try_to_lock);
        return lock.owns_lock() && m_dir.has(".Config.new");
    }));
    finished = true;
    saving.get();
}

/// A failed write gets a line; the fields are taken all the same.
TEST_F(ConfigImplTest, AFailedWriteGetsAnErrorLineAndTheFieldsAreTakenAllTheSame) {
    const std::string path = m_dir.file("missing/Config");
    EXPECT_EQ(errorsOf([&] { m_config->Load(path); }),
              "kivconfig: Cannot save persistent config: cannot open " + path +
                  ": No such file or directory\n");
    EXPECT_EQ(m_config->GetPath(), path);
    EXPECT_EQ(m_config->GetMaxDelay(), 3500);
}

// --- validity -----------------------------------------------------------------------------------

/// "Last-Modified" or "UTC-Time" makes it valid.
TEST_F(ConfigImplTest, ALastModifiedOrAUtcTimeMakesItValid) {
    EXPECT_FALSE(m_config->IsValid());
    parse(R"({"Last-Modified": "x"})");
    EXPECT_TRUE(m_config->IsValid());
    parse(R"({"Last-Modified": "", "UTC-Time": 1})");
    EXPECT_TRUE(m_config->IsValid());
    parse(R"({"Last-Modified": "", "UTC-Time": 0})");
    EXPECT_FALSE(m_config->IsValid());
}

/// It is expired from "UTC-Time" plus the expiry on, while the time is unknown, and while it is
/// not valid.
TEST_F(ConfigImplTest, IsExpiredOnceItsTimeIsUp) {
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    setNow(kNow);
    EXPECT_FALSE(m_config->configIsExpired());
    setNow(kNow + 900);
    EXPECT_FALSE(m_config->configIsExpired());
    setNow(kNow + 1000);
    EXPECT_TRUE(m_config->configIsExpired());
}

/// It is expired from "UTC-Time" plus the expiry on, while the time is unknown, and while it is
/// not valid.
///
/// The next check is asked for when it expires, else in 600000 ms.
TEST_F(ConfigImplTest, IsExpiredWhileTheTimeIsUnknown) {
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    EXPECT_TRUE(m_config->configIsExpired());
    m_config->scheduleExpiryCheck();
    EXPECT_THAT(m_asked, ElementsAre(Asked(600000, true)));
}

/// It is expired from "UTC-Time" plus the expiry on, while the time is unknown, and while it is
/// not valid.
TEST_F(ConfigImplTest, IsExpiredWhileItIsNotValid) {
    setNow(kNow);
    EXPECT_TRUE(m_config->configIsExpired());
}

/// A configuration that is dated ahead of a known time is expired, and the next check is asked for
/// in 600000 ms.
TEST_F(ConfigImplTest, IsExpiredWhenItIsDatedAhead) {
    setNow(kNow);
    for (const char* text : {R"({"expiry_tou": 600, "UTC-Time": 1551951000})",
                             R"({"expiry_tou": 9223372036854775807, "UTC-Time": 1802414000})",
                             R"({"expiry_tou": 600, "UTC-Time": 9223372036854775807})"}) {
        m_asked.clear();
        parse(text);
        EXPECT_TRUE(m_config->configIsExpired()) << text;
        EXPECT_TRUE(m_config->isDownloadRequired()) << text;
        m_config->scheduleExpiryCheck();
        EXPECT_THAT(m_asked, ElementsAre(Asked(600000, true))) << text;
    }
}

/// An event may be kept while the server has consent on record and the user has not said no.
TEST_F(ConfigImplTest, CollectionIsAllowedByTheServerUnlessTheUserHasSaidNo) {
    const Singleton<CTouImpl> tou;
    const OutputCapture quiet;
    const auto allowedWith = [&](const char* answer) {
        m_dir.write("current_tou.txt", answer);
        tou->Load(m_dir.path() + "/");
        return m_config->collectionAllowed();
    };
    tou->Load(m_dir.path() + "/");
    EXPECT_FALSE(m_config->collectionAllowed()) << "neither has spoken";
    parse(R"({"kiv_tou": true})");
    EXPECT_TRUE(m_config->collectionAllowed()) << "the server alone";
    EXPECT_TRUE(allowedWith("CUL-TOU 2 TRUE"));
    for (const char* no : {"CUL-TOU 2 FALSE", "CUL-TOU 2 true", "CUL-TOU 0 TRUE", "CUL-TOU", ""}) {
        EXPECT_FALSE(allowedWith(no)) << no;
    }
    m_dir.write("tou_server_answer.txt", R"({"version": 3, "url": "u", "mandatory": true})");
    EXPECT_FALSE(allowedWith("CUL-TOU 2 TRUE")) << "a newer version must be accepted first";
    EXPECT_TRUE(allowedWith("CUL-TOU 3 TRUE"));
    parse(R"({"kiv_tou": false})");
    EXPECT_FALSE(m_config->collectionAllowed());
}

/// It is expired from "UTC-Time" plus the expiry on, while the time is unknown, and while it is
/// not valid.
TEST_F(ConfigImplTest, SurvivesExpiriesOfAnySize) {
    setNow(kNow);
    parse(R"({"expiry_tou": 9223372036854775807, "UTC-Time": 1551950000})");
    EXPECT_FALSE(m_config->configIsExpired());
    m_config->scheduleExpiryCheck();
    EXPECT_THAT(m_asked, ElementsAre(Asked(2147483647, true)));
    parse(R"({"expiry_tou": -9223372036854775808, "UTC-Time": 1551950000})");
    EXPECT_TRUE(m_config->configIsExpired());
}

/// Verbose, it says why a download is required.
TEST_F(ConfigImplTest, SaysWhyADownloadIsRequired) {
    setNow(kNow);
    EXPECT_EQ(linesOf([this] { EXPECT_TRUE(m_config->isDownloadRequired()); }),
              "kivconfig: isDownloadRequired: IsValid=0 configIsExpired=1\n");
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    EXPECT_EQ(linesOf([this] { EXPECT_FALSE(m_config->isDownloadRequired()); }),
              "kivconfig: isDownloadRequired: IsValid=1 configIsExpired=0\n");
    parse(R"({"expiry_tou": 0, "UTC-Time": 1551950000})");
    EXPECT_EQ(linesOf([this] { EXPECT_TRUE(m_config->isDownloadRequired()); }),
              "kivconfig: isDownloadRequired: IsValid=1 configIsExpired=1\n");
}

/// The next check is asked for when it expires, else in 600000 ms.
TEST_F(ConfigImplTest, AsksForTheCheckWhenItExpires) {
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    setNow(kNow + 700);
    m_config->scheduleExpiryCheck();
    EXPECT_THAT(m_asked, ElementsAre(Asked(300000, true)));
}

/// The next check is asked for when it expires, else in 600000 ms.
TEST_F(ConfigImplTest, AsksForTheCheckInTenMinutesWhenItIsExpiredOrNotValid) {
    setNow(kNow);
    m_config->scheduleExpiryCheck();
    parse(R"({"expiry_tou": 0, "UTC-Time": 1551950000})");
    m_config->scheduleExpiryCheck();
    EXPECT_THAT(m_asked, ElementsAre(Asked(600000, true), Asked(600000, true)));
}

/// Delays stay within 1 and 2147483647 ms; without a scheduler nothing is asked for.
TEST_F(ConfigImplTest, DelaysAreHeldWithinOneAndTheLargest32BitNumber) {
    ConfigImplPeer::scheduleRefresh(0, true);
    ConfigImplPeer::scheduleRefresh(-5, false);
    ConfigImplPeer::scheduleRefresh(3000000000LL, true);
    EXPECT_THAT(m_asked, ElementsAre(Asked(1, true), Asked(1, false), Asked(2147483647, true)));
}

/// Delays stay within 1 and 2147483647 ms; without a scheduler nothing is asked for.
TEST_F(ConfigImplTest, WithoutASchedulerNothingIsAskedFor) {
    ConfigImpl::SetRefreshScheduler({});
    m_config->scheduleExpiryCheck();
    EXPECT_THAT(m_asked, IsEmpty());
}

/// Delays stay within 1 and 2147483647 ms; without a scheduler nothing is asked for.
TEST_F(ConfigImplTest, AnotherSchedulerWaitsForTheRunningCall) {
    std::future<void> replacing;
    std::atomic<bool> replaced{false};
    ConfigImpl::SetRefreshScheduler([&](long, bool) {
        std::promise<void> begins;
        replacing = std::async(std::launch::async, [&replaced, &begins] {
            begins.set_value();
            ConfigImpl::SetRefreshScheduler({});
            replaced = true;
        });
        begins.get_future().wait();
        EXPECT_FALSE(WaitUntil([&] { return replaced.load(); }, std::chrono::milliseconds(200)));
    });
    m_config->scheduleExpiryCheck();
    replacing.get();
    EXPECT_TRUE(replaced);
    m_config->scheduleExpiryCheck();  // nobody is left to be asked
    EXPECT_FALSE(replacing.valid());
}

/// The minimum size is reached strictly above it.
TEST_F(ConfigImplTest, TheMinimumSizeIsReachedStrictlyAboveIt) {
    EXPECT_EQ(linesOf([this] {
                  EXPECT_FALSE(m_config->MinimumSizeReached(16384));
                  EXPECT_TRUE(m_config->MinimumSizeReached(16385));
                  EXPECT_FALSE(m_config->MinimumSizeReached(-1));
              }),
              "kivconfig:  DBsize(16384) vs MinimumSizeThreshold(16384)\n"
              "kivconfig:  DBsize(16385) vs MinimumSizeThreshold(16384)\n"
              "kivconfig:  DBsize(-1) vs MinimumSizeThreshold(16384)\n");
    EXPECT_EQ(errorsOf([this] { m_config->MinimumSizeReached(5); }), "");
}

// --- least time between attempts ----------------------------------------------------------------

/// An attempt less than 600 s ago refuses the next, forced too, and asks for the rest of the
/// wait.
TEST_F(ConfigImplTest, AnAttemptLessThanTenMinutesAgoRefuses) {
    ConfigImplPeer::setLastAttempt(*m_config, kNow);
    EXPECT_TRUE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow));
    EXPECT_TRUE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow + 599));
    EXPECT_THAT(m_asked, ElementsAre(Asked(600000, true), Asked(1000, true)));
}

/// An attempt 600 s ago, or in the future, does not refuse.
TEST_F(ConfigImplTest, AnAttemptTenMinutesAgoOrInTheFutureDoesNotRefuse) {
    ConfigImplPeer::setLastAttempt(*m_config, kNow);
    EXPECT_FALSE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow + 600));
    EXPECT_FALSE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow - 1));
    EXPECT_THAT(m_asked, IsEmpty());
}

/// Without a known time the monotonic clock serves the same rule.
TEST_F(ConfigImplTest, WithoutATimeTheMonotonicClockServesTheRule) {
    EXPECT_FALSE(ConfigImplPeer::attemptIsTooRecent(*m_config, 0));  // there was no attempt
    std::int64_t& stamp = ConfigImplPeer::lastAttemptKernelMs(*m_config);
    stamp = KernelTime::getTimeMonotonicAsInt64() - 100500;
    EXPECT_TRUE(ConfigImplPeer::attemptIsTooRecent(*m_config, 0));
    EXPECT_TRUE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow));  // the attempt's is unknown
    EXPECT_THAT(m_asked, ElementsAre(Asked(500000, true), Asked(500000, true)));
    stamp = KernelTime::getTimeMonotonicAsInt64() - 600000;
    EXPECT_FALSE(ConfigImplPeer::attemptIsTooRecent(*m_config, 0));
}

/// An attempt that seems to lie ahead is judged by the monotonic clock.
TEST_F(ConfigImplTest, AnAttemptAheadIsJudgedByTheMonotonicClock) {
    ConfigImplPeer::setLastAttempt(*m_config, kNow + 50);
    ConfigImplPeer::lastAttemptKernelMs(*m_config) = KernelTime::getTimeMonotonicAsInt64() - 100500;
    EXPECT_TRUE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow));
    EXPECT_THAT(m_asked, ElementsAre(Asked(500000, true)));
    ConfigImplPeer::lastAttemptKernelMs(*m_config) -= 500000;
    EXPECT_FALSE(ConfigImplPeer::attemptIsTooRecent(*m_config, kNow));
}

// --- refreshing ---------------------------------------------------------------------------------

class ConfigRefreshTest : public ConfigImplTest {
  protected:
    void SetUp() override {
        ConfigImplTest::SetUp();
        m_info->Load(m_dir.write("GlobalInfo",
                                 R"({"deviceid": "set-1", "ufversion": "sw9", "serial": "s5",
                                     "builddate": "UTC time=20180101 00:00:00="})"));
        m_dir.write("current_tou.txt", "CUL-TOU 3 TRUE\n");
        m_tou->Load(m_dir.path() + "/");
        m_config->Load(m_dir.file("Config"));
        m_answer.headers = {{"Date", kDate}};
        m_answer.body = R"({"kiv_tou": true, "expiry_tou": 3600, "s3_bucket": "b"})";
        m_server = std::make_unique<ScriptedHttpServer>([this](const ScriptedHttpServer::Request&) {
            if (m_whileServing) m_whileServing();
            return m_answer;
        });
        CredentialsPeer::setConfigUrl(m_server->url("/config/"));
        CredentialsPeer::setApiKey("the-key");
        setNow(kNow);
    }
    void TearDown() override {
        CredentialsPeer::putBack();
        ConfigImplTest::TearDown();
    }

    /// Refreshes, and says which lines the class wrote on standard error.
    std::string refreshErrors(bool force, bool expected) {
        return errorsOf([&] { EXPECT_EQ(m_config->Refresh(force), expected); });
    }
    std::string refreshLines(bool force, bool expected) {
        return linesOf([&] { EXPECT_EQ(m_config->Refresh(force), expected); });
    }
    bool refresh(bool force) {
        OutputCapture quiet;
        return m_config->Refresh(force);
    }
    std::size_t requests() const { return m_server->requests().size(); }

    /// The stamp is the time manager's, which runs on while the answer is stored.
    bool isStampedWith(std::int32_t utcSeconds) const {
        const std::int32_t late = m_config->GetUtcTime() - utcSeconds;
        return late >= 0 && late < 10;
    }
    /// The answer of SetUp as it is stored.
    std::string stampedDocument() const {
        return R"({"kiv_tou": true, "expiry_tou": 3600, "s3_bucket": "b", "UTC-Time": )" +
               std::to_string(m_config->GetUtcTime()) +
               R"(, "Last-Modified": "Thu, 07 Mar 2019 10:15:02 GMT"})";
    }

    /// Whether another thread could take the configuration's lock now.
    bool lockIsFree() {
        return std::async(std::launch::async,
                          [this] {
                              std::unique_lock<std::recursive_mutex> lock(
                                  ConfigImplPeer::lock(*m_config), std::try_to_lock);
                              return lock.owns_lock();
                          })
            .get();
    }

    Singleton<CTouImpl> m_tou;
    ScriptedHttpServer::Response m_answer;
    std::function<void()> m_whileServing;
    std::unique_ptr<ScriptedHttpServer> m_server;
};

/// A good answer is stamped with time and Date, saved and taken over.
TEST_F(ConfigRefreshTest, TakesTheAnswerOverAndSavesItStamped) {
    EXPECT_EQ(refreshErrors(false, true), "");
    EXPECT_TRUE(m_config->GetTouAccepted());
    EXPECT_EQ(m_config->GetExpiryTou(), 3600);
    EXPECT_EQ(m_config->GetS3Bucket(), "b");
    EXPECT_EQ(m_config->GetLastModified(), kDate);
    EXPECT_TRUE(isStampedWith(kDateSeconds));
    EXPECT_EQ(m_config->GetLastAttempt(), kDateSeconds);
    EXPECT_EQ(m_dir.read("Config"), stampedDocument());
    EXPECT_TRUE(askedOnceFor(3600));
}

/// An acceptable Date sets web time; another is not stored and leaves the time.
TEST_F(ConfigRefreshTest, SetsWebTimeFromTheAnswer) {
    EXPECT_TRUE(refresh(false));
    const std::int64_t now = m_time->getTime(TimeSourceWeb, TimeReference());
    EXPECT_GE(now, kDateSeconds * std::int64_t{1000});
    EXPECT_LT(now, (kDateSeconds + 30) * std::int64_t{1000});
}

/// The request names the device and carries key and device headers.
TEST_F(ConfigRefreshTest, SendsTheDeviceTheKeyAndTheDeviceHeaders) {
    EXPECT_TRUE(refresh(false));
    ASSERT_EQ(requests(), 1u);
    const ScriptedHttpServer::Request request = m_server->requests().front();
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/config/set-1");
    EXPECT_EQ(request.header("x-api-key"), "the-key");
    EXPECT_EQ(request.header("X-swversion"), "sw9");
    EXPECT_EQ(request.header("X-serial"), "s5");
    EXPECT_EQ(request.header("X-currentTou"), "3");
}

/// Verbose, the refresh is told, the line on the server's date without prefix.
TEST_F(ConfigRefreshTest, SaysWhatItDoes) {
    const std::string lines = refreshLines(true, true);
    EXPECT_TRUE(isStampedWith(kDateSeconds));
    EXPECT_EQ(lines,
              "kivconfig:  trying to load config from server... force=1\n"
              "kivconfig:  Setting time from the date received from server being:  "
              "Thu, 07 Mar 2019 10:15:02 GMT\n"
              "kivconfig:  parsing config: " +
                  stampedDocument() +
                  "\n"
                  "kivconfig:  Version is \n"
                  "kivconfig:  TOU is true\n"
                  "kivconfig:  ExpiryTOU is 3600\n"
                  "kivconfig:  EventFilters is {}\n"
                  "kivconfig:  OOBDataFilters is {}\n"
                  "kivconfig:  EventAgeThreshold is 3500\n"
                  "kivconfig:  EventMaxSizeThreshold is 131072\n"
                  "kivconfig:  EventMinSizeThreshold is 16384\n"
                  "kivconfig:  AWS data is , , , b\n"
                  "kivconfig:  Timestamp data is Thu, 07 Mar 2019 10:15:02 GMT, " +
                  std::to_string(m_config->GetUtcTime()) + "\n");
}

/// Verbose, the refresh is told, the line on the server's date without prefix.
TEST_F(ConfigRefreshTest, TheLineOnTheServersDateHasNoDiagnosticPrefix) {
    ConfigImpl::SetVerbose(true);
    OutputCapture capture;
    EXPECT_TRUE(m_config->Refresh(true));
    capture.stop();
    EXPECT_EQ(taggedLines(capture.out(), "kivconfig: "),
              "kivconfig:  Setting time from the date received from server being:  "
              "Thu, 07 Mar 2019 10:15:02 GMT\n");
    EXPECT_EQ(prefixedLines(capture.out(), "kivconfig:  trying"),
              "kivconfig:  trying to load config from server... force=1\n");
}

/// Verbose, the refresh is told, the line on the server's date without prefix.
TEST_F(ConfigRefreshTest, AsksForTheUrlAndThenForTheKey) {
    Credentials().getTouUrl();  // the environment is chosen, and not spoken of again
    Credentials::SetVerbose(true);
    OutputCapture capture;
    EXPECT_TRUE(m_config->Refresh(true));
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "credentials:"),
              "credentials: Returning Config file URL for Release\n"
              "credentials: Returning Lambda key for Release\n");
}

/// An unforced refresh of a current configuration asks nobody and is true; a forced one asks.
TEST_F(ConfigRefreshTest, AnUnforcedRefreshOfACurrentConfigurationAsksNobody) {
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    EXPECT_TRUE(refresh(false));
    EXPECT_EQ(requests(), 0u);
    EXPECT_TRUE(askedOnceFor(1000));
}

/// An unforced refresh of a current configuration asks nobody and is true; a forced one asks.
TEST_F(ConfigRefreshTest, AForcedRefreshAsksAllTheSame) {
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551950000})");
    EXPECT_TRUE(refresh(true));
    EXPECT_EQ(requests(), 1u);
}

/// Without a device identifier nothing is asked: " DeviceId is empty".
TEST_F(ConfigRefreshTest, WithoutADeviceIdNothingIsAsked) {
    m_info->Load(m_dir.write("GlobalInfo", R"({"deviceid": ""})"));
    EXPECT_EQ(refreshLines(true, false), "kivconfig:  DeviceId is empty\n");
    EXPECT_EQ(refreshErrors(true, false), "");
    EXPECT_EQ(requests(), 0u);
    EXPECT_THAT(m_asked, IsEmpty());
}

/// An attempt less than 600 s ago refuses the next, forced too, and asks for the rest of the
/// wait.
TEST_F(ConfigRefreshTest, ASecondForcedRefreshWithinTenMinutesIsRefused) {
    ConfigImplPeer::setLastAttempt(*m_config, kNow - 100);
    const std::string lines = refreshLines(true, false);
    EXPECT_EQ(lines,
              "kivconfig: Last request was too recent : time = 1551950000 last Attempt "
              "1551949900\n");
    EXPECT_EQ(requests(), 0u);
    EXPECT_TRUE(askedOnceFor(500));
    EXPECT_EQ(m_config->GetLastAttempt(), kNow - 100);
}

/// Without a device identifier nothing is asked: " DeviceId is empty".
TEST_F(ConfigRefreshTest, AMissingDeviceIdIsSeenBeforeARecentAttempt) {
    m_info->Load(m_dir.write("GlobalInfo", R"({"deviceid": ""})"));
    ConfigImplPeer::setLastAttempt(*m_config, kNow - 100);
    EXPECT_EQ(refreshLines(true, false), "kivconfig:  DeviceId is empty\n");
    EXPECT_THAT(m_asked, IsEmpty());
}

/// Without the user's answer nothing is asked: "Tou does not exist, Retry later"; a refused
/// refresh does not look for it.
TEST_F(ConfigRefreshTest, ARefusedRefreshDoesNotReadTheTermsOfUse) {
    ::remove(m_dir.file("current_tou.txt").c_str());
    OutputCapture quiet;
    m_tou->Load(m_dir.path() + "/");
    m_dir.write("current_tou.txt", "CUL-TOU 4 TRUE\n");
    ConfigImplPeer::setLastAttempt(*m_config, kNow - 100);
    EXPECT_FALSE(m_config->Refresh(true));
    EXPECT_EQ(m_tou->getVersion(), 0);
    ConfigImplPeer::setLastAttempt(*m_config, 0);
    EXPECT_TRUE(m_config->Refresh(true));
    EXPECT_EQ(m_tou->getVersion(), 4);
}

/// An attempt less than 600 s ago refuses the next, forced too, and asks for the rest of the
/// wait.
TEST_F(ConfigRefreshTest, TwoForcedRefreshesInARowMakeOneRequest) {
    EXPECT_TRUE(refresh(true));
    m_asked.clear();
    EXPECT_FALSE(refresh(true));
    EXPECT_EQ(requests(), 1u);
    EXPECT_TRUE(askedOnceFor(600));
}

/// Without a known time the monotonic clock serves the same rule.
TEST_F(ConfigRefreshTest, AFailureWithTheTimeUnknownIsNotRepeatedAtOnce) {
    setNow(0);
    m_answer.closeWithoutAnswer = true;
    EXPECT_FALSE(refresh(true));
    const std::size_t asked = requests();
    EXPECT_GE(asked, 1u);
    EXPECT_EQ(m_config->GetLastAttempt(), 0);
    EXPECT_EQ(refreshLines(true, false),
              "kivconfig: Last request was too recent : time = 0 last Attempt 0\n");
    EXPECT_EQ(requests(), asked);
    ConfigImplPeer::lastAttemptKernelMs(*m_config) -= 600000;
    EXPECT_FALSE(refresh(true));
    EXPECT_GT(requests(), asked);
}

/// Without the user's answer nothing is asked: "Tou does not exist, Retry later"; a refused
/// refresh does not look for it.
TEST_F(ConfigRefreshTest, WithoutTermsOfUseNothingIsAsked) {
    ::remove(m_dir.file("current_tou.txt").c_str());
    OutputCapture quiet;
    m_tou->Load(m_dir.path() + "/");
    quiet.stop();
    EXPECT_EQ(refreshErrors(false, false), "kivconfig: Tou does not exist, Retry later\n");
    EXPECT_EQ(requests(), 0u);
    EXPECT_NEAR(m_config->GetLastAttempt(), kNow, 10);
    EXPECT_TRUE(askedOnceFor(600));
}

/// While the user's answer cannot be read the server is not asked, which would take that for a no.
/// The next look is asked for in 10 s, and counts as the first attempt.
TEST_F(ConfigRefreshTest, WithAnAnswerThatCannotBeReadNothingIsAsked) {
    ::remove(m_dir.file("current_tou.txt").c_str());
    std::filesystem::create_symlink("/proc/self/mem", m_dir.file("current_tou.txt"));
    OutputCapture quiet;
    m_tou->Load(m_dir.path() + "/");
    quiet.stop();
    EXPECT_EQ(refreshErrors(false, false), "");
    EXPECT_EQ(requests(), 0u);
    EXPECT_EQ(m_config->GetLastAttempt(), 0);
    EXPECT_THAT(m_asked, ElementsAre(Asked(10000, true)));
    ::remove(m_dir.file("current_tou.txt").c_str());
    m_dir.write("current_tou.txt", "CUL-TOU 3 TRUE");
    EXPECT_TRUE(refresh(false));
    ASSERT_EQ(requests(), 1u);
    EXPECT_EQ(m_server->requests()[0].header("X-currentTou"), "3");
}

/// An answer of the server takes the place of a stored file that could not be read, for good.
TEST_F(ConfigRefreshTest, AnAnswerReplacesAFileThatCouldNotBeRead) {
    ::remove(m_dir.file("Config").c_str());
    std::filesystem::create_symlink("/proc/self/mem", m_dir.file("Config"));
    OutputCapture quiet;
    m_config->Load(m_dir.file("Config"));
    EXPECT_TRUE(m_config->storedIsUnread());
    ::remove(m_dir.file("Config").c_str());
    EXPECT_TRUE(m_config->Refresh(false));
    quiet.stop();
    EXPECT_FALSE(m_config->storedIsUnread());
    EXPECT_TRUE(m_config->GetTouAccepted());
    EXPECT_EQ(m_dir.read("Config"), stampedDocument());
}

/// A failed request: "Config could not be retrieved from server", the configuration as it was,
/// the attempt noted, the check asked for.
TEST_F(ConfigRefreshTest, AFailedRequestLeavesTheConfigurationUntouched) {
    m_answer.closeWithoutAnswer = true;
    const std::string file = m_dir.read("Config");
    EXPECT_EQ(refreshErrors(false, false),
              "kivconfig: Config could not be retrieved from server\n");
    EXPECT_EQ(m_dir.read("Config"), file);
    EXPECT_FALSE(m_config->IsValid());
    EXPECT_NEAR(m_config->GetLastAttempt(), kNow, 10);
    EXPECT_TRUE(askedOnceFor(600));
}

/// A body that is not a JSON object: "Invalid Config JSON object received: " and the same.
TEST_F(ConfigRefreshTest, ABodyThatIsNotAJsonObjectLeavesTheConfigurationUntouched) {
    for (const char* body : {"<html>", "", "[1, 2]", "{\"kiv_tou\": true", "17", "null"}) {
        m_asked.clear();
        ConfigImplPeer::setLastAttempt(*m_config, 0);
        ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
        m_answer.body = body;
        const std::string file = m_dir.read("Config");
        EXPECT_EQ(refreshErrors(false, false),
                  std::string("kivconfig: Invalid Config JSON object received: ") + body + "\n");
        EXPECT_EQ(m_dir.read("Config"), file);
        EXPECT_FALSE(m_config->IsValid());
        EXPECT_NEAR(m_config->GetLastAttempt(), kNow, 10);
        EXPECT_TRUE(askedOnceFor(600));
    }
}

/// An error answer moves only the configuration's time and is true; an answer with empty messages
/// is not an error.
TEST_F(ConfigRefreshTest, AnErrorAnswerMovesOnlyTheTimeOfTheConfiguration) {
    for (const char* body : {R"({"errorMessage": "x", "kiv_tou": false, "event-filter": {"a": 1}})",
                             R"({"message": "Forbidden", "kiv_tou": false})"}) {
        m_asked.clear();
        ConfigImplPeer::setLastAttempt(*m_config, 0);
        ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
        m_config->saveAndParseConfig(JsonObject::parse(kDocument));
        const std::string file = m_dir.read("Config");
        m_answer.body = body;
        EXPECT_EQ(refreshErrors(true, true), "");
        EXPECT_EQ(m_dir.read("Config"), file);
        EXPECT_TRUE(m_config->GetTouAccepted());
        EXPECT_EQ(m_config->GetEventFilter(), R"({"include": [{"event-type": "a"}]})");
        EXPECT_EQ(m_config->GetLastModified(), "a date");
        EXPECT_EQ(m_config->GetUtcTime(), kDateSeconds);
        EXPECT_EQ(m_config->GetLastAttempt(), kDateSeconds);
        EXPECT_TRUE(askedOnceFor(86400));
    }
}

/// An error answer moves only the configuration's time and is true; an answer with empty messages
/// is not an error.
TEST_F(ConfigRefreshTest, EmptyMessagesAreNoErrorAnswer) {
    m_answer.body = R"({"message": "", "errorMessage": "", "kiv_tou": true})";
    EXPECT_TRUE(refresh(false));
    EXPECT_TRUE(m_config->GetTouAccepted());
}

/// An answer with another HTTP status than 200 to 299 is a failed request, a message in it or not:
/// nothing counts as fresh, and its Date is not taken.
TEST_F(ConfigRefreshTest, AnHttpErrorWithAMessageIsAFailedRequest) {
    const std::int32_t before = m_config->GetUtcTime();
    for (const int status : {403, 429, 503}) {
        m_asked.clear();
        ConfigImplPeer::setLastAttempt(*m_config, 0);
        ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
        m_answer.status = status;
        m_answer.body = R"({"message": "Service Unavailable"})";
        EXPECT_EQ(refreshErrors(false, false),
                  "kivconfig: Config could not be retrieved from server\n");
        EXPECT_EQ(m_config->GetUtcTime(), before);
        EXPECT_TRUE(askedOnceFor(600));
    }
    EXPECT_NEAR(static_cast<double>(m_time->getTime()) / 1000, kNow, 60);
}

/// An error answer of a server whose clock is a little ahead does not date the configuration ahead.
TEST_F(ConfigRefreshTest, AnErrorAnswerDoesNotDateTheConfigurationAhead) {
    setNow(kDateSeconds - 50);  // so near that the known time stays
    m_answer.body = R"({"errorMessage": "x"})";
    EXPECT_TRUE(refresh(true));
    EXPECT_NEAR(m_config->GetUtcTime(), kDateSeconds - 50, 10);
    EXPECT_FALSE(m_config->configIsExpired());
    EXPECT_FALSE(refresh(true)) << "too recent";
    EXPECT_EQ(requests(), 1u);
}

/// An attempt that throws counts as one: the next follows 600 s later.
TEST_F(ConfigRefreshTest, AnAttemptThatThrewIsNotRepeatedAtOnce) {
    ConfigImpl::SetVerbose(true);
    {
        const PoisonedOutput output("trying to load config", [] { ConfigImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(m_config->Refresh(true));
    }
    EXPECT_FALSE(refresh(true));
    EXPECT_EQ(requests(), 0u);
    EXPECT_TRUE(askedOnceFor(600));
}

/// An answer with another HTTP status than 200 to 299 is not a configuration.
TEST_F(ConfigRefreshTest, ABadHttpStatusIsAFailedRequest) {
    const std::string file = m_dir.read("Config");
    for (const int status : {302, 400, 404, 500, 503}) {
        for (const std::string& body : {m_answer.body, std::string("<html>")}) {
            m_asked.clear();
            ConfigImplPeer::setLastAttempt(*m_config, 0);
            ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
            ScriptedHttpServer::Response answer = m_answer;
            answer.status = status;
            answer.body = body;
            std::swap(answer, m_answer);
            EXPECT_EQ(refreshErrors(false, false),
                      "kivconfig: Config could not be retrieved from server\n");
            std::swap(answer, m_answer);
            EXPECT_EQ(m_dir.read("Config"), file);
            EXPECT_FALSE(m_config->GetTouAccepted());
            EXPECT_TRUE(askedOnceFor(600));
        }
    }
    EXPECT_NEAR(static_cast<double>(m_time->getTime()) / 1000, kNow, 60) << "the Date is not taken";
}

/// An object without any member of a configuration is none.
TEST_F(ConfigRefreshTest, AnObjectWithoutAKnownMemberIsNoConfiguration) {
    for (const char* body : {"{}", R"({"version": "1.0"})", R"({"login": "http://portal/"})"}) {
        m_asked.clear();
        ConfigImplPeer::setLastAttempt(*m_config, 0);
        ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
        m_config->saveAndParseConfig(JsonObject::parse(kDocument));
        const std::string file = m_dir.read("Config");
        m_answer.body = body;
        EXPECT_EQ(refreshErrors(true, false),
                  std::string("kivconfig: Invalid Config JSON object received: ") + body + "\n");
        EXPECT_EQ(m_dir.read("Config"), file);
        EXPECT_TRUE(m_config->GetTouAccepted());
    }
}

/// Of a long body the line shows the beginning, on one line.
TEST_F(ConfigRefreshTest, ALongBodyIsShownCut) {
    m_answer.body = "<html>\n" + std::string(1000000, 'x');
    EXPECT_EQ(refreshErrors(false, false),
              "kivconfig: Invalid Config JSON object received: <html>\\x0A" +
                  std::string(249, 'x') + "... (1000007 bytes)\n");
}

/// A server's date that 32 bits cannot hold gets a line, and changes no time.
TEST_F(ConfigRefreshTest, ADateOutside32BitsGetsALine) {
    m_answer.headers = {{"Date", "Mon, 01 Jan 2110 00:00:00 GMT"}};
    const FakeCommands commands;
    commands.setOutput("ifconfig", "");  // the machine's own may have lines of its own
    OutputCapture capture;
    EXPECT_TRUE(m_config->Refresh(true));
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "UtcTime: Failed to parse time: Mon, 01 Jan 2110 00:00:00 GMT\n");
    EXPECT_TRUE(isStampedWith(kNow));
}

/// The request is made while the time is not known, and terms of use that waited for the time are
/// asked for when the answer has told it.
TEST_F(ConfigRefreshTest, AsksForTheTermsThatWaitedForTheTime) {
    ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
    const std::time_t now = std::time(nullptr);
    char date[64];
    std::strftime(date, sizeof date, "%a, %d %b %Y %H:%M:%S GMT", std::gmtime(&now));
    const ScriptedHttpServer secure(
        [this, &date](const ScriptedHttpServer::Request&) {
            ScriptedHttpServer::Response answer = m_answer;
            answer.headers = {{"Date", date}};
            return answer;
        },
        ScriptedHttpServer::Certificate());
    CredentialsPeer::setConfigUrl(secure.url("/config/"));
    CredentialsPeer::setTouUrl(secure.url("/tou"));
    TimeMgrImplPeer::forgetSystemTime();
    TimeMgrImplPeer::setCurrentSource(*m_time, TimeSourceInvalid);
    const WallClock clock(5);
    {
        const OutputCapture quiet;
        EXPECT_FALSE(m_tou->Refresh());
        EXPECT_EQ(secure.requests().size(), 0u);
        EXPECT_TRUE(m_config->Refresh(true));
    }
    ASSERT_EQ(secure.requests().size(), 2u);
    EXPECT_EQ(secure.requests()[0].target, "/config/set-1");
    EXPECT_EQ(secure.requests()[1].target, "/tou");
}

/// An acceptable Date sets web time; another is not stored and leaves the time.
TEST_F(ConfigRefreshTest, AServerTimeThatCannotBeNowIsNotStored) {
    m_answer.headers = {{"Date", "Thu, 07 Mar 2013 10:15:02 GMT"}};
    m_answer.body = R"({"errorMessage": "x"})";
    parse(R"({"expiry_tou": 1000, "UTC-Time": 1551940000})");
    EXPECT_TRUE(refresh(true));
    EXPECT_EQ(m_config->GetUtcTime(), 1551940000);
    EXPECT_NEAR(m_config->GetLastAttempt(), kNow, 10);
    EXPECT_NEAR(static_cast<double>(m_time->getTime()) / 1000, kNow, 10);
}

/// An acceptable Date sets web time; another is not stored and leaves the time.
TEST_F(ConfigRefreshTest, AnAnswerWithoutAUsableDateIsStampedWithTheKnownTime) {
    for (const std::string date : {"", "yesterday", "Thu, 07 Mar 2013 10:15:02 GMT"}) {
        ConfigImplPeer::setLastAttempt(*m_config, 0);
        ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
        m_answer.headers.clear();
        if (!date.empty()) m_answer.headers.emplace_back("Date", date);
        EXPECT_TRUE(refresh(true));
        EXPECT_EQ(m_config->GetLastModified(), date);
        EXPECT_TRUE(isStampedWith(kNow));
        EXPECT_NEAR(m_config->GetLastAttempt(), kNow, 10);
    }
}

/// A good answer is stamped with time and Date, saved and taken over.
TEST_F(ConfigRefreshTest, TheServersOwnStampsAreOverwritten) {
    m_answer.body = R"({"UTC-Time": 5, "Last-Modified": "never"})";
    EXPECT_TRUE(refresh(false));
    EXPECT_TRUE(isStampedWith(kDateSeconds));
    EXPECT_EQ(m_config->GetLastModified(), kDate);
}

/// The registered callback runs after every answer that parsed, and only then.
TEST_F(ConfigRefreshTest, TheCallbackRunsAfterEveryAnswerThatParsed) {
    int calls = 0;
    m_config->RegisterCallback([&] {
        ++calls;
        EXPECT_EQ(m_config->GetLastAttempt(), kDateSeconds);
        EXPECT_THAT(m_asked, IsEmpty());
    });
    EXPECT_TRUE(refresh(false));
    EXPECT_EQ(calls, 1);

    m_asked.clear();
    ConfigImplPeer::setLastAttempt(*m_config, 0);
    ConfigImplPeer::lastAttemptKernelMs(*m_config) = -1;
    m_answer.body = R"({"errorMessage": "x"})";
    EXPECT_TRUE(refresh(true));
    EXPECT_EQ(calls, 2);
}

/// The registered callback runs after every answer that parsed, and only then.
TEST_F(ConfigRefreshTest, TheCallbackDoesNotRunAfterAFailure) {
    int calls = 0;
    m_config->RegisterCallback([&] { ++calls; });
    m_answer.body = "no json";
    EXPECT_FALSE(refresh(false));
    EXPECT_EQ(calls, 0);
}

/// No lock is held across request, file write, time setting, callback and scheduling.
TEST_F(ConfigRefreshTest, HoldsNoLockAcrossTheRequestTheCallbackAndTheScheduling) {
    std::vector<std::string> held;
    int asked = 0;
    m_whileServing = [&] {
        ++asked;
        if (!lockIsFree()) held.push_back("request");
    };
    m_config->RegisterCallback([&] {
        ++asked;
        if (!lockIsFree()) held.push_back("callback");
    });
    ConfigImpl::SetRefreshScheduler([&](long, bool) {
        ++asked;
        if (!lockIsFree()) held.push_back("scheduler");
    });
    EXPECT_TRUE(refresh(false));
    EXPECT_EQ(asked, 3);
    EXPECT_THAT(held, IsEmpty());
}

/// No lock is held across request, file write, time setting, callback and scheduling.
TEST_F(ConfigRefreshTest, HoldsNoLockWhileTheTimeManagerWaitsForTheStore) {
    std::promise<void> serving;
    std::promise<void> storeTaken;
    m_whileServing = [&] {
        serving.set_value();
        storeTaken.get_future().wait();
    };
    TimeMgrImpl::SetVerbose(true);
    OutputCapture capture;
    auto refreshing = std::async(std::launch::async, [this] { return m_config->Refresh(false); });
    serving.get_future().wait();
    {
        const std::lock_guard<std::recursive_mutex> store(DB::m_PruneLock);
        storeTaken.set_value();
        EXPECT_TRUE(WaitUntil(
            [&] { return capture.out().find("TimeMgr: setTime ts=web") != std::string::npos; }));
        EXPECT_TRUE(lockIsFree());
        EXPECT_EQ(m_config->GetUtcTime(), 0);
    }
    EXPECT_TRUE(refreshing.get());
    TimeMgrImpl::SetVerbose(false);
    EXPECT_TRUE(isStampedWith(kDateSeconds));
}

/// Readers meet whole values while documents arrive.
TEST_F(ConfigRefreshTest, ReadersMeetWholeValuesWhileDocumentsArrive) {
    std::atomic<bool> finished{false};
    std::thread writer([&] {
        for (int i = 0; i < 300; ++i) {
            parse(kDocument);
            parse(R"({"s3_bucket": "another bucket, with a long name beyond any small buffer"})");
        }
        finished = true;
    });
    while (!finished) {
        const std::string bucket = m_config->GetS3Bucket();
        EXPECT_TRUE(bucket == "bucket/dir" || bucket == "norvane-ddump/kiv-test" ||
                    bucket == "another bucket, with a long name beyond any small buffer")
            << bucket;
    }
    writer.join();
}

}  // namespace
