#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "AwsWrapperImpl.h"
#include "DB.h"
#include "DatabaseReports.h"
#include "EventsUpload.h"
#include "FilesUpload.h"
#include "Singleton.h"
#include "UploadLog.h"
#include "UploadSchedule.h"
#include "support/DatabaseReportsPeer.h"
#include "support/EventsUploadPeer.h"
#include "support/UploadSchedulePeer.h"
#include "support/UploadWork.h"

/// The rooms of the upload side, without the `UploadImpl` that owns them in the daemon.
class UploadRooms : public UploadWork {
  protected:
    UploadSchedule& schedule() override { return asked; }
    DB& db() override { return store; }

    /// The reports look and write in the test's directory.
    void SetUp() override {
        UploadWork::SetUp();
        store.open(database, false);
        cloudClient->SetBucketName("current");
        std::filesystem::create_directory(dir.file("rw"));
        DatabaseReportsPeer::setReport(reports, dir.file("rw"), dir.file("full.log"));
    }

    /// The objects that were put: the paths of the requests.
    std::vector<std::string> objects() const {
        std::vector<std::string> targets;
        for (const Request& request : cloud.requests()) {
            if (request.method == "PUT") targets.push_back(request.target);
        }
        return targets;
    }

    static std::int64_t kernelMs() { return KernelTime::getTimeMonotonicAsInt64(); }

    using Objects = std::vector<std::string>;

    Singleton<AwsWrapperImpl> cloudClient;
    DB store;
    UploadSchedule asked;
    DatabaseReports reports{*cloudClient, asked};
    EventsUpload events{store, asked, reports};
    FilesUpload files{store, asked, *cloudClient, reports};
};
