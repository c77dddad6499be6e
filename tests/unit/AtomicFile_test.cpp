#include "AtomicFile.h"

#include "support/DiskFaults.h"
#include "support/SmallDisk.h"
#include "support/TempDir.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <cerrno>
#include <cstdio>

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;

Names namesIn(const std::string& directory) {
    Names names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

ino_t inodeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0) << path;
    return facts.st_ino;
}

/// How many of the process's descriptors are open on `path` or on something in it.
int openUnder(const std::string& path) {
    int count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (fs::read_symlink(entry.path(), gone).string().rfind(path, 0) == 0) ++count;
    }
    return count;
}

mode_t modeOf(const std::string& path) {
    struct stat facts {};
    EXPECT_EQ(::stat(path.c_str(), &facts), 0) << path;
    return facts.st_mode & 07777;
}

}  // namespace

/// A new file may be read by all; mode and owner of an old one are kept.
TEST(AtomicFile, CreatesAFileThatAllMayRead) {
    const TempDir dir;
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "text"), "");
    EXPECT_EQ(dir.read("config"), "text");
    EXPECT_EQ(modeOf(dir.file("config")), 0644U);
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// A new file takes the place of the old one; whoever holds the old one keeps it.
TEST(AtomicFile, PutsANewFileInThePlaceOfTheOld) {
    const TempDir dir;
    const std::string path = dir.write("config", "a longer old text");
    const std::string otherName = dir.file("linked");
    ASSERT_EQ(::link(path.c_str(), otherName.c_str()), 0);

    EXPECT_EQ(AtomicFile::replace(path, "new"), "");
    EXPECT_EQ(dir.read("config"), "new");
    EXPECT_EQ(dir.read("linked"), "a longer old text");
}

/// A new file may be read by all; mode and owner of an old one are kept.
TEST(AtomicFile, KeepsTheModeOfTheOldFile) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    ASSERT_EQ(::chmod(path.c_str(), 0640), 0);
    EXPECT_EQ(AtomicFile::replace(path, "new"), "");
    EXPECT_EQ(modeOf(path), 0640U);
}

/// A new file may be read by all; mode and owner of an old one are kept.
TEST(AtomicFile, KeepsTheOwnerOfTheOldFile) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    const uid_t owner = ::geteuid() == 0 ? 65534 : ::geteuid();
    ASSERT_EQ(::chown(path.c_str(), owner, static_cast<gid_t>(-1)), 0);
    EXPECT_EQ(AtomicFile::replace(path, "new"), "");
    struct stat facts {};
    ASSERT_EQ(::stat(path.c_str(), &facts), 0);
    EXPECT_EQ(facts.st_uid, owner);
    EXPECT_EQ(dir.read("config"), "new");
}

/// Every byte is written, also of long texts and the empty one.
TEST(AtomicFile, WritesEveryByte) {
    const TempDir dir;
    std::string text(3000000, 'x');
    text[5] = '\0';
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), text), "");
    EXPECT_TRUE(dir.read("config") == text);
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), ""), "");
    EXPECT_EQ(dir.read("config"), "");
}

/// The file is synced before the rename, its directory after.
TEST(AtomicFile, SyncsTheFileBeforeTheRenameAndTheDirectoryAfter) {
    const TempDir dir;
    DiskWatch disk;
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "text"), "");
    EXPECT_EQ(disk.calls, (Names{"sync file", "rename", "sync directory"}));
}

/// A reader meets the old or the new text and never less.
TEST(AtomicFile, AReaderSeesTheOldOrTheNewTextAndNeverLess) {
    const TempDir dir;
    const std::string one(20000, '1');
    const std::string two(40000, '2');
    const std::string path = dir.write("config", one);

    std::atomic<bool> done{false};
    int broken = 0;
    int reads = 0;
    std::thread reader([&] {
        while (!done || reads == 0) {
            const std::string seen = TempDir::readFile(path);
            if (seen != one && seen != two) ++broken;
            ++reads;
        }
    });
    for (int i = 0; i < 50; ++i) EXPECT_EQ(AtomicFile::replace(path, i % 2 == 0 ? two : one), "");
    done = true;
    reader.join();
    EXPECT_EQ(broken, 0);
}

