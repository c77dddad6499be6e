#include "FilesUpload.h"

#include <filesystem>
#include <functional>
#include <memory>

#include <sys/stat.h>
#include <unistd.h>

#include "OwnFiles.h"
#include "support/FilesUploadPeer.h"
#include "support/PoisonedOutput.h"
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

    /// A pass in which another process locks the store while a file is sent.
    int runWithALockedStore(const std::function<Response(const Request&)>& answer) {
        std::shared_ptr<sqlite3> locked;
        script([&](const Request& request) {
            if (locked == nullptr) locked = lockStore();
            return answer(request);
        });
        const OutputCapture output;
        const int result = files.run();
        script(accept);
        return result;
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

/// The second file that fails within a minute ends the pass: the service may be at fault. The next
/// one begins a minute later, whatever is announced meanwhile, and takes all.
TEST_F(FilesUploadTest, AsksAServiceThatFailsForTwoFilesAMinuteAtMost) {
    script(refuse);
    for (int file = 10; file < 22; ++file) announce("log" + std::to_string(file));
    OutputCapture output;
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_TRUE(isDelayed(2, 60000));
    announce("later");
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_TRUE(isDelayed(2, 60000));
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects().size(), 4u) << "two others";
    script(accept);
    FilesUploadPeer::letAMinutePass(files);
    sql("UPDATE Files SET lastfail = lastfail - 60000 WHERE retries > 0");
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(objects().size(), 17u);
    EXPECT_EQ(storedFiles(), "0");
}

/// Two files that fail more than a minute apart do not end a pass.
TEST_F(FilesUploadTest, TakesTwoFailuresFarApartForThoseOfTheFiles) {
    script([](const Request& request) {
        return request.target.find("bad") == std::string::npos ? accept(request) : refuse(request);
    });
    announce("bad1");
    OutputCapture output;
    EXPECT_EQ(files.run(), 0);
    FilesUploadPeer::letAMinutePass(files);
    announce("bad2");
    announce("good");
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(objects(),
              (Objects{"/current/Board/bad1", "/current/Board/bad2", "/current/Board/good"}));
}

/// A link that leads to one of the daemon's own files when its turn comes is refused with a line.
TEST_F(FilesUploadTest, RefusesOneOfTheDaemonsOwnFilesBehindALink) {
    const std::string own = dir.write("secret", "{}");
    OwnFiles::add(own);
    std::filesystem::create_symlink(dir.write("harmless", "text"), dir.file("link"));
    db().addFile("log1", dir.file("link"), R"({"bucketname": "b1"})");
    std::filesystem::remove(dir.file("link"));
    std::filesystem::create_symlink(own, dir.file("link"));
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: File is the daemon's own: Ignore the file " + dir.file("link") + "\n");
    EXPECT_EQ(objects(), Objects{});
    EXPECT_EQ(storedFiles(), "0");
    EXPECT_TRUE(dir.has("secret"));
}

