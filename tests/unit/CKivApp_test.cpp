#include "CKivApp.h"

#include "AwsWrapperImpl.h"
#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "Credentials.h"
#include "DB.h"
#include "DBToken.h"
#include "EventFilter.h"
#include "GatewayImpl.h"
#include "JsonFilter.h"
#include "JsonFilterRule.h"
#include "LocationInfo.h"
#include "NetworkHelper.h"
#include "OwnFiles.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "UploadImpl.h"
#include "WebTimeImpl.h"
#include "support/AppSetup.h"
#include "support/AwsWrapperImplPeer.h"
#include "support/CKivAppPeer.h"
#include "support/OutputCapture.h"
#include "support/UploadImplPeer.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

namespace {

using Messages = UploadImplPeer::Messages;

constexpr char kUsage[] =
    "Usage: kivApp [OPTIONS]\n"
    "    -h, --help                      Print this help and exits\n"
    "    -v, --verbose                   Switch on verbose mode\n"
    "    -s, --silent                    Switch on silent mode\n"
    "    -b, --bootfile <filename>       Set the bootfile to the given path\n"
    "    -g, --globalinfofile <filename> Set the globalinfofile to the given path\n"
    "    -c, --configfile <filename>     Set the configfile to the given path\n"
    "    -e, --dbfile <filename>         Set the dbfile to the given path\n"
    "    -t, --toudir <path>             Set the Tou directory to the given path\n"
    "    -T, --testmode <path>           Set Aws in testmode and log to the file in given path\n"
    "    -V, --version                   Show the version\n"
    "\n";

constexpr char kUnknownOption[] = "CKivApp: Unknown option\n";

/// Every verbose switch that the command line sets, with its class.
std::vector<std::pair<std::string, bool>> verboseFlags() {
    return {{"CKivApp", CKivApp::m_verbose},
            {"AwsWrapperImpl", AwsWrapperImpl::GetVerbose()},
            {"ConfigImpl", ConfigImpl::GetVerbose()},
            {"Credentials", Credentials::GetVerbose()},
            {"DB", DB::getVerbose()},
            {"GatewayImpl", GatewayImpl::GetVerbose()},
            {"JsonFilter", JsonFilter::m_verbose},
            {"JsonFilterRule", JsonFilterRule::m_verbose},
            {"LocationInfo", LocationInfo::GetVerbose()},
            {"NetworkHelper", NetworkHelper::GetVerbose()},
            {"TimeMgrImpl", TimeMgrImpl::m_verbose},
            {"UploadImpl", UploadImpl::GetVerbose()},
            {"CTouImpl", CTouImpl::GetVerbose()},
            {"DBToken", DBToken::GetVerbose()}};
}

void expectVerbose(bool expected) {
    for (const auto& [name, flag] : verboseFlags()) EXPECT_EQ(flag, expected) << name;
}

class CKivAppTest : public AppSetup {
  protected:
    void expectUnknownOption(const std::vector<std::string>& arguments,
                             const std::string& parserLine) const {
        const Ended ended = parseInChild(arguments);
        EXPECT_EQ(ended.status, 255);
        EXPECT_EQ(ended.err, parserLine + kUnknownOption);
        EXPECT_EQ(ended.out, "");
        EXPECT_FALSE(m_dir.has("Config")) << "it went on to load the configuration";
    }
};

// --- members --------------------------------------------------------------------------------

/// It keeps the five paths that it was made with.
TEST_F(CKivAppTest, KeepsThePathsThatItWasMadeWith) {
    const CKivApp app("info", "boot", "config", "db", "tou");
    EXPECT_EQ(CKivAppPeer::globalInfoFile(app), "info");
    EXPECT_EQ(CKivAppPeer::bootFile(app), "boot");
    EXPECT_EQ(CKivAppPeer::configFile(app), "config");
    EXPECT_EQ(CKivAppPeer::dbFile(app), "db");
    EXPECT_EQ(CKivAppPeer::touDir(app), "tou");
}

/// It keeps device information, terms of use and configuration alive.
TEST_F(CKivAppTest, KeepsDeviceInformationAndTermsOfUseAlive) {
    {
        const CKivApp app("", "", "", "", "");
        EXPECT_NE(Singleton<CGlobalInfoImpl>::m_pImpl, nullptr);
        EXPECT_NE(Singleton<CTouImpl>::m_pImpl, nullptr);
        EXPECT_NE(Singleton<ConfigImpl>::m_pImpl, nullptr);
    }
    EXPECT_EQ(Singleton<CGlobalInfoImpl>::m_pImpl, nullptr);
    EXPECT_EQ(Singleton<CTouImpl>::m_pImpl, nullptr);
    EXPECT_EQ(Singleton<ConfigImpl>::m_pImpl, nullptr);
}

// --- paths ----------------------------------------------------------------------------------

/// It keeps the five paths that it was made with.
TEST_F(CKivAppTest, KeepsItsDefaultsWithoutOptions) {
    const auto app = parsed({});
    EXPECT_EQ(CKivAppPeer::configFile(*app), m_dir.file("Config"));
    EXPECT_EQ(CKivAppPeer::dbFile(*app), m_dir.file("Db"));
    EXPECT_EQ(CKivAppPeer::touDir(*app), m_dir.path() + "/");
}

/// Paths come from short and long options; the last one counts.
TEST_F(CKivAppTest, TakesPathsFromShortOptions) {
    const std::string config = m_dir.file("c");
    const auto app = parsed({"-c", config, "-e", "e", "-t", m_dir.path() + "/t"});
    EXPECT_EQ(CKivAppPeer::configFile(*app), config);
    EXPECT_EQ(CKivAppPeer::dbFile(*app), "e");
    EXPECT_EQ(CKivAppPeer::touDir(*app), m_dir.path() + "/t");
}

/// Paths come from short and long options; the last one counts.
TEST_F(CKivAppTest, TakesPathsFromLongOptions) {
    const std::string config = m_dir.file("c");
    const auto app = parsed({"--configfile=" + config, "--dbfile", "e", "--toudir", "t"});
    EXPECT_EQ(CKivAppPeer::configFile(*app), config);
    EXPECT_EQ(CKivAppPeer::dbFile(*app), "e");
    EXPECT_EQ(CKivAppPeer::touDir(*app), "t");
}

/// Paths come from short and long options; the last one counts.
TEST_F(CKivAppTest, TakesTheLastOfAnOptionThatIsGivenTwice) {
    EXPECT_EQ(CKivAppPeer::dbFile(*parsed({"-e", "first", "--dbfile", "second"})), "second");
}

/// Options may stand after other words, and each parsing starts from scratch.
TEST_F(CKivAppTest, TakesOptionsBehindOtherWords) {
    EXPECT_EQ(CKivAppPeer::dbFile(*parsed({"word", "-e", "e", "another"})), "e");
}

/// Options may stand after other words, and each parsing starts from scratch.
TEST_F(CKivAppTest, StartsFromScratchAtEachParsing) {
    const auto app = makeApp();
    for (const char* path : {"first", "second", "third"}) {
        const Arguments given({"-v", "-e", path});
        OutputCapture silent;
        ASSERT_EQ(app->Init(given.count(), given.values()), 0);
        silent.stop();
        EXPECT_EQ(CKivAppPeer::dbFile(*app), path);
    }
}

/// "-T" names the test-mode file.
TEST_F(CKivAppTest, NamesTheTestModeFile) {
    parsed({"-T", "records.json"});
    EXPECT_EQ(AwsWrapperImplPeer::testModeFile(), "records.json");
    parsed({"--testmode", "others.json"});
    EXPECT_EQ(AwsWrapperImplPeer::testModeFile(), "others.json");
}

/// The file of the test mode is the daemon's own, which nobody may announce.
TEST_F(CKivAppTest, CountsTheTestModeFileAmongItsOwn) {
    EXPECT_FALSE(OwnFiles::contains("records.json"));
    parsed({"-T", "records.json"});
    EXPECT_TRUE(OwnFiles::contains("records.json"));
}

/// "-d" is taken with its argument and ignored.
TEST_F(CKivAppTest, TakesAndIgnoresTheOptionDWithItsArgument) {
    writeDefaultFiles();
    OutputCapture capture;
    const auto app = parsed({"-d", "anything", "-d-v"});
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
    EXPECT_EQ(CKivAppPeer::configFile(*app), m_dir.file("Config"));
    EXPECT_EQ(CKivAppPeer::dbFile(*app), m_dir.file("Db"));
    EXPECT_EQ(CKivAppPeer::touDir(*app), m_dir.path() + "/");
    expectVerbose(false);
}

// --- options that end the process -----------------------------------------------------------

/// "-h" prints the usage, "-V" the version, and both exit with 0 without reading a file.
TEST_F(CKivAppTest, PrintsTheUsageAndExitsWithStatusZero) {
    for (const char* option : {"-h", "--help"}) {
        const Ended ended = parseInChild({option, "-c", m_dir.file("c")});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out, kUsage);
        EXPECT_EQ(ended.err, "");
    }
    EXPECT_FALSE(m_dir.has("Config"));
    EXPECT_FALSE(m_dir.has("c"));
}

