#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <variant>
#include <vector>

#include "database_fixture.h"
#include "support/sqlite_file.h"

namespace platform_test {
namespace {

using namespace db_wrappers::sqlite;
using fdn::types::NullType;
using test_support::Bytes;
using test_support::SqliteFile;
using test_support::TempDir;
using Blob = std::vector<std::uint8_t>;

int OpenFails(std::string const& path) {
  std::unique_ptr<IDatabase> out;
  int const rc = Wrapper().Open(path, out);
  EXPECT_EQ(out, nullptr);
  return rc;
}

TEST(WrapperOpen, MissingDirectoryFailsWithCantOpen) {
  TempDir dir;
  int const rc = OpenFails(dir.File("missing/store.db"));
  EXPECT_LT(rc, 0);
  EXPECT_TRUE(IsWrapperError(rc));
  EXPECT_EQ(SqliteCode(rc), SQLITE_CANTOPEN);
  EXPECT_EQ(static_cast<std::uint32_t>(rc), 0xA111000Eu);
  EXPECT_FALSE(std::filesystem::exists(dir.Path() / "missing"));
}

TEST(WrapperOpen, FileThatIsNoDatabaseFailsAtTheFirstPragma) {
  TempDir dir;
  std::string const path = dir.File("junk.db");
  std::string const junk(4096, 'x');
  std::ofstream(path, std::ios::binary) << junk;
  EXPECT_EQ(OpenFails(path), MakeError(SQLITE_NOTADB));
  std::ifstream in(path, std::ios::binary);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), junk);
}

TEST(WrapperOpen, ExistingFileKeepsItsJournalModeAndBytes) {
  TempDir dir;
  std::string const path = dir.File("foreign.db");
  SqliteFile(path).Exec("PRAGMA journal_mode=DELETE; CREATE TABLE other(x); INSERT INTO other VALUES (1);");
  auto const read = [&path] {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  };
  std::string const before = read();
  {
    std::unique_ptr<IDatabase> db;
    ASSERT_EQ(Wrapper().Open(path, db), 0);
    EXPECT_EQ(Scalar(db, "PRAGMA journal_mode", alt::kText), DbValue(std::string("delete")));
    // EXTRA: the unlink of the journal, this mode's commit, is made durable too.
    EXPECT_EQ(Scalar(db, "PRAGMA synchronous", alt::kInt64), DbValue(std::int64_t{3}));
  }
  EXPECT_EQ(read(), before);
}

TEST(WrapperOpen, MemoryDatabaseKeepsTheJournalModeSqliteReports) {
  std::unique_ptr<IDatabase> db;
  ASSERT_EQ(Wrapper().Open(":memory:", db), 0);
  EXPECT_EQ(Scalar(db, "PRAGMA journal_mode", alt::kText), DbValue(std::string("memory")));
  EXPECT_EQ(Scalar(db, "PRAGMA synchronous", alt::kInt64), DbValue(std::int64_t{2}));
}

using OpenedDatabase = DatabaseTest;

TEST_F(OpenedDatabase, CreatesTheFileInWalModeWithFullSync) {
  EXPECT_TRUE(std::filesystem::exists(path_));
  EXPECT_EQ(Scalar("PRAGMA journal_mode", alt::kText), DbValue(std::string("wal")));
  EXPECT_EQ(Scalar("PRAGMA synchronous", alt::kInt64), DbValue(std::int64_t{2}));  // FULL
  EXPECT_EQ(Scalar("PRAGMA busy_timeout", alt::kInt64), DbValue(std::int64_t{5000}));
  // WAL is recorded in the file itself: any other connection sees it too.
  EXPECT_EQ(SqliteFile(path_).QueryText("PRAGMA journal_mode"), "wal");
}

TEST_F(OpenedDatabase, QueryMayOutliveItsConnection) {
  Exec("CREATE TABLE t(k)");
  Exec("INSERT INTO t VALUES (5)");
  {
    Query query(db_);
    ASSERT_EQ(query.Prepare("SELECT k FROM t"), 0);
    db_.reset();
    EXPECT_NE(query.Statement(), nullptr);
  }
  EXPECT_EQ(SqliteFile(path_).QueryInt("SELECT k FROM t"), 5);
}

class QueryTest : public DatabaseTest {
 protected:
  // The value of a one-column SELECT of `expression`, asked as `alternative`.
  DbValue Held(std::string const& expression, int alternative) {
    return Scalar("SELECT " + expression, alternative);
  }
};

struct Stored {
  DbValue value;
  std::string type;     // typeof() of the stored value
  std::string literal;  // hex() of a text, quote() of anything else
};

