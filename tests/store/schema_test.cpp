// Opening a store file: creating the schema in a new file, recognising our own files, and
// refusing damaged or foreign ones without changing them.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "store_test_util.h"
#include "support/captured_log.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace store_test {
namespace {

using test_support::CapturedLog;
using test_support::SqliteFile;
using test_support::TempDir;
using tern::logger::LogLevel;
using ::testing::ElementsAre;

// What sqlite_master keeps of our two CREATE statements: SQLite drops the leading blank
// and the semicolon, and keeps everything in between as written.
constexpr char const kStoredCreateData[] =
    "CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
    "BLOB NOT NULL )";
constexpr char const kStoredCreateMeta[] =
    "CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL )";

// Field by field, so that a failure names what differs.
MATCHER_P2(DbRecord, function, message, "") {
  return arg.level == LogLevel::Info && arg.file == kDbSource && arg.function == function &&
         arg.message == message;
}

class SchemaTest : public ::testing::Test {
 protected:
  // A file prepared independently of the store, in WAL mode as every file the store
  // writes is, so that opening it has no journal mode to switch.
  void MakeFile(std::string const& sql) {
    SqliteFile file(path_);
    file.Exec("PRAGMA journal_mode=WAL;");
    file.Exec(sql);
  }

  // Opening must fail with `code` and `message` and leave the file and folder as they were.
  void ExpectRefusedUnchanged(int code, std::string const& message) {
    std::string const before = FileBytes(path_);
    auto const namesBefore = FolderNames(dir_.Path());
    ASSERT_FALSE(before.empty());
    EXPECT_SMDB_ERROR(SettingsDB db(path_), code, message);
    EXPECT_EQ(FileBytes(path_), before) << "the refused file was changed";
    EXPECT_EQ(FolderNames(dir_.Path()), namesBefore);
  }

  TempDir dir_;
  std::string const path_ = dir_.File("settings.db");
};

TEST_F(SchemaTest, NewFileGetsBothTablesAndTheVersionRowInOneLoggedPass) {
  CapturedLog log;
  { SettingsDB db(path_); }

  EXPECT_THAT(log.Records(),
              ElementsAre(DbRecord("VerifySchema", "[SMDB] VerifySchema..."),
                          DbRecord("CreateSchema", "[SMDB] CreateSchema..."),
                          DbRecord("CreateSchema", "[SMDB] CreateSchema...Ok"),
                          DbRecord("VerifySchema", "[SMDB] VerifySchema..."),
                          DbRecord("VerifySchema", "[SMDB] VerifySchema...Ok")));

  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT group_concat(name, ',') FROM (SELECT name FROM sqlite_master "
                           "WHERE type = 'table' ORDER BY name)"),
            "data,meta");
  EXPECT_EQ(file.QueryText("SELECT sql FROM sqlite_master WHERE type = 'table' AND name = 'data'"),
            kStoredCreateData);
  EXPECT_EQ(file.QueryText("SELECT sql FROM sqlite_master WHERE type = 'table' AND name = 'meta'"),
            kStoredCreateMeta);
  // The version is the text "1", not the number 1.
  EXPECT_EQ(file.QueryText("SELECT key || '=' || value || ':' || typeof(value) FROM meta"),
            "ver=1:text");
  EXPECT_EQ(file.QueryInt("SELECT count(*) FROM meta"), 1);
  EXPECT_EQ(file.QueryInt("SELECT count(*) FROM data"), 0);
}

TEST_F(SchemaTest, ReopeningOurFileOnlyVerifiesAndKeepsItsRows) {
  { SettingsDB db(path_); }
  {
    SqliteFile file(path_);
    file.InsertRow(MakeRow("a/", 7));
  }
  std::string const before = FileBytes(path_);

  CapturedLog log;
  { SettingsDB db(path_); }

  EXPECT_THAT(log.Records(), ElementsAre(DbRecord("VerifySchema", "[SMDB] VerifySchema..."),
                                         DbRecord("VerifySchema", "[SMDB] VerifySchema...Ok")));
  EXPECT_EQ(FileBytes(path_), before);
  SqliteFile file(path_);
  EXPECT_EQ(file.DataRows(), std::vector<Row>{MakeRow("a/", 7)});
  EXPECT_EQ(file.QueryInt("SELECT count(*) FROM meta"), 1);
}

