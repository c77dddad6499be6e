#pragma once

#include <limits.h>

#include <memory>

#include "UploadImpl.h"
#include "support/UploadImplPeer.h"
#include "support/UploadWork.h"

/// An upload side whose thread has ended.
class UploadJobs : public UploadWork {
  protected:
    UploadSchedule& schedule() override { return UploadImplPeer::schedule(*upload); }
    DB& db() override { return UploadImplPeer::db(*upload); }

    void SetUp() override {
        UploadWork::SetUp();
        upload = std::make_unique<UploadImpl>();
        upload->stopThread();
        upload->Init(database);
        UploadImplPeer::take(*upload);
    }

    void TearDown() override {
        upload.reset();
        UploadWork::TearDown();
    }

    std::unique_ptr<UploadImpl> upload;
};
