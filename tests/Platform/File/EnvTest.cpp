#include "Platform/File/Env.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/Statement.h"
#include "tests/Support/FaultInjectionEnv.h"
#include "tests/Support/TempDir.h"
#include "tests/Support/UndoJournal.h"

namespace fs = std::filesystem;
using loopstore::test::CutMode;
using loopstore::test::FaultInjectionEnv;
using loopstore::test::ScopedEnv;
using loopstore::test::SimulatePowerCut;
using loopstore::test::TempDir;
using Moreld::File::Env;

namespace {

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteAll(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

void WriteThroughEnv(const std::string& path, const std::string& bytes, uint64_t offset) {
    auto file = Env::Get().OpenFile(path, O_RDWR, "Cannot open");
    file->WriteAt(bytes.data(), bytes.size(), offset);
}

long CountRows(const std::string& path) {
    Moreld::SQLite::Database db;
    EXPECT_TRUE(db.Open(path));
    if (!db.TableExist("t"))
        return -1;
    Moreld::SQLite::Statement count(db, "SELECT COUNT(*) FROM t");
    count.Execute();
    return count.GetIntegerValue(0);
}

// A store-like directory with a fault-injecting Env installed.
class FaultEnvTest : public ::testing::Test {
  protected:
    std::string Cut(CutMode mode, uint64_t seed = 1) {
        return SimulatePowerCut(journal_, trash_, mode, seed);
    }

    TempDir dir_;
    const std::string journal_ = dir_ / "journal";
    const std::string trash_ = dir_ / "trash";
    const std::string data_ = dir_ / "data";
    FaultInjectionEnv env_{journal_, trash_};
};

}  // namespace

TEST(PosixEnv, NamespaceCallsReportTheSystemsErrors) {
    TempDir dir;
    Env& env = Env::Posix();
    EXPECT_FALSE(env.CreateDirectory(dir / "a"));
    EXPECT_EQ(env.CreateDirectory(dir / "a"), std::errc::file_exists);
    WriteAll(dir / "a/f", "x");
    EXPECT_FALSE(env.Rename(dir / "a/f", dir / "g"));
    EXPECT_EQ(env.Rename(dir / "a/f", dir / "h"), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(env.SyncDirectory(dir / "a"));
    EXPECT_EQ(env.SyncDirectory(dir / "missing"), std::errc::no_such_file_or_directory);
    EXPECT_FALSE(env.RemoveTree(dir / "a"));
    EXPECT_FALSE(env.RemoveTree(dir / "a"));  // absent counts as removed
    EXPECT_FALSE(env.RemoveFile(dir / "g"));
    EXPECT_EQ(env.RemoveFile(dir / "g"), std::errc::no_such_file_or_directory);
    EXPECT_THROW(env.OpenFile(dir / "g", O_RDONLY, "Cannot open"), std::runtime_error);
}

TEST(PosixEnv, ASecondLockerLearnsTheHoldersProcessId) {
    TempDir dir;
    long holder = 0;
    std::error_code error;
    auto lock = Env::Posix().LockFile(dir / "LOCK", holder, error);
    ASSERT_TRUE(lock) << error.message();

    // flock locks belong to the open file, so a second opener in this
    // process is refused as another process would be.
    EXPECT_FALSE(Env::Posix().LockFile(dir / "LOCK", holder, error));
    EXPECT_EQ(holder, ::getpid());

    const pid_t child = ::fork();
    if (child == 0) {
        long seen = 0;
        std::error_code childError;
        auto second = Env::Posix().LockFile(dir / "LOCK", seen, childError);
        ::_exit(second == nullptr && seen == ::getppid() ? 0 : 1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    lock.reset();
    EXPECT_TRUE(Env::Posix().LockFile(dir / "LOCK", holder, error));
}

TEST_F(FaultEnvTest, ACutKeepsSyncedBytesAndLosesTheRest) {
    ScopedEnv scoped(&env_);
    fs::create_directories(data_);
    const std::string path = data_ + "/00000001";
    WriteAll(path, std::string(64, '0'));
    {
        auto file = Env::Get().OpenFile(path, O_RDWR, "Cannot open");
        file->WriteAt("synced", 6, 0);
        file->DataSync();
        file->WriteAt("lost", 4, 10);
        file->WriteAt("LOST", 4, 0);
    }
    const std::string before = ReadAll(path);
    EXPECT_EQ(before.substr(0, 4), "LOST");

    Cut(CutMode::kDropAll);
    EXPECT_EQ(ReadAll(path), "synced" + std::string(58, '0'));
}

TEST_F(FaultEnvTest, DirectoryChangesLastOnlyOnceTheirDirectoriesAreSynced) {
    ScopedEnv scoped(&env_);
    fs::create_directories(data_ + "/pool");
    WriteAll(data_ + "/pool/1", "one");
    WriteAll(data_ + "/pool/2", "two");
    WriteAll(data_ + "/pool/3", "three");
    ASSERT_FALSE(Env::Get().CreateDirectory(data_ + "/7"));
    ASSERT_FALSE(Env::Get().SyncDirectory(data_));
    ASSERT_FALSE(Env::Get().Rename(data_ + "/pool/1", data_ + "/7/1"));
    ASSERT_FALSE(Env::Get().SyncDirectory(data_ + "/pool"));
    ASSERT_FALSE(Env::Get().SyncDirectory(data_ + "/7"));
    ASSERT_FALSE(Env::Get().Rename(data_ + "/pool/2", data_ + "/7/2"));  // never synced
    ASSERT_FALSE(Env::Get().RemoveFile(data_ + "/pool/3"));              // never synced
    ASSERT_FALSE(Env::Get().CreateDirectory(data_ + "/8"));              // never synced

    Cut(CutMode::kDropAll);
    EXPECT_EQ(ReadAll(data_ + "/7/1"), "one");
    EXPECT_EQ(ReadAll(data_ + "/pool/2"), "two");
    EXPECT_EQ(ReadAll(data_ + "/pool/3"), "three");
    EXPECT_FALSE(fs::exists(data_ + "/7/2"));
    EXPECT_FALSE(fs::exists(data_ + "/8"));
    EXPECT_TRUE(fs::is_empty(trash_));
    EXPECT_FALSE(fs::exists(journal_));
}

TEST_F(FaultEnvTest, FaultsFailTheChosenCallWithoutEffect) {
    ScopedEnv scoped(&env_);
    fs::create_directories(data_);
    WriteAll(data_ + "/f", std::string(8, '0'));

    env_.FailAt(FaultInjectionEnv::Op::kWrite, 2, ENOSPC, /*sticky=*/true);
    WriteThroughEnv(data_ + "/f", "a", 0);
    EXPECT_THROW(WriteThroughEnv(data_ + "/f", "b", 1), std::runtime_error);
    EXPECT_THROW(WriteThroughEnv(data_ + "/f", "c", 2), std::runtime_error);
    EXPECT_EQ(ReadAll(data_ + "/f"), "a0000000");
    env_.ClearFaults();

    env_.FailAt(FaultInjectionEnv::Op::kRename, 1, EIO);
    EXPECT_EQ(Env::Get().Rename(data_ + "/f", data_ + "/g").value(), EIO);
    EXPECT_TRUE(fs::exists(data_ + "/f"));
    EXPECT_FALSE(Env::Get().Rename(data_ + "/f", data_ + "/g"));

    // SQLite meets the same faults through its VFS: a full disk fails the
    // statement, and the database stays usable afterwards.
    Moreld::SQLite::Database db;
    ASSERT_TRUE(db.Open(data_ + "/x.db"));
    db.Execute("PRAGMA journal_mode=WAL; CREATE TABLE t(a)");
    env_.FailAt(FaultInjectionEnv::Op::kWrite, 1, ENOSPC, /*sticky=*/true);
    EXPECT_THROW(db.Execute("INSERT INTO t VALUES (1)"), std::runtime_error);
    env_.ClearFaults();
    db.Execute("INSERT INTO t VALUES (2)");
}

// SQLite reaches the disk through the Env: a commit that was synced (FULL)
// survives a cut; the rows of a commit that was not are lost whole.
TEST_F(FaultEnvTest, DatabaseCommitsSurviveACutOnlyWhenSynced) {
    fs::create_directories(data_);
    const pid_t child = ::fork();
    if (child == 0) {
        ScopedEnv scoped(&env_);
        Moreld::SQLite::Database db;
        if (!db.Open(data_ + "/x.db"))
            ::_exit(1);
        db.Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; CREATE TABLE t(a)");
        db.Execute("INSERT INTO t VALUES (1); INSERT INTO t VALUES (2)");
        db.Execute("PRAGMA synchronous=OFF");
        db.Execute("INSERT INTO t VALUES (3)");
        env_.KillAt(1);
        db.Execute("INSERT INTO t VALUES (4)");
        ::_exit(2);  // not reached
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the child should have been killed";
    EXPECT_EQ(CountRows(data_ + "/x.db"), 3);  // a kill keeps what the kernel has

    // Same again, cut: row 3 was never synced.
    fs::remove_all(data_);
    fs::create_directories(data_);
    const pid_t second = ::fork();
    if (second == 0) {
        FaultInjectionEnv env(journal_, trash_);
        ScopedEnv scoped(&env);
        Moreld::SQLite::Database db;
        db.Open(data_ + "/x.db");
        db.Execute("PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL; CREATE TABLE t(a)");
        db.Execute("INSERT INTO t VALUES (1); INSERT INTO t VALUES (2)");
        db.Execute("PRAGMA synchronous=OFF");
        db.Execute("INSERT INTO t VALUES (3)");
        env.KillAt(1);
        db.Execute("INSERT INTO t VALUES (4)");
        ::_exit(2);
    }
    ::waitpid(second, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    Cut(CutMode::kDropAll);
    EXPECT_EQ(CountRows(data_ + "/x.db"), 2);
}