// One of the two tables alone is a damaged store, not a new one: no schema is added.
TEST_F(SchemaTest, OneTableWithoutTheOtherIsRefusedAndLeftAsItWas) {
  struct Case {
    char const* sql;
    char const* message;
    char const* missing;
  };
  for (Case const c : {
           Case{" CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,"
                "   attrib  BLOB NOT NULL );",
                "[SMDB] Inconsistent db state: data/meta: 'true' / 'false'", "meta"},
           Case{" CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );"
                " INSERT INTO meta VALUES ('ver', '1');",
                "[SMDB] Inconsistent db state: data/meta: 'false' / 'true'", "data"},
       }) {
    SCOPED_TRACE(c.message);
    std::filesystem::remove(path_);
    MakeFile(c.sql);

    CapturedLog log;
    ExpectRefusedUnchanged(kInvalidResult, c.message);
    EXPECT_THAT(log.Records(), ElementsAre(DbRecord("VerifySchema", "[SMDB] VerifySchema...")));

    SqliteFile file(path_);
    EXPECT_EQ(file.QueryText(std::string("SELECT name FROM sqlite_master WHERE name = '") +
                             c.missing + "'"),
              "<none>");
  }
}

TEST_F(SchemaTest, MetaWithoutVersionRowIsRefused) {
  MakeFile(
      " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
      "BLOB NOT NULL );"
      " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );"
      " INSERT INTO meta VALUES ('version', '1');"
      " INSERT INTO meta VALUES ('VER', '1');");
  ExpectRefusedUnchanged(kInvalidResult, "[SMDB] No schema version");
}

// There is no migration: only the exact one-character text "1" is ours.
TEST_F(SchemaTest, AnyOtherVersionTextIsRefusedWithTheStoredText) {
  for (std::string const version : {"01", "2", "", "1 ", " 1", "1.0", "v1"}) {
    SCOPED_TRACE("version '" + version + "'");
    std::filesystem::remove(path_);
    { SettingsDB db(path_); }
    {
      SqliteFile file(path_);
      file.Exec("UPDATE meta SET value = '" + version + "' WHERE key = 'ver'");
    }
    ExpectRefusedUnchanged(kInvalidResult, "[SMDB] Unexpected schema version: '" + version + "'");
  }
}

// The meta value column has TEXT affinity: a number 1 is stored as the text "1".
TEST_F(SchemaTest, VersionWrittenAsNumberOneIsStoredAsTextAndAccepted) {
  MakeFile(
      " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
      "BLOB NOT NULL );"
      " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );"
      " INSERT INTO meta VALUES ('ver', 1);");
  EXPECT_NO_THROW(SettingsDB db(path_));
}

// A blob in the version column is no text at all: the read itself refuses it.
TEST_F(SchemaTest, VersionStoredAsBlobThrowsBadVariantAccessAndLeavesTheFile) {
  MakeFile(
      " CREATE TABLE data (   path    TEXT NOT NULL UNIQUE,   value   BLOB NOT NULL,   attrib  "
      "BLOB NOT NULL );"
      " CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT NOT NULL );"
      " INSERT INTO meta VALUES ('ver', x'31');");
  std::string const before = FileBytes(path_);
  EXPECT_THROW(SettingsDB db(path_), std::bad_variant_access);
  EXPECT_EQ(FileBytes(path_), before);
}

TEST_F(SchemaTest, EmptyPathThrowsRuntimeErrorAndCreatesNoFile) {
  auto const cwdBefore = FolderNames(std::filesystem::current_path());
  CapturedLog log;
  try {
    SettingsDB db("");
    FAIL() << "no exception";
  } catch (uvc::Error const& error) {
    FAIL() << "uvc::Error instead of std::runtime_error: " << error.what();
  } catch (std::runtime_error const& error) {
    EXPECT_STREQ(error.what(), "[SMDB] Empty DB path");
  }
  EXPECT_TRUE(log.Records().empty());
  EXPECT_TRUE(FolderNames(dir_.Path()).empty());
  EXPECT_EQ(FolderNames(std::filesystem::current_path()), cwdBefore);
}