/// "-h" prints the usage, "-V" the version, and both exit with 0 without reading a file.
TEST_F(CKivAppTest, PrintsTheVersionAndExitsWithStatusZero) {
    ::setenv("TZ", "UTC", 1);
    for (const char* option : {"-V", "--version"}) {
        const Ended ended = parseInChild({option});
        EXPECT_EQ(ended.status, 0);
        EXPECT_EQ(ended.out,
                  "kivApp version: #0x442c3c4\nBuild date: Fri 2019-05-17 03:00:13 UTC\n");
        EXPECT_EQ(ended.err, "");
    }
    ::unsetenv("TZ");
    EXPECT_FALSE(m_dir.has("Config"));
}

/// The build date is printed in local time.
TEST_F(CKivAppTest, PrintsTheBuildDateInLocalTime) {
    ::setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
    OutputCapture capture;
    CKivApp::PrintVersion();
    capture.stop();
    ::unsetenv("TZ");
    ::tzset();
    EXPECT_EQ(capture.out(),
              "kivApp version: #0x442c3c4\nBuild date: Fri 2019-05-17 05:00:13 CEST\n");
}

/// An unknown option, a missing or an extra argument: "Unknown option", exit status 255.
TEST_F(CKivAppTest, EndsAtAnUnknownOption) {
    expectUnknownOption({"-x"}, "kivApp: invalid option -- 'x'\n");
    expectUnknownOption({"--nonsense"}, "kivApp: unrecognized option '--nonsense'\n");
    expectUnknownOption({"-?"}, "kivApp: invalid option -- '?'\n");
}

