#include "CTouImpl.h"

#include "ClassLog.h"
#include "JsonObject.h"
#include "Singleton.h"
#include "support/CTouImplPeer.h"
#include "support/CredentialsPeer.h"
#include "support/DiskFaults.h"
#include "support/FakeCommands.h"
#include "support/KivTest.h"
#include "support/NoDescriptors.h"
#include "support/OutputCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/TaggedLines.h"
#include "support/TempDir.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <errno.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

namespace {

namespace fs = std::filesystem;

using Request = ScriptedHttpServer::Request;
using Response = ScriptedHttpServer::Response;

constexpr const char* kConsent = "current_tou.txt";
constexpr const char* kAnnouncement = "show_new_tou.txt";
constexpr const char* kServerAnswer = "tou_server_answer.txt";

class CTouImplTest : public KivTest {
  protected:
    std::string directory() const { return m_directory.path() + "/"; }

    /// Loads the consent `text` and gives what went to the standard error.
    std::string load(const std::string& text) {
        m_directory.write(kConsent, text);
        OutputCapture capture;
        m_tou.Load(directory());
        capture.stop();
        EXPECT_EQ(capture.out(), "");
        return capture.errWithoutPrefixes();
    }

    void expectConsent(bool accepted, long version) const {
        EXPECT_EQ(m_tou.isAccepted(), accepted);
        EXPECT_EQ(m_tou.getVersion(), version);
    }

    void writeServerAnswer(const std::string& text) const {
        m_directory.write(kServerAnswer, text);
    }
    bool hasServerAnswer() const { return m_directory.has(kServerAnswer); }

    TempDir m_directory;
    CTouImpl m_tou;
};

// ---- Loading -------------------------------------------------------------------------------

/// Nothing counts as accepted before a valid answer of the user was read.
TEST_F(CTouImplTest, StartsWithoutConsent) {
    expectConsent(false, 0);
    EXPECT_FALSE(CTouImplPeer::fileExists(m_tou));
}

/// "CUL-TOU", a version and "TRUE", split at any white space, are consent for that version.
TEST_F(CTouImplTest, TakesTheConsentOfTheFile) {
    EXPECT_EQ(load("CUL-TOU 2 TRUE"), "");
    expectConsent(true, 2);
    EXPECT_TRUE(CTouImplPeer::fileExists(m_tou));
}

/// "CUL-TOU", a version and "TRUE", split at any white space, are consent for that version.
TEST_F(CTouImplTest, SplitsTheFileAtAnyWhiteSpace) {
    EXPECT_EQ(load("\n  CUL-TOU\t3\r\nTRUE\n"), "");
    expectConsent(true, 3);
    EXPECT_EQ(load("CUL-TOU 4 TRUE more words"), "");
    expectConsent(true, 4);
}

/// Any other third word is not consent.
TEST_F(CTouImplTest, TakesOnlyTheWordTrueAsConsent) {
    for (const char* word : {"true", "FALSE", "True", "TRUE1", "1", "YES"}) {
        EXPECT_EQ(load(std::string("CUL-TOU 2 ") + word), "") << word;
        expectConsent(false, 2);
    }
}

/// Nothing counts as accepted before a valid answer of the user was read.
///
/// Fewer than three words, or no file: "TOU file wrong format: " and the text.
TEST_F(CTouImplTest, HasNoConsentWithoutAFile) {
    OutputCapture capture;
    m_tou.Load(directory());
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "TOU:TOU file wrong format: \n");
    EXPECT_EQ(capture.out(), "");
    expectConsent(false, 0);
    EXPECT_FALSE(CTouImplPeer::fileExists(m_tou));
}

/// Fewer than three words, or no file: "TOU file wrong format: " and the text.
TEST_F(CTouImplTest, RefusesAFileOfFewerThanThreeWords) {
    for (const char* text : {"", "CUL-TOU", "CUL-TOU 2", "  \n"}) {
        EXPECT_EQ(load(text), "TOU:TOU file wrong format: " + ClassLog::foreign(text) + "\n");
        expectConsent(false, 0);
        EXPECT_TRUE(CTouImplPeer::fileExists(m_tou));
    }
}

