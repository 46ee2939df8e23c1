// Reading, replacing, updating and deleting rows of a store file, checked against the rows
// read back with the sqlite3 C API.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "settings_db_statements.h"
#include "store_test_util.h"
#include "support/captured_log.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace store_test {
namespace {

namespace stmt = settings_db::statements;
using test_support::CapturedLog;
using test_support::SqliteFile;
using test_support::TempDir;
using ::testing::ElementsAre;

class RowsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    db_ = std::make_unique<SettingsDB>(path_);
    file_ = std::make_unique<SqliteFile>(path_);
  }

  // Replaces the whole table with `rows`, behind the store's back.
  void Reset(std::vector<Row> const& rows) {
    file_->Exec("BEGIN; DELETE FROM data;");
    for (auto const& row : rows) file_->InsertRow(row);
    file_->Exec("COMMIT;");
  }

  std::vector<Row> Rows() { return file_->DataRows(); }

  TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
  std::unique_ptr<SettingsDB> db_;
  std::unique_ptr<SqliteFile> file_;
};

// A table of the usual shape: a subtree a/ of five rows and neighbours that share bytes
// with it but lie outside it.
std::vector<Row> const& Outside() {
  static std::vector<Row> const rows{MakeRow("", 1), MakeRow("A/", 2), MakeRow("ab/", 3),
                                     MakeRow("a0/", 4), MakeRow("b/", 5)};
  return rows;
}
std::vector<Row> const& SubtreeA() {
  static std::vector<Row> const rows{MakeRow("a/", 10), MakeRow("a/0/", 11), MakeRow("a/1/", 12),
                                     MakeRow("a/1/x/", 13), MakeRow("a/2/", 14)};
  return rows;
}
std::vector<Row> Usual() {
  auto rows = Outside();
  rows.insert(rows.end(), SubtreeA().begin(), SubtreeA().end());
  return rows;
}