/// An unknown option, a missing or an extra argument: "Unknown option", exit status 255.
TEST_F(CKivAppTest, EndsAtAnOptionWithoutItsArgument) {
    for (const char letter : {'d', 'b', 'g', 'c', 'e', 't', 'T'}) {
        const std::string option(1, letter);
        expectUnknownOption({"-" + option},
                            "kivApp: option requires an argument -- '" + option + "'\n");
    }
    for (const char* name :
         {"--bootfile", "--globalinfofile", "--configfile", "--dbfile", "--toudir", "--testmode"})
        expectUnknownOption({name},
                            "kivApp: option '" + std::string(name) + "' requires an argument\n");
}

/// Long options may be cut short unless ambiguous.
TEST_F(CKivAppTest, TakesLongOptionsCutShortUnlessTheyAreAmbiguous) {
    EXPECT_EQ(CKivAppPeer::dbFile(*parsed({"--d", "e"})), "e");
    std::filesystem::remove(m_dir.file("Config"));
    expectUnknownOption({"--ver"},
                        "kivApp: option '--ver' is ambiguous; possibilities: '--verbose' "
                        "'--version'\n");
}

/// An unknown option, a missing or an extra argument: "Unknown option", exit status 255.
TEST_F(CKivAppTest, EndsAtAnArgumentForAnOptionThatTakesNone) {
    expectUnknownOption({"--verbose=1"}, "kivApp: option '--verbose' doesn't allow an argument\n");
}

