#include "FilesUpload.h"

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "support/UploadRooms.h"

namespace {

class FilesUploadTest : public UploadRooms {
  protected:
    std::string announce(const std::string& name, const std::string& info = "") {
        const std::string path = dir.write("file-" + name, "content of " + name);
        db().addFile(name, path, info);
        return path;
    }

    /// As if the file had failed before, last at `lastfail`.
    void failedBefore(const std::string& name, int retries, std::int64_t lastfail) const {
        sql("UPDATE Files SET retries = " + std::to_string(retries) +
            ", lastfail = " + std::to_string(lastfail) + " WHERE id = '" + name + "'");
    }

    std::string storedFiles() const { return query("SELECT COUNT(*) FROM Files"); }
};

}  // namespace

/// A file without metadata goes under component and name into the bucket in force, and is kept.
TEST_F(FilesUploadTest, UploadsAFileIntoTheFolderOfTheComponentAndKeepsIt) {
    const std::string path = announce("log1");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_EQ(cloud.requests()[0].body, "content of log1");
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(storedFiles(), "0");
    EXPECT_TRUE(nothingIsScheduled());
}

/// Without a component the folder is "Unknown", in the report too.
TEST_F(FilesUploadTest, NamesTheFolderUnknownWithoutAComponent) {
    setDevice("");
    announce("log1");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Unknown/log1"}));
}

/// A file with metadata goes under its bare name into its bucket, which stays in force, and is
/// deleted.
TEST_F(FilesUploadTest, UploadsAFileWithMetadataUnderItsBareNameAndDeletesIt) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    const std::string later = announce("log2");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/b1/log1", "/b1/Board/log2"})) << "the bucket stays in force";
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_TRUE(std::filesystem::exists(later));
    EXPECT_EQ(cloudClient->GetBucketName(), "b1");
}

/// Metadata without a bucket name takes the configuration's; text that is not JSON counts as none.
TEST_F(FilesUploadTest, TakesTheDefaultBucketForMetadataWithoutOne) {
    announce("log1", R"({"x": 1})");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/default/bucket/log1"}));
}

/// Metadata without a bucket name takes the configuration's; text that is not JSON counts as none.
TEST_F(FilesUploadTest, TakesTheDefaultBucketForABucketNameThatIsNoString) {
    announce("log1", R"({"bucketname": 5})");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/default/bucket/log1"}));
}

/// Metadata without a bucket name takes the configuration's; text that is not JSON counts as none.
TEST_F(FilesUploadTest, TakesMetadataThatIsNoJsonForNone) {
    const std::string path = announce("log1", "no json");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_TRUE(std::filesystem::exists(path));
}

/// A file that is not there, or no regular file, is dropped and the pass goes on.
TEST_F(FilesUploadTest, DropsAFileThatIsNotThereAndGoesOn) {
    db().addFile("gone", dir.file("gone"), "");
    announce("log1");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
    EXPECT_EQ(storedFiles(), "0");
}

/// A file that is not there, or no regular file, is dropped and the pass goes on.
TEST_F(FilesUploadTest, DropsWhatIsNoRegularFile) {
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0600), 0);
    db().addFile("fifo", dir.file("fifo"), "");
    db().addFile("directory", dir.path(), "");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "0");
}

/// Without files nothing happens.
TEST_F(FilesUploadTest, DoesNothingWithoutFiles) {
    EXPECT_EQ(files.run(), 0);
    EXPECT_TRUE(nothingIsScheduled());
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(FilesUploadTest, WaitsOutTheMinuteOfTheLastFailure) {
    announce("log1");
    failedBefore("log1", 2, kernelMs() - 20000);
    EXPECT_EQ(files.run(), 0);
    const long long left = UploadSchedulePeer::pendingDelay(asked, 2);
    EXPECT_LE(left, 40000);
    EXPECT_GT(left, 38000);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "1");
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(FilesUploadTest, StopsAtTheFirstFileThatIsNotDue) {
    announce("log1");
    announce("log2");
    failedBefore("log1", 2, kernelMs() - 20000);
    failedBefore("log2", 2, kernelMs() - 10000);
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects(), Objects{});
}

