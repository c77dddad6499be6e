#pragma once

#include <memory>
#include <string>

#include "CGlobalInfoImpl.h"
#include "CTouImpl.h"
#include "Config.h"
#include "Singleton.h"
#include "StoreLock.h"

/// The application: command line, options summary, start-up order.
///
/// Made once by `main`; it owns the services until the process ends. Used on the main thread only,
/// but for the time manager's error callback, which runs on a thread of the time manager.
/// Files that cannot be read get a line and leave the defaults; bad options end the process.
class CKivApp {
  public:
    CKivApp(std::string globalInfoFile, std::string bootFile, std::string configFile,
            std::string dbFile, std::string touDir);

    /// Parses the command line and loads what it names. @return 0, or -1 on failure; bad options,
    /// -h and -V end the process.
    int Init(int argc, char* const* argv);
    /// Wires the services together, logs the start event and sleeps for ever; as long as a thread
    /// is missing that could not be started, it tries again every 10 s. Ends the process with
    /// `kStoreInUse` where another daemon has the store.
    [[noreturn]] void Run();

    static constexpr int kStoreInUse = 3;  ///< exit status

    static void PrintVersion();
    void PrintOptions() const;
    /// Sets the verbose switches of this class and of all others that have one, but for two:
    /// `EventFilter` and `WebTimeImpl` keep theirs as they are.
    static void SetAllVerbose(bool verbose);

    static bool m_verbose;

  private:
    friend struct CKivAppPeer;

    struct Running;
    struct Switches;

    int ParseArgs(int argc, char* const* argv);
    void applyOption(int letter, const char* program, Switches& given);
    void readGivenBootFile(Switches& given);
    void readGivenGlobalInfo(Switches& given);
    bool ParseBootFile(const char* path);
    StoreLock lockStore() const;
    std::unique_ptr<Running> start();
    static void startMissingThreads(Running& running);
    void recordOperatingTime() const;
    void nameOwnFiles(const std::string& directory) const;
    static void logStartEvent(Running& running);
    void askForPendingWork() const;
    static void printUsage(const char* program);

    std::string m_globalInfoFile;
    std::string m_bootFile;
    std::string m_configFile;
    std::string m_dbFile;
    std::string m_touDir;
    Config m_config;
    Singleton<CGlobalInfoImpl> m_globalInfo;
    Singleton<CTouImpl> m_tou;
};