/// Another first word: "TOU file wrong acceptance name: " and the text.
TEST_F(CTouImplTest, RefusesAnotherAcceptanceName) {
    for (const char* text : {"cul-tou 2 TRUE", "TOU 2 TRUE", "CUL-TOU2 2 TRUE"}) {
        EXPECT_EQ(load(text), std::string("TOU:TOU file wrong acceptance name: ") + text + "\n");
        expectConsent(false, 0);
    }
}

/// A version below 1, or no positive 32-bit integer: "TOU version invalid: ".
TEST_F(CTouImplTest, RefusesAVersionBelowOne) {
    EXPECT_EQ(load("CUL-TOU 0 TRUE"), "TOU:TOU version invalid: 0\n");
    expectConsent(false, 0);
    EXPECT_EQ(load("CUL-TOU -3 TRUE"), "TOU:TOU version invalid: -3\n");
    expectConsent(false, -3);
}

/// A version below 1, or no positive 32-bit integer: "TOU version invalid: ".
TEST_F(CTouImplTest, RefusesAVersionThatIsNo32BitInteger) {
    for (const char* word : {"abc", "3x", "2147483648", "4294967297", "99999999999999999999", "-",
                             "1.5", "-2147483649"}) {
        EXPECT_EQ(load(std::string("CUL-TOU ") + word + " TRUE"), "TOU:TOU version invalid: 0\n")
            << word;
        expectConsent(false, 0);
    }
    EXPECT_EQ(load("CUL-TOU 2147483647 TRUE"), "");
    expectConsent(true, 2147483647);
}

/// Every load begins without consent.
TEST_F(CTouImplTest, LosesTheConsentOfTheLoadBefore) {
    load("CUL-TOU 2 TRUE");
    load("CUL-TOU");
    expectConsent(false, 0);
}

/// A waiting answer of a newer version withdraws consent and stays.
TEST_F(CTouImplTest, HasNoConsentWhileANewerVersionWaits) {
    writeServerAnswer(R"({"version":3,"url":"u","mandatory":true})");
    EXPECT_EQ(load("CUL-TOU 2 TRUE"), "");
    expectConsent(false, 2);
    EXPECT_TRUE(hasServerAnswer());
}

/// The server's answer is deleted once the user has answered its version, beside an invalid
/// version too.
TEST_F(CTouImplTest, DropsTheServersAnswerWhenTheUserHasAnswered) {
    for (const char* consent : {"CUL-TOU 3 TRUE", "CUL-TOU 4 TRUE"}) {
        writeServerAnswer(R"({"version":3})");
        EXPECT_EQ(load(consent), "");
        EXPECT_TRUE(m_tou.isAccepted());
        EXPECT_FALSE(hasServerAnswer());
    }
    writeServerAnswer(R"({"version":3})");
    EXPECT_EQ(load("CUL-TOU 3 FALSE"), "");
    expectConsent(false, 3);
    EXPECT_FALSE(hasServerAnswer());
}

/// An answer without version, or that is not JSON, counts as version 0.
TEST_F(CTouImplTest, DropsAnAnswerWithoutVersion) {
    writeServerAnswer(R"({"version":"9"})");
    EXPECT_EQ(load("CUL-TOU 1 TRUE"), "");
    expectConsent(true, 1);
    EXPECT_FALSE(hasServerAnswer());
}

/// The server's answer is deleted once the user has answered its version, beside an invalid
/// version too.
TEST_F(CTouImplTest, DropsTheAnswerBesideAnInvalidVersionToo) {
    writeServerAnswer(R"({"version":0})");
    EXPECT_EQ(load("CUL-TOU 0 TRUE"), "TOU:TOU version invalid: 0\n");
    EXPECT_FALSE(hasServerAnswer());
    writeServerAnswer(R"({"version":1})");
    EXPECT_EQ(load("CUL-TOU 0 TRUE"), "TOU:TOU version invalid: 0\n");
    EXPECT_TRUE(hasServerAnswer());
}

