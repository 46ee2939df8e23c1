// A store file: its schema created, recognised or refused unchanged; its rows read,
// replaced, updated and deleted, checked with the sqlite3 C API; failures named with
// SQLite's reason and rolled back whole.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "fdn/result_codes.h"
#include "settings_db.h"
#include "support/captured_log.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {
namespace {

using settings_db::SettingsDB;
using settings_manager::impl::RawItem;
using Row = SqliteFile::Row;
using Rows = std::vector<Row>;
constexpr std::uint32_t kMedia = 0x80000059u, kInvalid = 0x80000071u;
std::string const kData =
    " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
    "BLOB NOT NULL );";
std::string const kMeta =
    " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );";

// SQLite's (extended) code as the store's messages name it.
std::string Sqlite(int code) {
  return "'" + fdn::ResultCodeText(db_wrappers::sqlite::MakeError(code)) + "'";
}
// Every column differs from row to row: the value by `n` and its size, the attrib by a tag.
Row R(std::string path, std::uint8_t n) {
  auto attrib = AttribRecord(n % 2);
  attrib[9] = n;
  auto value = ValueRecord(15, n, 8, std::string(n % 7, 'x'));
  return {std::move(path), value, attrib};
}
SettingsDB::RawItems Items(Rows const& rows) {
  SettingsDB::RawItems items;
  for (auto const& row : rows) items.emplace_back(row.attrib, row.value, row.path);
  return items;
}
Rows Read(SettingsDB::RawItems const& items) {
  Rows rows;
  for (auto const& item : items) rows.push_back({item.path, item.value, item.attrib});
  return rows;
}
Rows Sorted(Rows rows) {
  std::sort(rows.begin(), rows.end(), [](auto& a, auto& b) { return a.path < b.path; });
  return rows;
}

class Store : public ::testing::Test {
 protected:
  std::string Bytes() const {
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // Opening fails with `code` and `message`, logs `logged` records, leaves the file as it was.
  void ExpectRefused(std::uint32_t code, std::string const& message, std::size_t logged = 1) {
    std::string const before = Bytes();
    CapturedLog log;
    EXPECT_EQ(ErrorOf([&] { SettingsDB db(path_); }), (uvc::Result{Code(code), message}));
    EXPECT_EQ(log.Records().size(), logged);
    EXPECT_EQ(Bytes(), before);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}), 1);
  }
  TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
};

TEST_F(Store, NewFileGetsTheSchemaInOneLoggedPassAndIsOnlyVerifiedWhenReopened) {
  CapturedLog log;
  { SettingsDB db(path_); }
  SqliteFile(path_).InsertRow(R("a/", 7));
  std::string const before = Bytes();
  { SettingsDB db(path_); }
  std::vector<std::string> got;
  for (auto const& r : log.Records()) {
    EXPECT_EQ(std::string(tern::logger::LevelName(r.level)) + " " + r.file,
              "INFO settings_manager/src/settings_db");
    got.push_back(r.function + ": " + r.message);
  }
  std::string const verify = "VerifySchema: [SMDB] VerifySchema...";
  EXPECT_THAT(got, ::testing::ElementsAre(verify, "CreateSchema: [SMDB] CreateSchema...",
                                          "CreateSchema: [SMDB] CreateSchema...Ok", verify,
                                          verify + "Ok", verify, verify + "Ok"));
  EXPECT_EQ(Bytes(), before);
  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT group_concat(sql, ';') FROM sqlite_master WHERE type='table'"),
            kData.substr(1, kData.size() - 2) + ";" + kMeta.substr(1, kMeta.size() - 2));
  EXPECT_EQ(file.QueryText("SELECT group_concat(key || '=' || value || ':' || typeof(value)) "
                           "FROM meta"),
            "ver=1:text");
  EXPECT_EQ(file.DataRows(), Rows{R("a/", 7)});
}

