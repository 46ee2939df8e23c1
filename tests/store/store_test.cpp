// A store file: its schema created, recognised or refused unchanged; its rows read,
// replaced, updated and deleted, checked with the sqlite3 C API; failures named with
// SQLite's reason and rolled back whole.

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>

#include "settings_db.h"
#include "support/captured_log.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace test_support {
namespace {

using settings_db::SettingsDB;
using Rows = std::vector<SqliteFile::Row>;
std::string const kData =
    "CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
    "BLOB NOT NULL )";
std::string const kMeta =
    "CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT "
    "NOT NULL )";

uvc::Result Media(std::string text) { return {Code(0x80000059u), std::move(text)}; }
uvc::Result Invalid(std::string text) { return {Code(0x80000071u), std::move(text)}; }
// SQLite's (extended) code as the store's messages name it.
std::string Sqlite(int code) {
  return "'" + fdn::ResultCodeText(db_wrappers::sqlite::MakeError(code)) + "'";
}
// Every column differs from row to row: the value by `n` and its size, the attrib by a tag.
SqliteFile::Row R(std::string path, std::uint8_t n) {
  auto attrib = AttribRecord(n % 2);
  attrib[9] = n;
  return {std::move(path), ValueRecord(15, n, 8, std::string(n % 7, 'x')), attrib};
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

class Store : public ::testing::Test {
 protected:
  std::string Bytes() const {
    std::ifstream in(path_, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  // Opening a file made by `sql` fails with `error`, logs `logged` records and leaves the
  // file as it was.
  void ExpectRefused(std::string const& sql, uvc::Result const& error, std::size_t logged = 1) {
    if (!sql.empty()) {
      std::filesystem::remove(path_);
      SqliteFile(path_).Exec("PRAGMA journal_mode=WAL;" + sql);
    }
    std::string const before = Bytes();
    CapturedLog log;
    EXPECT_EQ(ErrorOf([&] { SettingsDB db(path_); }), error);
    EXPECT_EQ(log.Records().size(), logged) << error.second;
    EXPECT_EQ(Bytes(), before) << error.second;
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}), 1);
  }
  TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
};

TEST_F(Store, NewFileGetsTheSchemaAndIsOnlyVerifiedWhenReopened) {
  CapturedLog log;
  { SettingsDB db(path_); }
  SqliteFile(path_).InsertRow(R("a/", 7));
  std::string const before = Bytes();
  { SettingsDB db(path_); }
  std::string const verify = "[SMDB] VerifySchema...", create = "[SMDB] CreateSchema...";
  std::vector<std::string> messages;
  for (auto const& r : log.Records()) messages.push_back(r.message);
  EXPECT_THAT(messages, ::testing::ElementsAre(verify, create, create + "Ok", verify, verify + "Ok",
                                               verify, verify + "Ok"));
  EXPECT_EQ(Bytes(), before);
  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT group_concat(sql, ';') FROM sqlite_master WHERE type='table'"),
            kData + ";" + kMeta);
  EXPECT_EQ(file.QueryText("SELECT key || '=' || value || ':' || typeof(value) FROM meta"),
            "ver=1:text");
}

TEST_F(Store, DamagedOrForeignFilesAreRefusedUnchangedOrAcceptedAsTheyAre) {
  std::string const version = kData + ";" + kMeta + "; INSERT INTO meta VALUES ";
  ExpectRefused(kData, Invalid("[SMDB] Inconsistent db state: data/meta: 'true' / 'false'"));
  ExpectRefused(kMeta, Invalid("[SMDB] Inconsistent db state: data/meta: 'false' / 'true'"));
  ExpectRefused(version + "('VER', '1');", Invalid("[SMDB] No schema version"));
  ExpectRefused(version + "('ver', '1 ');", Invalid("[SMDB] Unexpected schema version: '1 '"));
  ExpectRefused("CREATE VIEW meta AS SELECT 1 AS key;",  // no half-made schema stays behind
                Media("[SMDB] Exec.Prepare: " + Sqlite(SQLITE_ERROR) + " / ' " + kMeta +
                      ";' , 'view meta already exists'"),
                2);
  std::filesystem::remove(path_);
  SqliteFile(path_).Exec(version + "('ver', 1); CREATE TABLE o(x);");  // 1 is stored as text
  EXPECT_NO_THROW(SettingsDB db(path_));
  std::ofstream(path_, std::ios::binary) << std::string(4096, 'x');
  std::string const cannot = "[SMDB] Could not create settings database: ";
  ExpectRefused("", Media(cannot + Sqlite(SQLITE_NOTADB)), 0);
  EXPECT_EQ(ErrorOf([&] { SettingsDB db(dir_.File("missing/settings.db")); }),
            Media(cannot + Sqlite(SQLITE_CANTOPEN)));
  EXPECT_THAT([] { SettingsDB db(""); },
              ::testing::ThrowsMessage<std::runtime_error>("[SMDB] Empty DB path"));
}