/// A folder that is renamed while its file is sent, with a link to the daemon's folder in its
/// place, costs none of the daemon's own files.
TEST_F(FilesUploadTest, DeletesNoneOfTheDaemonsOwnFilesWhenTheFolderIsSwapped) {
    std::filesystem::create_directory(dir.file("own"));
    std::filesystem::create_directory(dir.file("victim"));
    OwnFiles::add(dir.write("own/Config", "{}"));
    const std::string announced = dir.write("victim/Config", "content");
    db().addFile("log1", announced, R"({"bucketname": "b1"})");
    script([this](const Request& request) {
        std::filesystem::rename(dir.file("victim"), dir.file("moved"));
        std::filesystem::create_directory_symlink(dir.file("own"), dir.file("victim"));
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Another file has taken its place: Not deleted: " + announced + "\n");
    EXPECT_EQ(objects(), (Objects{"/b1/log1"}));
    EXPECT_EQ(storedFiles(), "0");
    EXPECT_TRUE(dir.has("own/Config"));
}

/// A file that replaced the announced one while that was sent is not deleted: nobody has sent it.
TEST_F(FilesUploadTest, KeepsAFileThatReplacedTheOneThatWasSent) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([this, &path](const Request& request) {
        std::filesystem::remove(path);
        dir.write("file-log1", "later content");
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Another file has taken its place: Not deleted: " + path + "\n");
    EXPECT_EQ(dir.read("file-log1"), "later content");
    EXPECT_EQ(storedFiles(), "0");
}

/// A file that became one of the daemon's own while it was sent is not deleted.
TEST_F(FilesUploadTest, KeepsAFileThatHasBecomeTheDaemonsOwn) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([&path](const Request& request) {
        OwnFiles::add(path);
        return accept(request);
    });
    const OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    EXPECT_TRUE(std::filesystem::exists(path));
}

/// A file that somebody else deleted while it was sent gets a line.
TEST_F(FilesUploadTest, SaysThatAFileIsGoneThatItWantedToDelete) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([&path](const Request& request) {
        std::filesystem::remove(path);
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot delete " + path + ": No such file or directory\n");
}

/// The link under whose name a file was announced is deleted, the file that it leads to is not.
TEST_F(FilesUploadTest, DeletesTheLinkThatWasAnnounced) {
    std::filesystem::create_symlink(dir.write("target", "text"), dir.file("link"));
    db().addFile("log1", dir.file("link"), R"({"bucketname": "b1"})");
    EXPECT_EQ(files.run(), 1);
    EXPECT_FALSE(dir.has("link"));
    EXPECT_TRUE(dir.has("target"));
}

/// No name is handled twice in a pass.
TEST_F(FilesUploadTest, HandlesNoNameTwiceInAPass) {
    announce("log1");
    EXPECT_EQ(runWithALockedStore(accept), 1);  // nothing can be noted of it
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_TRUE(isDelayed(2, 60000));
}

/// A file that is in the cloud is not sent again because its record could not be removed: from then
/// on only that is tried.
TEST_F(FilesUploadTest, NeverSendsAgainAFileWhoseRecordStays) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    EXPECT_EQ(runWithALockedStore(accept), 1);
    EXPECT_EQ(storedFiles(), "1");
    EXPECT_FALSE(std::filesystem::exists(path)) << "it is in the cloud";
    EXPECT_TRUE(isDelayed(2, 60000));
    EXPECT_EQ(files.run(), 0) << "within the minute";
    EXPECT_EQ(storedFiles(), "1");
    FilesUploadPeer::letAMinutePass(files);
    UploadLog::log.setVerbose(true);
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.out().find("Trying upload"), std::string::npos);
    EXPECT_EQ(storedFiles(), "0");
    EXPECT_EQ(objects(), (Objects{"/b1/log1"}));
    EXPECT_EQ(FilesUploadPeer::remembered(files), 0u);
}

/// A file that is in the cloud is not sent again because its record could not be removed: from then
/// on only that is tried.
TEST_F(FilesUploadTest, TriesOnlyTheRemovalHoweverOftenItFails) {
    announce("log1");
    runWithALockedStore(accept);
    for (int attempt = 0; attempt < 2; ++attempt) {
        const std::shared_ptr<sqlite3> locked = lockStore();
        FilesUploadPeer::letAMinutePass(files);
        const OutputCapture output;
        EXPECT_EQ(files.run(), 0);
        EXPECT_TRUE(isDelayed(2, 60000));
    }
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_EQ(storedFiles(), "1");
}

/// After the removal an announcement of the same name is a new file.
TEST_F(FilesUploadTest, SendsAFileThatIsAnnouncedAgainAfterTheRemoval) {
    announce("log1");
    runWithALockedStore(accept);
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 1);
    announce("log1");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1", "/current/Board/log1"}));
    EXPECT_EQ(storedFiles(), "0");
}

/// Where the record went another way, an announcement of the same name is a new file, too.
TEST_F(FilesUploadTest, SendsAFileThatIsAnnouncedAgainAfterItsRecordWentAnotherWay) {
    announce("log1");
    runWithALockedStore(accept);
    sql("DELETE FROM Files");
    FilesUploadPeer::letAMinutePass(files);
    files.run();
    EXPECT_EQ(FilesUploadPeer::remembered(files), 0u);
    announce("log1");
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_EQ(storedFiles(), "0");
}

/// A record of that name with another path is another file.
TEST_F(FilesUploadTest, SendsAFileOfTheSameNameFromAnotherPlace) {
    announce("log1");
    runWithALockedStore(accept);
    sql("UPDATE Files SET url = '" + dir.write("other", "another file") + "'");
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 1);
    ASSERT_EQ(objects().size(), 2u);
    EXPECT_EQ(cloud.requests()[1].body, "another file");
}