/// It stays beside a malformed file.
TEST_F(CTouImplTest, KeepsTheAnswerBesideABadFile) {
    writeServerAnswer(R"({"version":1})");
    load("CUL-TOU 2");
    load("cul-tou 2 TRUE");
    EXPECT_TRUE(hasServerAnswer());
}

/// A waiting answer of a newer version withdraws consent and stays.
TEST_F(CTouImplTest, ComparesVersionsBeyond32Bits) {
    writeServerAnswer(R"({"version":4294967297})");
    EXPECT_EQ(load("CUL-TOU 2 TRUE"), "");
    expectConsent(false, 2);
    EXPECT_TRUE(hasServerAnswer());
}

/// An answer without version, or that is not JSON, counts as version 0.
TEST_F(CTouImplTest, TakesAnAnswerThatIsNoJsonAsNone) {
    writeServerAnswer("{broken");
    EXPECT_EQ(load("CUL-TOU 2 TRUE"), "");
    expectConsent(true, 2);
    EXPECT_FALSE(hasServerAnswer());
}

/// An answer that cannot be deleted gets a line.
TEST_F(CTouImplTest, WritesALineWhenTheAnswerCannotBeDeleted) {
    fs::create_directory(m_directory.file(kServerAnswer));
    const std::string line = "TOU:File " + m_directory.file(kServerAnswer) + " cannot be deleted: ";
    EXPECT_EQ(load("CUL-TOU 2 TRUE").substr(0, line.size()), line);
    expectConsent(true, 2);
}

/// The user has said no when something is there in the place of the answer that accepts nothing, or
/// not the version that waits; without a file nobody has said anything.
TEST_F(CTouImplTest, TellsWhetherTheUserHasSaidNo) {
    EXPECT_FALSE(m_tou.refused());
    const OutputCapture quiet;
    m_tou.Load(directory());
    EXPECT_FALSE(m_tou.refused()) << "no file";
    for (const char* text :
         {"CUL-TOU 2 FALSE", "CUL-TOU 2 true", "CUL-TOU 0 TRUE", "tou 2 TRUE", "CUL-TOU", ""}) {
        load(text);
        EXPECT_TRUE(m_tou.refused()) << text;
    }
    load("CUL-TOU 2 TRUE");
    EXPECT_FALSE(m_tou.refused());
    writeServerAnswer(R"({"version":3})");
    load("CUL-TOU 2 TRUE");
    EXPECT_TRUE(m_tou.refused()) << "a newer version waits";
    load("CUL-TOU 3 TRUE");
    EXPECT_FALSE(m_tou.refused());
    fs::remove(m_directory.file(kConsent));
    m_tou.Load(directory());
    EXPECT_FALSE(m_tou.refused()) << "no file any more";
}

/// What is not a file of at most 1 MiB holds nobody: it counts as one that cannot be opened, and as
/// a no, until there is one.
TEST_F(CTouImplTest, WaitsForNoPipeInThePlaceOfItsFiles) {
    const std::string path = m_directory.file(kConsent);
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(m_directory.file(kServerAnswer).c_str(), 0600), 0);
    const OutputCapture quiet;
    m_tou.Load(directory());
    EXPECT_FALSE(CTouImplPeer::fileExists(m_tou));
    EXPECT_TRUE(m_tou.refused());
    fs::remove(path);
    fs::create_directory(path);
    EXPECT_FALSE(m_tou.ReLoad());
    EXPECT_TRUE(m_tou.refused());
    fs::remove(path);
    m_directory.write(kConsent, "CUL-TOU 2 TRUE " + std::string(1048576, 'x'));
    EXPECT_FALSE(m_tou.ReLoad());
    EXPECT_TRUE(m_tou.refused());
    m_directory.write(kConsent, "CUL-TOU 2 TRUE");
    EXPECT_TRUE(m_tou.ReLoad());
    EXPECT_FALSE(m_tou.refused());
    expectConsent(true, 2);
}

