#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Platform/SQLite/Database.h"
#include "Platform/SQLite/SQLiteError.h"
#include "Platform/SQLite/Statement.h"
#include "Platform/SQLite/Transaction.h"
#include "tests/Support/TempDir.h"

using loopstore::test::TempDir;
using Moreld::SQLite::Database;
using Moreld::SQLite::SQLiteError;
using Moreld::SQLite::Statement;
using Moreld::SQLite::Transaction;

namespace {

// A fresh database file with table t(a INTEGER UNIQUE, b TEXT).
class SQLiteTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(db_.Open(path_)) << db_.GetLastError();
        db_.Execute("CREATE TABLE t(a INTEGER UNIQUE, b TEXT)");
    }

    long CountRows(Database& db) {
        Statement count(db, "SELECT COUNT(*) FROM t");
        count.Execute();
        return count.GetIntegerValue(0);
    }

    TempDir dir_;
    std::string path_ = dir_ / "test.db";
    Database db_;
};

TEST_F(SQLiteTest, IntegersAndTextsRoundTripExactly) {
    const std::vector<long> integers = {0,
                                        -1,
                                        (1L << 31),
                                        (1L << 32) + 5,
                                        -(1L << 40) - 7,
                                        std::numeric_limits<int64_t>::max(),
                                        std::numeric_limits<int64_t>::min()};
    const std::vector<std::string> texts = {"",
                                            std::string("a\0b", 3),
                                            std::string("ends with NUL\0", 14),
                                            "Z\xC3\xBCrich \xE2\x80\x93 \xE6\x9D\xB1\xE4\xBA\xAC",
                                            "it's \"quoted\"",
                                            "x",
                                            "y",
                                            "z"};
    Statement insert(db_, "INSERT INTO t VALUES (?, ?)");
    for (size_t i = 0; i < integers.size(); ++i) {
        insert.SetIntegerParameter(0, integers[i]);
        insert.SetTextParameter(1, texts[i]);
        insert.Execute();
        EXPECT_TRUE(insert.IsDone());
        insert.Reset();
    }

    Statement select(db_, "SELECT a, b FROM t WHERE a == (?)");
    for (size_t i = 0; i < integers.size(); ++i) {
        select.SetIntegerParameter(0, integers[i]);
        select.Execute();
        ASSERT_FALSE(select.IsDone()) << integers[i];
        EXPECT_EQ(select.GetIntegerValue(0), integers[i]);
        EXPECT_EQ(select.GetTextValue(1), texts[i]) << i;
        select.Reset();
    }

    // A text bound as parameter matches the stored text byte for byte.
    Statement byText(db_, "SELECT a FROM t WHERE b == (?)");
    byText.SetTextParameter(0, std::string("a\0b", 3));
    byText.Execute();
    ASSERT_FALSE(byText.IsDone());
    EXPECT_EQ(byText.GetIntegerValue(0), -1);

    // NULL reads as 0 and as the empty text.
    db_.Execute("INSERT INTO t VALUES (NULL, NULL)");
    Statement nulls(db_, "SELECT a, b FROM t WHERE a IS NULL");
    nulls.Execute();
    ASSERT_FALSE(nulls.IsDone());
    EXPECT_EQ(nulls.GetIntegerValue(0), 0);
    EXPECT_EQ(nulls.GetTextValue(1), "");
}

TEST_F(SQLiteTest, DoneStateAndIteration) {
    Statement select(db_, "SELECT a FROM t ORDER BY a");
    EXPECT_TRUE(select.IsDone()) << "no row is current before Execute";
    select.Execute();
    EXPECT_TRUE(select.IsDone()) << "empty result";
    select.Next();
    EXPECT_TRUE(select.IsDone()) << "Next after done must not restart the statement";
    EXPECT_THROW(select.GetIntegerValue(0), SQLiteError);
    select.Reset();

    db_.Execute(
        "INSERT INTO t VALUES (3, 'c'); INSERT INTO t VALUES (1, 'a');"
        "INSERT INTO t VALUES (2, 'b');");
    for (int run = 0; run < 2; ++run) {
        std::vector<long> seen;
        for (select.Execute(); !select.IsDone(); select.Next()) {
            seen.push_back(select.GetIntegerValue(0));
        }
        EXPECT_EQ(seen, (std::vector<long>{1, 2, 3})) << "run " << run;
        select.Next();
        EXPECT_TRUE(select.IsDone());
        select.Reset();
    }

    // Executing again, or binding, in the middle of the rows starts over.
    Statement filtered(db_, "SELECT a FROM t WHERE a >= (?) ORDER BY a");
    filtered.SetIntegerParameter(0, 1);
    filtered.Execute();
    filtered.Next();
    EXPECT_EQ(filtered.GetIntegerValue(0), 2);
    filtered.SetIntegerParameter(0, 3);
    filtered.Execute();
    ASSERT_FALSE(filtered.IsDone());
    EXPECT_EQ(filtered.GetIntegerValue(0), 3);
    filtered.Next();
    EXPECT_TRUE(filtered.IsDone());

    // Reset clears the bindings: an unbound parameter is NULL, which matches nothing.
    filtered.Reset();
    filtered.Execute();
    EXPECT_TRUE(filtered.IsDone());
}

