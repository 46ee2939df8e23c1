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
  return ::testing::AssertionFailure()
         << fdn::ResultCodeText(rc) << ", last result " << fdn::ResultCodeText(last.first) << " '"
         << last.second << "'";
}

TEST(Hostile, CallsTooDeepOrMetByAFullDiskAreRefusedWithTheirReason) {
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client c;
  ASSERT_EQ(c.Open(db), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("a"), Setting(0.0)), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("m"), Setting(std::string("y"))), 0);
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
  Setting stored;
  ASSERT_TRUE(Restart(db, stored));
  EXPECT_EQ(stored, TreeOf(c));
}

SqliteFile::Row Node(std::string path, std::uint8_t index, int word = 0) {
  return {path, test_support::ValueRecord(index, word, 8), test_support::AttribRecord(false)};
}

// A store with a root row and the rows `row` gives for 1, 2, ... `rows`.
std::function<void(std::string const&)> Rows(std::size_t rows,
                                             std::function<SqliteFile::Row(std::size_t)> row) {
  return [=](std::string const& db) {
    Client().Open(db);
    SqliteFile file(db);
    file.Exec("BEGIN");
    for (std::size_t i = 0; i <= rows; ++i) file.InsertRow(i == 0 ? Node("", 2) : row(i));
    file.Exec("COMMIT");
  };
}

TEST(Hostile, FilesThatWouldBeMisreadOrBlowUpAreRefusedAtOpen) {
  std::tuple<std::function<void(std::string const&)>, int, char const*> const files[] = {
      {[](std::string const& p) {
         SqliteFile(p).Exec(
             "PRAGMA encoding = 'UTF-16le'; CREATE TABLE meta (key TEXT, value TEXT)");
       },
       Code(0x80000042u), "[SMDB] Unsupported text encoding: 'UTF-16le'"},
      {Rows(kMaxDepth + 1,
            [path = std::string()](std::size_t) mutable { return Node(path += "d/", 2); }),
       kOutOfRange, "[RawSetting] path too deep: 257 levels, the limit is 256"},
      // 300 lists of one element each, at index 65535.
      {Rows(600,
            [](std::size_t i) {
              auto const list = "list" + std::to_string((i - 1) / 2) + "/";
              return i % 2 == 1 ? Node(list, 1, 1) : Node(list + "65535/", 0);
            }),
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
// settings fit; once the disk is full to the last byte, what is stored can still be read,
// by the manager and by other programs, and deleting settings makes room again.
TEST(Hostile, OnA256KiBDiskTheLogStaysBoundedAndDeletingMakesRoom) {
  test_support::TempDir dir;
  auto const disk = dir.File("small");
  std::filesystem::create_directory(disk);
  if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs needs root: " << std::strerror(errno);
  std::shared_ptr<void> const unmount(nullptr, [&](void*) { ::umount2(disk.c_str(), MNT_DETACH); });
  auto const db = disk + "/settings.db";
  auto const key = [](std::size_t i) { return P("k" + std::to_string(i)); };
  auto const fillUp = [&](char const* name) {
    std::ofstream ballast(disk + name, std::ios::binary);
    while (ballast.write(std::string(512, 'b').data(), 512) && ballast.flush()) {
    }
  };
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
  fillUp("/ballast");
  Setting out;
  EXPECT_EQ(keeper.getter->GetSetting(key(1), out), 0);
  {
    Client tool;  // another program, as settingsctl
    ASSERT_EQ(tool.Open(db), 0);
    EXPECT_EQ(tool.getter->GetSetting(key(1), out), 0);
    EXPECT_EQ(tool.deleter->DeleteSetting(key(0)), 0);
  }
  for (std::size_t i = 1; i < 20; ++i) EXPECT_EQ(keeper.deleter->DeleteSetting(key(i)), 0) << i;
  // The pages the deletes freed take a value larger than before.
  EXPECT_EQ(keeper.valueSetter->SetValue(key(20), std::string(2000, 'w')), 0);
  // No program left, and no room for a log and its index: a new manager still reads.
  keeper.Close();
  fillUp("/ballast2");
  Client late;
  ASSERT_EQ(late.Open(db), 0);
  EXPECT_EQ(late.getter->GetSetting(key(20), out), 0);
  EXPECT_EQ(out, Setting(std::string(2000, 'w')));
  EXPECT_TRUE(Refused(late.deleter->DeleteSetting(key(21)), Code(0x80000059u),
                      "attempt to write a readonly database: the file is open read-only"));
}

// Nothing a file can hold crashes the library. Seeded damage to a real settings file
// (flipped bytes, a torn end, a zeroed page, a row changed behind the library's back): a
// new manager either refuses the file with a failure code, or loads a tree and then
// answers every call with a code. (The exact codes of each kind of damaged row are the
// store's tests' business.)
TEST(BadInput, DamagedFilesAreRefusedWithACodeOrServedWithoutACrash) {
  auto const seed = TestSeed("BadInput");
  std::mt19937_64 random(seed);
  Values values{random};
  test_support::FaultVfs vfs;  // no waiting for the disk: durability is not the point here
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  for (auto const& key : TopKeys())
    ASSERT_EQ(client.creator->CreateSetting({uvc::Id(key)}, values.Tree(60)), 0);
  client.Close();
  std::string const good = ReadBytes(db);
  std::vector<std::string> paths;
  for (auto const& row : test_support::SqliteFile(db).DataRows()) paths.push_back(row.path);
  std::size_t const trials = Scaled(320, 80), page = 4096 * (random() % (good.size() / 4096));
  std::size_t refused = 0;
  for (std::size_t trial = 0; trial < trials; ++trial) {
    std::string bytes = good;
    auto const& path = paths[random() % paths.size()];
    if (trial % 4 == 0)
      for (auto flips = 1 + random() % 8; flips > 0; --flips)
        bytes[random() % bytes.size()] ^= static_cast<char>(1 + random() % 255);
    if (trial % 4 == 1) bytes.resize(random() % bytes.size());
    if (trial % 4 == 2) bytes.replace(page, 4096, 4096, '\0');
    for (char const* suffix : {"-wal", "-shm", "-journal"}) std::filesystem::remove(db + suffix);
    std::ofstream(db, std::ios::binary | std::ios::trunc) << bytes;
    if (trial % 4 == 3)  // the file stays a sound database; a row's value or path is torn
      test_support::SqliteFile(db).Exec(
          "UPDATE data SET " + std::string(random() % 2 ? "value" : "path") +
          " = substr(value, 1, " + std::to_string(random() % 24) + ") WHERE path = '" + path + "'");
    SCOPED_TRACE("trial " + std::to_string(trial));
    if (int const rc = client.Open(db); rc != 0) {
      ASSERT_LT(rc, 0);
      ++refused;
      continue;
    }
    auto const [p, state] = uvc::FromString(path, settings_manager::meta::GetIdSpecification());
    Setting out;
    client.getter->GetSetting(p, out);
    client.valueSetter->SetValue(p, values.Scalar().value());
    client.setter->SetSetting(p, values.Tree(5));
    client.creator->CreateSetting(p, values.Tree(5));
    client.setter->SetAttribute(p, Attributes{values.Chance(50)});
    client.deleter->DeleteSetting(p);
  }
  Report("bad-input", trials, " damaged files: ", refused, " refused with a code, the rest served");
}

}  // namespace
}  // namespace reliability