class StoreRows : public Store {
 protected:
  void SetUp() override {
    db_ = std::make_unique<SettingsDB>(path_);
    file_.Exec("BEGIN");
    for (auto const& row : kUsual) file_.InsertRow(row);
    file_.Exec("COMMIT");
  }
  // In byte order: the subtree a/ of five rows, and neighbours sharing bytes with it.
  Rows const kUsual{R("", 1),        R("A/", 2),    R("a/", 10), R("a/0/", 11), R("a/1/", 12),
                    R("a/1/x/", 13), R("a/2/", 14), R("a0/", 4), R("ab/", 3),   R("b/", 5)};
  std::unique_ptr<SettingsDB> db_;
  SqliteFile file_{path_};
};

TEST_F(StoreRows, ReadReplaceUpdateAndDeleteExactlyTheSubtree) {
  EXPECT_EQ(Read(db_->Get("a/")), Rows(kUsual.begin() + 2, kUsual.begin() + 7));
  EXPECT_EQ(Read(db_->Get("")), kUsual);
  EXPECT_TRUE(db_->Get("c/").empty());
  Rows expected{R("", 1),      R("A/", 2),  R("a/", 20), R("a/a-rather-long-key-name/", 27),
                R("a/k/", 22), R("a0/", 4), R("ab/", 3), R("b/", 5)};
  EXPECT_EQ(db_->Set(Items({expected[2], expected[3], expected[4]})), 5);
  EXPECT_EQ(file_.DataRows(), expected);
  EXPECT_EQ(db_->Set(Items({R("n/", 30)})), 0);
  EXPECT_EQ(db_->Del("n/"), 1);
  for (std::string const path : {"a/9/", "a/k", "A/k/", "a/k/y/", "a/k/"})
    EXPECT_EQ(db_->Upd(path, settings_manager::impl::RawAttrib(Attributes{true})), path == "a/k/");
  expected[4].attrib = AttribRecord(true);
  EXPECT_EQ(file_.DataRows(), expected);
  EXPECT_EQ(db_->Del("a/"), 3);
  EXPECT_EQ(db_->Del(""), 5);
  EXPECT_TRUE(file_.DataRows().empty());
  file_.InsertRow(R("a/b/c/", 1));
  EXPECT_EQ(ErrorOf([&] { db_->Get("a/"); }), Invalid("[SMDB] Get: wrong head node"));
}

TEST_F(StoreRows, FailuresAreNamedWithSqlitesReasonAndLeaveEveryRow) {
  file_.Exec(
      "CREATE TRIGGER t2 BEFORE DELETE ON data WHEN OLD.path = 'a/1/x/' BEGIN SELECT RAISE(ABORT, "
      "'no delete'); END; CREATE TRIGGER t3 BEFORE UPDATE ON data BEGIN SELECT RAISE(ABORT, 'no "
      "update'); END;");
  std::string const trigger = Sqlite(SQLITE_CONSTRAINT_TRIGGER);
  std::pair<std::function<void()>, std::string> const failures[] = {
      {[&] {
         db_->Set(Items({R("b/", 20), R("b/w/", 21), R("b/", 22)}));
       },
       "[SMDB] Set: insert: " + Sqlite(SQLITE_CONSTRAINT_UNIQUE) +
           " / 'UNIQUE constraint failed: data.path'"},
      {[&] { db_->Del("a/"); }, "[SMDB] " + std::string(settings_db::statements::kDeleteSubtree) +
                                    ": " + trigger + " / 'no delete'"},
      {[&] { db_->Upd("a/", settings_manager::impl::RawAttrib(Attributes{true})); },
       "[SMDB]  UPDATE data    SET attrib = $attrib  WHERE path = $path;: " + trigger +
           " / 'no update'"}};
  for (auto const& [action, message] : failures) {
    CapturedLog log;
    EXPECT_EQ(ErrorOf(action), Media(message));
    EXPECT_EQ(file_.DataRows(), kUsual) << message;
    EXPECT_TRUE(log.Records().empty()) << "failures are the caller's to log";
  }
  EXPECT_EQ(ErrorOf([&] { db_->Set({}); }), Invalid("[SMDB] Set: empty raw setting"));
  file_.Exec("DROP TRIGGER t2; DROP TRIGGER t3; ALTER TABLE data DROP COLUMN attrib;");
  db_ = std::make_unique<SettingsDB>(path_);  // no statement prepared yet
  EXPECT_EQ(ErrorOf([&] { db_->Set(Items({R("a/", 20)})); }),
            Media("[SMDB] Set: prepare: " + Sqlite(SQLITE_ERROR) +
                  " / ' INSERT INTO data VALUES ($path, $value, $attrib);' , 'table data has 2 "
                  "columns but 3 values were supplied'"));
  EXPECT_EQ(file_.QueryInt("SELECT count(*) FROM data"), 10);  // the delete rolled back
  file_.Exec(
      "ALTER TABLE data RENAME TO stored; CREATE VIEW data AS SELECT path, CASE WHEN path = 'a/0/' "
      "THEN abs(-9223372036854775807 - 1) ELSE value END AS value, value AS attrib FROM stored;");
  EXPECT_EQ(ErrorOf([&] { db_->Get("a/"); }),
            Media("[SMDB] Get: incomplete node read: " + Sqlite(SQLITE_ERROR)));
}

}  // namespace
}  // namespace test_support