TEST_F(QueryTest, EveryAlternativeRoundTripsAsItsStorageClass) {
  std::vector<Stored> const cases = {
      {NullType{}, "null", "NULL"},
      {std::int8_t{-128}, "integer", "-128"},
      {std::int16_t{-32768}, "integer", "-32768"},
      {std::int32_t{2147483647}, "integer", "2147483647"},
      {std::numeric_limits<std::int64_t>::min(), "integer", "-9223372036854775808"},
      {-2.5, "real", "-2.5"},
      {std::string("a\0b\x80\xff", 5), "text", "61006280FF"},
      {std::string(), "text", ""},
      {tern::rtl::Timestamp(1700000000123456), "integer", "1700000000123456"},
      {true, "integer", "1"},
      {false, "integer", "0"},
      {Bytes({0x00, 0xff, 0x80}), "blob", "X'00FF80'"},
      {Blob{}, "blob", "X''"},
  };
  Exec("CREATE TABLE v(id INTEGER PRIMARY KEY, x)");
  for (std::size_t i = 0; i < cases.size(); ++i)
    Exec("INSERT INTO v VALUES (?, ?)", {static_cast<std::int64_t>(i), cases[i].value});

  SqliteFile file(path_);
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE("case " + std::to_string(i));
    auto const id = std::to_string(i);
    EXPECT_EQ(Scalar("SELECT x FROM v WHERE id = " + id, static_cast<int>(cases[i].value.index())),
              cases[i].value);
    EXPECT_EQ(file.QueryText("SELECT typeof(x) FROM v WHERE id = " + id), cases[i].type);
    EXPECT_EQ(file.QueryText("SELECT CASE typeof(x) WHEN 'text' THEN hex(x) ELSE quote(x) END "
                             "FROM v WHERE id = " + id),
              cases[i].literal);
  }
}

TEST_F(QueryTest, ColumnOfAnotherKindComesBackAsWhatItHolds) {
  EXPECT_EQ(Held("NULL", alt::kText), DbValue(NullType{}));
  EXPECT_THROW(std::get<alt::kText>(Held("NULL", alt::kText)), std::bad_variant_access);
  EXPECT_EQ(Held("42", alt::kText), DbValue(std::int64_t{42}));
  EXPECT_THROW(std::get<alt::kText>(Held("42", alt::kText)), std::bad_variant_access);
  EXPECT_EQ(Held("42", alt::kDouble), DbValue(std::int64_t{42}));
  EXPECT_EQ(Held("1.5", alt::kInt64), DbValue(1.5));
  EXPECT_EQ(Held("'7'", alt::kInt64), DbValue(std::string("7")));
  EXPECT_EQ(Held("x'01'", alt::kText), DbValue(Bytes({1})));
  EXPECT_EQ(Held("zeroblob(0)", alt::kBlob), DbValue(Blob{}));
}

TEST_F(QueryTest, IntegerTheAlternativeCannotHoldComesBackAsInt64) {
  EXPECT_EQ(Held("127", alt::kInt8), DbValue(std::int8_t{127}));
  EXPECT_EQ(Held("128", alt::kInt8), DbValue(std::int64_t{128}));
  EXPECT_EQ(Held("-129", alt::kInt8), DbValue(std::int64_t{-129}));
  EXPECT_EQ(Held("-32768", alt::kInt16), DbValue(std::int16_t{-32768}));
  EXPECT_EQ(Held("32768", alt::kInt16), DbValue(std::int64_t{32768}));
  EXPECT_EQ(Held("2147483648", alt::kInt32), DbValue(std::int64_t{2147483648}));
  EXPECT_EQ(Held("1", alt::kBool), DbValue(true));
  EXPECT_EQ(Held("0", alt::kBool), DbValue(false));
  EXPECT_EQ(Held("2", alt::kBool), DbValue(std::int64_t{2}));
  EXPECT_EQ(Held("-5", alt::kTimestamp), DbValue(tern::rtl::Timestamp(-5)));
}

TEST_F(QueryTest, SyntaxErrorGivesSqliteErrorAndItsText) {
  Query query(db_);
  int const rc = query.Prepare("SELEC 1");
  EXPECT_EQ(static_cast<std::uint32_t>(rc), 0xA1110001u);
  EXPECT_EQ(SqliteCode(rc), SQLITE_ERROR);
  EXPECT_EQ(query.Statement(), nullptr);
  EXPECT_EQ(db_->LastError(), "near \"SELEC\": syntax error");
}

TEST_F(QueryTest, UniqueViolationGivesTheExtendedCode) {
  Exec("CREATE TABLE u(k TEXT UNIQUE)");
  Exec("INSERT INTO u VALUES ('a')");
  Query insert(db_);
  PrepareBound(db_, insert, "INSERT INTO u VALUES (?)", {std::string("a")});
  int const rc = insert.Next();
  EXPECT_EQ(rc, MakeError(SQLITE_CONSTRAINT_UNIQUE));
  EXPECT_EQ(SqliteCode(rc), 2067);
  EXPECT_EQ(db_->LastError(), "UNIQUE constraint failed: u.k");
  EXPECT_EQ(insert.Flush(), rc);  // the reset reports the failed step once
  EXPECT_EQ(insert.Flush(), 0);
}

