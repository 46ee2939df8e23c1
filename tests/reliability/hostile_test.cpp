// Hostile shapes and sizes: input too deep, files that would blow up memory or that SQLite
// would read differently, doubles that only their bits tell apart, a full disk, a lock
// held too long, a reader who may not write. Each is refused with its code and its reason
// (LastResult), or done exactly; a refusal changes neither the tree nor the file.

#include <grp.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "db_wrappers/sqlite/database.h"
#include "reliability_util.h"
#include "settings_manager/last_result.h"
#include "settings_manager/limits.h"
#include "support/fault_vfs.h"
#include "support/settings.h"
#include "support/sqlite_file.h"
#include "support/temp_dir.h"

namespace reliability {
namespace {

namespace fs = std::filesystem;
using settings_manager::kMaxDepth;
using test_support::Code;
using test_support::FaultVfs;
using test_support::SqliteFile;
constexpr int kOutOfRange = Code(0x8000005Eu), kInvalidResult = Code(0x80000071u);
constexpr int kMediaError = Code(0x80000059u);

// `rc` is `code`, and the calling thread's LastResult has that code and says `reason`.
::testing::AssertionResult Refused(int rc, int code, std::string const& reason) {
  auto const last = settings_manager::LastResult();
  if (rc == code && last.first == code && last.second.find(reason) != std::string::npos)
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << fdn::ResultCodeText(rc) << ", last result " << fdn::ResultCodeText(last.first) << " '"
         << last.second << "'";
}

// A value `levels` deep (one-element lists down to a bool), made and unmade without
// recursion, as a client must for a value this deep.
struct Chain {
  explicit Chain(std::size_t levels) : value(true) {
    for (std::size_t i = 0; i < levels; ++i) {
      Setting outer;
      outer.emplace<uvc::index::kList>().push_back(std::move(value));
      value = std::move(outer);
    }
  }
  ~Chain() {
    while (auto* list = std::get_if<uvc::index::kList>(&value))
      value = Setting(std::move(list->back()));
  }
  Setting value;
};

TEST(Hostile, CallsTooDeepOrMetByAFullDiskOrALockAreRefusedWithTheirReason) {
  QuietLog quiet;
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client c;
  ASSERT_EQ(c.Open(db), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("a"), Setting(0.0)), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("m"), Setting(std::string("y"))), 0);
  std::size_t const huge = Scaled(1'000'000, 100'000);
  uvc::Path const deepPath(huge, uvc::Id("d"));
  Chain const deep(huge), oneLevel(1);
  Setting out;
  struct Call {
    int diskError;  // the SQLite code every write then fails with; 0: none
    std::function<int()> run;
    int code;
    std::string reason;
  };
  std::vector<Call> const calls = {
      {0, [&] { return c.getter->GetSetting(deepPath, out); }, kOutOfRange,
       "Path too deep: " + std::to_string(huge) + " levels, the limit is 256"},
      {0, [&] { return c.creator->CreateSetting(P("n"), deep.value); }, kOutOfRange,
       "Setting too deep: a path of 1 levels and more than 255 levels inside"},
      {0, [&] { return c.valueSetter->SetValue(P("a"), deep.value.value()); }, kOutOfRange,
       "Setting too deep"},
      {0, [&] { return c.setter->SetSetting(P("m"), deep.value); }, kOutOfRange,
       "Setting too deep"},
      {0,
       [&] { return c.creator->CreateSetting(uvc::Path(kMaxDepth, uvc::Id("d")), oneLevel.value); },
       kOutOfRange, "Setting too deep: a path of 256 levels and more than 0 levels"},
      {SQLITE_FULL, [&] { return c.creator->CreateSetting(P("n"), Setting(1.0)); }, kInvalidResult,
       "[SMDB] Set: commit: database or disk is full"},
      {SQLITE_FULL, [&] { return c.deleter->DeleteSetting(P("m")); }, kInvalidResult,
       "[SMDB] Del: commit: database or disk is full"},
      {SQLITE_IOERR, [&] { return c.valueSetter->SetValue(P("a"), 2.0); }, kInvalidResult,
       "[SMDB] Set: commit: disk I/O error"},
      {0,
       [&] {  // another process holds the lock
         SqliteFile other(db);
         other.Exec("BEGIN IMMEDIATE");
         return c.valueSetter->SetValue(P("a"), 2.0);
       },
       kInvalidResult,
       "[SMDB] Set: begin transaction: database is locked by another connection for longer "
       "than the busy timeout of 5000 ms"},
  };
  auto const tree = TreeOf(*c.getter, {"a", "m"});
  auto const rows = SqliteFile(db).DataRows();
  for (auto const& call : calls) {
    SCOPED_TRACE(call.reason);
    if (call.diskError != 0) vfs.Arm({FaultVfs::Call::kWrite, 1, true, call.diskError});
    int const rc = call.run();
    vfs.Disarm();
    EXPECT_TRUE(Refused(rc, call.code, call.reason));
    EXPECT_EQ(TreeOf(*c.getter, {"a", "m"}), tree);
    EXPECT_EQ(SqliteFile(db).DataRows(), rows);
  }
  // A delete that finds the disk full once gets the log's room back and succeeds on its
  // second try.
  vfs.Arm({FaultVfs::Call::kWrite, 1, false, SQLITE_FULL});
  EXPECT_EQ(c.deleter->DeleteSetting(P("m")), 0);
  EXPECT_EQ(vfs.Injected(), 1u);
  vfs.Disarm();
  Setting stored;
  std::string error;
  ASSERT_TRUE(LoadFile(db, stored, error)) << error;
  EXPECT_EQ(stored, TreeOf(*c.getter, {"a", "m"}));
}

void InsertNode(SqliteFile& file, std::string const& path, int index = 2, int word = 0) {
  file.InsertRow({path, test_support::ValueRecord(static_cast<std::uint8_t>(index), word, 8),
                  test_support::AttribRecord(false)});
}

// A store with a root row, and `rows` written into it.
std::function<void(std::string const&)> Rows(std::function<void(SqliteFile&)> rows) {
  return [rows](std::string const& path) {
    Client().Open(path);
    SqliteFile file(path);
    file.Exec("BEGIN");
    InsertNode(file, "");
    rows(file);
    file.Exec("COMMIT");
  };
}

TEST(Hostile, FilesThatWouldBeMisreadOrBlowUpAreRefusedAtOpen) {
  QuietLog quiet;
  struct BadFile {
    std::function<void(std::string const&)> make;
    int code;
    char const* reason;
  };
  std::vector<BadFile> const files = {
      {[](std::string const& p) { std::ofstream(p) << std::string(8192, 'x'); }, kMediaError,
       "file is not a database"},
      {[](std::string const& p) {
         Client().Open(p);
         SqliteFile(p).Exec("UPDATE meta SET value = '2'");
       },
       kInvalidResult, "[SMDB] Unexpected schema version: '2'"},
      {[](std::string const& p) {
         SqliteFile(p).Exec(
             "PRAGMA encoding = 'UTF-16le'; CREATE TABLE meta (key TEXT, value TEXT)");
       },
       Code(0x80000042u), "[SMDB] Unsupported text encoding: 'UTF-16le'"},
      {Rows([](SqliteFile& file) {
         std::string path;
         for (std::size_t i = 0; i <= kMaxDepth; ++i) InsertNode(file, path += "d/");
       }),
       kOutOfRange, "[RawSetting] path too deep: 257 levels, the limit is 256"},
      {Rows([](SqliteFile& file) {  // 300 lists of one element each, at index 65535
         for (int i = 0; i < 300; ++i) {
           InsertNode(file, "list" + std::to_string(i) + "/", 1, 1);
           InsertNode(file, "list" + std::to_string(i) + "/65535/", 0);
         }
       }),
       kOutOfRange,
       "[RawSetting] list gap: 65535 elements missing before 'list0/65535/', gaps may not hold "
       "more than the 601 rows read"},
  };
  for (auto const& bad : files) {
    SCOPED_TRACE(bad.reason);
    test_support::TempDir dir;
    auto const db = dir.File("settings.db");
    bad.make(db);
    auto const bytes = ReadBytes(db);
    std::shared_ptr<settings_manager::ISettingsManager> manager;
    EXPECT_TRUE(
        Refused(settings_manager::CreateSettingsManager({db}, manager), bad.code, bad.reason));
    EXPECT_EQ(manager, nullptr);
    EXPECT_EQ(ReadBytes(db), bytes);
  }
}

TEST(Hostile, DoublesCompareByTheirBits) {
  QuietLog quiet;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  Client c;
  ASSERT_EQ(c.Open(db), 0);
  ASSERT_EQ(c.creator->CreateSetting(P("d"), Setting(0.0)), 0);
  double const nan1 = std::nan("1"), nan2 = std::nan("2");
  // Each value is set over the one before it: 0 stored, 1 unchanged.
  for (auto const& [value, code] : std::vector<std::pair<double, int>>{
           {-0.0, 0}, {-0.0, 1}, {0.0, 0}, {nan1, 0}, {nan1, 1}, {nan2, 0}, {-nan2, 0}}) {
    std::uint64_t bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    SCOPED_TRACE(bits);
    EXPECT_EQ(c.valueSetter->SetValue(P("d"), value), code);
    // The row after the root's holds the bits, little-endian (the host's order).
    EXPECT_EQ(SqliteFile(db).DataRows().at(1).value, test_support::ValueRecord(8, bits, 8));
    EXPECT_EQ(c.setter->SetSetting(P("d"), Setting(value)), 1);
    EXPECT_RC(c.creator->CreateSetting(P("d"), Setting(value == 0 ? -value : 1.0)), 0x8000004Du);
  }
  ASSERT_EQ(c.Open(db), 0);
  Setting reloaded;
  ASSERT_EQ(c.getter->GetSetting(P("d"), reloaded), 0);
  EXPECT_EQ(reloaded, Setting(-nan2));
}

// A tree as deep as the limit: loaded, copied, changed and deleted.
TEST(Hostile, ATreeAsDeepAsTheLimitLoadsAndChanges) {
  QuietLog quiet;
  FaultVfs vfs;
  test_support::TempDir dir;
  auto const db = dir.File("settings.db");
  constexpr std::size_t depth = kMaxDepth - 1;
  Rows([](SqliteFile& file) {
    std::string path;
    for (std::size_t i = 0; i < depth; ++i) InsertNode(file, path += "d/");
  })(db);
  Client client;
  ASSERT_EQ(client.Open(db), 0);
  Setting top;
  ASSERT_EQ(client.getter->GetSetting(P("d"), top), 0);
  EXPECT_EQ(test_support::CountNodes(top), depth);
  uvc::Path deep(depth + 1, uvc::Id("d"));
  ASSERT_EQ(client.creator->CreateSetting(deep, Setting(true)), 0);
  deep.pop_back();
  ASSERT_RC(client.creator->CreateSetting(deep, Setting(true)), 0x8000004Du);
  ASSERT_EQ(client.deleter->DeleteSetting(P("d")), 0);
  client.Close();
  Setting found;
  ASSERT_TRUE(Restart(db, found));
  EXPECT_EQ(test_support::CountNodes(found), 1u);
}

std::uintmax_t Size(std::string const& path) {
  std::error_code error;
  auto const size = fs::file_size(path, error);
  return error ? 0 : size;
}

void FillUp(std::string const& path) {
  std::ofstream ballast(path, std::ios::binary);
  std::string const block(512, 'b');
  while (ballast.write(block.data(), block.size()) && ballast.flush()) {
  }
}

// A long-lived manager on a small disk: the log stays bounded, so that hundreds of
// settings fit; once the disk is full to the last byte, what is stored can still be read,
// by the manager and by other programs, and deleting settings makes room again.
TEST(Hostile, OnA256KiBDiskTheLogStaysBoundedAndDeletingMakesRoom) {
  test_support::TempDir dir;
  auto const disk = dir.File("small");
  fs::create_directory(disk);
  if (::mount("tmpfs", disk.c_str(), "tmpfs", 0, "size=256k") != 0)
    GTEST_SKIP() << "mounting a small tmpfs needs root: " << std::strerror(errno);
  struct Unmount {
    std::string path;
    ~Unmount() { ::umount2(path.c_str(), MNT_DETACH); }
  } const unmount{disk};
  QuietLog quiet;
  auto const db = disk + "/settings.db";
  auto const key = [](std::size_t i) { return P("k" + std::to_string(i)); };
  Client keeper;
  ASSERT_EQ(keeper.Open(db), 0);
  std::size_t created = 0;
  std::uintmax_t log = 0, file = 0;
  int rc = 0;
  while ((rc = keeper.creator->CreateSetting(key(created), Setting(std::string(200, 'v')))) == 0) {
    ++created;
    log = std::max(log, Size(db + "-wal"));
    file = std::max(file, Size(db));
  }
  EXPECT_TRUE(Refused(rc, kInvalidResult, "[SMDB] Set: commit: database or disk is full"));
  EXPECT_GT(created, 300u);
  // The limit and one transaction: a top-level create rewrites every row.
  EXPECT_LE(log, db_wrappers::sqlite::kLogLimitBytes + file * 2);
  Report("hostile", "a manager on a 256 KiB disk created " + std::to_string(created) +
                        " settings of 200 bytes; largest log " + std::to_string(log) + " bytes");
  FillUp(disk + "/ballast");
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
  FillUp(disk + "/ballast2");
  Client late;
  ASSERT_EQ(late.Open(db), 0);
  EXPECT_EQ(late.getter->GetSetting(key(20), out), 0);
  EXPECT_EQ(out, Setting(std::string(2000, 'w')));
  EXPECT_TRUE(Refused(late.deleter->DeleteSetting(key(21)), kMediaError,
                      "attempt to write a readonly database: the file is open read-only"));
}

// Runs `body` in a process of its own as the user and group `id`: 0 when `body` returns
// `code` with LastResult saying `reason`.
int RunAs(uid_t id, std::function<int()> const& body, int code = 0, char const* reason = "") {
  pid_t const child = ::fork();
  if (child == 0) {
    if (::setgroups(0, nullptr) != 0 || ::setgid(id) != 0 || ::setuid(id) != 0) ::_exit(100);
    int const rc = body();
    ::_exit(code == 0 ? rc != 0 : !Refused(rc, code, reason));
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 101;
}

// Whether a file of `folder` belongs to `id`.
bool Owns(std::string const& folder, uid_t id) {
  for (auto const& entry : fs::directory_iterator(folder)) {
    struct stat status {};
    if (::stat(entry.path().c_str(), &status) == 0 && status.st_uid == id) return true;
  }
  return false;
}

// A user who may only read the file reads it and leaves nothing that keeps its owner from
// writing: while the owner's program runs, and after it ended. Writes through the
// reader's manager, a file it may not read, and a folder nobody may write fail with their
// reason.
TEST(Hostile, AReaderWhoMayNotWriteLeavesNothingThatBlocksTheOwner) {
  if (::geteuid() != 0) GTEST_SKIP() << "running as other users needs root";
  constexpr uid_t kOwner = 1000, kReader = 65534;
  QuietLog quiet;
  test_support::TempDir dir;
  auto const folder = dir.Path().string();
  ::chmod(folder.c_str(), 01777);
  auto const db = dir.File("settings.db");
  int ready[2], resume[2];
  ASSERT_EQ(::pipe(ready) | ::pipe(resume), 0);
  char byte = 0;
  // Opens, checks that `a` holds `expected` (none: creates it), waits for the test when
  // asked, and sets `a` to `value`: the code.
  auto const session = [&](std::int32_t expected, std::int32_t value, bool wait = false) {
    return [&, expected, value, wait] {
      Client client;
      Setting out;
      if (int const rc = client.Open(db); rc != 0) return rc;
      if (expected == 0) return client.creator->CreateSetting(P("a"), Setting(value));
      if (client.getter->GetSetting(P("a"), out) != 0 || out != Setting(expected)) return 1;
      if (wait && (::write(ready[1], &byte, 1) != 1 || ::read(resume[0], &byte, 1) != 1)) return 1;
      return client.setter->SetSetting(P("a"), Setting(value));
    };
  };
  char const* const readOnly =
      "attempt to write a readonly database: the file is open read-only, as this process may "
      "not write it or its folder";
  ASSERT_EQ(RunAs(kOwner, session(0, 1)), 0);
  // The owner's program runs, its log and index are there; the reader reads through them.
  pid_t const owner = ::fork();
  if (owner == 0) ::_exit(RunAs(kOwner, session(1, 2, true)));
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  EXPECT_EQ(RunAs(kReader, session(1, 3), kMediaError, readOnly), 0);
  EXPECT_FALSE(Owns(folder, kReader));
  ASSERT_EQ(::write(resume[1], &byte, 1), 1);
  int status = 0;
  ::waitpid(owner, &status, 0);
  EXPECT_EQ(status, 0);
  // The owner's program has ended; the reader reads the file as it is.
  ASSERT_FALSE(fs::exists(db + "-wal"));
  EXPECT_EQ(RunAs(kReader, session(2, 3), kMediaError, readOnly), 0);
  EXPECT_FALSE(Owns(folder, kReader));
  EXPECT_EQ(RunAs(kOwner, session(2, 4)), 0);
  ::chmod(db.c_str(), 0600);
  EXPECT_EQ(
      RunAs(kReader, session(4, 5), kMediaError, "unable to open database file: Permission denied"),
      0);
  ::chmod(folder.c_str(), 0555);
  EXPECT_EQ(RunAs(kOwner, session(4, 5), kMediaError, readOnly), 0);
  ::chmod(folder.c_str(), 0700);
}

}  // namespace
}  // namespace reliability
