#include "PimAppVersion.h"

#include "support/DiskFaults.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/PimAppVersionPeer.h"
#include "support/TempDir.h"

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <errno.h>

#include <gtest/gtest.h>

namespace {

const char* const kFile = "pimversion.json";
const char* const kEmpty = R"({"pim-version": "", "pim-builddate": ""})";

class PimAppVersionTest : public KivTest {
  protected:
    void SetUp() override {
        KivTest::SetUp();
        PimAppVersionPeer::forget();
    }
    void TearDown() override {
        PimAppVersionPeer::forget();
        KivTest::TearDown();
    }

    void loadText(const std::string& text) {
        m_dir.write(kFile, text);
        PimAppVersion::setPimVersionPath(m_dir.path());
    }

    void expectHeld(const std::string& version, const std::string& buildDate) {
        const PimAppVersion::Version held = PimAppVersion::current();
        EXPECT_EQ(held.version, version);
        EXPECT_EQ(held.buildDate, buildDate);
    }

    TempDir m_dir;
};

}  // namespace

/// The version file is "/pimversion.json" in the given directory and loaded at once.
TEST_F(PimAppVersionTest, NamesTheFileInTheDirectoryAndLoadsIt) {
    loadText(R"({"pim-version": "1.0", "pim-builddate": "today"})");
    EXPECT_EQ(PimAppVersionPeer::fileName(), m_dir.file("pimversion.json"));
    expectHeld("1.0", "today");
}

/// A missing or broken file, or JSON that is not an object, counts as empty version and date.
TEST_F(PimAppVersionTest, HoldsEmptyStringsWithoutAFile) {
    PimAppVersion::setPimVersionPath(m_dir.path());
    EXPECT_EQ(PimAppVersionPeer::heldText(), kEmpty);
    EXPECT_FALSE(m_dir.has(kFile));
}

/// A missing or broken file, or JSON that is not an object, counts as empty version and date.
TEST_F(PimAppVersionTest, HoldsEmptyStringsForTextThatDoesNotParse) {
    for (const char* text : {"", "nonsense", R"({"pim-version": "1.0")", "5"}) {
        loadText(text);
        EXPECT_EQ(PimAppVersionPeer::heldText(), kEmpty) << text;
        EXPECT_EQ(m_dir.read(kFile), text);
    }
}

/// A missing or broken file, or JSON that is not an object, counts as empty version and date.
TEST_F(PimAppVersionTest, TakesJsonThatIsNoObjectForAMissingFile) {
    loadText(R"(["pim-version", "1.0"])");
    EXPECT_EQ(PimAppVersionPeer::heldText(), kEmpty);
}

/// Members of another type read as empty.
TEST_F(PimAppVersionTest, ReadsMembersOfAnotherTypeAsEmpty) {
    loadText(R"({"pim-version": 5, "pim-builddate": null})");
    expectHeld("", "");
}

/// Loading drops what was held; the file is loaded on first use.
TEST_F(PimAppVersionTest, DropsTheHeldVersionWhenLoadingAgain) {
    loadText(R"({"pim-version": "1.0", "pim-builddate": "today", "other": 1})");
    m_dir.write(kFile, R"({"pim-version": "2.0"})");
    expectHeld("1.0", "today");
    PimAppVersion::loadPimVersionFile();
    expectHeld("2.0", "");
    EXPECT_EQ(PimAppVersionPeer::heldText(), R"({"pim-version": "2.0"})");
}

/// Loading drops what was held; the file is loaded on first use.
TEST_F(PimAppVersionTest, LoadsTheFileOnFirstUse) {
    m_dir.write(kFile, R"({"pim-version": "1.0", "pim-builddate": "today"})");
    PimAppVersionPeer::setFileName(m_dir.file(kFile));
    ASSERT_EQ(PimAppVersionPeer::heldText(), "(invalid json obj)");
    expectHeld("1.0", "today");
}