TEST_F(SchemaTest, PathInMissingFolderCannotBeCreated) {
  std::string const missing = dir_.File("missing") + "/settings.db";
  CapturedLog log;
  EXPECT_SMDB_ERROR(SettingsDB db(missing), kMediaError,
                    "[SMDB] Could not create settings database: '" +
                        WrapperCodeText(SQLITE_CANTOPEN) + "'");
  EXPECT_TRUE(log.Records().empty());
  EXPECT_TRUE(FolderNames(dir_.Path()).empty());
}

TEST_F(SchemaTest, OtherTablesBesideOursAreAcceptedAndLeftAlone) {
  {
    SettingsDB db(path_);
  }
  {
    SqliteFile file(path_);
    file.Exec("CREATE TABLE other (x TEXT); INSERT INTO other VALUES ('kept');");
  }
  CapturedLog log;
  EXPECT_NO_THROW(SettingsDB db(path_));
  EXPECT_THAT(log.Records(), ElementsAre(DbRecord("VerifySchema", "[SMDB] VerifySchema..."),
                                         DbRecord("VerifySchema", "[SMDB] VerifySchema...Ok")));
  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT x FROM other"), "kept");
}

// A file with only foreign tables counts as new: our schema is added beside them.
TEST_F(SchemaTest, FileWithOnlyForeignTablesGetsOurSchemaBesideThem) {
  MakeFile("CREATE TABLE other (x TEXT); INSERT INTO other VALUES ('kept');");
  CapturedLog log;
  EXPECT_NO_THROW(SettingsDB db(path_));
  EXPECT_EQ(log.Records().size(), 5u);
  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT x FROM other"), "kept");
  EXPECT_EQ(file.QueryText("SELECT value FROM meta WHERE key = 'ver'"), "1");
}

TEST_F(SchemaTest, GarbageFileIsRefusedWithACodeAndLeftAsItWas) {
  {
    std::ofstream out(path_, std::ios::binary);
    for (int i = 0; i < 4096; ++i) out.put(static_cast<char>((i * 131 + 7) & 0xFF));
  }
  ExpectRefusedUnchanged(kMediaError, "[SMDB] Could not create settings database: '" +
                                          WrapperCodeText(SQLITE_NOTADB) + "'");
}

// A view named meta is not a table, so the file looks new; creating the meta table then
// fails and the data table created just before must not stay behind.
TEST_F(SchemaTest, FailedCreationLeavesNoHalfMadeSchema) {
  MakeFile("CREATE VIEW meta AS SELECT 'ver' AS key, '1' AS value;");
  std::string const before = FileBytes(path_);

  CapturedLog log;
  EXPECT_SMDB_ERROR(SettingsDB db(path_), kMediaError,
                    "[SMDB] Exec.Prepare: '" + WrapperCodeText(SQLITE_ERROR) +
                        "' / ' CREATE TABLE meta (   key     TEXT NOT NULL UNIQUE,   value   TEXT "
                        "NOT NULL );' , 'view meta already exists'");
  EXPECT_THAT(log.Records(), ElementsAre(DbRecord("VerifySchema", "[SMDB] VerifySchema..."),
                                         DbRecord("CreateSchema", "[SMDB] CreateSchema...")));

  EXPECT_EQ(FileBytes(path_), before);
  SqliteFile file(path_);
  EXPECT_EQ(file.QueryText("SELECT name FROM sqlite_master WHERE name = 'data'"), "<none>");
}

// A store file cut short before the pages of meta: the connection already finds it
// malformed while it is configured, so it is refused with a code and left as it was.
TEST_F(SchemaTest, TruncatedFileIsRefusedAndLeftAsItWas) {
  { SettingsDB db(path_); }
  std::int64_t metaRoot = 0;
  std::int64_t pageSize = 0;
  {
    SqliteFile file(path_);
    metaRoot = file.QueryInt("SELECT rootpage FROM sqlite_master WHERE name = 'meta'");
    pageSize = file.QueryInt("PRAGMA page_size");
  }
  ASSERT_GT(metaRoot, 1);
  std::filesystem::resize_file(path_, static_cast<std::uintmax_t>((metaRoot - 1) * pageSize));
  ExpectRefusedUnchanged(kMediaError, "[SMDB] Could not create settings database: '" +
                                          WrapperCodeText(SQLITE_CORRUPT) + "'");
}

}  // namespace
}  // namespace store_test