/// A file that cannot be read now is neither a yes nor a no: nothing is collected, and it is read
/// again, 10 s after the last attempt, until it can be. A line tells of the beginning and the end.
TEST_F(CTouImplTest, ReadsAgainWhatCannotBeRead) {
    m_directory.write(kConsent, "CUL-TOU 2 TRUE");
    writeServerAnswer(R"({"version":2})");
    OutputCapture capture;
    {
        const NoDescriptors none;
        m_tou.Load(directory());
        EXPECT_TRUE(m_tou.isUnreadable());
        EXPECT_FALSE(m_tou.refused());
        EXPECT_FALSE(m_tou.ReLoad());
        CTouImplPeer::letTimePass(m_tou, 10000);
        EXPECT_FALSE(m_tou.allowsCollection()) << "read again, in vain";
        expectConsent(false, 0);
    }
    EXPECT_FALSE(m_tou.allowsCollection()) << "too soon";
    EXPECT_TRUE(hasServerAnswer());
    CTouImplPeer::letTimePass(m_tou, 9000);
    EXPECT_FALSE(m_tou.allowsCollection()) << "too soon";
    CTouImplPeer::letTimePass(m_tou, 1000);
    EXPECT_TRUE(m_tou.allowsCollection());
    capture.stop();
    expectConsent(true, 2);
    EXPECT_FALSE(m_tou.isUnreadable());
    EXPECT_TRUE(CTouImplPeer::fileExists(m_tou));
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "TOU:File current_tou.txt cannot be read, nothing is collected until it can: "
              "Too many open files\n");
    EXPECT_EQ(capture.outWithoutPrefixes(), "TOU:The terms-of-use files can be read again\n");
}

/// A server's answer that cannot be read now may withdraw the consent: it stays, and nothing is
/// collected until it can be read.
TEST_F(CTouImplTest, AssumesNoConsentBesideAnAnswerThatCannotBeRead) {
    m_directory.write(kConsent, "CUL-TOU 2 TRUE");
    fs::create_symlink("/proc/self/mem", m_directory.file(kServerAnswer));  // reading fails: EIO
    OutputCapture capture;
    m_tou.Load(directory());
    EXPECT_TRUE(m_tou.isUnreadable());
    EXPECT_FALSE(m_tou.allowsCollection());
    EXPECT_TRUE(hasServerAnswer());
    fs::remove(m_directory.file(kServerAnswer));
    writeServerAnswer(R"({"version":3})");
    EXPECT_TRUE(m_tou.ReLoad());
    capture.stop();
    EXPECT_FALSE(m_tou.allowsCollection());
    EXPECT_TRUE(m_tou.refused());
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "TOU:File tou_server_answer.txt cannot be read, nothing is collected until it can: "
              "Input/output error\n");
}

/// Verbose, content, missing answer and acceptance are told.
TEST_F(CTouImplTest, WritesWhatItReadsWhenVerbose) {
    CTouImpl::SetVerbose(true);
    m_directory.write(kConsent, "CUL-TOU 2 TRUE");
    OutputCapture capture;
    m_tou.Load(directory());
    writeServerAnswer(R"({"version":3})");
    m_tou.Load(directory());
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "TOU:TOU file content: CUL-TOU 2 TRUE\n"
              "TOU:No TOU last server answer found\n"
              "TOU:TOU accepted is 1 for version 2\n"
              "TOU:TOU file content: CUL-TOU 2 TRUE\n"
              "TOU:TOU accepted is 0 for version 2\n");
    EXPECT_EQ(capture.err(), "");
}

/// Verbose, content, missing answer and acceptance are told.
TEST_F(CTouImplTest, WritesNoContentOfAMissingFile) {
    CTouImpl::SetVerbose(true);
    OutputCapture capture;
    m_tou.Load(directory());
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(), "TOU:No TOU last server answer found\n");
    EXPECT_EQ(capture.errWithoutPrefixes(), "TOU:TOU file wrong format: \n");
}