/// A failed write gets no line; the version is held all the same.
TEST_F(PimAppVersionTest, IsEmptyWithoutAPath) {
    OutputCapture capture;
    expectHeld("", "");
    PimAppVersion::updatePimVersion("1.0", "today");
    expectHeld("1.0", "today");
    capture.stop();
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// A new version is written with its build date; the file is made when it is missing.
TEST_F(PimAppVersionTest, CreatesTheFileOnTheFirstNewVersion) {
    PimAppVersion::setPimVersionPath(m_dir.path());
    PimAppVersion::updatePimVersion("1.0", "today");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "1.0", "pim-builddate": "today"})");
    expectHeld("1.0", "today");
}

/// The whole file is rewritten and its other members kept.
TEST_F(PimAppVersionTest, RewritesTheWholeFileAndKeepsItsOtherMembers) {
    loadText(R"({"other":[1],"pim-version":"1.0","pim-builddate":"a date that is longer"})");
    PimAppVersion::updatePimVersion("2.0", "now");
    EXPECT_EQ(m_dir.read(kFile), R"({"other": [1], "pim-version": "2.0", "pim-builddate": "now"})");
    expectHeld("2.0", "now");
}

/// The version already held leaves the file untouched, also with another date.
TEST_F(PimAppVersionTest, LeavesTheFileForTheSameVersionWithAnotherDate) {
    const std::string text = R"({"pim-version":"1.0","pim-builddate":"today"})";
    loadText(text);
    PimAppVersion::updatePimVersion("1.0", "tomorrow");
    EXPECT_EQ(m_dir.read(kFile), text);
    expectHeld("1.0", "today");
}

/// The version already held leaves the file untouched, also with another date.
TEST_F(PimAppVersionTest, DoesNothingForAnEmptyVersionWithNoneHeld) {
    PimAppVersion::setPimVersionPath(m_dir.path());
    PimAppVersion::updatePimVersion("", "today");
    EXPECT_FALSE(m_dir.has(kFile));
    expectHeld("", "");
}

/// The whole file is rewritten and its other members kept.
TEST_F(PimAppVersionTest, ReplacesAFileThatDidNotParse) {
    loadText("nonsense");
    PimAppVersion::updatePimVersion("1.0", "today");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "1.0", "pim-builddate": "today"})");
}

/// The whole file is rewritten and its other members kept.
TEST_F(PimAppVersionTest, ReplacesAVersionOfAnotherType) {
    loadText(R"({"pim-version": 5})");
    PimAppVersion::updatePimVersion("1.0", "today");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "1.0", "pim-builddate": "today"})");
}

/// Loading drops what was held; the file is loaded on first use.
TEST_F(PimAppVersionTest, LoadsBeforeItUpdatesWhenNothingIsHeld) {
    const std::string text = R"({"pim-version":"1.0","pim-builddate":"today","other":1})";
    m_dir.write(kFile, text);
    PimAppVersionPeer::setFileName(m_dir.file(kFile));
    PimAppVersion::updatePimVersion("1.0", "tomorrow");
    EXPECT_EQ(m_dir.read(kFile), text);

    PimAppVersionPeer::forget();
    PimAppVersionPeer::setFileName(m_dir.file(kFile));
    PimAppVersion::updatePimVersion("2.0", "tomorrow");
    EXPECT_EQ(m_dir.read(kFile),
              R"({"pim-version": "2.0", "pim-builddate": "tomorrow", "other": 1})");
}

/// A failed write gets no line; the version is held all the same.
TEST_F(PimAppVersionTest, HoldsTheNewVersionSilentlyWhenTheFileCannotBeWritten) {
    OutputCapture capture;
    PimAppVersion::setPimVersionPath(m_dir.file("missing"));
    PimAppVersion::updatePimVersion("1.0", "today");
    capture.stop();
    expectHeld("1.0", "today");
    EXPECT_FALSE(m_dir.has("missing"));
    EXPECT_EQ(capture.out() + capture.err(), "");
}