TEST_F(SQLiteTest, StatementCacheReturnsTheSameStatementPerKey) {
    Statement* first = db_.GetCachedStatement("count", "SELECT COUNT(*) FROM t");
    Statement* again = db_.GetCachedStatement("count", "SELECT COUNT(*) FROM t");
    Statement* other = db_.GetCachedStatement("count2", "SELECT COUNT(*) FROM t");
    EXPECT_EQ(first, again);
    EXPECT_NE(first, other);
    EXPECT_THROW(db_.GetCachedStatement("count", "SELECT a FROM t"), SQLiteError)
        << "one key, two SQL texts";

    // A text that does not prepare is not cached: the next call fails again.
    EXPECT_THROW(db_.GetCachedStatement("bad", "SELEKT 1"), SQLiteError);
    EXPECT_THROW(db_.GetCachedStatement("bad", "SELEKT 1"), SQLiteError);

    first->Execute();
    EXPECT_EQ(first->GetIntegerValue(0), 0);
    first->Reset();

    // Closing finalizes the cached statements; the cache starts afresh.
    db_.Close();
    EXPECT_FALSE(db_.IsOpen());
    ASSERT_TRUE(db_.Open(path_));
    Statement* reopened = db_.GetCachedStatement("count", "SELECT COUNT(*) FROM t");
    reopened->Execute();
    EXPECT_EQ(reopened->GetIntegerValue(0), 0);
    reopened->Reset();
}