/// Verbose, content, missing answer and acceptance are told.
TEST_F(CTouImplTest, ItsLinesCarryTheDiagnosticPrefix) {
    CTouImpl::SetVerbose(true);
    OutputCapture capture;
    m_tou.Load(directory());
    capture.stop();
    EXPECT_EQ(prefixedLines(capture.out(), "TOU:"), "TOU:No TOU last server answer found\n");
    EXPECT_EQ(prefixedLines(capture.err(), "TOU:"), "TOU:TOU file wrong format: \n");
}

/// Verbose, content, missing answer and acceptance are told.
TEST_F(CTouImplTest, KeepsTheVerboseFlag) {
    EXPECT_FALSE(CTouImpl::GetVerbose());
    CTouImpl::SetVerbose(true);
    EXPECT_TRUE(CTouImpl::GetVerbose());
}

/// All holders see one consent.
TEST_F(CTouImplTest, IsReachedAsASingleton) {
    const Singleton<CTouImpl> first;
    m_directory.write(kConsent, "CUL-TOU 5 TRUE");
    first->Load(directory());
    const Singleton<CTouImpl> second;
    EXPECT_TRUE(second->isAccepted());
    EXPECT_EQ(second->getVersion(), 5);
}

// ---- Loading again -------------------------------------------------------------------------

/// `ReLoad` reads again while the file is missing, and never once it exists.
TEST_F(CTouImplTest, LoadsAgainWhileTheFileIsMissing) {
    OutputCapture capture;
    m_tou.Load(directory());
    EXPECT_FALSE(m_tou.ReLoad());
    m_directory.write(kConsent, "CUL-TOU 2 TRUE");
    EXPECT_TRUE(m_tou.ReLoad());
    capture.stop();
    expectConsent(true, 2);
    EXPECT_EQ(capture.errWithoutPrefixes(),
              "TOU:TOU file wrong format: \nTOU:TOU file wrong format: \n");
}

/// `ReLoad` reads again while the file is missing, and never once it exists.
TEST_F(CTouImplTest, DoesNotReadTheFileAgainOnceItExists) {
    load("CUL-TOU 2 TRUE");
    m_directory.write(kConsent, "CUL-TOU 3 FALSE");
    EXPECT_TRUE(m_tou.ReLoad());
    expectConsent(true, 2);
    fs::remove(m_directory.file(kConsent));
    EXPECT_TRUE(m_tou.ReLoad());
}

/// `ReLoad` reads again while the file is missing, and never once it exists.
TEST_F(CTouImplTest, TakesABadFileAsExisting) {
    load("nonsense");
    m_directory.write(kConsent, "CUL-TOU 3 TRUE");
    EXPECT_TRUE(m_tou.ReLoad());
    expectConsent(false, 0);
}

// ---- Asking the server ---------------------------------------------------------------------

class CTouImplRefreshTest : public CTouImplTest {
  protected:
    void SetUp() override {
        CTouImplTest::SetUp();
        m_commands.setOutput("ifconfig", "");
        CredentialsPeer::setTouUrl(m_server.url("/tou"));
        CredentialsPeer::setApiKey("the-key");
        CTouImplPeer::setDirectory(m_tou, directory());
        CTouImplPeer::setConsent(m_tou, true, 3);
    }

    struct Outcome {
        bool result;
        std::string out;
        std::string err;
    };

    /// Lets the server answer `body`, refreshes, and leaves out the lines of the request itself.
    Outcome refresh(const std::string& body) {
        m_answer.body = body;
        OutputCapture capture;
        const bool result = m_tou.Refresh();
        capture.stop();
        const std::string out = std::regex_replace(
            capture.outWithoutPrefixes(), std::regex("(kivNetwork:|[0-9]+CTouImpl: )[^\n]*\n"), "");
        return {result, out, capture.errWithoutPrefixes()};
    }

    void expectNothingWritten() const {
        EXPECT_FALSE(m_directory.has(kAnnouncement));
        EXPECT_FALSE(hasServerAnswer());
    }