/// "-v" with "-s": "Both verbose and silent option specified!", exit status 255, no file read.
TEST_F(CKivAppTest, EndsWhenVerboseAndSilentAreBothGivenBeforeAnyFileIsRead) {
    const std::vector<std::vector<std::string>> both = {
        {"-v", "-s"}, {"-s", "-v"}, {"-vs"}, {"--silent", "--verbose"}};
    for (const auto& arguments : both) {
        const Ended ended = parseInChild(arguments);
        EXPECT_EQ(ended.status, 255);
        EXPECT_EQ(ended.err, "CKivApp: Both verbose and silent option specified!\n");
        EXPECT_EQ(ended.out, "");
        EXPECT_FALSE(m_dir.has("Config"));
    }
}

// --- verbose and silent ---------------------------------------------------------------------

/// "-v" sets every verbose switch but the event filter's, "-s" clears them, neither leaves
/// them.
TEST_F(CKivAppTest, SetsEveryVerboseSwitchButTheEventFilters) {
    CKivApp::SetAllVerbose(true);
    expectVerbose(true);
    EXPECT_FALSE(EventFilter::m_verbose);
    EventFilter::m_verbose = true;
    CKivApp::SetAllVerbose(false);
    expectVerbose(false);
    EXPECT_TRUE(EventFilter::m_verbose);
}

/// "-v" and "-s" leave the switch of web time as it is.
TEST_F(CKivAppTest, LeavesTheVerboseSwitchOfWebTime) {
    CKivApp::SetAllVerbose(true);
    EXPECT_FALSE(WebTimeImpl::GetVerbose());
    WebTimeImpl::SetVerbose(true);
    CKivApp::SetAllVerbose(false);
    EXPECT_TRUE(WebTimeImpl::GetVerbose());
}

/// "-v" sets every verbose switch but the event filter's, "-s" clears them, neither leaves
/// them.
///
/// Verbose, `Init` says "Initializing...".
TEST_F(CKivAppTest, IsVerboseWhenAskedTo) {
    for (const char* option : {"-v", "--verbose"}) {
        CKivApp::SetAllVerbose(false);
        OutputCapture capture;
        parsed({option});
        capture.stop();
        expectVerbose(true);
        const std::string out = capture.outWithoutPrefixes();
        const std::string last = "CKivApp: Initializing...\n";
        ASSERT_GE(out.size(), last.size());
        EXPECT_NE(out.find("\n" + last), std::string::npos) << out;
    }
}

/// "-v" sets every verbose switch but the event filter's, "-s" clears them, neither leaves
/// them.
TEST_F(CKivAppTest, IsSilentWhenAskedTo) {
    for (const char* option : {"-s", "--silent"}) {
        CKivApp::SetAllVerbose(true);
        OutputCapture capture;
        parsed({option});
        capture.stop();
        expectVerbose(false);
        EXPECT_EQ(capture.out().find("Initializing"), std::string::npos);
    }
}

/// "-v" sets every verbose switch but the event filter's, "-s" clears them, neither leaves
/// them.
TEST_F(CKivAppTest, LeavesEachSwitchAsItIsWithoutEitherOption) {
    parsed({});
    expectVerbose(false);
    DB::setVerbose(true);
    CTouImpl::SetVerbose(true);
    OutputCapture silent;
    parsed({});
    silent.stop();
    EXPECT_TRUE(DB::getVerbose());
    EXPECT_TRUE(CTouImpl::GetVerbose());
    EXPECT_FALSE(CKivApp::m_verbose);
    EXPECT_FALSE(GatewayImpl::GetVerbose());
}