std::vector<Row> Concat(std::vector<Row> a, std::vector<Row> const& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(EmptySelectTest, OnlyTheRowReadyCodeCountsAsARow) {
  EXPECT_FALSE(SettingsDB::EmptySelect(static_cast<int>(0x21110001u)));
  for (int code : {0, 1, static_cast<int>(0x21110002u), static_cast<int>(0x21100001u),
                   static_cast<int>(0x80000059u), db_wrappers::sqlite::MakeError(SQLITE_ERROR)})
    EXPECT_TRUE(SettingsDB::EmptySelect(code)) << std::hex << code;
}

TEST_F(RowsTest, GetOnAnEmptyTableIsEmpty) {
  EXPECT_TRUE(db_->Get("").empty());
  EXPECT_TRUE(db_->Get("a/").empty());
}

TEST_F(RowsTest, GetOfANodeWithoutItsOwnRowFailsOnTheHeadNode) {
  Reset({MakeRow("a/b/c/", 1)});
  for (std::string const path : {"a/b/", "a/", ""}) {
    SCOPED_TRACE("Get('" + path + "')");
    EXPECT_SMDB_ERROR(db_->Get(path), kInvalidResult, "[SMDB] Get: wrong head node");
  }
  EXPECT_THAT(ToRows(db_->Get("a/b/c/")), ElementsAre(MakeRow("a/b/c/", 1)));
  EXPECT_TRUE(db_->Get("a/b/c/d/").empty());
}

TEST_F(RowsTest, GetReturnsTheSubtreeInByteOrderWithEveryColumnInPlace) {
  // Inserted out of order; values of different sizes, so holders and columns cannot mix.
  std::vector<Row> rows{
      MakeRow("b/", 1),          MakeRow("a/b/\xff/", 2), MakeRow("a/bc/", 3),
      MakeRow("a/b/c/", 4),      MakeRow("", 5),          MakeRow("a/b/\xc3\xa9/", 6),
      MakeRow("a/b/", 7),        MakeRow("a/B/", 8),      MakeRow("a/b/0/", 9),
      MakeRow("a/b2/", 10),      MakeRow("a/", 11),       MakeRow("a/b/C/", 12)};
  rows[3].value = Value(4, 300);
  rows[6].attrib = Attrib(7, true);
  Reset(rows);

  EXPECT_THAT(Paths(ToRows(db_->Get("a/b/"))),
              ElementsAre("a/b/", "a/b/0/", "a/b/C/", "a/b/c/", "a/b/\\xc3\\xa9/", "a/b/\\xff/"));
  std::vector<Row> subtree;
  for (auto const& row : rows)
    if (StartsWith(row.path, "a/b/")) subtree.push_back(row);
  EXPECT_EQ(ToRows(db_->Get("a/b/")), SortedByPath(subtree));
  EXPECT_EQ(ToRows(db_->Get("")), SortedByPath(rows));
}

TEST_F(RowsTest, SetReplacesTheSubtreeAndReturnsHowManyRowsItHad) {
  Reset(Usual());
  // A long path and a long value first, then short ones: reused bind holders must not keep
  // bytes of an earlier record.
  std::vector<Row> fresh{MakeRow("a/", 20), MakeRow("a/a-rather-long-key-name/", 21),
                         MakeRow("a/k/", 22)};
  fresh[1].value = Value(21, 500);
  fresh[1].attrib = Attrib(21, true);

  EXPECT_EQ(db_->Set(ToItems(fresh)), 5);
  EXPECT_EQ(Rows(), SortedByPath(Concat(Outside(), fresh)));
  EXPECT_EQ(ToRows(db_->Get("a/")), SortedByPath(fresh));

  // A subtree with no rows yet: nothing removed, the records added.
  EXPECT_EQ(db_->Set({ToItem(MakeRow("n/", 30))}), 0);
  EXPECT_EQ(Rows(), SortedByPath(Concat(Concat(Outside(), fresh), {MakeRow("n/", 30)})));
}

TEST_F(RowsTest, SetWhoseInsertViolatesUniqueLeavesEveryRowAsItWas) {
  struct Case {
    char const* name;
    std::vector<Row> records;
  };
  for (auto const& c : {
           Case{"two records of one path", {MakeRow("a/", 20), MakeRow("a/", 21)}},
           Case{"a record outside the subtree that exists",
                {MakeRow("a/", 20), MakeRow("b/", 21), MakeRow("a/9/", 22)}},
       }) {
    SCOPED_TRACE(c.name);
    Reset(Usual());
    auto const before = Rows();
    CapturedLog log;
    EXPECT_SMDB_ERROR(db_->Set(ToItems(c.records)), kMediaError,
                      "[SMDB] Set: insert: '" + WrapperCodeText(SQLITE_CONSTRAINT_UNIQUE) +
                          "' / 'UNIQUE constraint failed: data.path'");
    EXPECT_EQ(Rows(), before);
    EXPECT_TRUE(log.Records().empty()) << "failures are the caller's to log";
  }
  // The failed transaction is closed: the next Set begins one of its own and commits.
  EXPECT_EQ(db_->Set({ToItem(MakeRow("a/", 40))}), 5);
  EXPECT_EQ(Rows(), SortedByPath(Concat(Outside(), {MakeRow("a/", 40)})));
}

// The root's Set first deletes every row; a failure at the third insert must bring back all.
TEST_F(RowsTest, InsertFailingMidSetRollsBackTheDeleteAndTheEarlierInserts) {
  Reset(Usual());
  file_->Exec(
      "CREATE TRIGGER inject BEFORE INSERT ON data WHEN NEW.path = 'x/' "
      "BEGIN SELECT RAISE(ABORT, 'injected'); END;");
  auto const before = Rows();

  EXPECT_SMDB_ERROR(
      db_->Set(ToItems({MakeRow("", 50), MakeRow("w/", 51), MakeRow("x/", 52), MakeRow("y/", 53)})),
      kMediaError,
      "[SMDB] Set: insert: '" + WrapperCodeText(SQLITE_CONSTRAINT_TRIGGER) + "' / 'injected'");
  EXPECT_EQ(Rows(), before);

  file_->Exec("DROP TRIGGER inject;");
  EXPECT_EQ(db_->Set(ToItems({MakeRow("", 50), MakeRow("x/", 52)})), 10);
  EXPECT_EQ(Rows(), SortedByPath({MakeRow("", 50), MakeRow("x/", 52)}));
}

TEST_F(RowsTest, SetWithoutRecordsFailsAndChangesNothing) {
  Reset(Usual());
  EXPECT_SMDB_ERROR(db_->Set({}), kInvalidResult, "[SMDB] Set: empty raw setting");
  EXPECT_EQ(Rows(), SortedByPath(Usual()));
}

// A failing step is named by its statement; the statement's own partial work is undone.
TEST_F(RowsTest, FailingDeleteOrUpdateIsReportedWithItsStatement) {
  Reset(Usual());
  file_->Exec(
      "CREATE TRIGGER no_delete BEFORE DELETE ON data WHEN OLD.path = 'a/1/x/' "
      "BEGIN SELECT RAISE(ABORT, 'no delete'); END;"
      "CREATE TRIGGER no_update BEFORE UPDATE ON data "
      "BEGIN SELECT RAISE(ABORT, 'no update'); END;");
  auto const before = Rows();
  std::string const deleteFailure = "[SMDB] " + std::string(stmt::kDeleteSubtree) + ": '" +
                                    WrapperCodeText(SQLITE_CONSTRAINT_TRIGGER) + "' / 'no delete'";

  EXPECT_SMDB_ERROR(db_->Del("a/"), kMediaError, deleteFailure);
  EXPECT_EQ(Rows(), before);
  EXPECT_SMDB_ERROR(db_->Set({ToItem(MakeRow("a/", 20))}), kMediaError, deleteFailure);
  EXPECT_EQ(Rows(), before);
  EXPECT_SMDB_ERROR(db_->Upd("a/", RawAttrib(settings_manager::Attributes{true})), kMediaError,
                    "[SMDB]  UPDATE data    SET attrib = $attrib  WHERE path = $path;: '" +
                        WrapperCodeText(SQLITE_CONSTRAINT_TRIGGER) + "' / 'no update'");
  EXPECT_EQ(Rows(), before);
}

TEST_F(RowsTest, StatementThatCannotBePreparedIsReportedWithStatementAndError) {
  Reset(Usual());
  // Without the attrib column the delete still prepares, the insert does not.
  file_->Exec("ALTER TABLE data DROP COLUMN attrib;");
  std::string const paths = "SELECT group_concat(path || ':' || hex(value), ',') FROM "
                            "(SELECT path, value FROM data ORDER BY path)";
  std::string const before = file_->QueryText(paths);

  EXPECT_SMDB_ERROR(db_->Set({ToItem(MakeRow("a/", 20))}), kMediaError,
                    "[SMDB] Set: prepare: '" + WrapperCodeText(SQLITE_ERROR) +
                        "' / ' INSERT INTO data VALUES ($path, $value, $attrib);' , 'table data "
                        "has 2 columns but 3 values were supplied'");
  EXPECT_EQ(file_->QueryText(paths), before) << "the delete step was not rolled back";

  EXPECT_SMDB_ERROR(db_->Get(""), kMediaError,
                    "[SMDB] Exec.Prepare: '" + WrapperCodeText(SQLITE_ERROR) + "' / '" +
                        std::string(stmt::kSelectAll) + "' , 'no such column: attrib'");
}

// A step that fails after the first row: the rows of data come through a view whose
// value column overflows for the second row (abs of the smallest integer).
TEST_F(RowsTest, RowThatFailsMidReadEndsGetWithIncompleteRead) {
  Reset(SubtreeA());
  file_->Exec(
      "ALTER TABLE data RENAME TO stored;"
      "CREATE VIEW data AS SELECT path, CASE WHEN path = 'a/0/' THEN "
      "abs(-9223372036854775807 - 1) ELSE value END AS value, attrib FROM stored;");
  EXPECT_SMDB_ERROR(db_->Get("a/"), kMediaError,
                    "[SMDB] Get: incomplete node read: '" + WrapperCodeText(SQLITE_ERROR) + "'");
}

TEST_F(RowsTest, UpdChangesOnlyTheAttribOfTheRowWithExactlyThatPath) {
  Reset(Usual());
  auto const before = Rows();
  RawAttrib changed;
  changed.attrib = Attrib(99, true);

  for (std::string const missing : {"a/9/", "a/1", "a/1/x", "A/1/", "a/1/x/y/"}) {
    SCOPED_TRACE("Upd('" + missing + "')");
    EXPECT_EQ(db_->Upd(missing, changed), 0);
    EXPECT_EQ(Rows(), before);
  }

  EXPECT_EQ(db_->Upd("a/1/", changed), 1);
  auto expected = SortedByPath(Usual());
  for (auto& row : expected)
    if (row.path == "a/1/") row.attrib = changed.attrib;
  EXPECT_EQ(Rows(), expected);
}

TEST_F(RowsTest, DelRemovesExactlyTheSubtreeAndReturnsTheCount) {
  Reset({MakeRow("", 1), MakeRow("a/", 2), MakeRow("a/b/", 3), MakeRow("a/b/c/", 4),
         MakeRow("a/bc/", 5), MakeRow("a/b2/", 6), MakeRow("a/B/", 7)});

  EXPECT_EQ(db_->Del("a/b/"), 2);
  EXPECT_THAT(Paths(Rows()), ElementsAre("", "a/", "a/B/", "a/b2/", "a/bc/"));
  EXPECT_EQ(db_->Del("a/b/"), 0);

  EXPECT_EQ(db_->Del(""), 5);
  EXPECT_TRUE(Rows().empty());
  EXPECT_EQ(db_->Del(""), 0);
}

TEST_F(RowsTest, ColumnOfAnotherKindThrowsBadVariantAccess) {
  std::string const good = "x'" + test_support::Hex(Value(1)) + "', x'" +
                           test_support::Hex(Attrib(1)) + "'";
  struct Case {
    char const* name;
    std::string insert;
  };
  for (auto const& c : {
           Case{"value as text", "INSERT INTO data VALUES ('a/', 'text', x'" +
                                     test_support::Hex(Attrib(1)) + "');"},
           Case{"attrib as text", "INSERT INTO data VALUES ('a/', x'" +
                                      test_support::Hex(Value(1)) + "', 'text');"},
           Case{"path as blob", "INSERT INTO data VALUES (x'612f', " + good + ");"},
           Case{"second row's value as text", "INSERT INTO data VALUES ('a/', " + good +
                                                  "); INSERT INTO data VALUES ('a/b/', 'text', "
                                                  "x'" + test_support::Hex(Attrib(1)) + "');"},
       }) {
    SCOPED_TRACE(c.name);
    Reset({MakeRow("b/", 2)});
    file_->Exec(c.insert);
    EXPECT_THROW(db_->Get("a/"), std::bad_variant_access);
    // The connection stays usable.
    EXPECT_THAT(ToRows(db_->Get("b/")), ElementsAre(MakeRow("b/", 2)));
  }
}

// Keys are bytes: case, invalid UTF-8 and embedded NULs must not make two keys alike.
TEST_F(RowsTest, KeysThatDifferOnlyInCaseEncodingOrAfterANulAreDistinct) {
  std::string const nul("a\0b/", 4);
  std::string const nulOnly("\0/", 2);
  Reset({MakeRow("A/", 1), MakeRow("a/", 2), MakeRow("\xc0\x80/", 3), MakeRow("\xc1\x81/", 4),
         MakeRow(nul, 5), MakeRow(nulOnly, 6), MakeRow("\xef\xbf\xbd/", 7)});

  EXPECT_THAT(ToRows(db_->Get("a/")), ElementsAre(MakeRow("a/", 2)));
  EXPECT_THAT(ToRows(db_->Get("\xc0\x80/")), ElementsAre(MakeRow("\xc0\x80/", 3)));
  EXPECT_THAT(ToRows(db_->Get(nul)), ElementsAre(MakeRow(nul, 5)));
  EXPECT_THAT(ToRows(db_->Get(nulOnly)), ElementsAre(MakeRow(nulOnly, 6)));
  EXPECT_EQ(db_->Del("A/"), 1);
  EXPECT_EQ(db_->Del("\xc1\x81/"), 1);
  EXPECT_EQ(db_->Del(nulOnly), 1);
  EXPECT_THAT(Paths(Rows()), ElementsAre("a\\x00b/", "a/", "\\xc0\\x80/", "\\xef\\xbf\\xbd/"));
}

// ---- Prefix exactness over every kind of key the id rules allow ----

// Keys chosen to sit close to each other: case pairs, invalid and valid UTF-8 that a
// decoding LIKE would fold into U+FFFD, embedded NULs, regex and glob symbols, list
// indices and keys that prefix other keys.
std::vector<std::string> ChosenKeys() {
  return {"A",     "a",      "aa",     "ab",        "a0",     "a1b",   "b",
          "\xc0\x80", "\xc1\x81", "\xc3\xa9", "\xef\xbf\xbd", "\xff", "\x80",
          std::string("a\0b", 3), std::string("\0", 1), std::string("a\0", 2),
          "[",     "[a]",    "a*",     "*",         "?",      "a?",    "^",
          "^a",    ".",      "a.",     "-",         "+",      "a+",    "0",
          "1",     "10",     "65535"};
}

// Random keys over a small alphabet, so that keys often share leading bytes. A key may
// not begin with a digit; the forbidden characters are never drawn.
std::vector<std::string> RandomKeys(unsigned seed, std::size_t count) {
  static std::string const alphabet("aAbB\0\x80\xc0\xc1\x81\xff[*?^.-+9", 18);
  std::mt19937 random(seed);
  std::uniform_int_distribution<std::size_t> length(1, 3), pick(0, alphabet.size() - 1);
  std::set<std::string> keys;
  while (keys.size() < count) {
    std::string key;
    for (std::size_t n = length(random); key.size() < n;) key += alphabet[pick(random)];
    if (key[0] >= '0' && key[0] <= '9') continue;
    keys.insert(key);
  }
  return {keys.begin(), keys.end()};
}

// Every node of two levels over `keys`, and the root.
std::vector<Row> TreeRows(std::vector<std::string> const& keys) {
  std::vector<Row> rows{MakeRow("", 0)};
  std::uint64_t number = 1;
  for (auto const& first : keys) {
    rows.push_back(MakeRow(first + "/", number++));
    for (auto const& second : keys) rows.push_back(MakeRow(first + "/" + second + "/", number++));
  }
  return rows;
}

std::vector<Row> Under(std::vector<Row> const& rows, std::string const& prefix, bool inside) {
  std::vector<Row> out;
  for (auto const& row : rows)
    if (StartsWith(row.path, prefix) == inside) out.push_back(row);
  return SortedByPath(out);
}

class PrefixTest : public RowsTest, public ::testing::WithParamInterface<unsigned> {
 protected:
  // Seed 0 is the chosen keys, every other seed a set of random keys.
  std::vector<Row> Tree() const {
    return TreeRows(GetParam() == 0 ? ChosenKeys() : RandomKeys(GetParam(), 24));
  }
};

TEST_P(PrefixTest, GetReturnsExactlyTheNodeAndItsDescendants) {
  auto const rows = Tree();
  Reset(rows);
  for (auto const& node : rows) {
    SCOPED_TRACE("Get('" + Printable(node.path) + "')");
    ASSERT_EQ(ToRows(db_->Get(node.path)), Under(rows, node.path, true));
  }
}

TEST_P(PrefixTest, DelRemovesExactlyTheNodeAndItsDescendants) {
  auto const rows = Tree();
  for (auto const& node : rows) {
    if (node.path.find('/') != node.path.size() - 1) continue;  // the first level
    SCOPED_TRACE("Del('" + Printable(node.path) + "')");
    Reset(rows);
    ASSERT_EQ(db_->Del(node.path), static_cast<int>(Under(rows, node.path, true).size()));
    ASSERT_EQ(Rows(), Under(rows, node.path, false));
  }
}

TEST_P(PrefixTest, SetReplacesExactlyTheNodeAndItsDescendants) {
  auto const rows = Tree();
  for (auto const& node : rows) {
    if (node.path.find('/') != node.path.size() - 1) continue;  // the first level
    SCOPED_TRACE("Set('" + Printable(node.path) + "')");
    Reset(rows);
    std::vector<Row> const fresh{MakeRow(node.path, 100000), MakeRow(node.path + "new/", 100001)};
    ASSERT_EQ(db_->Set(ToItems(fresh)), static_cast<int>(Under(rows, node.path, true).size()));
    ASSERT_EQ(Rows(), SortedByPath(Concat(Under(rows, node.path, false), fresh)));
  }
}

INSTANTIATE_TEST_SUITE_P(ChosenAndRandomKeys, PrefixTest, ::testing::Values(0u, 1u, 2u, 3u));

}  // namespace
}  // namespace store_test