    Response m_answer;
    ScriptedHttpServer m_server{[this](const Request&) { return m_answer; }};
    FakeCommands m_commands;
};

/// The server is asked with key and device headers.
TEST_F(CTouImplRefreshTest, AsksWithKeyAndDeviceHeaders) {
    refresh(R"({"version":3,"url":"u"})");
    ASSERT_EQ(m_server.requests().size(), 1U);
    const Request request = m_server.requests()[0];
    EXPECT_EQ(request.method, "GET");
    EXPECT_EQ(request.target, "/tou");
    EXPECT_EQ(request.header("x-api-key"), "the-key");
    EXPECT_EQ(request.header("X-kivversion"), "#0x442c3c4");
}

/// While the user's answer cannot be read the server is not asked: every version would be announced
/// as new. Once it can be, what waited is asked for.
TEST_F(CTouImplRefreshTest, WaitsForAnAnswerThatCannotBeRead) {
    fs::create_symlink("/proc/self/mem", m_directory.file(kConsent));  // reading fails: EIO
    const OutputCapture quiet;
    m_tou.Load(directory());
    m_answer.body = R"({"version":4,"url":"u"})";
    EXPECT_FALSE(m_tou.Refresh());
    EXPECT_EQ(m_server.requests().size(), 0U);
    expectNothingWritten();
    fs::remove(m_directory.file(kConsent));
    m_directory.write(kConsent, "CUL-TOU 4 TRUE");
    m_tou.refreshIfItWaited();
    ASSERT_EQ(m_server.requests().size(), 1U);
    EXPECT_EQ(m_server.requests()[0].header("X-currentTou"), "-1")
        << "of the application's own consent, which is none here";
    expectNothingWritten();
}

/// A newer version leaves its URL in "show_new_tou.txt", without line end, and consent as it
/// is.
TEST_F(CTouImplRefreshTest, AnnouncesANewVersion) {
    const Outcome outcome = refresh(R"({"version":4,"url":"http://terms/4","mandatory":false})");
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(m_directory.read(kAnnouncement), "http://terms/4");
    EXPECT_FALSE(hasServerAnswer());
    expectConsent(true, 3);
}

/// A mandatory one leaves the whole answer too; only JSON true is mandatory.
TEST_F(CTouImplRefreshTest, LeavesTheAnswerOfAMandatoryVersion) {
    const Outcome outcome = refresh(R"({"version":4,"url":"http://terms/4","mandatory":true})");
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(outcome.out + outcome.err, "");
    EXPECT_EQ(m_directory.read(kAnnouncement), "http://terms/4");
    EXPECT_EQ(m_directory.read(kServerAnswer),
              R"({"version": 4, "url": "http://terms/4", "mandatory": true})");
    expectConsent(true, 3);
}

/// A mandatory version withdraws consent at the next load.
TEST_F(CTouImplRefreshTest, WithdrawsConsentFromAMandatoryVersionAtTheNextLoad) {
    refresh(R"({"version":4,"url":"u","mandatory":true})");
    load("CUL-TOU 3 TRUE");
    expectConsent(false, 3);
    load("CUL-TOU 4 TRUE");
    expectConsent(true, 4);
    EXPECT_FALSE(hasServerAnswer());
}

/// A mandatory one leaves the whole answer too; only JSON true is mandatory.
TEST_F(CTouImplRefreshTest, TakesOnlyJsonTrueAsMandatory) {
    for (const char* mandatory : {"\"true\"", "1", "null", "false"}) {
        refresh(std::string(R"({"version":4,"url":"u","mandatory":)") + mandatory + "}");
        EXPECT_FALSE(hasServerAnswer()) << mandatory;
    }
    EXPECT_EQ(m_directory.read(kAnnouncement), "u");
}

/// A newer version leaves its URL in "show_new_tou.txt", without line end, and consent as it
/// is.
TEST_F(CTouImplRefreshTest, ReplacesTheAnnouncementBefore) {
    m_directory.write(kAnnouncement, "an address that is much longer than the new one");
    EXPECT_TRUE(refresh(R"({"version":4,"url":"short"})").result);
    EXPECT_EQ(m_directory.read(kAnnouncement), "short");
    const fs::directory_iterator files(m_directory.path());
    EXPECT_EQ(std::distance(begin(files), end(files)), 1);
}

/// A version that is not newer writes nothing and is true.
TEST_F(CTouImplRefreshTest, WritesNothingForAKnownVersion) {
    for (const char* version : {"3", "2", "1"}) {
        const Outcome outcome =
            refresh(std::string(R"({"url":"u","mandatory":true,"version":)") + version + "}");
        EXPECT_TRUE(outcome.result) << version;
        EXPECT_EQ(outcome.err, "");
    }
    expectNothingWritten();
}

/// A newer version leaves its URL in "show_new_tou.txt", without line end, and consent as it
/// is.
TEST_F(CTouImplRefreshTest, AnnouncesTheFirstVersionWithoutConsent) {
    CTouImplPeer::setConsent(m_tou, false, 0);
    EXPECT_TRUE(refresh(R"({"version":1,"url":"u"})").result);
    EXPECT_EQ(m_directory.read(kAnnouncement), "u");
    expectConsent(false, 0);
}

/// A failed request and an answer that is not JSON are false and write no file.
TEST_F(CTouImplRefreshTest, FailsWhenTheRequestFails) {
    m_answer.closeWithoutAnswer = true;
    const Outcome outcome = refresh("");
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.err.find("kivNetwork: Error from server, "), 0U);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 2);
    expectNothingWritten();
}

/// A failed request and an answer that is not JSON are false and write no file.
TEST_F(CTouImplRefreshTest, FailsOnAnAnswerThatIsNoJson) {
    const Outcome outcome = refresh("<html>");
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.err, "TOU:ToU server answer is no JSON: <html>\n");
    const std::string page(1000, 'x');
    EXPECT_EQ(refresh(page).err,
              "TOU:ToU server answer is no JSON: " + std::string(256, 'x') + "... (1000 bytes)\n");
    expectNothingWritten();
}

