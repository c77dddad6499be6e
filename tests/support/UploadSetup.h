#pragma once

#include <stdlib.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <openssl/evp.h>

#include "CGlobalInfoImpl.h"
#include "Config.h"
#include "DB.h"
#include "DBToken.h"
#include "EventSessionHeader.h"
#include "JsonIterator.h"
#include "JsonObject.h"
#include "KernelTime.h"
#include "PimAppVersion.h"
#include "Singleton.h"
#include "TimeMgrImpl.h"
#include "WebTimeImpl.h"
#include "support/FakeCommands.h"
#include "support/KivTest.h"
#include "support/OutputCapture.h"
#include "support/ScriptedHttpServer.h"
#include "support/TempDir.h"
#include "support/TimeMgrImplPeer.h"

/// A television that may upload: device facts, consent, a configuration in force, web time
/// 2019-03-07T10:15:02Z, a store, and a cloud of the test's own that takes everything.
class UploadSetup : public KivTest {
  protected:
    using Request = ScriptedHttpServer::Request;
    using Response = ScriptedHttpServer::Response;

    static constexpr std::int64_t kNowMs = 1551953702000;
    static constexpr const char* kToken = "4d7a3f0e-3c1b-4a52-9a55-0d8f0e7c9b11";
    static constexpr unsigned int kBoot = 7;
    static constexpr unsigned int kStandby = 2;

    void SetUp() override {
        KivTest::SetUp();
        commands.setOutput("ifconfig", "");
        ::setenv("CURL_CA_BUNDLE", ScriptedHttpServer::caFile().c_str(), 1);
        ::setenv("LOC_NETWORK", "false", 1);
        DB().open(database, false);
        dir.write("dbuuid.json", std::string(R"({"db-uuid": ")") + kToken + R"("})");
        DBToken::setDBUUIDPath(dir.path());
        DBToken::loadDBUUIDFile(false);
        PimAppVersion::setPimVersionPath(dir.path());
        PimAppVersion::updatePimVersion("4.5", "2019-01-02");
        setDevice("Board");
        config->Load(dir.file("Config"));
        EventSessionHeader::setDbPath(database);
        TimeMgrImplPeer::setPipePath(dir.file("pipe"));
        timeManager->setDBPath(database);
        kernelNow = KernelTime::getTimeMonotonicAsInt64();
        timeManager->setTime(TimeSourceWeb, TimeReference(kBoot, kStandby, kernelNow), kNowMs);
        configure();
    }

    void TearDown() override {
        timeManager->setDBPath("");
        DB::setFullCallback(nullptr);
        DB::m_dbError = false;
        KivTest::TearDown();
    }

    void setDevice(const std::string& component) {
        device->Load(dir.write("info", R"({"deviceid": "dev1", "ctn": "55X", "country": "BEL", )"
                                       R"("ufversion": "1.2.3", )"
                                       R"("builddate": "UTC time=20190101 00:00:00=", )"
                                       R"("component": ")" +
                                           component + "\"}"));
        device->setBootCounts(kBoot, kStandby);
    }

    /// A configuration in force, with these members changed or added.
    void configure(const std::string& changes = "{}") {
        JsonObject doc = JsonObject::parse(
            R"({"kiv_tou": true, "expiry_tou": 100000, "upload_events": {"max-delay": 3600, )"
            R"("max-size": 131072, "min-size": 16384}, "firehose_stream": "stream1", )"
            R"("s3_bucket": "default/bucket", "UTC-Time": 1551953000, )"
            R"("Last-Modified": "Thu, 07 Mar 2019 10:03:20 GMT"})");
        doc.set("firehose_endpoint", cloud.url());
        doc.set("s3_endpoint", cloud.host());
        const JsonObject changed = JsonObject::parse(changes);
        for (JsonIterator member(changed); !member.atEnd(); member.advance()) {
            doc.set(member.key(), member.value());
        }
        config->parseConfig(doc);
    }

    /// What the cloud does from now on.
    void script(std::function<Response(const Request&)> behaviour) {
        std::unique_lock<std::mutex> lock(scriptMutex);
        current = std::move(behaviour);
    }

    static Response accept(const Request& request) {
        Response response;
        if (request.method == "POST") response.body = R"({"RecordId": "r1"})";
        if (request.method == "PUT") response.headers = {{"ETag", "\"e1\""}};
        return response;
    }

    static Response refuse(const Request& request) {
        Response response;
        response.status = 400;
        response.body =
            request.method == "POST"
                ? R"({"__type": "x#ResourceNotFoundException", "message": "no stream"})"
                : "<Error><Code>NoSuchBucket</Code><Message>no bucket</Message></Error>";
        return response;
    }

    /// The texts of the records that were put, in order.
    std::vector<std::string> records() const {
        std::vector<std::string> texts;
        for (const Request& request : cloud.requests()) {
            if (request.method != "POST") continue;
            const JsonObject body = JsonObject::parse(request.body);
            texts.push_back(decodeBase64(body.getObject("Record").optString("Data")));
        }
        return texts;
    }

    static std::string decodeBase64(const std::string& text) {
        std::vector<unsigned char> bytes(text.size() + 4);
        const int size =
            ::EVP_DecodeBlock(bytes.data(), reinterpret_cast<const unsigned char*>(text.data()),
                              static_cast<int>(text.size()));
        std::size_t padding = 0;
        while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') {
            ++padding;
        }
        if (size < 0) return "(no base64)";
        return std::string(bytes.begin(),
                           bytes.begin() + size - static_cast<std::ptrdiff_t>(padding));
    }

    /// The UTC milliseconds of a kernel time of the running cycle.
    std::int64_t utcOf(std::int64_t kernelMs) const { return kNowMs - kernelNow + kernelMs; }

    FakeCommands commands;  ///< no network card to ask: what the machine has is not seen
    TempDir dir;
    std::string database = dir.file("Db");
    std::mutex scriptMutex;  ///< guards current
    std::function<Response(const Request&)> current = accept;
    ScriptedHttpServer cloud{[this](const Request& request) {
                                 std::unique_lock<std::mutex> lock(scriptMutex);
                                 const auto behaviour = current;
                                 lock.unlock();
                                 return behaviour(request);
                             },
                             ScriptedHttpServer::Transport::Tls};
    Singleton<CGlobalInfoImpl> device;
    Config config;
    Singleton<TimeMgrImpl> timeManager;
    Singleton<WebTimeImpl> webTime;
    std::int64_t kernelNow = 0;  ///< the kernel time of kNowMs
};