/// Several threads may replace one file.
TEST(AtomicFile, ServesSeveralThreadsOnOneFile) {
    constexpr int kRounds = 20;
    const TempDir dir;
    const std::string path = dir.file("config");
    std::atomic<int> problems{0};
    std::vector<std::thread> writers;
    for (char letter : {'a', 'b', 'c'}) {
        writers.emplace_back([&problems, &path, letter] {
            for (int i = 0; i < kRounds; ++i) {
                DiskWatch disk;
                const std::string problem = AtomicFile::replace(path, std::string(5000, letter));
                const bool renamed = disk.calls == DiskWatch::safeReplacement();
                if (!problem.empty() || !renamed) ++problems;
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    EXPECT_EQ(problems, 0);
    const std::string text = dir.read("config");
    ASSERT_FALSE(text.empty());
    EXPECT_TRUE(text == std::string(5000, text[0]));
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// A link is followed and the file replaced beside its target.
TEST(AtomicFile, FollowsALinkAndReplacesBesideItsTarget) {
    const TempDir dir;
    const TempDir elsewhere;
    const std::string target = elsewhere.write("real", "old");
    const ino_t before = inodeOf(target);
    fs::create_symlink(target, dir.file("second"));
    fs::create_symlink("second", dir.file("config"));

    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"), "");
    EXPECT_EQ(elsewhere.read("real"), "new");
    EXPECT_NE(inodeOf(target), before);
    EXPECT_TRUE(fs::is_symlink(dir.file("config")));
    EXPECT_TRUE(fs::is_symlink(dir.file("second")));
    EXPECT_EQ(namesIn(elsewhere.path()), Names{"real"});
    EXPECT_EQ(namesIn(dir.path()), (Names{"config", "second"}));
}

/// A link is followed and the file replaced beside its target.
TEST(AtomicFile, CreatesTheMissingTargetOfALink) {
    const TempDir dir;
    const TempDir elsewhere;
    fs::create_symlink(elsewhere.file("real"), dir.file("config"));
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"), "");
    EXPECT_EQ(elsewhere.read("real"), "new");
    EXPECT_TRUE(fs::is_symlink(dir.file("config")));
}

/// Links in circles are given up.
TEST(AtomicFile, GivesUpOnLinksThatGoInCircles) {
    const TempDir dir;
    fs::create_symlink("b", dir.file("a"));
    fs::create_symlink("a", dir.file("b"));
    const std::string problem = AtomicFile::replace(dir.file("a"), "text");
    EXPECT_TRUE(fs::is_symlink(dir.file("a")));
    EXPECT_TRUE(fs::is_symlink(dir.file("b")));
    EXPECT_EQ(problem, "cannot open " + dir.file("a") + ": Too many levels of symbolic links");
}

/// A name without a directory is taken.
TEST(AtomicFile, TakesANameWithoutADirectory) {
    const TempDir dir;
    EXPECT_EXIT(
        {
            if (::chdir(dir.path().c_str()) != 0) ::_exit(2);
            ::_exit(AtomicFile::replace("config", "text").empty() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    EXPECT_EQ(dir.read("config"), "text");
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// The temporary file that a power cut left is removed.
TEST(AtomicFile, ClearsWhatAPowerCutLeft) {
    const TempDir dir;
    dir.write("config", "old");
    dir.write(".config.new", "hal");
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"), "");
    EXPECT_EQ(dir.read("config"), "new");
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// A link in the temporary file's place is not written through.
TEST(AtomicFile, DoesNotWriteThroughALinkInTheTemporarysPlace) {
    const TempDir dir;
    dir.write("victim", "precious");
    fs::create_symlink("victim", dir.file(".config.new"));
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"), "");
    EXPECT_EQ(dir.read("victim"), "precious");
    EXPECT_EQ(dir.read("config"), "new");
    EXPECT_FALSE(fs::is_symlink(dir.file("config")));
}

/// Where the directory takes no new files, or the rename is refused, the text is written in place.
TEST(AtomicFile, WritesInPlaceWhereTheDirectoryTakesNoNewFiles) {
    const TempDir dir;
    const std::string path = dir.write("config", "a longer old text");
    const ino_t before = inodeOf(path);
    fs::permissions(dir.path(), fs::perms(0555));
    fs::permissions(path, fs::perms(0666));
    const uid_t self = ::geteuid();
    if (self == 0) {
        ASSERT_EQ(::seteuid(65534), 0);
    }

    DiskWatch disk;
    const std::string problem = AtomicFile::replace(path, "new");
    ASSERT_EQ(::seteuid(self), 0);
    EXPECT_EQ(problem, "");
    EXPECT_EQ(dir.read("config"), "new");
    EXPECT_EQ(inodeOf(path), before);
    EXPECT_EQ(disk.calls, Names{"sync file"});
    fs::permissions(dir.path(), fs::perms(0755));
}

/// Where the directory takes no new files and there is no room, the old text stays.
TEST(AtomicFile, KeepsTheOldTextWhereItCanOnlyBeWrittenInPlaceAndThereIsNoRoom) {
    const TempDir dir;
    const SmallDisk disk(dir.file("disk"), "size=32k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    const std::string path = disk.file("config");
    std::ofstream(path) << "old";
    fs::permissions(path, fs::perms(0666));
    disk.fill();
    fs::permissions(dir.path(), fs::perms(0755));
    const uid_t self = ::geteuid();
    fs::permissions(dir.file("disk"), fs::perms(0555));
    if (self == 0) {
        ASSERT_EQ(::seteuid(65534), 0);
    }
    const std::string tooLong = AtomicFile::replace(path, std::string(8192, 'n'));
    const std::string kept = TempDir::readFile(path);
    const std::string shorter = AtomicFile::replace(path, "n");
    const std::string written = TempDir::readFile(path);
    ASSERT_EQ(::seteuid(self), 0);
    EXPECT_EQ(tooLong, "cannot write " + path + ": No space left on device");
    EXPECT_EQ(kept, "old");
    EXPECT_EQ(shorter, "") << "needs no room";
    EXPECT_EQ(written, "n");
}

/// In place, too, a longer text and a shorter one are whole.
TEST(AtomicFile, WritesLongerAndShorterTextsInPlace) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    DiskWatch disk;
    disk.renameError = EBUSY;
    for (const std::string& text : Names{std::string(10000, 'n') + "end", "short", "", "x"}) {
        EXPECT_EQ(AtomicFile::replace(path, text), "");
        EXPECT_EQ(dir.read("config"), text);
    }
}

/// Where it cannot be told whether there is a file, that is the failure.
TEST(AtomicFile, SaysWhenItCannotBeToldWhetherThereIsAFile) {
    const TempDir dir;
    const std::string path = dir.write("file", "old") + "/config";
    EXPECT_EQ(AtomicFile::replace(path, "new"), "cannot open " + path + ": Not a directory");
}

/// A text that was written in place and cannot be synced is told.
TEST(AtomicFile, SaysWhenATextInPlaceCannotBeSynced) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    fs::permissions(dir.path(), fs::perms(0555));
    fs::permissions(path, fs::perms(0666));
    const uid_t self = ::geteuid();
    if (self == 0) {
        ASSERT_EQ(::seteuid(65534), 0);
    }
    DiskWatch disk;
    disk.fileSyncError = EIO;
    const std::string problem = AtomicFile::replace(path, "new");
    ASSERT_EQ(::seteuid(self), 0);
    EXPECT_EQ(problem, "cannot sync " + path + ": Input/output error");
    EXPECT_EQ(disk.calls, Names{"sync file"});
    fs::permissions(dir.path(), fs::perms(0755));
}

/// What keeps a temporary file from being made, and is not the directory's refusal, leaves the old
/// text.
TEST(AtomicFile, KeepsTheOldTextWhereTheTemporarysNameIsTaken) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    fs::create_directory(dir.file(".config.new"));
    EXPECT_EQ(AtomicFile::replace(path, "new"),
              "cannot make " + dir.file(".config.new") + ": File exists");
    EXPECT_EQ(dir.read("config"), "old");
}

/// What keeps a temporary file from being made, and is not the directory's refusal, leaves the old
/// text.
TEST(AtomicFile, KeepsTheOldTextWhereThereIsNoInode) {
    const TempDir dir;
    const SmallDisk disk(dir.file("disk"), "size=16k,nr_inodes=6");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    const std::string path = disk.file("config");
    std::ofstream(path) << "old";
    disk.fillNames();
    EXPECT_EQ(AtomicFile::replace(path, "new"),
              "cannot make " + disk.file(".config.new") + ": No space left on device");
    EXPECT_EQ(TempDir::readFile(path), "old");
}

/// A disk without room leaves the old text, and no temporary file.
TEST(AtomicFile, KeepsTheOldTextWhereThereIsNoRoom) {
    const TempDir dir;
    const SmallDisk disk(dir.file("disk"), "size=16k");
    if (!disk.isThere()) GTEST_SKIP() << "no right to mount";
    const std::string path = disk.file("config");
    std::ofstream(path) << "old";
    disk.fill();
    EXPECT_EQ(AtomicFile::replace(path, std::string(8192, 'n')),
              "cannot write " + disk.file(".config.new") + ": No space left on device");
    EXPECT_EQ(TempDir::readFile(path), "old");
    EXPECT_EQ(namesIn(dir.file("disk")), (Names{"config", "filler"}));
}

/// A disk without room leaves the old text, and no temporary file.
TEST(AtomicFile, KeepsTheOldTextWhereTheRenameFindsNoRoom) {
    for (const int error : {ENOSPC, EDQUOT, EIO}) {
        const TempDir dir;
        const std::string path = dir.write("config", "old");
        DiskWatch disk;
        disk.renameError = error;
        EXPECT_EQ(AtomicFile::replace(path, "new").rfind("cannot rename ", 0), 0u) << error;
        EXPECT_EQ(dir.read("config"), "old") << error;
        EXPECT_EQ(namesIn(dir.path()), Names{"config"});
    }
}

/// A new file has the mode that the umask leaves of 0644; an existing one keeps its own.
TEST(AtomicFile, TakesTheUmaskIntoAccount) {
    const TempDir dir;
    const mode_t before = ::umask(027);
    dir.write("old", "old");
    fs::permissions(dir.file("old"), fs::perms(0664));
    EXPECT_EQ(AtomicFile::replace(dir.file("new"), "text"), "");
    EXPECT_EQ(AtomicFile::replace(dir.file("old"), "text"), "");
    ::umask(before);
    EXPECT_EQ(modeOf(dir.file("new")), 0640U);
    EXPECT_EQ(modeOf(dir.file("old")), 0664U);
}

/// Without a temporary file, or where the rename is refused, the text is written in place.
TEST(AtomicFile, CreatesInPlaceWhereTheTemporarysNameIsTooLong) {
    const TempDir dir;
    const std::string name(255, 'n');
    EXPECT_EQ(AtomicFile::replace(dir.file(name), "text"), "");
    EXPECT_EQ(dir.read(name), "text");
}

/// Without a temporary file, or where the rename is refused, the text is written in place.
TEST(AtomicFile, WritesInPlaceWhereTheRenameIsRefused) {
    const TempDir dir;
    const std::string path = dir.write("config", "a longer old text");
    const ino_t before = inodeOf(path);
    DiskWatch disk;
    disk.renameError = EBUSY;
    EXPECT_EQ(AtomicFile::replace(path, "new"), "");
    EXPECT_EQ(dir.read("config"), "new");
    EXPECT_EQ(inodeOf(path), before);
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
    EXPECT_EQ(disk.calls, (Names{"sync file", "rename", "sync file"}));
}

/// A missing directory, or a directory as path, is told.
TEST(AtomicFile, SaysWhenTheDirectoryIsMissing) {
    const TempDir dir;
    EXPECT_EQ(AtomicFile::replace(dir.file("missing/config"), "text"),
              "cannot open " + dir.file("missing/config") + ": No such file or directory");
    EXPECT_EQ(AtomicFile::replace("", "text"), "cannot open : No such file or directory");
}

/// A missing directory, or a directory as path, is told.
TEST(AtomicFile, SaysWhenThePathIsADirectory) {
    const TempDir dir;
    EXPECT_EQ(AtomicFile::replace(dir.path(), "text"),
              "cannot open " + dir.path() + ": Is a directory");
    EXPECT_EQ(AtomicFile::replace(dir.path() + "/", "text"),
              "cannot open " + dir.path() + "/: Is a directory");
    EXPECT_EQ(namesIn(dir.path()), Names{});
}

/// Devices are never replaced; a pipe without a reader is not waited for.
TEST(AtomicFile, NeverReplacesADevice) {
    EXPECT_EQ(AtomicFile::replace("/dev/full", "text"),
              "cannot write /dev/full: No space left on device");
    EXPECT_TRUE(fs::is_character_file("/dev/full"));
    EXPECT_EQ(AtomicFile::replace("/dev/null", "text"), "");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));
}

/// Devices are never replaced; a pipe without a reader is not waited for.
TEST(AtomicFile, DoesNotWaitForTheReaderOfAPipe) {
    const TempDir dir;
    const std::string path = dir.file("pipe");
    ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(AtomicFile::replace(path, "text"),
              "cannot open " + path + ": No such device or address");
    EXPECT_TRUE(fs::is_fifo(path));
}

/// The old text stays when the new one cannot be written or synced.
TEST(AtomicFile, KeepsTheOldTextWhenTheNewOneCannotBeWritten) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    EXPECT_EXIT(
        {
            ::signal(SIGXFSZ, SIG_IGN);
            rlimit limit{};
            limit.rlim_cur = limit.rlim_max = 1000;
            ::setrlimit(RLIMIT_FSIZE, &limit);
            const std::string problem = AtomicFile::replace(path, std::string(5000, 'x'));
            std::fputs(problem.c_str(), stderr);
            ::_exit(0);
        },
        ::testing::ExitedWithCode(0),
        ::testing::Eq("cannot write " + dir.file(".config.new") + ": File too large"));
    EXPECT_EQ(dir.read("config"), "old");
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// The old text stays when the new one cannot be written or synced.
TEST(AtomicFile, KeepsTheOldTextWhenTheNewOneCannotBeSynced) {
    const TempDir dir;
    const std::string path = dir.write("config", "old");
    DiskWatch disk;
    disk.fileSyncError = EIO;
    EXPECT_EQ(AtomicFile::replace(path, "new"),
              "cannot sync " + dir.file(".config.new") + ": Input/output error");
    EXPECT_EQ(dir.read("config"), "old");
    EXPECT_EQ(namesIn(dir.path()), Names{"config"});
}

/// A directory that cannot be synced is told, unless its file system never can.
TEST(AtomicFile, SaysWhenTheDirectoryCannotBeSynced) {
    const TempDir dir;
    DiskWatch disk;
    disk.directorySyncError = EIO;
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"),
              "cannot sync the directory " + dir.path() + ": Input/output error");
    EXPECT_EQ(dir.read("config"), "new");
}

/// A directory that cannot be synced is told, unless its file system never can.
TEST(AtomicFile, AcceptsAFileSystemThatCannotSyncDirectories) {
    const TempDir dir;
    DiskWatch disk;
    disk.directorySyncError = EINVAL;
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "new"), "");
    EXPECT_EQ(dir.read("config"), "new");
}

/// No descriptor stays open.
TEST(AtomicFile, LeavesNoDescriptorOpen) {
    const TempDir dir;
    dir.write("unsynced", "old");
    EXPECT_EQ(AtomicFile::replace(dir.file("config"), "text"), "");
    EXPECT_NE(AtomicFile::replace("/dev/full", "text"), "");
    EXPECT_NE(AtomicFile::replace(dir.file("missing/config"), "text"), "");
    {
        DiskWatch disk;
        disk.fileSyncError = EIO;
        EXPECT_NE(AtomicFile::replace(dir.file("unsynced"), "text"), "");
    }
    EXPECT_EQ(openUnder(dir.path()), 0);
    EXPECT_EQ(openUnder("/dev/full"), 0);
}
