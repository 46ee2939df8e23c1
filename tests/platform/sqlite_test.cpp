// The SQLite wrapper: queries and their codes, transactions, and the byte-exact LIKE;
// checked with the sqlite3 C API.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "db_wrappers/sqlite/database.h"
#include "db_wrappers/transaction_monitor.h"
#include "support/codes.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {
namespace {

using namespace db_wrappers::sqlite;
using namespace std::string_literals;

class Sqlite : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_RC(Wrapper().Open(path_, db_), 0); }
  // Runs `sql` with `values` bound from position 1; gives the first column of its first row
  // asked as `alternative`, or null when it returns none.
  DbValue Run(std::string_view sql, int alternative = alt::kInt64,
              std::vector<DbValue> values = {}) {
    Query query(db_);
    EXPECT_RC(query.Prepare(sql), 0) << db_->LastError();
    for (std::size_t i = 0; i < values.size(); ++i) EXPECT_RC(query.Bind(int(i) + 1, values[i]), 0);
    return query.Next() == kRowReady ? query.Value(0, alternative) : DbValue();
  }
  TempDir dir_;
  std::string const path_ = dir_.File("store.db");
  std::unique_ptr<IDatabase> db_;
};

TEST_F(Sqlite, QueriesReportSqlitesCodesAndTexts) {
  Query query(db_);
  EXPECT_RC(query.Prepare("SELEC 1"), 0xA1110001u);
  EXPECT_EQ(db_->LastError(), "near \"SELEC\": syntax error");
  for (char const* nothing : {"", " -- a comment only\n"}) {
    ASSERT_RC(query.Prepare("SELECT ?"), 0);
    EXPECT_RC(query.Bind(2, std::int64_t{1}), 0xA1110019u);  // SQLITE_RANGE
    EXPECT_RC(query.Prepare(nothing), 0xA1110015u);          // SQLITE_MISUSE
    EXPECT_EQ(query.Statement(), nullptr);                   // the former one is gone
  }
  EXPECT_RC(query.Next(), 0xA1110015u);
  EXPECT_RC(query.Flush(), 0xA1110015u);
  Run("CREATE TABLE r(k TEXT UNIQUE, v)");
  ASSERT_RC(query.Prepare("INSERT INTO r VALUES (?, ?)"), 0);
  ASSERT_RC(query.Bind(1, "k"s), 0);
  ASSERT_RC(query.Bind(2, std::int64_t{1}), 0);
  ASSERT_RC(query.Next(), kDone);
  EXPECT_EQ(query.GetChangesCount(), 1);
  ASSERT_RC(query.Flush(), 0);
  EXPECT_RC(query.Next(), 0xA1110813u);  // the bindings survived: SQLITE_CONSTRAINT_UNIQUE
  EXPECT_EQ(db_->LastError(), "UNIQUE constraint failed: r.k");
  EXPECT_RC(query.Flush(), 0xA1110813u);  // the reset reports the failed step once
  EXPECT_RC(query.Flush(), 0);
  ASSERT_RC(query.ClearBindings(), 0);
  ASSERT_RC(query.Next(), kDone);
  EXPECT_EQ(SqliteFile(path_).QueryText("SELECT group_concat(quote(k) || quote(v)) FROM r"),
            "'k'1,NULLNULL");
}

TEST_F(Sqlite, TransactionsTakeTheWriteLockAtOnceAndRollBackUnlessCommitted) {
  using Monitor = db_wrappers::TransactionMonitor<IDatabase>;
  Run("CREATE TABLE t(k)");
  SqliteFile other(path_);
  sqlite3_busy_timeout(other.Handle(), 0);
  for (bool const commit : {false, true}) {
    Monitor monitor(db_);
    ASSERT_TRUE(monitor.Begin());
    Run("INSERT INTO t VALUES (1)");
    EXPECT_EQ(sqlite3_exec(other.Handle(), "BEGIN IMMEDIATE", nullptr, nullptr, nullptr),
              SQLITE_BUSY);
    EXPECT_FALSE(Monitor(db_).Begin());
    EXPECT_EQ(db_->LastError(), "cannot start a transaction within a transaction");
    EXPECT_EQ(commit && monitor.Commit(), commit);
  }
  EXPECT_EQ(other.QueryInt("SELECT count(*) FROM t"), 1);
  EXPECT_FALSE(Monitor(db_).Commit());
  EXPECT_EQ(db_->LastError(), "cannot commit - no transaction is active");
  other.Exec("BEGIN IMMEDIATE");
  sqlite3_busy_timeout(db_->Handle(), 0);
  EXPECT_EQ(db_->Begin().Statement(), nullptr);
  EXPECT_EQ(db_->LastError(), "database is locked");
  EXPECT_NE(sqlite3_get_autocommit(db_->Handle()), 0);
}

TEST_F(Sqlite, LikeComparesBytesAndCaseAndItsWildcardsCountBytes) {
  // clang-format off
  std::tuple<std::string, std::string, std::int64_t> const cases[] = {
      {"abc", "abC", 0},           {"a_z", "a\xffz", 1},              {"a_z", "a\xC3\xA9z", 0},
      {"a__z", "a\xC3\xA9z", 1},   {"_", "", 0},                      {"%", "", 1},
      {"a%c", "abcd", 0},          {"a%b%c", "aXbYc", 1},             {"a%b%c", "aXcYb", 0},
      {"%ab", "aab", 1},           {"a\0%"s, "a\0b"s, 1},             {"a\0%"s, "a\1b"s, 0},
      {"a"s, "a\0"s, 0},           {"\xC0\x80%", "\xC1\x81/", 0},     {"%_%", "", 0},
      {"a_%%", "ab", 1}};
  // clang-format on
  for (auto const& [pattern, text, matches] : cases)
    EXPECT_EQ(Run("SELECT ?2 LIKE ?1", alt::kInt64, {pattern, text}), DbValue(matches))
        << ::testing::PrintToString(pattern) << " " << ::testing::PrintToString(text);
  EXPECT_EQ(Run("SELECT NULL LIKE 'a'"), DbValue());
  EXPECT_EQ(Run("SELECT x'00ff01' LIKE x'00ff25'"), DbValue(std::int64_t{1}));
  EXPECT_EQ(Run("SELECT 'A%' LIKE 'a!%' ESCAPE '!'"), DbValue(std::int64_t{1}));  // built in
}

}  // namespace
}  // namespace test_support