// --- the boot file --------------------------------------------------------------------------

/// The counts come from the given boot file.
TEST_F(CKivAppTest, TakesTheCountsOfTheGivenBootFile) {
    writeDefaultFiles();
    const std::string given = m_dir.write("b", R"({"boot-count": 70, "standby-count": 20})");
    for (const char* option : {"-b", "--bootfile"}) {
        OutputCapture capture;
        const auto app = parsed({option, given});
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(), "");
        const Singleton<CGlobalInfoImpl> info;
        EXPECT_EQ(info->getBootCount(), 70u);
        EXPECT_EQ(info->getStandbyCount(), 20u);
        EXPECT_EQ(CKivAppPeer::bootFile(*app), m_dir.file("BootInfo"));
    }
}

/// One that cannot be used: "Cannot read bootinfo file " and the default is tried, itself
/// silently.
TEST_F(CKivAppTest, FallsBackToTheDefaultBootFileWhenTheGivenOneCannotBeUsed) {
    writeDefaultFiles();
    const std::vector<std::string> bad = {
        m_dir.file("missing"),
        m_dir.path(),
        m_dir.write("text", "no JSON"),
        m_dir.write("zeroBoot", R"({"boot-count": 0, "standby-count": 2})"),
        m_dir.write("zeroStandby", R"({"boot-count": 7, "standby-count": 0})"),
        m_dir.write("words", R"({"boot-count": "7", "standby-count": 2})"),
        m_dir.write("half", R"({"boot-count": 7})")};
    for (const std::string& path : bad) {
        OutputCapture capture;
        const auto app = parsed({"-b", path});
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(),
                  "CKivApp: Cannot read bootinfo file " + path + "\n");
        const Singleton<CGlobalInfoImpl> info;
        EXPECT_EQ(info->getBootCount(), 7u) << path;
        EXPECT_EQ(info->getStandbyCount(), 2u) << path;
    }
}

/// One that cannot be used: "Cannot read bootinfo file " and the default is tried, itself
/// silently.
TEST_F(CKivAppTest, SaysNothingOfADefaultBootFileThatCannotBeUsed) {
    writeDefaultFiles();
    std::filesystem::remove(m_dir.file("BootInfo"));
    OutputCapture capture;
    const auto app = parsed({});
    capture.stop();
    EXPECT_EQ(capture.errWithoutPrefixes(), "");
    EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getBootCount(), 0u);
}

/// A count of 0 leaves both counts as they were.
TEST_F(CKivAppTest, LeavesTheCountsAloneWhenABootFileHasACountOfZero) {
    const auto app = makeApp();
    const Singleton<CGlobalInfoImpl> info;
    info->setBootCounts(5, 6);
    const std::string zero = m_dir.write("zero", R"({"boot-count": 0, "standby-count": 9})");
    EXPECT_FALSE(CKivAppPeer::parseBootFile(*app, zero.c_str()));
    EXPECT_EQ(info->getBootCount(), 5u);
    EXPECT_EQ(info->getStandbyCount(), 6u);
    const std::string negative = m_dir.write("neg", R"({"boot-count": -1, "standby-count": 9})");
    OutputCapture capture;
    EXPECT_FALSE(CKivAppPeer::parseBootFile(*app, negative.c_str()));
    capture.stop();
    EXPECT_EQ(info->getBootCount(), 5u);
    const std::string good = m_dir.write("good", R"({"boot-count": 8, "standby-count": 9})");
    EXPECT_TRUE(CKivAppPeer::parseBootFile(*app, good.c_str()));
    EXPECT_EQ(info->getBootCount(), 8u);
    EXPECT_EQ(info->getStandbyCount(), 9u);
}

