#include "GatewayImpl.h"

#include "OwnFiles.h"
#include "UploadImpl.h"
#include "support/GatewaySetup.h"
#include "support/UploadImplPeer.h"

#include <filesystem>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using Messages = UploadImplPeer::Messages;

class GatewayImplFilesTest : public GatewaySetup {};

// --- announced files ------------------------------------------------------------------------

constexpr char kMadeUpId[] =
    "oob_dev1_[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}";

/// A file without "oob-info" gets a made-up name with its extension, its event "oob-id", and
/// both are kept.
TEST_F(GatewayImplFilesTest, RegistersAnAnnouncedFileAndStoresItsEvent) {
    const JsonObject event = storedFor(R"({"event-type": "x", "oob-url": "/tmp/a.log"})");
    const auto announced = files();
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_TRUE(std::regex_match(announced[0].id, std::regex(std::string(kMadeUpId) + "\\.log")))
        << announced[0].id;
    EXPECT_EQ(announced[0].url, "/tmp/a.log");
    EXPECT_EQ(announced[0].info, "NULL");
    EXPECT_EQ(event.optString("oob-id"), announced[0].id);
    EXPECT_EQ(event.optString("oob-url"), "/tmp/a.log");
    EXPECT_EQ(askedOfUpload(), (Messages{{UploadImpl::UploadFiles, 0}}));
}

/// A file with "oob-info" is registered with it; its event is not stored.
TEST_F(GatewayImplFilesTest, RegistersAFileWithItsInfoAndDoesNotStoreTheEvent) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "x", "oob-url": "/tmp/a.log", "data":
                       {"oob-info": {"unique-id": "id7", "kind": "log"}, "more": 1}})");
    EXPECT_TRUE(storedTypes().empty());
    const auto announced = files();
    ASSERT_EQ(announced.size(), 1u);
    EXPECT_EQ(announced[0].id, "id7");
    EXPECT_EQ(announced[0].url, "/tmp/a.log");
    EXPECT_EQ(announced[0].info, R"({"unique-id": "id7", "kind": "log"})");
    EXPECT_EQ(askedOfUpload(), (Messages{{UploadImpl::UploadFiles, 0}}));
}

/// A file with "oob-info" is registered with it; its event is not stored.
TEST_F(GatewayImplFilesTest, MakesUpTheNameOfAFileWhoseInfoHasNone) {
    makeGateway();
    for (const char* info : {"{}", R"({"unique-id": ""})", R"({"unique-id": 5})"})
        m_gateway->Log(R"({"oob-url": "/tmp/core.gz", "data": {"oob-info": )" + std::string(info) +
                       "}}");
    const auto announced = files();
    ASSERT_EQ(announced.size(), 3u);
    for (const FileRow& file : announced)
        EXPECT_TRUE(std::regex_match(file.id, std::regex(std::string(kMadeUpId) + "\\.gz")))
            << file.id;
    EXPECT_EQ(announced[0].info, "{}");
    EXPECT_NE(announced[0].id, announced[1].id);
    EXPECT_TRUE(storedTypes().empty());
}

/// A file without "oob-info" gets a made-up name with its extension, its event "oob-id", and
/// both are kept.
TEST_F(GatewayImplFilesTest, GivesAFileWithoutExtensionANameWithoutOne) {
    makeGateway();
    m_gateway->Log(R"({"oob-url": "dump"})");
    ASSERT_EQ(files().size(), 1u);
    EXPECT_TRUE(std::regex_match(files()[0].id, std::regex(kMadeUpId))) << files()[0].id;
}

/// A file with "oob-info" is registered with it; its event is not stored.
TEST_F(GatewayImplFilesTest, TakesAnyValueOfTheInfoAsPresent) {
    makeGateway();
    m_gateway->Log(R"({"oob-url": "/tmp/a.log", "data": {"oob-info": null}})");
    m_gateway->Log(R"({"oob-url": "/tmp/b.log", "data": {"oob-info": "text"}})");
    const auto announced = files();
    ASSERT_EQ(announced.size(), 2u);
    EXPECT_EQ(announced[0].info, "(json null)");
    EXPECT_EQ(announced[1].info, "text");
    EXPECT_TRUE(storedTypes().empty());
}

/// "oob-info" without a file drops the event; data that is not an object has none.
TEST_F(GatewayImplFilesTest, DropsAnEventWithInfoButWithoutFile) {
    makeGateway();
    const NamedSemaphore done;
    m_gateway->Log(R"({"data": {"oob-info": {"unique-id": "id7"}}, "syncsem": ")" + done.name() +
                   "\"}");
    EXPECT_EQ(done.value(), 1);
    EXPECT_TRUE(storedTypes().empty());
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(askedOfUpload().empty());
}

