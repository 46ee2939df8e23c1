#include <gtest/gtest.h>
#include <sqlite3.h>

#include "database_fixture.h"
#include "db_wrappers/transaction_monitor.h"
#include "support/sqlite_file.h"

namespace platform_test {
namespace {

using db_wrappers::sqlite::alt::kInt64;
using test_support::SqliteFile;
using Monitor = db_wrappers::TransactionMonitor<IDatabase>;

class TransactionTest : public DatabaseTest {
 protected:
  void SetUp() override {
    DatabaseTest::SetUp();
    Exec("CREATE TABLE t(k)");
  }

  // Committed rows, counted by a connection of its own.
  std::int64_t RowsOnFile() { return SqliteFile(path_).QueryInt("SELECT count(*) FROM t"); }
  bool InTransaction() const { return sqlite3_get_autocommit(db_->Handle()) == 0; }
};

TEST_F(TransactionTest, MonitorRollsBackWhatWasNotCommitted) {
  {
    Monitor monitor(db_);
    ASSERT_TRUE(monitor.Begin());
    Exec("INSERT INTO t VALUES (1), (2)");
    EXPECT_TRUE(InTransaction());
    EXPECT_EQ(Scalar("SELECT count(*) FROM t", kInt64), DbValue(std::int64_t{2}));
    EXPECT_EQ(RowsOnFile(), 0);
  }
  EXPECT_FALSE(InTransaction());
  EXPECT_EQ(Scalar("SELECT count(*) FROM t", kInt64), DbValue(std::int64_t{0}));
  EXPECT_EQ(RowsOnFile(), 0);
}

TEST_F(TransactionTest, MonitorKeepsWhatWasCommitted) {
  {
    Monitor monitor(db_);
    ASSERT_TRUE(monitor.Begin());
    Exec("INSERT INTO t VALUES (1), (2)");
    EXPECT_TRUE(monitor.Commit());
    EXPECT_FALSE(InTransaction());
  }
  EXPECT_EQ(RowsOnFile(), 2);
}

TEST_F(TransactionTest, BeginInsideATransactionFails) {
  Monitor outer(db_);
  ASSERT_TRUE(outer.Begin());
  EXPECT_EQ(db_->Begin().Statement(), nullptr);
  EXPECT_EQ(db_->LastError(), "cannot start a transaction within a transaction");
  Monitor inner(db_);
  EXPECT_FALSE(inner.Begin());
  EXPECT_TRUE(InTransaction());  // the outer one is still open
}

TEST_F(TransactionTest, CommitOrRollbackWithoutATransactionFail) {
  EXPECT_EQ(db_->Commit().Statement(), nullptr);
  EXPECT_EQ(db_->LastError(), "cannot commit - no transaction is active");
  EXPECT_EQ(db_->Rollback().Statement(), nullptr);
  EXPECT_EQ(db_->LastError(), "cannot rollback - no transaction is active");
  EXPECT_FALSE(Monitor(db_).Commit());
}

TEST_F(TransactionTest, BeginTakesTheWriteLockAtOnce) {
  SqliteFile other(path_);
  sqlite3_busy_timeout(other.Handle(), 0);
  {
    auto const begun = db_->Begin();
    ASSERT_NE(begun.Statement(), nullptr);
    // A deferred BEGIN would not have locked anything yet.
    EXPECT_EQ(sqlite3_exec(other.Handle(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
              SQLITE_BUSY);
    EXPECT_NE(db_->Rollback().Statement(), nullptr);
  }
  other.Exec("BEGIN IMMEDIATE");
  sqlite3_busy_timeout(db_->Handle(), 0);  // fail now rather than after five seconds
  EXPECT_EQ(db_->Begin().Statement(), nullptr);
  EXPECT_EQ(sqlite3_extended_errcode(db_->Handle()), SQLITE_BUSY);
  EXPECT_EQ(db_->LastError(), "database is locked");
  EXPECT_FALSE(InTransaction());
  other.Exec("ROLLBACK");
  EXPECT_NE(db_->Begin().Statement(), nullptr);
}

}  // namespace
}  // namespace platform_test