TEST_F(QueryTest, NothingToRunIsMisuse) {
  Query query(db_);
  for (char const* sql : {"", "   \n\t", "-- a comment only\n", "/* c */ ;"}) {
    SCOPED_TRACE(sql);
    EXPECT_EQ(query.Prepare(sql), MakeError(SQLITE_MISUSE));
    EXPECT_EQ(query.Statement(), nullptr);
  }
  EXPECT_EQ(query.Bind(1, std::int64_t{1}), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(query.Next(), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(query.Flush(), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(query.ClearBindings(), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(query.Value(0, alt::kInt64), DbValue(NullType{}));

  std::unique_ptr<IDatabase> const none;
  Query orphan(none);
  EXPECT_EQ(orphan.Prepare("SELECT 1"), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(orphan.GetChangesCount(), 0);
}

TEST_F(QueryTest, BindOutsideTheParametersIsRange) {
  Query query(db_);
  ASSERT_EQ(query.Prepare("SELECT ?"), 0);
  EXPECT_EQ(query.Bind(0, std::int64_t{1}), MakeError(SQLITE_RANGE));
  EXPECT_EQ(query.Bind(2, std::int64_t{1}), MakeError(SQLITE_RANGE));
}

TEST_F(QueryTest, PrepareReplacesTheStatementHeldBefore) {
  Query query(db_);
  ASSERT_EQ(query.Prepare("SELECT 1"), 0);
  ASSERT_EQ(query.Prepare("SELECT 2"), 0);
  ASSERT_EQ(query.Next(), kRowReady);
  EXPECT_EQ(query.Value(0, alt::kInt64), DbValue(std::int64_t{2}));
  EXPECT_EQ(query.Prepare("SELECT FROM"), MakeError(SQLITE_ERROR));
  EXPECT_EQ(query.Statement(), nullptr);
}

TEST_F(QueryTest, OneInsertIsReusedThroughFlushAndClearBindings) {
  Exec("CREATE TABLE r(k, v)");
  Query insert(db_);
  ASSERT_EQ(insert.Prepare("INSERT INTO r VALUES (?, ?)"), 0);
  for (std::int64_t k : {1, 2, 3}) {
    ASSERT_EQ(insert.Bind(1, k), 0);
    ASSERT_EQ(insert.Bind(2, "v" + std::to_string(k)), 0);
    ASSERT_EQ(insert.Next(), kDone);
    EXPECT_EQ(insert.GetChangesCount(), 1);
    ASSERT_EQ(insert.Flush(), 0);
  }
  ASSERT_EQ(insert.Next(), kDone);  // the bindings survived the reset
  ASSERT_EQ(insert.Flush(), 0);
  ASSERT_EQ(insert.ClearBindings(), 0);
  ASSERT_EQ(insert.Next(), kDone);
  EXPECT_EQ(SqliteFile(path_).QueryText(
                "SELECT group_concat(quote(k) || ':' || quote(v), ',') "
                "FROM (SELECT * FROM r ORDER BY rowid)"),
            "1:'v1',2:'v2',3:'v3',3:'v3',NULL:NULL");
}

TEST_F(QueryTest, ChangesCountIsThatOfTheLastWrite) {
  Exec("CREATE TABLE r(k)");
  Exec("INSERT INTO r VALUES (1), (2), (3)");
  Query query(db_);
  ASSERT_EQ(query.Prepare("UPDATE r SET k = k + 10"), 0);
  ASSERT_EQ(query.Next(), kDone);
  EXPECT_EQ(query.GetChangesCount(), 3);
  ASSERT_EQ(query.Prepare("DELETE FROM r WHERE k = 11"), 0);
  ASSERT_EQ(query.Next(), kDone);
  EXPECT_EQ(query.GetChangesCount(), 1);
  ASSERT_EQ(query.Prepare("SELECT count(*) FROM r"), 0);
  ASSERT_EQ(query.Next(), kRowReady);
  EXPECT_EQ(query.GetChangesCount(), 1);
}

TEST_F(QueryTest, MovingLeavesTheSourceEmpty) {
  Query first(db_);
  ASSERT_EQ(first.Prepare("SELECT 7"), 0);
  auto* const statement = first.Statement();

  Query second(std::move(first));
  EXPECT_EQ(first.Statement(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(first.Prepare("SELECT 1"), MakeError(SQLITE_MISUSE));
  EXPECT_EQ(second.Statement(), statement);

  Query third(db_);
  ASSERT_EQ(third.Prepare("SELECT 8"), 0);
  third = std::move(second);
  EXPECT_EQ(second.Statement(), nullptr);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(second.Prepare("SELECT 1"), MakeError(SQLITE_MISUSE));
  ASSERT_EQ(third.Next(), kRowReady);
  EXPECT_EQ(third.Value(0, alt::kInt64), DbValue(std::int64_t{7}));
}

}  // namespace
}  // namespace platform_test
