#pragma once

#include <memory>
#include <stdexcept>
#include <string>

#include <sqlite3.h>

#include "CTouImpl.h"
#include "UploadSchedule.h"
#include "support/CTouImplPeer.h"
#include "support/CredentialsPeer.h"
#include "support/DBPeer.h"
#include "support/NetworkHelperPeer.h"
#include "support/TaggedLines.h"
#include "support/UploadSchedulePeer.h"
#include "support/UploadSetup.h"
#include "support/WaitUntil.h"

/// A television that may upload, and what its upload side has to do. No thread runs: the test calls
/// the jobs itself, and what they ask for stays where it was put, in the queue and the timers.
class UploadWork : public UploadSetup {
  protected:
    using Messages = UploadSchedulePeer::Messages;

    static constexpr const char* kTag = "kivUpload: ";

    virtual UploadSchedule& schedule() = 0;
    virtual DB& db() = 0;

    void SetUp() override {
        UploadSetup::SetUp();
        CredentialsPeer::setConfigUrl(cloud.url("/config/"));
        CredentialsPeer::setWebTimeUrl(cloud.url("/time"));
        CredentialsPeer::setTouUrl(cloud.url("/tou"));
        CTouImplPeer::setDirectory(*tou, dir.path() + "/");
        CTouImplPeer::setConsent(*tou, true, 1);
        setNetwork(true);
    }

    static void setNetwork(bool available) {
        const auto now = static_cast<std::int32_t>(KernelTime::getTimeMonotonicAsInt64());
        NetworkHelperPeer::setStatus(available, now == 0 ? 1 : now);
    }

    Messages waiting() { return UploadSchedulePeer::waiting(schedule()); }

    /// Whether the kind's timer is pending and was asked for with `delayMs`, a moment ago.
    ::testing::AssertionResult isDelayed(int id, long long delayMs) {
        const long long left = UploadSchedulePeer::pendingDelay(schedule(), id);
        if (left <= delayMs && left > delayMs - 10000) return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "pending: " << left << " ms";
    }

    /// Nothing was asked for but, perhaps, the refresh of the configuration when it expires.
    ::testing::AssertionResult nothingIsScheduled() {
        if (!waiting().empty()) return ::testing::AssertionFailure() << "a message waits";
        const bool refresh =
            UploadSchedulePeer::pendingDelay(schedule(), UploadSchedule::RefreshConfig) >= 0;
        const int others = UploadSchedulePeer::pendingTimers(schedule()) - (refresh ? 1 : 0);
        if (others != 0) return ::testing::AssertionFailure() << others << " timers are pending";
        return ::testing::AssertionSuccess();
    }

    /// Runs a statement on the store from outside.
    void sql(const std::string& statement) const {
        sqlite3* raw = nullptr;
        sqlite3_open(database.c_str(), &raw);
        const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> connection(raw, &sqlite3_close);
        char* error = nullptr;
        if (sqlite3_exec(raw, statement.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
            const std::string text = error == nullptr ? "sqlite3_exec" : error;
            sqlite3_free(error);
            throw std::runtime_error(text);
        }
    }

    /// The first column of the first row.
    std::string query(const std::string& statement) const {
        sqlite3* raw = nullptr;
        sqlite3_open(database.c_str(), &raw);
        const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> connection(raw, &sqlite3_close);
        std::string result;
        sqlite3_exec(
            raw, statement.c_str(),
            [](void* text, int, char** values, char**) {
                *static_cast<std::string*>(text) = values[0] == nullptr ? "" : values[0];
                return 1;  // enough
            },
            &result, nullptr);
        return result;
    }

    /// A store connection of another process that keeps everybody else from writing. The upload
    /// side's own does not wait for it.
    std::shared_ptr<sqlite3> lockStore() {
        sqlite3_busy_timeout(DBPeer::connection(db()), 0);
        sqlite3* raw = nullptr;
        sqlite3_open(database.c_str(), &raw);
        std::shared_ptr<sqlite3> connection(raw, &sqlite3_close);
        EXPECT_EQ(sqlite3_exec(raw, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
        return connection;
    }

    std::string storedEvents() const { return query("SELECT COUNT(*) FROM Events"); }

    /// Stores an event of the running cycle, `ageMs` old.
    void addEvent(std::int64_t ageMs = 0, const std::string& more = "") {
        addEventOf(kBoot, kStandby, kernelNow - ageMs, more);
    }

    void addEventOf(unsigned int boot, unsigned int standby, std::int64_t kernelMs,
                    const std::string& more = "") {
        db().addEvent(boot, standby, kernelMs, "e",
                      R"({"event-type": "e", "boot-count": )" + std::to_string(boot) +
                          R"(, "standby-count": )" + std::to_string(standby) +
                          R"(, "kernel-time": )" + std::to_string(kernelMs) + more + "}");
    }

    /// Requests to these parts of the cloud, without the records and files.
    std::string otherRequests() const {
        std::string targets;
        for (const Request& request : cloud.requests()) {
            if (request.method == "GET") targets += request.target + " ";
        }
        return targets;
    }

    Singleton<CTouImpl> tou;
};
