#pragma once

#include <errno.h>
#include <fcntl.h>
#include <mqueue.h>
#include <semaphore.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "DB.h"
#include "GatewayImpl.h"
#include "JsonObject.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "UploadImpl.h"
#include "support/GatewayImplPeer.h"
#include "support/KivTest.h"
#include "support/MessageQueue.h"
#include "support/OutputCapture.h"
#include "support/SystemCallFaults.h"
#include "support/TempDir.h"
#include "support/UploadImplPeer.h"
#include "support/WaitUntil.h"

/// A named semaphore of the test's own, of value 0.
class NamedSemaphore {
  public:
    explicit NamedSemaphore(unsigned int value = 0)
        : m_name(uniqueName("sem")),
          m_semaphore(::sem_open(m_name.c_str(), O_CREAT | O_EXCL, 0600, value)) {
        if (m_semaphore == SEM_FAILED) throw std::runtime_error("sem_open failed");
    }
    ~NamedSemaphore() {
        ::sem_close(m_semaphore);
        ::sem_unlink(m_name.c_str());
    }
    NamedSemaphore(const NamedSemaphore&) = delete;
    NamedSemaphore& operator=(const NamedSemaphore&) = delete;

    const std::string& name() const { return m_name; }
    int value() const {
        int result = -1;
        ::sem_getvalue(m_semaphore, &result);
        return result;
    }
    bool wait() const {
        return WaitUntil([this] { return ::sem_trywait(m_semaphore) == 0; });
    }

  private:
    std::string m_name;
    sem_t* m_semaphore;
};

struct Row {
    long long bootCount;
    long long standbyCount;
    long long kernelTime;
    std::string type;
    std::string data;
};

struct FileRow {
    std::string id;
    std::string url;
    std::string info;
};

/// A gateway on a queue and a store of the test's own, consent given, the device's facts known.
/// What it asks of the upload side waits to be looked at.
class GatewaySetup : public KivTest {
  protected:
    static constexpr unsigned int kBoot = 7;
    static constexpr unsigned int kStandby = 2;
    static constexpr char kEnd[] = R"({"event-type": "test.end", "kernel-time": 1})";

    void SetUp() override {
        KivTest::SetUp();
        SystemCallFaults::clear();
        GatewayImpl::SetVerbose(false);
        GatewayImplPeer::forgetEvents();
        GatewayImplPeer::setQueueName(m_queueName);
        DB::m_TotalEventSize = -1;
        DB::m_dbError = false;
        m_upload->stopThread();  // what is asked of it waits, to be looked at
        configure(R"({"kiv_tou": true})");
        m_device->Load(m_dir.write(
            "info", R"({"deviceid": "dev1", "builddate": "Thu, 07 Mar 2019 10:15:02 GMT"})"));
        m_device->setBootCounts(kBoot, kStandby);
        PimAppVersion::setPimVersionPath(m_dir.path());
    }

    void TearDown() override {
        SystemCallFaults::clear();
        m_gateway.reset();
        ::mq_unlink(m_queueName.c_str());
        GatewayImpl::SetVerbose(false);
        GatewayImplPeer::setQueueName(GatewayImplPeer::productQueue);
        GatewayImplPeer::forgetEvents();
        KivTest::TearDown();
    }

    /// Replaces the configuration. Filters count from the next gateway on.
    void configure(const std::string& document) {
        m_config->parseConfig(JsonObject::parse(document));
    }

    void createQueue(long maxMessages = 4, long messageSize = 2048) {
        ASSERT_TRUE(makeQueue(m_queueName, maxMessages, messageSize));
    }

    /// A gateway without Init, whose queue can be sent to.
    void makeEarlyGateway() {
        if (!Queue(m_queueName, O_WRONLY).isOpen()) createQueue();
        m_gateway = std::make_unique<GatewayImpl>();
    }

    void makeGateway() {
        makeEarlyGateway();
        m_gateway->Init(m_db);
    }

    bool send(const std::string& message) { return Queue(m_queueName, O_WRONLY).send(message); }

    std::vector<std::vector<std::string>> query(const std::string& sql) const {
        // A reader's lock would make the gateway's COMMIT fail.
        const std::lock_guard<std::recursive_mutex> noStatements(DB::m_PruneLock);
        sqlite3* connection = nullptr;
        const int opened = ::sqlite3_open(m_db.c_str(), &connection);
        const std::unique_ptr<sqlite3, int (*)(sqlite3*)> owner(connection, ::sqlite3_close);
        std::vector<std::vector<std::string>> rows;
        if (opened != SQLITE_OK) return rows;
        const auto collect = [](void* target, int columns, char** values, char**) {
            std::vector<std::string> row;
            for (int i = 0; i < columns; ++i)
                row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
            static_cast<std::vector<std::vector<std::string>>*>(target)->push_back(row);
            return 0;
        };
        ::sqlite3_exec(connection, sql.c_str(), collect, &rows, nullptr);
        return rows;
    }

    std::vector<Row> rows() const {
        std::vector<Row> result;
        for (const auto& row : query("SELECT bootCount, standbyCount, kernelTime, type, data "
                                     "FROM Events ORDER BY ROWID")) {
            result.push_back(
                {std::stoll(row[0]), std::stoll(row[1]), std::stoll(row[2]), row[3], row[4]});
        }
        return result;
    }

    std::vector<FileRow> files() const {
        std::vector<FileRow> result;
        for (const auto& row : query("SELECT id, url, info FROM Files ORDER BY ROWID"))
            result.push_back({row[0], row[1], row[2]});
        return result;
    }

    /// Every event that was handled before, once all of them are stored.
    std::vector<Row> stored() {
        m_gateway->Log(kEnd);
        ++m_ends;
        const auto isEnd = [](const Row& row) { return row.type == "test.end"; };
        std::vector<Row> all;
        EXPECT_TRUE(WaitUntil([&] {
            all = rows();
            return std::count_if(all.begin(), all.end(), isEnd) == m_ends;
        })) << "the last event was not stored";
        all.erase(std::remove_if(all.begin(), all.end(), isEnd), all.end());
        return all;
    }

    std::vector<std::string> storedTypes() {
        std::vector<std::string> types;
        for (const Row& row : stored()) types.push_back(row.type);
        return types;
    }

    /// Handles one message: what is stored for it.
    JsonObject storedFor(const std::string& message) {
        if (!m_gateway) makeGateway();
        m_gateway->Log(message);
        const std::vector<Row> all = stored();
        return all.empty() ? JsonObject() : JsonObject::parse(all.back().data);
    }

    /// Handles one message: what it writes on standard error.
    std::string errorsOf(const std::string& message) {
        OutputCapture capture;
        m_gateway->Log(message);
        capture.stop();
        return capture.errWithoutPrefixes();
    }

    UploadImplPeer::Messages askedOfUpload() { return UploadImplPeer::waiting(*m_upload); }

    TempDir m_dir;
    const std::string m_db = m_dir.file("Db");
    const std::string m_queueName = uniqueName("queue");
    Config m_config;
    Singleton<CGlobalInfoImpl> m_device;
    Singleton<UploadImpl> m_upload;
    std::unique_ptr<GatewayImpl> m_gateway;
    std::ptrdiff_t m_ends = 0;  ///< how often kEnd was handled
};