/// "oob-info" without a file drops the event; data that is not an object has none.
TEST_F(GatewayImplFilesTest, TakesNoInfoFromDataThatIsNoObject) {
    makeGateway();
    m_gateway->Log(R"({"event-type": "x", "data": "oob-info"})");
    m_gateway->Log(R"({"event-type": "y", "data": [{"oob-info": {}}], "oob-info": {}})");
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"x", "y"}));
}

/// The file filter decides on the file alone.
TEST_F(GatewayImplFilesTest, StoresTheEventButNotTheFileThatTheFileFilterRefuses) {
    configure(R"({"kiv_tou": true, "file-filter": {"exclude": [{"event-type": "x"}]}})");
    const JsonObject event = storedFor(R"({"event-type": "x", "oob-url": "/tmp/a.log"})");
    EXPECT_EQ(event.optString("oob-url"), "/tmp/a.log");
    EXPECT_TRUE(event.getObject("oob-id").isNull());
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(askedOfUpload().empty());
}

/// The file filter decides on the file alone.
TEST_F(GatewayImplFilesTest, DropsAnEventWithInfoWhoseFileTheFileFilterRefuses) {
    configure(R"({"kiv_tou": true, "file-filter": {"include": [{"event-type": "y"}]}})");
    makeGateway();
    m_gateway->Log(R"({"event-type": "x", "oob-url": "/tmp/a.log", "data": {"oob-info": {}}})");
    EXPECT_TRUE(storedTypes().empty());
    EXPECT_TRUE(files().empty());
}

/// A location that is not a text is ignored with a line.
TEST_F(GatewayImplFilesTest, IgnoresAFileWhoseLocationIsNoText) {
    makeGateway();
    EXPECT_EQ(errorsOf(R"({"event-type": "x", "oob-url": 5})"),
              "kivGateway:oob-url is no string: Ignore the file 5\n");
    EXPECT_EQ(errorsOf(R"({"event-type": "y", "oob-url": null})"),
              "kivGateway:oob-url is no string: Ignore the file (json null)\n");
    EXPECT_TRUE(files().empty());
    EXPECT_EQ(storedTypes(), (std::vector<std::string>{"x", "y"}));
}

/// The daemon's own files are refused with a line, by any name; their event is kept.
TEST_F(GatewayImplFilesTest, RefusesTheDaemonsOwnFiles) {
    makeGateway();
    OwnFiles::addStore(m_db);
    const std::string link = m_dir.file("li\nk");
    std::filesystem::create_symlink(m_db, link);
    EXPECT_EQ(errorsOf(R"({"event-type": "x", "oob-url": ")" + m_db + "\"}"),
              "kivGateway:File is the daemon's own: Ignore the file " + m_db + "\n");
    EXPECT_EQ(errorsOf(R"({"event-type": "y", "oob-url": ")" + m_dir.file("li\\nk") + "\"}"),
              "kivGateway:File is the daemon's own: Ignore the file " + m_dir.file("li\\x0Ak\n"));
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(askedOfUpload().empty());
    const auto all = stored();
    ASSERT_EQ(all.size(), 2u);
    EXPECT_NE(JsonObject::parse(all[0].data).optString("oob-id"), "");
}

/// A location that is not a text is shown cut and escaped.
TEST_F(GatewayImplFilesTest, CutsAndEscapesALocationThatIsNoText) {
    makeGateway();
    const std::string text(300, 'x');
    EXPECT_EQ(errorsOf(R"({"oob-url": [")" + text + "\"]}"),
              "kivGateway:oob-url is no string: Ignore the file [\"" + std::string(254, 'x') +
                  "... (304 bytes)\n");
}

/// A file announced again asks for the upload again.
TEST_F(GatewayImplFilesTest, AsksForTheUploadOfAFileThatIsAnnouncedAgain) {
    makeGateway();
    const std::string message =
        R"({"oob-url": "/tmp/a.log", "data": {"oob-info": {"unique-id": "id7"}}})";
    EXPECT_EQ(errorsOf(message), "");
    EXPECT_EQ(errorsOf(message), "kivDB:  Can't Insert into table Files\n");
    EXPECT_EQ(files().size(), 1u);
    EXPECT_EQ(askedOfUpload(), (Messages{{UploadImpl::UploadFiles, 0}}));
}

}  // namespace