TEST_F(Store, DamagedOrForeignFilesAreRefusedUnchangedOrAcceptedAsTheyAre) {
  struct Case {
    std::string sql;
    std::uint32_t code;  // 0: accepted
    std::string message;
  } const cases[] = {
      {kData, kInvalid, "[SMDB] Inconsistent db state: data/meta: 'true' / 'false'"},
      {kMeta + "INSERT INTO meta VALUES ('ver', '1');", kInvalid,
       "[SMDB] Inconsistent db state: data/meta: 'false' / 'true'"},
      {kData + kMeta + "INSERT INTO meta VALUES ('VER', '1');", kInvalid,
       "[SMDB] No schema version"},
      {kData + kMeta + "INSERT INTO meta VALUES ('ver', '1 ');", kInvalid,
       "[SMDB] Unexpected schema version: '1 '"},
      {kData + kMeta + "INSERT INTO meta VALUES ('ver', '');", kInvalid,
       "[SMDB] Unexpected schema version: ''"},
      {kData + kMeta + "INSERT INTO meta VALUES ('ver', 1); CREATE TABLE o(x);", 0, ""},
      {"CREATE TABLE o(x);", 0, ""},  // only foreign tables: ours are added beside them
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.message);
    std::filesystem::remove(path_);
    SqliteFile(path_).Exec("PRAGMA journal_mode=WAL;" + c.sql);
    if (c.code != 0) {
      ExpectRefused(c.code, c.message);
      continue;
    }
    EXPECT_NO_THROW(SettingsDB db(path_));
    EXPECT_EQ(SqliteFile(path_).QueryText("SELECT value FROM meta"), "1");
  }
  // A view named meta: creating the table fails, and no half-made schema stays behind.
  std::filesystem::remove(path_);
  SqliteFile(path_).Exec("PRAGMA journal_mode=WAL; CREATE VIEW meta AS SELECT 1 AS key;");
  ExpectRefused(kMedia,
                "[SMDB] Exec.Prepare: " + Sqlite(SQLITE_ERROR) + " / '" + kMeta +
                    "' , 'view meta already exists'",
                2);
  std::filesystem::remove(path_);
  SqliteFile(path_).Exec("PRAGMA journal_mode=WAL;" + kData + kMeta +
                         "INSERT INTO meta VALUES ('ver', x'31');");
  EXPECT_THROW(SettingsDB db(path_), std::bad_variant_access);
  std::filesystem::remove(path_);
  { SettingsDB db(path_); }
  std::filesystem::resize_file(path_, 4096);  // cut short before the pages of meta
  ExpectRefused(kMedia, "[SMDB] Could not create settings database: " + Sqlite(SQLITE_CORRUPT), 0);
  std::ofstream(path_, std::ios::binary) << std::string(4096, 'x');
  ExpectRefused(kMedia, "[SMDB] Could not create settings database: " + Sqlite(SQLITE_NOTADB), 0);
  std::filesystem::remove(path_);
  EXPECT_EQ(ErrorOf([&] { SettingsDB db(dir_.File("missing/settings.db")); }),
            (uvc::Result{Code(kMedia),
                         "[SMDB] Could not create settings database: " + Sqlite(SQLITE_CANTOPEN)}));
  try {
    SettingsDB db("");
    ADD_FAILURE() << "an empty path opened";
  } catch (std::runtime_error const& e) {  // not a uvc::Error
    EXPECT_STREQ(e.what(), "[SMDB] Empty DB path");
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir_.Path()));
}

class StoreRows : public Store {
 protected:
  void SetUp() override {
    db_ = std::make_unique<SettingsDB>(path_);
    file_.Exec("BEGIN");
    for (auto const& row : kUsual) file_.InsertRow(row);
    file_.Exec("COMMIT");
  }
  // The subtree a/ of five rows, and neighbours sharing bytes with it but outside it.
  Rows const kUsual{R("", 1),    R("A/", 2),    R("ab/", 3),   R("a0/", 4),     R("b/", 5),
                    R("a/", 10), R("a/0/", 11), R("a/1/", 12), R("a/1/x/", 13), R("a/2/", 14)};
  std::unique_ptr<SettingsDB> db_;
  SqliteFile file_{path_};
};

TEST_F(StoreRows, ReadReplaceUpdateAndDeleteExactlyTheSubtree) {
  Rows const subtree(kUsual.begin() + 5, kUsual.end());
  EXPECT_EQ(Read(db_->Get("a/")), subtree);
  EXPECT_EQ(Read(db_->Get("")), Sorted(kUsual));
  EXPECT_TRUE(db_->Get("c/").empty());
  Rows fresh{R("a/", 20), R("a/a-rather-long-key-name/", 27), R("a/k/", 22)};
  EXPECT_EQ(db_->Set(Items(fresh)), 5);
  Rows expected = Sorted(Rows(kUsual.begin(), kUsual.begin() + 5));
  expected.insert(expected.end(), fresh.begin(), fresh.end());
  EXPECT_EQ(file_.DataRows(), Sorted(expected));
  EXPECT_EQ(db_->Set(Items({R("n/", 30)})), 0);
  EXPECT_EQ(db_->Del("n/"), 1);
  for (std::string const missing : {"a/9/", "a/k", "A/k/", "a/k/y/"})
    EXPECT_EQ(db_->Upd(missing, settings_manager::impl::RawAttrib(Attributes{true})), 0);
  EXPECT_EQ(db_->Upd("a/k/", settings_manager::impl::RawAttrib(Attributes{true})), 1);
  expected.back().attrib = AttribRecord(true);
  EXPECT_EQ(file_.DataRows(), Sorted(expected));
  EXPECT_EQ(db_->Del("a/"), 3);
  EXPECT_EQ(db_->Del(""), 5);
  EXPECT_TRUE(file_.DataRows().empty());
  file_.InsertRow(R("a/b/c/", 1));
  EXPECT_EQ(ErrorOf([&] { db_->Get("a/"); }),
            (uvc::Result{Code(kInvalid), "[SMDB] Get: wrong head node"}));
}