/// A record that stays does not keep the pass from the other files.
TEST_F(FilesUploadTest, GoesOnWithTheNextFileAfterARecordThatStays) {
    announce("log1");
    runWithALockedStore(accept);
    announce("log2");
    sql("UPDATE Files SET retries = 1, lastfail = " + std::to_string(kernelMs() - 70000) +
        " WHERE id = 'log1'");
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1", "/current/Board/log2"}));
    EXPECT_EQ(storedFiles(), "0");
}

/// A failure that the store cannot note is remembered: the file waits its minute all the same.
TEST_F(FilesUploadTest, WaitsOutTheMinuteOfAFailureThatTheStoreDoesNotKnow) {
    announce("log1");
    EXPECT_EQ(runWithALockedStore(refuse), 0);
    EXPECT_EQ(query("SELECT retries FROM Files"), "0");
    EXPECT_TRUE(isDelayed(2, 60000));
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects().size(), 1u);
    EXPECT_TRUE(isDelayed(2, 60000));
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(objects().size(), 2u);
    EXPECT_EQ(FilesUploadPeer::remembered(files), 0u);
}

/// A file whose sending throws waits its minute too.
TEST_F(FilesUploadTest, WaitsOutTheMinuteOfASendThatThrew) {
    announce("log1");
    AwsWrapperImpl::SetVerbose(true);
    {
        const PoisonedOutput output("Set AWS ClientConfiguration caPath",
                                    [] { AwsWrapperImpl::SetVerbose(false); });
        EXPECT_ANY_THROW(files.run());
    }
    EXPECT_EQ(files.run(), 0);
    EXPECT_EQ(objects(), Objects{});
    EXPECT_TRUE(isDelayed(2, 60000));
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 1);
    EXPECT_EQ(FilesUploadPeer::remembered(files), 0u);
}

/// A store that cannot be read is asked for files again in a minute.
TEST_F(FilesUploadTest, AsksAgainInAMinuteWhenTheFilesCannotBeRead) {
    sql("DROP TABLE Files");
    const std::shared_ptr<sqlite3> locked = lockStore();
    const OutputCapture output;
    EXPECT_EQ(files.run(), 0);
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
    EXPECT_EQ(waiting(), (Messages{{2, 0}}));
    EXPECT_EQ(files.run(), 1) << "the store works";
    EXPECT_EQ(objects(), (Objects{"/current/Board/log1"}));
}

/// A store that fails is asked again in 60000 ms, and not before.
TEST_F(FilesUploadTest, AsksAStoreThatFailsAgainInAMinute) {
    announce("log1");
    std::shared_ptr<sqlite3> locked = lockStore();
    DB::m_dbError = true;
    OutputCapture output;
    EXPECT_EQ(files.run(), 0);
    EXPECT_TRUE(isDelayed(2, 60000));
    locked.reset();
    EXPECT_EQ(files.run(), 0) << "within the minute";
    EXPECT_TRUE(DB::m_dbError);
    FilesUploadPeer::letAMinutePass(files);
    EXPECT_EQ(files.run(), 0);
    output.stop();
    EXPECT_FALSE(DB::m_dbError);
    EXPECT_EQ(waiting(), (Messages{{2, 0}}));
}

/// A file that cannot be deleted gets a line.
TEST_F(FilesUploadTest, TellsThatAnUploadedFileCannotBeDeleted) {
    const std::string path = announce("log1", R"({"bucketname": "b1"})");
    script([path](const Request& request) {
        ::unlink(path.c_str());
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(),
              "kivUpload: Cannot delete " + path + ": No such file or directory\n");
}

/// A path is the announcer's text: in an error line it is cut and escaped.
TEST_F(FilesUploadTest, EscapesThePathInAnErrorLine) {
    const std::string path = announce("two\nlines", R"({"bucketname": "b1"})");
    script([path](const Request& request) {
        ::unlink(path.c_str());
        return accept(request);
    });
    OutputCapture output;
    EXPECT_EQ(files.run(), 1);
    output.stop();
    EXPECT_EQ(output.errWithoutPrefixes(), "kivUpload: Cannot delete " +
                                               dir.file("file-two\\x0Alines") +
                                               ": No such file or directory\n");
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
