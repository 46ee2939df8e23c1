// Hostile and damaged input: refused with its code and reason, or served without a crash.

#include <sqlite3.h>
#include <sys/mount.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "db_wrappers/sqlite/database.h"
#include "reliability.h"
#include "settings_manager/last_result.h"
#include "settings_manager/limits.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

// Hostile shapes and sizes: input too deep, files that would blow up memory or that SQLite
// would read differently, a full disk. Each is refused with its code and its reason
// (LastResult), or done exactly; a refusal changes neither the tree nor the file.
using settings_manager::kMaxDepth;
using test_support::Code;
using test_support::FaultVfs;
using test_support::SqliteFile;
constexpr int kOutOfRange = Code(0x8000005Eu), kInvalidResult = Code(0x80000071u);

// `rc` is `code`, and the calling thread's LastResult has that code and says `reason`.
::testing::AssertionResult Refused(int rc, int code, std::string const& reason) {
  auto const last = settings_manager::LastResult();
  if (rc == code && last.first == code && last.second.find(reason) != std::string::npos)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << fdn::ResultCodeText(rc) << ", last result "
                                       << fdn::ResultCodeText(last.first) << ": " << last.second;
}

TEST(Hostile, CallsTooDeepOrMetByAFullDiskAreRefusedWithTheirReason) {
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client c;
  ASSERT_EQ(c.Open(db), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("a"), Setting(0.0)), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("m"), Setting(std::string("y"))), 0);
  SqliteFile file(db);  // a commit first reserves the room its pages take in the file
  EXPECT_GE(std::filesystem::file_size(db),
            file.QueryInt("PRAGMA page_count") * file.QueryInt("PRAGMA page_size"));
  std::size_t const huge = Scaled(1'000'000, 100'000);
  uvc::Path const deepPath(huge, uvc::Id("d"));
  // One-element lists `huge` deep, made and unmade without recursion, as a client must.
  Setting deep(true), out;
  for (std::size_t i = 0; i < huge; ++i) {
    Setting outer;
    outer.emplace<uvc::index::kList>().push_back(std::move(deep));
    deep = std::move(outer);
  }
  std::shared_ptr<void> const unmake(nullptr, [&](void*) {
    while (auto* list = std::get_if<uvc::index::kList>(&deep))
      deep = Setting(std::move(list->back()));
  });
  std::tuple<int, std::function<int()>, int, std::string> const calls[] = {
      {0, [&] { return c.getter->GetSetting(deepPath, out); }, kOutOfRange,
       "Path too deep: " + std::to_string(huge) + " levels, the limit is 256"},
      {0, [&] { return c.creator->CreateSetting(P("n"), deep); }, kOutOfRange,
       "Setting too deep: a path of 1 levels and more than 255 levels inside"},
      {0, [&] { return c.creator->CreateSetting(uvc::Path(kMaxDepth, uvc::Id("d")), deep); },
       kOutOfRange, "Setting too deep: a path of 256 levels and more than 0 levels"},
      {SQLITE_FULL, [&] { return c.creator->CreateSetting(P("n"), Setting(1.0)); }, kInvalidResult,
       "[SMDB] Set: commit: database or disk is full"},
      {SQLITE_FULL, [&] { return c.deleter->DeleteSetting(P("m")); }, kInvalidResult,
       "[SMDB] Del: commit: database or disk is full"},
  };
  auto const tree = TreeOf(c);
  auto const rows = SqliteFile(db).DataRows();
  for (auto const& [diskError, run, code, reason] : calls) {
    SCOPED_TRACE(reason);
    if (diskError != 0) vfs.Arm(FaultVfs::Fault{FaultVfs::kWrite, 1, true, diskError});
    int const rc = run();
    vfs.Arm(std::nullopt);
    EXPECT_TRUE(Refused(rc, code, reason));
    EXPECT_EQ(TreeOf(c), tree);
    EXPECT_EQ(SqliteFile(db).DataRows(), rows);
  }
  // A delete that finds the disk full once gets the log's room back and succeeds on its
  // second try.
  vfs.Arm(FaultVfs::Fault{FaultVfs::kWrite, 1, false, SQLITE_FULL});
  EXPECT_EQ(c.deleter->DeleteSetting(P("m")), 0);
  EXPECT_EQ(vfs.Injected(), 1u);
  EXPECT_EQ(Restarted(db), TreeOf(c));
}