TEST_F(SQLiteTest, ErrorsCarryCodeMessageAndSql) {
    try {
        Statement bad(db_, "SELEKT * FROM t");
        FAIL() << "bad SQL prepared";
    } catch (const SQLiteError& e) {
        EXPECT_EQ(e.PrimaryCode(), SQLITE_ERROR);
        EXPECT_EQ(e.Sql(), "SELEKT * FROM t");
        EXPECT_NE(std::string(e.what()).find("SELEKT * FROM t"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("syntax error"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find(path_), std::string::npos) << e.what();
    }
    EXPECT_THROW(Statement(db_, "SELECT * FROM missing"), SQLiteError);
    EXPECT_THROW(Statement(db_, "SELECT 1; SELECT 2"), SQLiteError) << "second statement dropped";
    EXPECT_THROW(db_.Execute("CREATE TABLE t(x)"), SQLiteError);

    EXPECT_FALSE(db_.Execute("INSERT INTO nowhere VALUES (1)", true));
    EXPECT_NE(db_.GetLastError().find("no such table: nowhere"), std::string::npos)
        << db_.GetLastError();

    Statement insert(db_, "INSERT INTO t VALUES (?, ?)");
    insert.SetIntegerParameter(0, 7);
    insert.Execute();
    insert.Reset();
    insert.SetIntegerParameter(0, 7);
    try {
        insert.Execute();
        FAIL() << "duplicate accepted";
    } catch (const SQLiteError& e) {
        EXPECT_EQ(e.PrimaryCode(), SQLITE_CONSTRAINT);
        EXPECT_EQ(e.Code(), SQLITE_CONSTRAINT_UNIQUE);
        EXPECT_EQ(e.Message(), "UNIQUE constraint failed: t.a");
        EXPECT_NE(std::string(e.what()).find("INSERT INTO t VALUES (?, ?)"), std::string::npos);
    }
    EXPECT_TRUE(insert.IsDone());
    // The failed statement is usable again without an explicit Reset.
    insert.SetIntegerParameter(0, 8);
    insert.Execute();
    EXPECT_EQ(CountRows(db_), 2);

    EXPECT_THROW(insert.SetIntegerParameter(2, 1), SQLiteError) << "only two parameters";
    Statement select(db_, "SELECT a FROM t");
    select.Execute();
    EXPECT_THROW(select.GetIntegerValue(1), SQLiteError) << "only one column";
}

TEST(SQLiteDatabase, OpenFailsOnMissingDirectoryAndClosedDatabaseRefusesWork) {
    TempDir dir;
    Database db;
    EXPECT_FALSE(db.Open(dir / "missing/sub/test.db"));
    EXPECT_FALSE(db.IsOpen());
    EXPECT_NE(db.GetLastError().find("missing/sub/test.db"), std::string::npos)
        << db.GetLastError();
    EXPECT_THROW(db.Execute("SELECT 1"), SQLiteError);
    EXPECT_FALSE(db.Execute("SELECT 1", true));
    EXPECT_THROW(db.TableExist("t"), SQLiteError);
    EXPECT_THROW(db.GetCachedStatement("k", "SELECT 1"), SQLiteError);
    EXPECT_THROW({ Transaction transaction(db); }, SQLiteError);

    // Open creates the file, and a later Open on a good path recovers.
    ASSERT_TRUE(db.Open(dir / "created.db")) << db.GetLastError();
    EXPECT_FALSE(db.TableExist("t"));
    db.Execute("CREATE TABLE t(a)");
    EXPECT_TRUE(db.TableExist("t"));
    EXPECT_FALSE(db.TableExist("T2"));
}

TEST_F(SQLiteTest, TransactionRollsBackOnExceptionAndCommitIsSeenByOthers) {
    Database other;
    ASSERT_TRUE(other.Open(path_));

    try {
        Transaction transaction(db_);
        db_.Execute("INSERT INTO t VALUES (1, 'one')");
        EXPECT_EQ(CountRows(db_), 1);
        EXPECT_EQ(CountRows(other), 0) << "uncommitted rows leaked to another connection";
        db_.Execute("INSERT INTO t VALUES (1, 'duplicate')");
        transaction.Commit();
        FAIL() << "duplicate accepted";
    } catch (const SQLiteError& e) {
        EXPECT_EQ(e.PrimaryCode(), SQLITE_CONSTRAINT);
    }
    EXPECT_EQ(CountRows(db_), 0);

    try {
        Transaction transaction(db_);
        db_.Execute("INSERT INTO t VALUES (2, 'two')");
        throw std::runtime_error("caller failure");
    } catch (const std::runtime_error&) {
    }
    EXPECT_EQ(CountRows(db_), 0);

    {
        Transaction transaction(db_, true);
        db_.Execute("INSERT INTO t VALUES (3, 'three')");
        EXPECT_THROW(Transaction nested(db_), SQLiteError);
        EXPECT_TRUE(transaction.Commit());
        EXPECT_TRUE(transaction.IsCommitted());
    }
    EXPECT_EQ(CountRows(other), 1);

    // Nothing left open: a new transaction can begin.
    Transaction last(db_);
    EXPECT_TRUE(last.Commit());
}

TEST_F(SQLiteTest, SecondConnectionWaitsForTheWriteLock) {
    Database other;
    ASSERT_TRUE(other.Open(path_));
    auto holder = std::make_unique<Transaction>(db_, true);
    db_.Execute("INSERT INTO t VALUES (1, 'first')");

    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        holder->Commit();
    });
    // Without a busy timeout this would fail at once with SQLITE_BUSY.
    try {
        Transaction waiting(other, true);
        other.Execute("INSERT INTO t VALUES (2, 'second')");
        waiting.Commit();
    } catch (const SQLiteError& e) {
        ADD_FAILURE() << e.what();
    }
    release.join();
    holder.reset();
    EXPECT_EQ(CountRows(db_), 2);
}

}  // namespace

TEST(Statement, BindsAgainAfterAWriteRanToItsEnd) {
    loopstore::test::TempDir dir;
    Moreld::SQLite::Database db;
    ASSERT_TRUE(db.Open(dir / "t.db"));
    db.Execute("CREATE TABLE t(a INTEGER)");
    Moreld::SQLite::Statement insert(db, "INSERT INTO t VALUES (?)");
    for (long i = 0; i < 3; ++i) {
        insert.SetIntegerParameter(0, i);  // no Reset() in between
        insert.Execute();
    }
    insert.Execute();  // same binding again
    Moreld::SQLite::Statement count(db, "SELECT COUNT(*), SUM(a) FROM t");
    count.Execute();
    EXPECT_EQ(count.GetIntegerValue(0), 4);
    EXPECT_EQ(count.GetIntegerValue(1), 5);
}