/// A failed file waits 60 s from its last attempt, and the pass stops at the first not due.
TEST_F(FilesUploadTest, TriesAgainWhenTheMinuteHasPassed) {
    announce("log1");
    failedBefore("log1", 2, kernelMs() - 61000);
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// The last failure is read as kernel time or UTC; one ahead counts as due.
TEST_F(FilesUploadTest, ReadsALastFailureInUtcToo) {
    announce("log1");
    failedBefore("log1", 1, timeManager->getTime() - 20000);
    EXPECT_EQ(files.run(), 0);
    const long long left = UploadSchedulePeer::pendingDelay(asked, 2);
    EXPECT_LE(left, 40000);
    EXPECT_GT(left, 38000);
}

/// The last failure is read as kernel time or UTC; one ahead counts as due.
TEST_F(FilesUploadTest, TakesALastFailureAheadForOneOfAnEarlierCycle) {
    announce("log1");
    failedBefore("log1", 3, kernelMs() + 1000000);
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects().size(), 1u);
}

/// A file that never failed is not waited for.
TEST_F(FilesUploadTest, AsksForNoWaitOfAFileThatNeverFailed) {
    announce("log1");
    failedBefore("log1", 0, kernelMs());
    EXPECT_EQ(files.run(), 1);
}

/// A failed upload is counted, the file kept, and the next file goes.
TEST_F(FilesUploadTest, CountsAFailedUploadAndTriesAgainInAMinute) {
    script(refuse);
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    OutputCapture output;
    EXPECT_EQ(files.run(), 0);
    output.stop();
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_EQ(query("SELECT retries FROM Files"), "1");
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// A failed upload is counted, the file kept, and the next file goes.
TEST_F(FilesUploadTest, GoesOnWithTheNextFileAfterAFailure) {
    script([](const Request& request) {
        return request.target == "/current/Board/bad" ? refuse(request) : accept(request);
    });
    announce("bad");
    announce("good");
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(objects(), (Objects{"/current/Board/bad", "/current/Board/good"}));
    EXPECT_EQ(storedFiles(), "1");
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// No name is handled twice in a pass.
TEST_F(FilesUploadTest, HandlesNoNameTwiceInAPass) {
    announce("log1");
    sql("CREATE TRIGGER keep BEFORE DELETE ON Files BEGIN SELECT RAISE(IGNORE); END");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// Without consent, current configuration or web time no file goes.
TEST_F(FilesUploadTest, UploadsNothingWithoutConsentConfigurationOrWebTime) {
    announce("log1");
    configure(R"({"kiv_tou": false})");
    EXPECT_EQ(files.run(), 0);
    configure(R"({"expiry_tou": 0})");
    script([](const Request&) {
        Response response;
        response.closeWithoutAnswer = true;
        return response;
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 0);
    configure();
    device->setBootCounts(8, 0);
    timeManager->setTime(TimeSourceSystem, TimeReference(), kNowMs);
    EXPECT_EQ(files.run(), 0);
    output.stop();
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "1");
    EXPECT_TRUE(nothingIsScheduled());
}

/// A database in error is reported instead of events and of files.
TEST_F(FilesUploadTest, ReportsADatabaseErrorInsteadOfFiles) {
    announce("log1");
    DB::m_dbError = true;
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(records().size(), 1u);
    EXPECT_EQ(objects(), Objects{});
}

/// A file that cannot be deleted gets a line.
TEST_F(FilesUploadTest, TellsThatAnUploadedFileCannotBeDeleted) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([&](const Request& request) {
        ::unlink(path.c_str());
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot delete " + path + ": No such file or directory\n");
}

/// Verbose, each file is told, with "is invalid, removing "; otherwise nothing is.
TEST_F(FilesUploadTest, DescribesEachFileWhenVerbose) {
    db().addFile("gone", dir.file("gone"), "");
    const std::string path = announce("log1");
    failedBefore("log1", 3, 1);
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    const std::string gone = dir.file("gone");
    const std::string lines = taggedLines(output.outWithoutPrefixes(), kTag);
    const std::string tail = "kivUpload: Trying upload of \"" + gone +
                             "\" gone (retries=0)\n"
                             "kivUpload: File \"" +
                             gone +
                             "\" is invalid, removing gone from DB\n"
                             "kivUpload: Trying upload of \"" +
                             path + "\" log1 (retries=3)\n";
    EXPECT_EQ(lines.rfind("kivUpload: uploadFiles request\n", 0), 0u) << lines;
    ASSERT_GE(lines.size(), tail.size());
    EXPECT_EQ(lines.substr(lines.size() - tail.size()), tail);
}

/// Verbose, each file is told, with "is invalid, removing "; otherwise nothing is.
TEST_F(FilesUploadTest, UploadsSilentlyOtherwise) {
    db().addFile("gone", dir.file("gone"), "");
    announce("log1");
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.out(), "");
    EXPECT_EQ(output.err(), "");
}