TEST(Hostile, FilesThatWouldBeMisreadOrBlowUpAreRefusedAtOpen) {
  // A store whose rows `sql` writes: a map, a list of one element, None; attributes.
  auto const rows = [](std::string const& sql) {
    return [sql](std::string const& path) {
      Client().Open(path);
      SqliteFile(path).Exec(
          "WITH RECURSIVE m(v) AS (SELECT X'02" + std::string(30, '0') + "'), l(v) AS " +
          "(SELECT X'01000000000000000100000000000000'), z(v) AS (SELECT " +
          "zeroblob(16)), a(v) AS (SELECT X'00000100" + std::string(24, '0') + "'), " + sql);
    };
  };
  std::tuple<std::function<void(std::string const&)>, int, char const*> const files[] = {
      {[](std::string const& p) {
         SqliteFile(p).Exec(
             "PRAGMA encoding = 'UTF-16le'; CREATE TABLE meta (key TEXT, value TEXT)");
       },
       Code(0x80000042u), "[SMDB] Unsupported text encoding: 'UTF-16le'"},
      {rows("d(p) AS (SELECT '' UNION ALL SELECT p || 'd/' FROM d WHERE length(p) < 514) "
            "INSERT OR REPLACE INTO data SELECT p, m.v, a.v FROM d, m, a"),
       kOutOfRange, "[RawSetting] path too deep: 257 levels, the limit is 256"},
      // 300 lists of one element each, at index 65535.
      {rows("n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 299) INSERT OR REPLACE "
            "INTO data SELECT '', m.v, a.v FROM m, a UNION ALL SELECT 'list' || i || '/', l.v, "
            "a.v FROM n, l, a UNION ALL SELECT 'list' || i || '/65535/', z.v, a.v FROM n, z, a"),
       kOutOfRange,
       "[RawSetting] list gap: 65535 elements missing before 'list0/65535/', gaps may not hold "
       "more than the 601 rows read"},
  };
  for (auto const& [make, code, reason] : files) {
    SCOPED_TRACE(reason);
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    make(db);
    auto const bytes = ReadBytes(db);
    std::shared_ptr<settings_manager::ISettingsManager> manager;
    EXPECT_TRUE(Refused(settings_manager::CreateSettingsManager({db}, manager), code, reason));
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(ReadBytes(db), bytes);
  }
}

// A long-lived manager on a small disk: the log stays bounded, so that hundreds of
// settings fit, until the disk is full and a change is refused with its reason; once it is
// full to the last byte, a new manager still reads what is stored.
TEST(Hostile, OnA256KiBDiskTheLogStaysBoundedAndAFullDiskIsStillRead) {
  test_support::TempDir dir;
  auto const disk = dir.File("small");
  std::filesystem::create_directory(disk);
  if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs needs root: " << std::strerror(errno);
  std::shared_ptr<void> const unmount(nullptr, [&](void*) { ::umount2(disk.c_str(), MNT_DETACH); });
  auto const db = disk + "/settings.db";
  auto const key = [](std::size_t i) { return P("k" + std::to_string(i)); };
  Client keeper;
  ASSERT_EQ(keeper.Open(db), 0);
  std::size_t created = 0;
  std::uintmax_t log = 0, file = 0;
  int rc = 0;
  while ((rc = keeper.creator->CreateSetting(key(created), Setting(std::string(200, 'v')))) == 0) {
    ++created;
    log = std::max(log, std::filesystem::file_size(db + "-wal"));
    file = std::max(file, std::filesystem::file_size(db));
  }
  EXPECT_TRUE(Refused(rc, kInvalidResult, "[SMDB] Set: commit: database or disk is full"));
  EXPECT_GT(created, 300u);
  // The limit and one transaction: a top-level create rewrites every row.
  EXPECT_LE(log, db_wrappers::sqlite::kLogLimitBytes + file * 2);
  // No program left, and no room for a log and its index: a new manager still reads.
  keeper.Close();
  std::ofstream ballast(disk + "/ballast", std::ios::binary);
  while (ballast.write(std::string(512, 'b').data(), 512) && ballast.flush()) {
  }
  Client late;
  ASSERT_EQ(late.Open(db), 0);
  Setting out;
  EXPECT_EQ(late.getter->GetSetting(key(20), out), 0);
  EXPECT_EQ(out, Setting(std::string(200, 'v')));
  EXPECT_TRUE(Refused(late.deleter->DeleteSetting(key(21)), Code(0x80000059u),
                      "attempt to write a readonly database: the file is open read-only"));
}

}  // namespace
}  // namespace reliability