TEST_F(StoreRows, FailuresAreNamedWithSqlitesReasonAndLeaveEveryRow) {
  file_.Exec(
      "CREATE TRIGGER t1 BEFORE INSERT ON data WHEN NEW.path = 'x/' BEGIN SELECT RAISE(ABORT, "
      "'injected'); END; CREATE TRIGGER t2 BEFORE DELETE ON data WHEN OLD.path = 'a/1/x/' BEGIN "
      "SELECT RAISE(ABORT, 'no delete'); END; CREATE TRIGGER t3 BEFORE UPDATE ON data BEGIN "
      "SELECT RAISE(ABORT, 'no update'); END;");
  std::string const trigger = Sqlite(SQLITE_CONSTRAINT_TRIGGER);
  std::string const del = "[SMDB] " + std::string(settings_db::statements::kDeleteSubtree) + ": ";
  std::pair<std::function<void()>, std::string> const cases[] = {
      {[&] {
         db_->Set(Items({R("b/", 20), R("b/", 21)}));
       },
       "[SMDB] Set: insert: " + Sqlite(SQLITE_CONSTRAINT_UNIQUE) +
           " / 'UNIQUE constraint failed: data.path'"},
      {[&] {
         db_->Set(Items({R("b/", 20), R("a0/", 21)}));
       },
       "[SMDB] Set: insert: " + Sqlite(SQLITE_CONSTRAINT_UNIQUE) +
           " / 'UNIQUE constraint failed: data.path'"},
      {[&] {
         db_->Set(Items({R("b/", 50), R("b/w/", 51), R("x/", 52)}));
       },
       "[SMDB] Set: insert: " + trigger + " / 'injected'"},
      {[&] { db_->Del("a/"); }, del + trigger + " / 'no delete'"},
      {[&] { db_->Set(Items({R("a/", 20)})); }, del + trigger + " / 'no delete'"},
      {[&] { db_->Upd("a/", settings_manager::impl::RawAttrib(Attributes{true})); },
       "[SMDB]  UPDATE data    SET attrib = $attrib  WHERE path = $path;: " + trigger +
           " / 'no update'"},
  };
  for (auto const& [action, message] : cases) {
    CapturedLog log;
    EXPECT_EQ(ErrorOf(action), (uvc::Result{Code(kMedia), message}));
    EXPECT_EQ(file_.DataRows(), Sorted(kUsual));
    EXPECT_TRUE(log.Records().empty()) << "failures are the caller's to log";
  }
  EXPECT_EQ(ErrorOf([&] { db_->Set({}); }),
            (uvc::Result{Code(kInvalid), "[SMDB] Set: empty raw setting"}));
  file_.Exec(
      "DROP TRIGGER t1; DROP TRIGGER t2; DROP TRIGGER t3; ALTER TABLE data DROP COLUMN attrib;");
  db_ = std::make_unique<SettingsDB>(path_);  // no statement prepared yet
  EXPECT_EQ(ErrorOf([&] { db_->Set(Items({R("a/", 20)})); }),
            (uvc::Result{Code(kMedia), "[SMDB] Set: prepare: " + Sqlite(SQLITE_ERROR) +
                                           " / ' INSERT INTO data VALUES ($path, $value, "
                                           "$attrib);' , 'table data has 2 columns but 3 values "
                                           "were supplied'"}));
  EXPECT_EQ(file_.QueryInt("SELECT count(*) FROM data"), 10);  // the delete rolled back
  EXPECT_EQ(ErrorOf([&] { db_->Get(""); }),
            (uvc::Result{Code(kMedia), "[SMDB] Exec.Prepare: " + Sqlite(SQLITE_ERROR) + " / '" +
                                           std::string(settings_db::statements::kSelectAll) +
                                           "' , 'no such column: attrib'"}));
}

TEST_F(StoreRows, RowsThatCannotBeReadEndTheRead) {
  file_.Exec("UPDATE data SET value = 'text' WHERE path = 'a/1/'");
  EXPECT_THROW(db_->Get("a/"), std::bad_variant_access);
  EXPECT_EQ(Read(db_->Get("b/")), Rows{R("b/", 5)});  // the connection stays usable
  file_.Exec(
      "DELETE FROM data WHERE path = 'a/1/'; ALTER TABLE data RENAME TO stored; CREATE VIEW data "
      "AS SELECT path, CASE WHEN path = 'a/0/' THEN abs(-9223372036854775807 - 1) ELSE value END "
      "AS value, attrib FROM stored;");
  EXPECT_EQ(
      ErrorOf([&] { db_->Get("a/"); }),
      (uvc::Result{Code(kMedia), "[SMDB] Get: incomplete node read: " + Sqlite(SQLITE_ERROR)}));
  EXPECT_FALSE(SettingsDB::EmptySelect(Code(0x21110001u)));
  for (std::uint32_t code : {0u, 1u, 0x21110002u, 0x21100001u, 0x80000059u})
    EXPECT_TRUE(SettingsDB::EmptySelect(Code(code))) << code;
}

}  // namespace
}  // namespace test_support