/// The counts come from the given boot file.
TEST_F(CKivAppTest, KeepsTheCountsOfAGoodBootFileBeforeABadOne) {
    writeDefaultFiles();
    const std::string good = m_dir.write("good", R"({"boot-count": 70, "standby-count": 20})");
    OutputCapture capture;
    const auto app = parsed({"-b", good, "-b", m_dir.file("missing")});
    capture.stop();
    EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getBootCount(), 70u);
}

// --- the global information file ------------------------------------------------------------

/// The facts come from the given global information file.
TEST_F(CKivAppTest, TakesTheFactsOfTheGivenGlobalInformationFile) {
    writeDefaultFiles();
    const std::string given =
        m_dir.write("g", R"({"deviceid": "other", "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})");
    for (const char* option : {"-g", "--globalinfofile"}) {
        OutputCapture capture;
        const auto app = parsed({option, given});
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(), "");
        EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getDeviceId(), "other");
        EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getSwVersion(), "");
        EXPECT_EQ(CKivAppPeer::globalInfoFile(*app), m_dir.file("GlobalInfo"));
    }
}

/// Without a device identifier: "Cannot read globalinfo file " and the default is loaded.
TEST_F(CKivAppTest, FallsBackToTheDefaultGlobalInformationWithoutADeviceIdentifier) {
    writeDefaultFiles();
    const std::vector<std::string> bad = {
        m_dir.write("empty", R"({"builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})"),
        m_dir.write("blank", R"({"deviceid": "", "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})")};
    for (const std::string& path : bad) {
        OutputCapture capture;
        const auto app = parsed({"-g", path});
        capture.stop();
        EXPECT_EQ(capture.errWithoutPrefixes(),
                  "CKivApp: Cannot read globalinfo file " + path + "\n");
        EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getDeviceId(), "dev1");
    }
}

/// Without a device identifier: "Cannot read globalinfo file " and the default is loaded.
TEST_F(CKivAppTest, NamesAGlobalInformationFileThatIsMissing) {
    writeDefaultFiles();
    OutputCapture capture;
    const auto app = parsed({"-g", m_dir.file("missing")});
    capture.stop();
    const std::string line = "CKivApp: Cannot read globalinfo file " + m_dir.file("missing") + "\n";
    EXPECT_NE(capture.errWithoutPrefixes().find(line), std::string::npos);
    EXPECT_EQ(Singleton<CGlobalInfoImpl>()->getDeviceId(), "dev1");
}

// --- terms of use and configuration ---------------------------------------------------------

/// The terms of use of the given or default directory are loaded.
TEST_F(CKivAppTest, LoadsTheTermsOfUseOfTheGivenDirectory) {
    writeDefaultFiles();
    std::filesystem::create_directory(m_dir.file("tou"));
    m_dir.write("tou/current_tou.txt", "CUL-TOU 5 TRUE");
    const auto app = parsed({"-t", m_dir.file("tou/")});
    EXPECT_TRUE(Singleton<CTouImpl>()->isAccepted());
    EXPECT_EQ(Singleton<CTouImpl>()->getVersion(), 5);
}

/// The terms of use of the given or default directory are loaded.
TEST_F(CKivAppTest, LoadsTheTermsOfUseOfTheDefaultDirectory) {
    writeDefaultFiles();
    const auto app = parsed({});
    EXPECT_TRUE(Singleton<CTouImpl>()->isAccepted());
    EXPECT_EQ(Singleton<CTouImpl>()->getVersion(), 3);
}

/// The given or default configuration is loaded.
TEST_F(CKivAppTest, LoadsTheGivenConfiguration) {
    writeDefaultFiles();
    const std::string given = m_dir.write("c", R"({"kiv_tou": true, "expiry_tou": 77})");
    const auto app = parsed({"-c", given});
    const Config config;
    EXPECT_EQ(config->GetExpiryTou(), 77);
    EXPECT_EQ(config->GetPath(), given);
}

