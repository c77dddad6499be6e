// opener GLOBALINFO BOOTINFO KEY: opens disk states as the daemon does when it starts.
//
// Reads the folder of a state from each line of standard input and answers with a line of JSON:
// what the daemon's own start-up code has made of configuration, terms of use, token, version and
// store, and what the store holds then. Of events it tells the text of the member KEY of their
// data. Each state has a process of its own, since much of what the start leaves behind is
// class-wide; what it says goes to "<folder>.lines".

#include "CKivApp.h"
#include "CTouImpl.h"
#include "Config.h"
#include "DB.h"
#include "DBToken.h"
#include "JsonObject.h"
#include "PimAppVersion.h"
#include "Singleton.h"

#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <jansson.h>
#include <sqlite3.h>

namespace {

constexpr unsigned kLongestStartS = 20;
constexpr int kBootCount = 99;  ///< of this start; no cycle of the recording has it

struct CloseStore {
    void operator()(sqlite3* store) const { sqlite3_close(store); }
};
struct EndStatement {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

/// A reader of the store that is not the daemon's.
class Reader {
  public:
    explicit Reader(const std::string& path) {
        sqlite3* store = nullptr;
        m_failed =
            sqlite3_open_v2(path.c_str(), &store, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK;
        m_store.reset(store);
    }

    /// The rows' columns as text.
    std::vector<std::vector<std::string>> rows(const std::string& sql) {
        sqlite3_stmt* made = nullptr;
        std::vector<std::vector<std::string>> found;
        m_failed =
            sqlite3_prepare_v2(m_store.get(), sql.c_str(), -1, &made, nullptr) != SQLITE_OK ||
            m_failed;
        const std::unique_ptr<sqlite3_stmt, EndStatement> statement(made);
        int result = SQLITE_DONE;
        while (made != nullptr && (result = sqlite3_step(made)) == SQLITE_ROW) {
            found.emplace_back();
            for (int column = 0; column < sqlite3_column_count(made); ++column) {
                const unsigned char* const text = sqlite3_column_text(made, column);
                found.back().emplace_back(text != nullptr ? reinterpret_cast<const char*>(text)
                                                          : "");
            }
        }
        m_failed = m_failed || result != SQLITE_DONE;
        return found;
    }

    std::string problem() const { return m_failed ? sqlite3_errmsg(m_store.get()) : ""; }

  private:
    std::unique_ptr<sqlite3, CloseStore> m_store;
    bool m_failed = false;
};

/// A sum over rows that two different contents hardly share (FNV-1a).
class Digest {
  public:
    void add(const std::vector<std::vector<std::string>>& rows) {
        for (const std::vector<std::string>& row : rows) {
            for (const std::string& column : row) add(column);
            add("row");
        }
    }
    std::string text() const { return std::to_string(m_sum); }

  private:
    void add(const std::string& text) {
        for (const char character : text + '\0') {
            m_sum = (m_sum ^ static_cast<unsigned char>(character)) * 1099511628211ULL;
        }
    }
    std::uint64_t m_sum = 14695981039346656037ULL;
};

void readStore(const std::string& path, const char* key, JsonObject& answer) {
    Reader reader(path);
    const auto integrity = reader.rows("PRAGMA integrity_check");
    answer.set("integrity", integrity.empty() ? "" : integrity[0][0]);
    const auto events =
        reader.rows("SELECT ROWID,data,bootCount,standbyCount,kernelTime,type,status FROM Events");
    Digest digest;
    digest.add(events);
    digest.add(reader.rows("SELECT * FROM Files"));
    digest.add(reader.rows("SELECT * FROM TimeOffsets"));
    digest.add(reader.rows("SELECT * FROM Location"));
    digest.add(reader.rows("SELECT * FROM OpTimes WHERE bootCount<>" + std::to_string(kBootCount)));
    digest.add(reader.rows("PRAGMA user_version"));
    JsonObject names = JsonObject::createArray();
    JsonObject overflows = JsonObject::createArray();
    for (const auto& event : events) {
        const JsonObject document = JsonObject::parse(event[1]);
        const JsonObject name = document.getObject("data").getObject(key);
        if (name.isString()) names.append(name);
        if (event[5] == "logging.overflow" ||
            document.optString("event-type") == "logging.overflow")
            overflows.append(document.getObject("data"));
    }
    answer.set("digest", digest.text());
    answer.set("events", names);
    answer.set("overflows", overflows);
    const auto opened =
        reader.rows("SELECT COUNT(*) FROM OpTimes WHERE bootCount=" + std::to_string(kBootCount));
    answer.set("writable", opened.empty() ? "" : opened[0][0]);
    answer.set("problem", reader.problem());
}

/// As the daemon's command line and start do it, in their order.
std::string open(const std::string& folder, const char* globalInfo, const char* bootInfo,
                 const char* key) {
    CKivApp app(globalInfo, bootInfo, folder + "/Config", folder + "/Db", folder + "/");
    std::string name = "kivApp";
    char* const arguments[] = {name.data(), nullptr};
    app.Init(1, arguments);
    DBToken::setDBUUIDPath(folder);
    bool works = false;
    {
        DB db;
        db.open(folder + "/Db", true);
        db.setOpTime(kBootCount, 1, 7);
        works = db.works();
    }
    PimAppVersion::setPimVersionPath(folder);

    const Config config;
    const Singleton<CTouImpl> terms;
    const PimAppVersion::Version version = PimAppVersion::current();
    JsonObject answer = JsonObject::createObject();
    JsonObject values;
    values.Pack("{s:b, s:b, s:i, s:s, s:s, s:i}",                  //
                "valid", int{config->IsValid()},                   //
                "kiv_tou", int{config->GetTouAccepted()},          //
                "UTC-Time", int{config->GetUtcTime()},             //
                "stream", config->GetFirehoseStream().c_str(),     //
                "event-filter", config->GetEventFilter().c_str(),  //
                "min-size", int{config->GetMinSize()});
    answer.set("config", values);
    JsonObject consent;
    consent.Pack("{s:b, s:b, s:i}", "accepted", int{terms->isAccepted()},  //
                 "refused", int{terms->refused()},                         //
                 "version", static_cast<int>(terms->getVersion()));
    answer.set("consent", consent);
    answer.set("works", std::string(works ? "yes" : "no"));
    answer.set("token", DBToken::current());
    answer.set("version", version.version);
    answer.set("builddate", version.buildDate);
    readStore(folder + "/Db", key, answer);
    return answer.dumpAsString();
}

[[noreturn]] void answerInChild(const std::string& folder, char** argv) {
    ::alarm(kLongestStartS);
    const int out = ::dup(STDOUT_FILENO);
    const int lines =
        ::open((folder + ".lines").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    ::dup2(lines, STDOUT_FILENO);
    ::dup2(lines, STDERR_FILENO);
    const std::string answer = open(folder, argv[1], argv[2], argv[3]) + "\n";
    std::fflush(nullptr);
    const bool whole =
        ::write(out, answer.data(), answer.size()) == static_cast<ssize_t>(answer.size());
    ::_exit(whole ? 0 : 1);  // as in the daemon, nothing is taken down
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "opener GLOBALINFO BOOTINFO KEY < FOLDERS\n";
        return 2;
    }
    std::string folder;
    while (std::getline(std::cin, folder)) {
        const pid_t child = ::fork();
        if (child == 0) answerInChild(folder, argv);
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child) return 1;
        if (status != 0) std::cout << "{\"ended\": " << status << "}" << std::endl;
    }
}