/// An answer with an HTTP status other than 200 to 299 is false and writes no file; its refusal is
/// told all the same.
TEST_F(CTouImplRefreshTest, FailsOnABadHttpStatus) {
    for (const int status : {302, 400, 404, 503}) {
        m_answer.status = status;
        EXPECT_FALSE(refresh(R"({"version":4,"url":"u"})").result) << status;
        const Outcome outcome = refresh(R"({"errorMessage":"no\nkey","version":4,"url":"u"})");
        EXPECT_FALSE(outcome.result) << status;
        EXPECT_NE(outcome.err.find("\nTOU:ToU server error: no\\x0Akey\n"), std::string::npos);
    }
    expectNothingWritten();
}

/// A refusal is told: "ToU server error: "; an empty text is not a refusal.
TEST_F(CTouImplRefreshTest, FailsWhenTheServerRefuses) {
    const Outcome outcome = refresh(R"({"errorMessage":"no such key","version":4,"url":"u"})");
    EXPECT_FALSE(outcome.result);
    EXPECT_EQ(outcome.err, "TOU:ToU server error: no such key\n");
    expectNothingWritten();
}

/// A refusal is told: "ToU server error: "; an empty text is not a refusal.
TEST_F(CTouImplRefreshTest, TakesAnEmptyErrorMessageAsNone) {
    EXPECT_TRUE(refresh(R"({"errorMessage":"","version":4,"url":"u"})").result);
    EXPECT_EQ(m_directory.read(kAnnouncement), "u");
}

/// A version of 0 or less, or no URL, is false.
TEST_F(CTouImplRefreshTest, FailsWithoutVersionOrUrl) {
    for (const char* body :
         {R"({"url": "u"})", R"({"version": 0, "url": "u"})", R"({"version": -1, "url": "u"})",
          R"({"version": "4", "url": "u"})", R"({"version": 4})", R"({"version": 4, "url": ""})",
          R"({"version": 4, "url": 1})", "{}", "[]"}) {
        const Outcome outcome = refresh(body);
        EXPECT_FALSE(outcome.result) << body;
        EXPECT_EQ(outcome.err,
                  std::string("TOU:ToU server answer names no version or no url: ") + body + "\n");
    }
    expectNothingWritten();
}