/// The given or default configuration is loaded.
TEST_F(CKivAppTest, LoadsTheDefaultConfiguration) {
    writeDefaultFiles();
    const auto app = parsed({});
    const Config config;
    EXPECT_EQ(config->GetExpiryTou(), 900);
    EXPECT_TRUE(config->GetTouAccepted());
}

// --- the summary ----------------------------------------------------------------------------

/// The options summary has its twelve lines, verbose or not.
TEST_F(CKivAppTest, SummarisesItsOptions) {
    writeDefaultFiles();
    const auto app = parsed({"-e", "/data/Db"});
    OutputCapture capture;
    app->PrintOptions();
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "CKivApp: Options summary:\n"
              "CKivApp: verbose                  : 0\n"
              "CKivApp: Config file path         : " +
                  m_dir.file("Config") +
                  "\n"
                  "CKivApp: DB file path             : /data/Db\n"
                  "CKivApp: Boot-cycle               : 7\n"
                  "CKivApp: Standby-cycle            : 2\n"
                  "CKivApp: SWVersion                : 1.2.3\n"
                  "CKivApp: DeviceId                 : dev1\n"
                  "CKivApp: TOU accepted in TV       : true\n"
                  "CKivApp: TOU version in TV        : 3\n"
                  "CKivApp: Config EventAgeThreshold : 1800\n"
                  "CKivApp: Config GetExpiryPeriod   : 900\n");
    EXPECT_EQ(capture.err(), "");
}

/// The options summary has its twelve lines, verbose or not.
TEST_F(CKivAppTest, SummarisesWhatNobodyGave) {
    OutputCapture ignored;
    const auto app = parsed({});
    ignored.stop();
    CKivApp::m_verbose = true;
    OutputCapture capture;
    app->PrintOptions();
    capture.stop();
    EXPECT_EQ(capture.outWithoutPrefixes(),
              "CKivApp: Options summary:\n"
              "CKivApp: verbose                  : 1\n"
              "CKivApp: Config file path         : " +
                  m_dir.file("Config") +
                  "\n"
                  "CKivApp: DB file path             : " +
                  m_dir.file("Db") +
                  "\n"
                  "CKivApp: Boot-cycle               : 0\n"
                  "CKivApp: Standby-cycle            : 0\n"
                  "CKivApp: SWVersion                : \n"
                  "CKivApp: DeviceId                 : \n"
                  "CKivApp: TOU accepted in TV       : false\n"
                  "CKivApp: TOU version in TV        : 0\n"
                  "CKivApp: Config EventAgeThreshold : 3500\n"
                  "CKivApp: Config GetExpiryPeriod   : 600\n");
}

// --- what a failing store asks for ----------------------------------------------------------

/// The time manager's error asks for a refresh and for events and files that wait.
TEST_F(CKivAppTest, AsksForARefreshOfTheConfigurationAloneWhenNothingWaits) {
    const auto app = makeApp();
    const Singleton<UploadImpl> upload;
    upload->stopThread();
    DB().open(m_dir.file("Db"), false);
    DB::m_TotalEventSize = 16384;
    CKivAppPeer::askForPendingWork(*app);
    EXPECT_EQ(UploadImplPeer::waiting(*upload), (Messages{{UploadImpl::RefreshConfig, 0}}));
}

/// The time manager's error asks for a refresh and for events and files that wait.
TEST_F(CKivAppTest, AsksForTheUploadOfEventsAndFilesThatWait) {
    const auto app = makeApp();
    const Singleton<UploadImpl> upload;
    upload->stopThread();
    DB db;
    db.open(m_dir.file("Db"), false);
    db.addFile("id", "/tmp/a.log", "");
    DB::m_TotalEventSize = 16385;
    CKivAppPeer::askForPendingWork(*app);
    EXPECT_EQ(UploadImplPeer::waiting(*upload), (Messages{{UploadImpl::RefreshConfig, 0},
                                                          {UploadImpl::UploadEvents, 0},
                                                          {UploadImpl::UploadFiles, 0}}));
}

}  // namespace
