#include "CKivApp.h"

#include "AlarmBlock.h"
#include "AwsWrapperImpl.h"
#include "BuildInfo.h"
#include "CBootCountInfo.h"
#include "ClassLog.h"
#include "Credentials.h"
#include "DB.h"
#include "DBToken.h"
#include "EventSessionHeader.h"
#include "GatewayImpl.h"
#include "JsonFilter.h"
#include "JsonFilterRule.h"
#include "JsonObject.h"
#include "LocationInfo.h"
#include "NetworkHelper.h"
#include "OwnFiles.h"
#include "PimAppVersion.h"
#include "Status.h"
#include "TimeMgrImpl.h"
#include "UploadImpl.h"

#include <iostream>
#include <utility>

#include <cstdlib>

#include <getopt.h>
#include <unistd.h>

bool CKivApp::m_verbose = false;

namespace {

const ClassLog s_log("CKivApp: ", CKivApp::m_verbose);

constexpr char kShortOptions[] = "hvsd:b:g:c:e:t:T:V";
constexpr option kLongOptions[] = {{"help", no_argument, nullptr, 'h'},
                                   {"verbose", no_argument, nullptr, 'v'},
                                   {"silent", no_argument, nullptr, 's'},
                                   {"bootfile", required_argument, nullptr, 'b'},
                                   {"globalinfofile", required_argument, nullptr, 'g'},
                                   {"configfile", required_argument, nullptr, 'c'},
                                   {"dbfile", required_argument, nullptr, 'e'},
                                   {"toudir", required_argument, nullptr, 't'},
                                   {"testmode", required_argument, nullptr, 'T'},
                                   {"version", no_argument, nullptr, 'V'},
                                   {nullptr, 0, nullptr, 0}};

constexpr unsigned int kSecondsBetweenStarts = 10;
constexpr unsigned int kAttemptsBetweenLines = 6;

[[noreturn]] void refuse(const char* text) {
    s_log.error(text);
    std::exit(-1);
}

/// The text before the last slash of either kind; the whole text when it has none.
std::string directoryOf(const std::string& path) {
    return path.substr(0, path.find_last_of("/\\"));
}

}  // namespace

/// The services that live until the process ends, in the order of their start: each is ready
/// before the next one is made.
struct CKivApp::Running {
    struct Upload : Singleton<UploadImpl> {
        explicit Upload(const std::string& dbFile) { (*this)->Init(dbFile); }
    };
    struct Gateway : Singleton<GatewayImpl> {
        explicit Gateway(const std::string& dbFile) { (*this)->Init(dbFile); }
    };

    explicit Running(const std::string& dbFile) : upload(dbFile), gateway(dbFile) {}

    /// Whether all threads run, after another attempt to start those that do not.
    bool hasAllThreads() {
        const bool sends = upload->startMissingThreads();
        const bool stores = gateway->startMissingThread();
        return timeManager->startMissingThread() && sends && stores;
    }

    Upload upload;
    Gateway gateway;
    Singleton<TimeMgrImpl> timeManager;
};

/// What the command line asked for beside the paths.
struct CKivApp::Switches {
    bool verbose = false;
    bool silent = false;
    bool bootFileRead = false;
    bool globalInfoRead = false;
};

CKivApp::CKivApp(std::string globalInfoFile, std::string bootFile, std::string configFile,
                 std::string dbFile, std::string touDir)
    : m_globalInfoFile(std::move(globalInfoFile)),
      m_bootFile(std::move(bootFile)),
      m_configFile(std::move(configFile)),
      m_dbFile(std::move(dbFile)),
      m_touDir(std::move(touDir)) {}

int CKivApp::Init(int argc, char* const* argv) {
    if (ParseArgs(argc, argv) != 0) {
        s_log.error("Error parsing arguments");
        return -1;
    }
    s_log.info("Initializing...");
    return 0;
}

int CKivApp::ParseArgs(int argc, char* const* argv) {
    Switches given;
    ::optind = 0;  // start from scratch, whatever was parsed before
    for (int letter;
         (letter = ::getopt_long(argc, argv, kShortOptions, kLongOptions, nullptr)) != -1;) {
        applyOption(letter, argv[0], given);
    }
    if (given.verbose && given.silent) refuse("Both verbose and silent option specified!");
    if (given.verbose || given.silent) SetAllVerbose(given.verbose);
    if (!given.globalInfoRead) m_globalInfo->Load(m_globalInfoFile);
    if (!given.bootFileRead) ParseBootFile(m_bootFile.c_str());
    m_tou->Load(m_touDir);
    m_config->Load(m_configFile);
    return 0;
}

