#pragma once

#include <cstdint>
#include <string>

/// What only the running daemon knows of itself, for whoever asks a set why nothing arrives: counts
/// since the start, what is due when, and how the servers and the store last answered.
///
/// Every layer tells it what happens; it decides nothing, and writes nothing (`StatusDocument`
/// does). Class-wide, ready before `main`, gone after it. Any thread: counts and facts are atomics,
/// answers and paths stand under a lock of its own, a leaf. Not for a forked child. No errors.
class Status {
  public:
    /// What is counted, since the start.
    enum Count : int {
        Received,          ///< messages
        NotAnEvent,        ///< ... that are not JSON objects
        RefusedByConsent,  ///< events
        RefusedByFilter,
        Stored,       ///< taken by the store, `NotStorable` included
        NotStorable,  ///< refused by the store for their own text
        Dropped,      ///< from memory, while the store failed
        Pruned,       ///< from the store, to make room
        EventsSent,
        RecordsSent,
        FilesSent,
        CountEnd
    };
    /// Numbers that change; 0 at first. A moment is in monotonic milliseconds, 0: none.
    enum Fact : int {
        ClockSource,  ///< of the application clock: 1 the set's middleware, 2 web time
        Network,      ///< the connectivity host: 1 answers, -1 does not
        UserConsent,  ///< as last read: 1 yes, -1 no, 0 no answer yet
        ConfigTime,   ///< UTC seconds of the configuration in force
        LastRecord,   ///< moment of the last record that was taken
        LastFile,     ///< moment of the last file that was taken
        NextEvents,   ///< moments of the timers: upload of events,
        NextFiles,    ///< of files,
        NextRefresh,  ///< refresh of the configuration,
        NextTimeCheck,
        NextInitialization,
        FactEnd
    };
    /// Who answers the daemon.
    enum Target : int {
        Nobody = -1,
        Config,
        Terms,
        Time,
        Place,
        Stream,
        Objects,
        Store,
        TargetEnd
    };
    /// The files that the daemon was told to use.
    enum Path : int { GlobalInfo, BootInfo, ConfigFile, Database, TermsFolder, PathEnd };

    /// How one of them answered so far.
    struct Answers {
        std::uint32_t requests = 0;  ///< 0 of the store: its statements are not counted
        std::uint32_t failures = 0;
        std::int64_t lastSuccess = 0;  ///< a moment
        std::int64_t lastFailure = 0;  ///< a moment
        bool fails = false;            ///< the last answer was a failure
        bool unreachable = false;      ///< ... because there was no answer
        std::string error;             ///< of the last failure, in words
    };

    static void count(Count what, std::uint64_t by = 1);
    static void set(Fact what, std::int64_t value);
    /// That is now.
    static void setMoment(Fact what);
    /// The first path of its kind stays: what was given comes before what is tried instead.
    static void setPath(Path what, const std::string& path);
    static void asked(Target whom);
    static void succeeded(Target whom);
    /// @param unreachable there was no answer at all
    static void failed(Target whom, const std::string& why, bool unreachable = false);

    static std::uint64_t counted(Count what);
    static std::int64_t fact(Fact what);
    static std::string path(Path what);  ///< as it was given; "" while none was
    static Answers answers(Target whom);
    /// Grows with each change.
    static std::uint64_t changes();

  private:
    friend struct StatusPeer;

    static void forgetAll();
};