/// Verbose, version, URL and writing are told.
TEST_F(CTouImplRefreshTest, WritesItsLinesWhenVerbose) {
    CTouImpl::SetVerbose(true);
    EXPECT_EQ(refresh(R"({"version":4,"url":"u","mandatory":true})").out,
              "TOU: tou version=4, url=u, mandatory=true\n"
              "TOU:writing show_new_tou.txt with URL\n");
    EXPECT_EQ(refresh(R"({"version":3,"url":"u"})").out,
              "TOU: tou version=3, url=u, mandatory=false\n");
}

/// A file that cannot be made: "File show_new_tou.txt cannot be created", "File
/// tou_server_answer.txt cannot be created".
TEST_F(CTouImplRefreshTest, WritesALineWhenAFileCannotBeCreated) {
    CTouImplPeer::setDirectory(m_tou, directory() + "missing/");
    const Outcome outcome = refresh(R"({"version":4,"url":"u","mandatory":true})");
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(outcome.err,
              "TOU:File show_new_tou.txt cannot be created\n"
              "TOU:File tou_server_answer.txt cannot be created\n");
}

/// Each file is replaced in one step that survives a power cut, and a write that fails leaves
/// the old one whole.
TEST_F(CTouImplRefreshTest, ReplacesEachFileInOneStepThatSurvivesAPowerCut) {
    m_directory.write(kAnnouncement, "http://terms/3");
    writeServerAnswer(R"({"version": 3})");
    const DiskWatch disk;
    refresh(R"({"version":4,"url":"u","mandatory":true})");
    std::vector<std::string> twice;
    for (int file = 0; file < 2; ++file) {
        const auto& steps = DiskWatch::safeReplacement();
        twice.insert(twice.end(), steps.begin(), steps.end());
    }
    EXPECT_EQ(disk.calls, twice);
    EXPECT_EQ(m_directory.read(kAnnouncement), "u");
    EXPECT_EQ(m_directory.read(kServerAnswer), R"({"version": 4, "url": "u", "mandatory": true})");
}

/// Each file is replaced in one step that survives a power cut, and a write that fails leaves
/// the old one whole.
TEST_F(CTouImplRefreshTest, KeepsTheOldFilesWholeWhenTheNewOnesCannotBeWritten) {
    const std::string lines =
        "TOU:File show_new_tou.txt cannot be created\n"
        "TOU:File tou_server_answer.txt cannot be created\n";
    const std::string oldAnswer = R"({"version": 3, "url": "http://terms/3"})";
    m_directory.write(kAnnouncement, "http://terms/3");
    writeServerAnswer(oldAnswer);
    DiskWatch disk;
    disk.fileSyncError = EIO;
    EXPECT_EQ(refresh(R"({"version":4,"url":"u","mandatory":true})").err, lines);
    EXPECT_EQ(m_directory.read(kAnnouncement), "http://terms/3");
    EXPECT_EQ(m_directory.read(kServerAnswer), oldAnswer);
    EXPECT_FALSE(m_directory.has(std::string(".") + kAnnouncement + ".new"));
    EXPECT_FALSE(m_directory.has(std::string(".") + kServerAnswer + ".new"));
}

/// A file that cannot be made: "File show_new_tou.txt cannot be created", "File
/// tou_server_answer.txt cannot be created".
TEST_F(CTouImplRefreshTest, DoesNotMissTheAnswerFileWhenItIsNotMandatory) {
    CTouImplPeer::setDirectory(m_tou, directory() + "missing/");
    EXPECT_EQ(refresh(R"({"version":4,"url":"u"})").err,
              "TOU:File show_new_tou.txt cannot be created\n");
}

}  // namespace