void CKivApp::applyOption(int letter, const char* program, Switches& given) {
    switch (letter) {
        case 'h':
            printUsage(program);
            std::exit(0);
        case 'v':
            given.verbose = true;
            break;
        case 's':
            given.silent = true;
            break;
        case 'b':
            readGivenBootFile(given);
            break;
        case 'g':
            readGivenGlobalInfo(given);
            break;
        case 'c':
            m_configFile = ::optarg;
            break;
        case 'e':
            m_dbFile = ::optarg;
            break;
        case 't':
            m_touDir = ::optarg;
            break;
        case 'T':
            AwsWrapperImpl::SetTestMode(::optarg);
            OwnFiles::add(::optarg);
            break;
        case 'V':
            PrintVersion();
            std::exit(0);
        case 'd':  // taken and ignored, for start scripts that still give it
            break;
        default:
            refuse("Unknown option");
    }
}

void CKivApp::readGivenBootFile(Switches& given) {
    OwnFiles::add(::optarg);
    Status::setPath(Status::BootInfo, ::optarg);
    if (ParseBootFile(::optarg))
        given.bootFileRead = true;
    else
        s_log.error("Cannot read bootinfo file ", ::optarg);
}

void CKivApp::readGivenGlobalInfo(Switches& given) {
    OwnFiles::add(::optarg);
    Status::setPath(Status::GlobalInfo, ::optarg);
    m_globalInfo->Load(::optarg);
    if (!m_globalInfo->getDeviceId().empty())
        given.globalInfoRead = true;
    else
        s_log.error("Cannot read globalinfo file ", ::optarg);
}

bool CKivApp::ParseBootFile(const char* path) {
    CBootCountInfo counts;
    counts.LoadFile(path);
    if (counts.getBootCount() == 0 || counts.getStandbyCount() == 0) return false;
    m_globalInfo->setBootCounts(counts.getBootCount(), counts.getStandbyCount());
    return true;
}

void CKivApp::printUsage(const char* program) {
    std::cout << "Usage: " << program << " [OPTIONS]\n"
              << "    -h, --help                      Print this help and exits\n"
              << "    -v, --verbose                   Switch on verbose mode\n"
              << "    -s, --silent                    Switch on silent mode\n"
              << "    -b, --bootfile <filename>       Set the bootfile to the given path\n"
              << "    -g, --globalinfofile <filename> Set the globalinfofile to the given path\n"
              << "    -c, --configfile <filename>     Set the configfile to the given path\n"
              << "    -e, --dbfile <filename>         Set the dbfile to the given path\n"
              << "    -t, --toudir <path>             Set the Tou directory to the given path\n"
              << "    -T, --testmode <path>           Set Aws in testmode and log to the file in "
                 "given path\n"
              << "    -V, --version                   Show the version\n"
              << std::endl;
}

void CKivApp::PrintVersion() {
    std::cout << "kivApp version: " << BuildInfo::revisionText() << std::endl
              << "Build date: " << BuildInfo::buildTimeText() << std::endl;
}

void CKivApp::PrintOptions() const {
    const Singleton<CGlobalInfoImpl> info;
    const Config config;
    const Singleton<CTouImpl> tou;
    s_log.always("Options summary:");
    s_log.always("verbose                  : ", m_verbose);
    s_log.always("Config file path         : ", m_configFile);
    s_log.always("DB file path             : ", m_dbFile);
    s_log.always("Boot-cycle               : ", info->getBootCount());
    s_log.always("Standby-cycle            : ", info->getStandbyCount());
    s_log.always("SWVersion                : ", info->getSwVersion());
    s_log.always("DeviceId                 : ", info->getDeviceId());
    s_log.always("TOU accepted in TV       : ", tou->isAccepted() ? "true" : "false");
    s_log.always("TOU version in TV        : ", tou->getVersion());
    s_log.always("Config EventAgeThreshold : ", config->GetMaxDelay());
    s_log.always("Config GetExpiryPeriod   : ", config->GetExpiryTou());
}