/// The file is replaced in one step.
TEST_F(PimAppVersionTest, PutsANewFileInThePlaceOfTheOld) {
    loadText(R"({"pim-version": "1.0"})");
    std::filesystem::create_hard_link(m_dir.file(kFile), m_dir.file("before"));
    PimAppVersion::updatePimVersion("2.0", "today");
    EXPECT_EQ(m_dir.read("before"), R"({"pim-version": "1.0"})");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "2.0", "pim-builddate": "today"})");
}

/// The replacement survives a power cut, and a write that fails leaves the old file whole.
TEST_F(PimAppVersionTest, ReplacesTheFileInOneStepThatSurvivesAPowerCut) {
    loadText(R"({"pim-version": "1.0"})");
    const DiskWatch disk;
    PimAppVersion::updatePimVersion("2.0", "today");
    EXPECT_EQ(disk.calls, DiskWatch::safeReplacement());
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "2.0", "pim-builddate": "today"})");
}

/// The replacement survives a power cut, and a write that fails leaves the old file whole.
TEST_F(PimAppVersionTest, KeepsTheOldFileWholeWhenTheNewOneCannotBeWritten) {
    const std::string old = R"({"pim-version": "1.0"})";
    loadText(old);
    {
        const FullDisk full(10);
        PimAppVersion::updatePimVersion("2.0", "today");
    }
    EXPECT_EQ(m_dir.read(kFile), old);
    {
        DiskWatch disk;
        disk.fileSyncError = EIO;
        PimAppVersion::updatePimVersion("3.0", "today");
    }
    EXPECT_EQ(m_dir.read(kFile), old);
    EXPECT_FALSE(m_dir.has(std::string(".") + kFile + ".new"));
    expectHeld("3.0", "today");
}

/// A version that could not be written is written by the next question for it, or when it is told
/// again, as soon as the disk works.
TEST_F(PimAppVersionTest, WritesLaterWhatCouldNotBeWritten) {
    loadText(R"({"pim-version": "1.0"})");
    const auto failToWrite = [](const char* version) {
        DiskWatch disk;
        disk.renameError = EIO;
        PimAppVersion::updatePimVersion(version, "today");
    };
    failToWrite("2.0");
    expectHeld("2.0", "today");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "2.0", "pim-builddate": "today"})");
    failToWrite("3.0");
    PimAppVersion::updatePimVersion("3.0", "today");
    EXPECT_EQ(m_dir.read(kFile), R"({"pim-version": "3.0", "pim-builddate": "today"})");
    const DiskWatch disk;
    expectHeld("3.0", "today");
    PimAppVersion::updatePimVersion("3.0", "today");
    EXPECT_TRUE(disk.calls.empty()) << "only once";
}

/// A version that is not UTF-8 changes nothing.
TEST_F(PimAppVersionTest, RefusesAVersionThatIsNoUtf8) {
    const std::string text = R"({"pim-version":"1.0","pim-builddate":"today"})";
    loadText(text);
    PimAppVersion::updatePimVersion("\xff", "tomorrow");
    EXPECT_EQ(m_dir.read(kFile), text);
    expectHeld("1.0", "today");
}

/// Threads get copies of whole versions.
TEST_F(PimAppVersionTest, GivesWholeVersionsToEveryThread) {
    PimAppVersion::setPimVersionPath(m_dir.path());
    PimAppVersion::updatePimVersion("0", "0");
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 50; ++i) {
                const std::string text = std::to_string(t * 1000 + i);
                PimAppVersion::updatePimVersion(text, text);
            }
        });
    }
    int torn = 0;
    for (int i = 0; i < 2000; ++i) {
        const PimAppVersion::Version held = PimAppVersion::current();
        if (held.version != held.buildDate) ++torn;
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(torn, 0);
}