void CKivApp::SetAllVerbose(bool verbose) {
    m_verbose = verbose;
    AwsWrapperImpl::SetVerbose(verbose);
    ConfigImpl::SetVerbose(verbose);
    Credentials::SetVerbose(verbose);
    DB::setVerbose(verbose);
    GatewayImpl::SetVerbose(verbose);
    CGlobalInfoImpl::SetVerbose(verbose);
    JsonFilter::m_verbose = verbose;
    JsonFilterRule::m_verbose = verbose;
    LocationInfo::SetVerbose(verbose);
    NetworkHelper::SetVerbose(verbose);
    TimeMgrImpl::m_verbose = verbose;
    UploadImpl::SetVerbose(verbose);
    CTouImpl::SetVerbose(verbose);
    DBToken::SetVerbose(verbose);
}

void CKivApp::Run() {
    [[maybe_unused]] const StoreLock ownStore = lockStore();
    const std::unique_ptr<Running> running = start();
    startMissingThreads(*running);
    for (;;) ::pause();
}

StoreLock CKivApp::lockStore() const {
    StoreLock lock(m_dbFile);
    if (lock.state() == StoreLock::State::Others) {
        s_log.error("Database ", m_dbFile, " is in use by ", lock.text());
        std::exit(kStoreInUse);
    }
    if (lock.state() == StoreLock::State::None)
        s_log.error("Going on without a lock for the database: ", lock.text());
    return lock;
}

/// Threads can only be missing from the start on: those that run stay. Returns once all run.
void CKivApp::startMissingThreads(Running& running) {
    for (unsigned int attempts = 0; !running.hasAllThreads(); ++attempts) {
        if (attempts != 0 && attempts % kAttemptsBetweenLines == 0)
            s_log.error("Threads are still missing that could not be started");
        ::sleep(kSecondsBetweenStarts);
    }
}

std::unique_ptr<CKivApp::Running> CKivApp::start() {
    const AlarmBlock untilAllThreadsRun;
    const std::string directory = directoryOf(m_configFile);
    DBToken::setDBUUIDPath(directory);
    nameOwnFiles(directory);
    recordOperatingTime();
    LocationInfo::setDbPath(m_dbFile);
    EventSessionHeader::setDbPath(m_dbFile);
    PimAppVersion::setPimVersionPath(directory);
    TimeMgrImpl::expectDBPath();
    auto running = std::make_unique<Running>(m_dbFile);
    running->timeManager->setDBPath(m_dbFile);
    running->timeManager->setErrorCallback([this] { askForPendingWork(); });
    logStartEvent(*running);
    return running;
}

void CKivApp::nameOwnFiles(const std::string& directory) const {
    Status::setPath(Status::GlobalInfo, m_globalInfoFile);
    Status::setPath(Status::BootInfo, m_bootFile);
    Status::setPath(Status::ConfigFile, m_configFile);
    Status::setPath(Status::Database, m_dbFile);
    Status::setPath(Status::TermsFolder, m_touDir);
    OwnFiles::addStore(m_dbFile);
    for (const std::string& path :
         {m_globalInfoFile, m_bootFile, m_configFile, StoreLock::nameFor(m_dbFile)})
        OwnFiles::add(path);
    for (const char* name : {"/dbuuid.json", "/pimversion.json"}) OwnFiles::add(directory + name);
    for (const char* name : {"current_tou.txt", "show_new_tou.txt", "tou_server_answer.txt"})
        OwnFiles::add(m_touDir + name);
}

void CKivApp::recordOperatingTime() const {
    const Singleton<CGlobalInfoImpl> info;
    DB db;
    db.open(m_dbFile, true);
    db.setOpTime(static_cast<long>(info->getBootCount()),
                 static_cast<long>(info->getStandbyCount()),
                 static_cast<unsigned int>(info->getOpMinutes()));
}

void CKivApp::logStartEvent(Running& running) {
    JsonObject event;
    event.Pack("{s:s}", "event-type", "kiv.start");
    running.gateway->Log(event.dumpAsString());
}

void CKivApp::askForPendingWork() const {
    const Singleton<UploadImpl> upload;
    upload->ScheduleRefreshConfig(false);
    if (Config()->MinimumSizeReached(DB::m_TotalEventSize)) upload->ScheduleEventsUpload();
    DB db;
    db.open(m_dbFile, false);
    if (db.getNumberOfFiles() != 0) upload->ScheduleFilesUpload();
}
